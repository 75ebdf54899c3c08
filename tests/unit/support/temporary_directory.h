#pragma once

#include <string>

namespace test {

/// A fresh directory, removed with all it holds at the end of the object's life.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  /// Without a trailing slash.
  const std::string& Path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  /// Creates the file with this content (and its directories) and returns its path.
  std::string Write(const std::string& name, const std::string& content) const;
  /// The same with the execute permission set.
  std::string WriteScript(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

/// The whole content of a file; empty when it cannot be read. What qemu adds to the console of a
/// program that a signal ends is left out.
std::string ReadFile(const std::string& path);

}  // namespace test
