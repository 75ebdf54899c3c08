#include "agent/device_list.h"

#include <rapidjson/error/en.h>

namespace tavlo {

namespace {

// The iterative parser calls a text empty that only begins with what cannot begin a value; here
// that has the name, "Invalid value.", that the library's default parser gives it.
rapidjson::ParseErrorCode ErrorCode(const rapidjson::Document& doc, const std::string& text) {
  const size_t offset = doc.GetErrorOffset();
  const bool hasText = offset < text.size() && text[offset] != '\0';
  return doc.GetParseError() == rapidjson::kParseErrorDocumentEmpty && hasText
             ? rapidjson::kParseErrorValueInvalid
             : doc.GetParseError();
}

// The member of that name, or null when there is none or `object` is not an object.
const rapidjson::Value* Member(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) {
    return nullptr;
  }
  const auto member = object.FindMember(name);
  return member != object.MemberEnd() ? &member->value : nullptr;
}

bool HasAddress(const rapidjson::Value& device, const std::string& ip) {
  const rapidjson::Value* const addresses = Member(device, "ip");
  if (addresses == nullptr || !addresses->IsArray()) {
    return false;
  }
  for (const rapidjson::Value& address : addresses->GetArray()) {
    if (address.IsString() &&
        ip.compare(0, ip.npos, address.GetString(), address.GetStringLength()) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool ParseDeviceList(const std::string& text, rapidjson::Document* doc, std::string* error) {
  // Iterative: the recursive parser overflows the stack on a file of nothing but brackets.
  doc->Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
  if (!doc->HasParseError()) {
    return true;
  }
  *error = std::string(rapidjson::GetParseError_En(ErrorCode(*doc, text))) +
           ", offset :" + std::to_string(doc->GetErrorOffset());
  return false;
}

std::string FindMac(const rapidjson::Document& doc, const std::string& ip) {
  const rapidjson::Value* const devices = Member(doc, "devices");
  if (devices == nullptr || !devices->IsArray()) {
    return {};
  }
  for (const rapidjson::Value& device : devices->GetArray()) {
    const rapidjson::Value* const mac = Member(device, "mac");
    if (mac != nullptr && mac->IsString() && HasAddress(device, ip)) {
      return {mac->GetString(), mac->GetStringLength()};
    }
  }
  return {};
}

}  // namespace tavlo
