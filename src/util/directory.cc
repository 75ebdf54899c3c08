#include "util/directory.h"

#include <cstdlib>
#include <cstring>

#include <dirent.h>

namespace stdext {

namespace {

int IsRealEntry(const dirent* entry) {
  return std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 ? 1 : 0;
}

// What scandir has allocated.
struct Entries {
  ~Entries() {
    for (int i = 0; i < count; ++i) {
      std::free(list[i]);
    }
    std::free(list);
  }

  dirent** list = nullptr;
  int count = 0;
};

}  // namespace

bool list_directory(const std::string& directory, std::list<std::string>* names) {
  names->clear();
  Entries entries;
  entries.count = ::scandir(directory.c_str(), &entries.list, IsRealEntry, ::alphasort);
  if (entries.count < 0) {
    return false;
  }
  for (int i = 0; i < entries.count; ++i) {
    names->emplace_back(entries.list[i]->d_name);
  }
  return true;
}

}  // namespace stdext
