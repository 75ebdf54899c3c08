#pragma once

#include <string>

#include <event2/http.h>

namespace tavlo {

/// Whether the plain listener, which asks for no key, accepts this request. The URI must match as a
/// whole, its query included.
bool ApiRequestSupported(const std::string& uri, evhttp_cmd_type method);

/// Compares two keys byte by byte. It takes as long for a key that is wrong in its first byte as
/// for one of the same length that is wrong in its last.
bool IsSameKey(const std::string& expected, const std::string& given);

}  // namespace tavlo
