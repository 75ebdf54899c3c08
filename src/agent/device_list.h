#pragma once

#include <string>

#include <rapidjson/document.h>

namespace tavlo {

/// Parses the text of a device list file, whatever it holds, without recursion. Returns false when
/// it is no JSON; `error` is then the parser's text and ", offset :" with the place in bytes.
bool ParseDeviceList(const std::string& text, rapidjson::Document* doc, std::string* error);

/// The MAC address of the first device that has both one and the address `ip` (dotted text); empty
/// when there is none. What does not have the proper form in `doc` is ignored.
std::string FindMac(const rapidjson::Document& doc, const std::string& ip);

}  // namespace tavlo
