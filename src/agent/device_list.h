#pragma once

#include <cstddef>
#include <new>
#include <string>

#include <rapidjson/document.h>

namespace tavlo {

/// RapidJSON does not look whether it was given memory; so it gets an exception where there is
/// none.
class ThrowingAllocator {
 public:
  static const bool kNeedFree = true;

  /// These throw std::bad_alloc, and std::length_error for more than any real list needs.
  static void* Malloc(size_t size);
  static void* Realloc(void* old, size_t oldSize, size_t size);

  static void Free(void* memory) { ::operator delete(memory); }
};

using DeviceList =
    rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<ThrowingAllocator>,
                               ThrowingAllocator>;

/// Parses the text of a device list file, whatever it holds, without recursion. Returns false when
/// it is no JSON; `error` is then the parser's text and ", offset :" with the place in bytes.
/// Throws std::bad_alloc.
bool ParseDeviceList(const std::string& text, DeviceList* doc, std::string* error);

/// The MAC address of the first device that has both one and the address `ip` (dotted text); empty
/// when there is none. What does not have the proper form in `doc` is ignored.
std::string FindMac(const DeviceList& doc, const std::string& ip);

}  // namespace tavlo
