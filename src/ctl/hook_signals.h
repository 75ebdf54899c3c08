#pragma once

#include <string>

#include <signal.h>

namespace tavlo::ctl {

/// Gives the process the signals that scripts inherit from the daemon: SIGHUP, SIGINT and SIGTERM
/// blocked, which it returns, and SIGPIPE ignored. To be called while there is one thread.
sigset_t BlockSignals();

/// Starts a thread that waits for one of `signals`, for the rest of the process. When one comes it
/// kills the script that runs and says so, removes the file at `bodyPath`, if that is not empty,
/// and ends the process with 128 and the signal's number: a script that hangs would not heed what
/// Ctrl-C sends it, blocked as it is.
void EndOnSignal(const sigset_t& signals, const std::string& bodyPath);

}  // namespace tavlo::ctl
