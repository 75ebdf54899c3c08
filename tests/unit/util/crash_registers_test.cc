// Crashes a child with known values in its registers and looks for them in the record.

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <sys/mman.h>

#include "support/crash_test.h"

#if defined(__aarch64__) || defined(__arm__) || defined(__x86_64__)

extern "C" {
// Writes to `address`, with `stack` as its stack and, where the processor has one, `link` in its
// link register. The instruction that does it is at `write_to_pc`.
void write_to(uintptr_t address, uintptr_t stack, uintptr_t link);
extern const char write_to_pc __attribute__((visibility("hidden")));
}

// Nobody has called it, as far as the unwinder can see: the return address is undefined, or one
// where there is nothing.
__asm__(
    ".pushsection .text\n"
    ".globl write_to, write_to_pc\n"
    ".hidden write_to_pc\n"
    ".type write_to, %function\n"
#if defined(__arm__)
    ".arm\n"
    "write_to:\n"
    ".fnstart\n"
    "mov sp, r1\n"
    "mov lr, r2\n"
    "write_to_pc: strb r2, [r0]\n"
    "udf #0\n"
    ".fnend\n"
#else
    "write_to:\n"
    ".cfi_startproc\n"
#if defined(__aarch64__)
    ".cfi_undefined x30\n"
    "mov sp, x1\n"
    "mov x30, x2\n"
    "write_to_pc: strb wzr, [x0]\n"
    "brk #0\n"
#else
    ".cfi_undefined rip\n"
    "mov %rsi, %rsp\n"
    "write_to_pc: movb $0, (%rdi)\n"
    "ud2\n"
#endif
    ".cfi_endproc\n"
#endif
    ".size write_to, . - write_to\n"
    ".popsection\n");

namespace {

using testing::HasSubstr;

constexpr uintptr_t kNowhere = 0x1231;
constexpr uintptr_t kLink = sizeof(uintptr_t) == 4 ? 0x12345678 : 0x123456789abc;
constexpr size_t kStackSize = 1U << 20U;

#if defined(__aarch64__)
constexpr const char* kShownLink = "0x123456789abc";
#elif defined(__arm__)
constexpr const char* kShownLink = "0x12345678";
#else
constexpr const char* kShownLink = "(nil)";
#endif

std::string Shown(uintptr_t value) {
  char text[32] = {};
  std::snprintf(text, sizeof text, "%#zx", static_cast<size_t>(value));
  return text;
}

// A stack of its own for the child: its end, less what a call would have used.
uintptr_t MakeStack() {
  void* const memory =
      ::mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? 0 : reinterpret_cast<uintptr_t>(memory) + kStackSize - 4096;
}

class CrashRegisters : public test::CrashTest {
 protected:
  void SetUp() override {
    ASSERT_NE(stack_, 0U);
    ExpectEndedBy(Crash([this] { write_to(kNowhere, stack_, kLink); }), SIGSEGV);
  }

  const uintptr_t stack_ = MakeStack();
  const std::string pc_ = Shown(reinterpret_cast<uintptr_t>(&write_to_pc));
};

TEST_F(CrashRegisters, AreRecordedAsTheFaultLeftThem) {
  EXPECT_THAT(Record(), HasSubstr("\nFault address: " + test::FaultAddress(kNowhere) + " PC: " +
                                  pc_ + " SP: " + Shown(stack_) + " LR: " + kShownLink + "\n"));
}

TEST_F(CrashRegisters, GiveTheSameFaultAddressAsTheSignal) {
  EXPECT_THAT(Record(), HasSubstr("\nFault Address: " + Shown(kNowhere) + "\n"));
}

TEST_F(CrashRegisters, GiveTheProgramCounterThatTheCallStackShows) {
  const ptrdiff_t offset = &write_to_pc - reinterpret_cast<const char*>(&write_to);
  EXPECT_THAT(Record(), HasSubstr("\n" + pc_ + " write_to + " +
                                  Shown(static_cast<uintptr_t>(offset)) + "\n---"));
}

}  // namespace

#endif
