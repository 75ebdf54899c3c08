#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temporary_directory.h"

namespace test {

/// For tests that crash a child and read what it left behind.
class CrashTest : public testing::Test {
 protected:
  /// Runs `body` in a child with the handler installed and without core files; returns how the
  /// child ended, as `waitpid` gives it.
  int Crash(const std::function<void()>& body) const;

  std::string RecordPath() const { return directory_ / "program-backtrace.log"; }
  std::string Record() const { return ReadFile(RecordPath()); }
  std::string Console() const { return ReadFile(directory_ / "console"); }

  static void ExpectEndedBy(int status, int number);
  /// The log line and the console line; their texts are strsignal's.
  void ExpectReported(int number, const std::string& text) const;
  void ExpectNotReported() const;

  LogCapture log_;
  TemporaryDirectory directory_;
};

/// As ::raise, out of which the unwinder finds no way on 32-bit ARM: glibc has no tables for it
/// there.
void Raise(int number);

/// How a record's line of registers shows the address of a fault. qemu's user mode leaves it out of
/// 32-bit ARM's machine context.
std::string FaultAddress(uintptr_t address);

size_t CountOf(const std::string& text, const std::string& part);

/// What ends a record, with the line feeds around it.
constexpr const char* kRecordEnd = "\n--------------------------------------------------\n\n";

}  // namespace test
