#include "util/directory.h"

#include <cstdlib>
#include <cstring>

#include <dirent.h>

namespace stdext {

namespace {

int IsRealEntry(const dirent* entry) {
  return std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0 ? 1 : 0;
}

}  // namespace

bool list_directory(const std::string& directory, std::list<std::string>* names) {
  names->clear();
  dirent** entries = nullptr;
  const int count = ::scandir(directory.c_str(), &entries, IsRealEntry, ::alphasort);
  if (count < 0) {
    return false;
  }
  for (int i = 0; i < count; ++i) {
    names->emplace_back(entries[i]->d_name);
    std::free(entries[i]);
  }
  std::free(entries);
  return true;
}

}  // namespace stdext
