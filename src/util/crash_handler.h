#pragma once

#include <string>

/// Reports a fatal signal (SIGSEGV, SIGABRT, SIGILL, SIGFPE, SIGBUS, SIGSYS) before the process
/// ends by it: a record with the registers and the call stack, appended to <directory>/<process
/// name>-backtrace.log, a line in the log and one on standard error.
///
/// The record is written in steps, and stays as far as it has come. The names of its functions are
/// made readable by a copy of the process, which has two seconds: with a damaged heap they stay as
/// the linker knows them.
///
/// A report that hangs is ended by an alarm after 10 seconds, with exit status 1. Faults in two
/// threads at once are not coordinated: the second one ends the process. There is no alternate
/// stack: a stack overflow leaves no report.
namespace Mirel {

/// Installs the handler; a second call does nothing. `processName` may have a directory part, which
/// is cut. The record goes to /tmp until a directory is set. To be called first in the program.
void RegisterCrashHandler(const std::string& processName);

/// Sets where the record goes. The directory is neither tested nor created. To be called while
/// there is one thread.
void SetBacktraceDirectory(const std::string& directory);

}  // namespace Mirel
