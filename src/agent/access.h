#pragma once

#include <string>
#include <string_view>

#include <event2/http.h>

namespace tavlo {

/// Whether the plain listener, which asks for no key, accepts this request. The URI must match as a
/// whole, its query included.
bool ApiRequestSupported(const std::string& uri, evhttp_cmd_type method);

/// Compares two keys byte by byte. It takes as long for a key that is wrong in its first byte as
/// for one of the same length that is wrong in its last.
bool IsSameKey(std::string_view expected, std::string_view given);

}  // namespace tavlo
