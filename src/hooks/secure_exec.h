#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace Orx {

/// Runs another program to its end and returns its exit status (0 to 255), or -1, after at least
/// one logged error, when it did not end by itself or could not be dealt with. A program that
/// cannot be executed counts as one that exited with status 1, after a logged error.
///
/// `path` is looked up in PATH when it has no slash; `args` are the arguments behind it. `input` is
/// the child's whole standard input. `output`, which may be null, receives the first `maxOutput`
/// bytes of its standard output, also when the result is -1; reaching that limit is a failure, and
/// with a limit of 0 or less nothing is kept. Standard error is logged line by line. After
/// `timeoutSecs` the child is sent SIGTERM, and nothing more: one that ignores it is waited for.
/// The environment is the daemon's own without LD_PRELOAD and LD_LIBRARY_PATH, which are given the
/// values of MIREL_ORIGINAL_LD_PRELOAD and MIREL_ORIGINAL_LD_LIBRARY_PATH where these are set.
///
/// Blocks the calling thread until the child has exited and its output pipes are closed. Any thread
/// may call it; calls are independent. Throws only when the system refuses a thread or memory.
int SecureExec(const char* path, const std::vector<const char*>& args, const std::string& input,
               std::string* output, ssize_t maxOutput, unsigned int timeoutSecs);

/// Logs the complete lines in `buffer` as the child's standard error and removes them; at the end
/// of the stream (`eof`) also a partial line, if there is nothing else. When more than 1024 bytes
/// have come without a line feed they are dropped, so that of a long line the end may remain, or
/// nothing.
void SecureExecStderr(std::string& buffer, bool eof, pid_t pid);

}  // namespace Orx
