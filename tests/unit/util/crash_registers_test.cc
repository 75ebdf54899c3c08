// Crashes a child with known values in its registers and looks for them in the record.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "support/child.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "util/crash_handler.h"

// fault_with_registers(address, sp, lr) writes to `address` with that stack pointer and that return
// address; the instruction that does so is at fault_with_registers_pc.
extern "C" {
[[noreturn]] void fault_with_registers(void* address, void* sp, void* lr);
extern const char fault_with_registers_pc;
}

__asm__(
    ".pushsection .text\n"
    ".globl fault_with_registers, fault_with_registers_pc\n"
    ".type fault_with_registers, %function\n"
    "fault_with_registers:\n"
    ".cfi_startproc\n"
    ".cfi_undefined rip_or_lr\n"
    ".cfi_endproc\n"
    ".popsection\n");
