// GET /api/mac: the MAC address of the asking client, looked up in the device list file.

#include <memory>
#include <mutex>
#include <string>

#include <event2/buffer.h>
#include <event2/http.h>

#include "agent/agent_host.h"
#include "agent/device_list.h"
#include "util/fair_mutex.h"
#include "util/file.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr const char* kGetJsonFromFile =
    "bool tavlo::{anonymous}::GetJsonFromFile(const std::string&, DeviceList*)";

// The file's own lock keeps the hosts apart too, but whoever finds it taken sleeps for 100 ms. They
// take turns before it comes to that: it is for other processes.
stdext::fair_mutex& DeviceListMutex() {
  static stdext::fair_mutex mutex;
  return mutex;
}

bool GetJsonFromFile(const std::string& path, DeviceList* doc) {
  const std::lock_guard<stdext::fair_mutex> lock(DeviceListMutex());
  const stdext::file file(path);
  std::string text;
  const Orx::Status status = file.read(stdext::kMaxFileSize, &text);
  if (!status.IsOk()) {
    Orx::Log::Message2(Orx::Log::kError, kGetJsonFromFile, "File can not be read: %s. Error: %s",
                       path.c_str(), status.Message().c_str());
    return false;
  }
  std::string error;
  if (!ParseDeviceList(text, doc, &error)) {
    Orx::Log::Message2(Orx::Log::kError, kGetJsonFromFile, "File can not be parsed as json: %s: %s",
                       path.c_str(), error.c_str());
    return false;
  }
  return true;
}

std::string PeerAddress(evhttp_request* req) {
  char* address = nullptr;
  uint16_t port = 0;
  evhttp_connection_get_peer(evhttp_request_get_connection(req), &address, &port);
  return address;
}

}  // namespace

void AgentHost::ApiGetMac(evhttp_request* req) {
  const std::string ip = PeerAddress(req);
  DeviceList doc;
  if (!GetJsonFromFile(deviceDiscoveryPath_, &doc)) {
    Refuse(req, HTTP_INTERNAL, kInternalError);
    return;
  }
  const std::string mac = FindMac(doc, ip);
  if (mac.empty()) {
    ORX_LOG(Orx::Log::kError, "No MAC found for IP: %s", ip.c_str());
    Refuse(req, HTTP_INTERNAL, kInternalError);
    return;
  }
  const std::unique_ptr<evbuffer, decltype(&evbuffer_free)> body(evbuffer_new(), evbuffer_free);
  if (body == nullptr || evbuffer_add(body.get(), mac.data(), mac.size()) != 0) {
    Refuse(req, HTTP_INTERNAL, kInternalError);
    return;
  }
  evkeyvalq* const headers = evhttp_request_get_output_headers(req);
  evhttp_add_header(headers, "Content-Type", "text/plain; charset=UTF-8");
  evhttp_add_header(headers, "Content-Length", std::to_string(mac.size()).c_str());
  Answer(req, HTTP_OK, "OK", body.get());
}

}  // namespace tavlo
