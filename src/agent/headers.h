#pragma once

struct evkeyvalq;

namespace tavlo {

/// The value of the first header with this name, whose letters may be large or small; nullptr
/// without one. It belongs to `headers`. libevent's own search calls a function for each letter.
const char* FindHeader(const evkeyvalq* headers, const char* name);

}  // namespace tavlo
