#include "support/temporary_directory.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <stdlib.h>

namespace test {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (fs::temp_directory_path() / "tavlo-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot create " + pattern);
  }
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TemporaryDirectory::Write(const std::string& name, const std::string& content) const {
  const fs::path path = fs::path(path_) / name;
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
  return path.string();
}

std::string TemporaryDirectory::WriteScript(const std::string& name,
                                            const std::string& content) const {
  std::string path = Write(name, content);
  fs::permissions(path, fs::perms::owner_exec, fs::perm_options::add);
  return path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream input(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
  const char* const emulatorLine = "qemu: uncaught target signal ";
  for (size_t at = text.find(emulatorLine); at != std::string::npos; at = text.find(emulatorLine)) {
    text.erase(at, std::min(text.find('\n', at), text.size() - 1) - at + 1);
  }
  return text;
}

}  // namespace test
