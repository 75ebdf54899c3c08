// The device list, and the lookup in it. The library's recursive parser says what is right.

#include "agent/device_list.h"

#include <algorithm>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "fuzz/fuzz.h"

namespace {

constexpr long kDeepest = 500;  // for the recursive parser

template <typename Document>
std::string Written(const Document& doc) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  doc.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  tavlo::DeviceList doc;
  std::string error;
  const bool parsed = tavlo::ParseDeviceList(text, &doc, &error);
  fuzz::Require(parsed == error.empty(), "a failure has a text");
  if (parsed) {
    const std::string mac = tavlo::FindMac(doc, "192.168.1.10");
    fuzz::Require(mac.empty() || text.find("\"mac\"") != text.npos || text.find('\\') != text.npos,
                  "a MAC comes from the list");
  }
  const long depth =
      std::count_if(text.begin(), text.end(), [](char byte) { return byte == '[' || byte == '{'; });
  if (depth > kDeepest) {
    return 0;
  }
  rapidjson::Document expected;
  expected.Parse(text.data(), text.size());
  fuzz::Require(parsed == !expected.HasParseError(), "both parsers accept it, or none");
  if (parsed) {
    fuzz::Require(Written(doc) == Written(expected), "both parsers find the same");
  }
  return 0;
}
