// GET /api/mac: the MAC address of the asking client, looked up in the device list file.

#include <memory>
#include <string>

#include <event2/buffer.h>
#include <event2/http.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include "agent/agent_host.h"
#include "util/file.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr unsigned long kMaxDeviceListSize = 1048576;
constexpr const char* kGetJsonFromFile =
    "bool tavlo::{anonymous}::GetJsonFromFile(const std::string&, rapidjson::Document*)";

// The iterative parser calls a text empty that only begins with what cannot begin a value; here
// that has the name, "Invalid value.", that the library's default parser gives it.
rapidjson::ParseErrorCode ErrorCode(const rapidjson::Document& doc, const std::string& text) {
  const size_t offset = doc.GetErrorOffset();
  const bool hasText = offset < text.size() && text[offset] != '\0';
  return doc.GetParseError() == rapidjson::kParseErrorDocumentEmpty && hasText
             ? rapidjson::kParseErrorValueInvalid
             : doc.GetParseError();
}

bool GetJsonFromFile(const std::string& path, rapidjson::Document* doc) {
  const stdext::file file(path);
  std::string text;
  const Orx::Status status = file.read(kMaxDeviceListSize, &text);
  if (!status.IsOk()) {
    Orx::Log::Message2(Orx::Log::kError, kGetJsonFromFile, "File can not be read: %s. Error: %s",
                       path.c_str(), status.Message().c_str());
    return false;
  }
  // Iterative: the recursive parser overflows the stack on a file of nothing but brackets.
  doc->Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
  if (doc->HasParseError()) {
    const std::string error = std::string(rapidjson::GetParseError_En(ErrorCode(*doc, text))) +
                              ", offset :" + std::to_string(doc->GetErrorOffset());
    Orx::Log::Message2(Orx::Log::kError, kGetJsonFromFile, "File can not be parsed as json: %s: %s",
                       path.c_str(), error.c_str());
    return false;
  }
  return true;
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

// Empty when no device with that address has a MAC.
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

std::string PeerAddress(evhttp_request* req) {
  char* address = nullptr;
  uint16_t port = 0;
  evhttp_connection_get_peer(evhttp_request_get_connection(req), &address, &port);
  return address;
}

void SendText(evhttp_request* req, const std::string& text) {
  const std::string length = std::to_string(text.size());
  const std::unique_ptr<evbuffer, decltype(&evbuffer_free)> body(evbuffer_new(), evbuffer_free);
  if (body == nullptr || evbuffer_add(body.get(), text.data(), text.size()) != 0) {
    evhttp_send_error(req, HTTP_INTERNAL, kInternalError);
    return;
  }
  evkeyvalq* const headers = evhttp_request_get_output_headers(req);
  evhttp_add_header(headers, "Content-Type", "text/plain; charset=UTF-8");
  evhttp_add_header(headers, "Content-Length", length.c_str());
  evhttp_send_reply(req, HTTP_OK, "OK", body.get());
}

}  // namespace

void AgentHost::ApiGetMac(evhttp_request* req) {
  const std::string ip = PeerAddress(req);
  rapidjson::Document doc;
  if (!GetJsonFromFile(deviceDiscoveryPath_, &doc)) {
    evhttp_send_error(req, HTTP_INTERNAL, kInternalError);
    return;
  }
  const std::string mac = FindMac(doc, ip);
  if (mac.empty()) {
    ORX_LOG(Orx::Log::kError, "No MAC found for IP: %s", ip.c_str());
    evhttp_send_error(req, HTTP_INTERNAL, kInternalError);
    return;
  }
  SendText(req, mac);
}

}  // namespace tavlo
