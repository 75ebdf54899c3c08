#pragma once

namespace tavlo {

/// Sends libevent's own messages to the log, at debug level, instead of standard error; those after
/// which it cannot go on are errors and end the process (`EndBecauseOfLibevent`). Called once,
/// before libevent is used.
void RouteLibeventLog();

}  // namespace tavlo
