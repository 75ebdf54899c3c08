#pragma once

#include <algorithm>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "util/descriptor.h"

namespace test {

/// Puts a full pipe that nobody reads in the place of standard error, for as long as the object
/// lives.
class StuckConsole {
 public:
  StuckConsole() : kept_(::dup(STDERR_FILENO)) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader_ = ends[0];
    const stdext::descriptor writer(ends[1]);
    const std::string page(4096, '.');
    ::fcntl(writer.get(), F_SETFL, O_NONBLOCK);
    while (::write(writer.get(), page.data(), page.size()) > 0) {
    }
    ::fcntl(writer.get(), F_SETFL, 0);  // whoever writes now waits
    EXPECT_EQ(::dup2(writer.get(), STDERR_FILENO), STDERR_FILENO);
  }
  ~StuckConsole() {
    ::dup2(kept_.get(), STDERR_FILENO);
    CloseReader();
  }
  StuckConsole(const StuckConsole&) = delete;
  StuckConsole& operator=(const StuckConsole&) = delete;

  /// Reads all that is there, which makes room; returns it without what filled the pipe.
  std::string Read() {
    std::string text;
    ::fcntl(reader_, F_SETFL, O_NONBLOCK);
    char some[4096];
    for (ssize_t count = 1; count > 0;) {
      count = ::read(reader_, some, sizeof some);
      text.append(some, count > 0 ? static_cast<size_t>(count) : 0);
    }
    return text.substr(std::min(text.find_first_not_of('.'), text.size()));
  }

  void CloseReader() {
    if (reader_ >= 0) {
      ::close(reader_);
    }
    reader_ = -1;
  }

 private:
  const stdext::descriptor kept_;
  int reader_ = -1;
};

}  // namespace test
