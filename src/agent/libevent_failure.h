#pragma once

namespace tavlo {

/// Ends the process because libevent cannot go on; the caller has logged the cause. Until
/// `SetStarted` it ends with status 1, as every failed start does, and from then on by SIGABRT,
/// which leaves a crash record. Any thread may call it.
[[noreturn]] void EndBecauseOfLibevent();

/// The start is over: an event loop is about to run. Any thread may say so, any number of times.
void SetStarted();

}  // namespace tavlo
