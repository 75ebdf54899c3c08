#include "agent/device_list.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <rapidjson/error/en.h>

namespace tavlo {

namespace {

using Value = DeviceList::ValueType;

// The largest block that the parser is given, in bytes: it holds 131072 devices, each of which
// takes half as much again where the parser cannot put a pointer's unused bits to use. For a file
// of nothing but brackets it would ask for ten times as much, and for the next one beside it.
constexpr size_t kMaxBlock = 131072 * sizeof(Value);

// The iterative parser calls a text empty that only begins with what cannot begin a value; here
// that has the name, "Invalid value.", that the library's default parser gives it.
rapidjson::ParseErrorCode ErrorCode(const DeviceList& doc, const std::string& text) {
  const size_t offset = doc.GetErrorOffset();
  const bool hasText = offset < text.size() && text[offset] != '\0';
  return doc.GetParseError() == rapidjson::kParseErrorDocumentEmpty && hasText
             ? rapidjson::kParseErrorValueInvalid
             : doc.GetParseError();
}

// The member of that name, or null when there is none or `object` is not an object.
const Value* Member(const Value& object, const char* name) {
  if (!object.IsObject()) {
    return nullptr;
  }
  const auto member = object.FindMember(name);
  return member != object.MemberEnd() ? &member->value : nullptr;
}

bool HasAddress(const Value& device, const std::string& ip) {
  const Value* const addresses = Member(device, "ip");
  if (addresses == nullptr || !addresses->IsArray()) {
    return false;
  }
  for (const Value& address : addresses->GetArray()) {
    if (address.IsString() &&
        ip.compare(0, ip.npos, address.GetString(), address.GetStringLength()) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

void* ThrowingAllocator::Malloc(size_t size) {
  if (size > kMaxBlock) {
    throw std::length_error("The device list takes too much memory");
  }
  return size != 0 ? ::operator new(size) : nullptr;
}

void* ThrowingAllocator::Realloc(void* old, size_t oldSize, size_t size) {
  void* const memory = Malloc(size);
  if (memory != nullptr && old != nullptr) {
    std::memcpy(memory, old, std::min(oldSize, size));
  }
  Free(old);
  return memory;
}

bool ParseDeviceList(const std::string& text, DeviceList* doc, std::string* error) {
  // Iterative: the recursive parser overflows the stack on a file of nothing but brackets.
  doc->Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
  if (!doc->HasParseError()) {
    return true;
  }
  *error = std::string(rapidjson::GetParseError_En(ErrorCode(*doc, text))) +
           ", offset :" + std::to_string(doc->GetErrorOffset());
  return false;
}

std::string FindMac(const DeviceList& doc, const std::string& ip) {
  const Value* const devices = Member(doc, "devices");
  if (devices == nullptr || !devices->IsArray()) {
    return {};
  }
  for (const Value& device : devices->GetArray()) {
    const Value* const mac = Member(device, "mac");
    if (mac != nullptr && mac->IsString() && HasAddress(device, ip)) {
      return {mac->GetString(), mac->GetStringLength()};
    }
  }
  return {};
}

}  // namespace tavlo
