#pragma once

namespace tavlo {

/// Ends the process because libevent cannot go on, after the caller has logged the cause: while the
/// daemon starts with status 1, as every failed start does, and later by SIGABRT, which leaves a
/// crash record. Any thread may call it.
[[noreturn]] void EndBecauseOfLibevent();

/// The start is over.
void SetStarted();

}  // namespace tavlo
