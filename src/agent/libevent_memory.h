#pragma once

namespace tavlo {

/// From now on the process ends (`EndBecauseOfLibevent`), after an error in the log, when libevent
/// asks for memory and there is none. libevent does not look at each refusal: it would go on
/// without a header of a message, or without ever answering. Call it before any other function of
/// libevent.
void EndWhenLibeventGetsNoMemory();

}  // namespace tavlo
