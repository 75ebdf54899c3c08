// The firmware's say in a request: the "agent" hook scripts, called before it is forwarded.

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include <event2/buffer.h>
#include <unistd.h>

#include "agent/agent_host.h"
#include "hooks/hook_invoker.h"
#include "util/descriptor.h"
#include "util/error_text.h"
#include "util/fair_mutex.h"
#include "util/log.h"
#include "util/retry.h"

namespace tavlo {

namespace {

// Replaces the content of the file; on failure `errno` tells why. What the file held before is cut
// off only when the rest is written.
bool WriteFile(const std::string& path, const std::string& data) {
  const stdext::descriptor file(stdext::open_only_here(path.c_str(), 0, 0664));
  if (!file.is_open()) {
    return false;
  }
  const ssize_t written =
      stdext::retry_on_interrupt([&] { return ::write(file.get(), data.data(), data.size()); });
  if (written < 0) {
    return false;
  }
  if (static_cast<size_t>(written) < data.size()) {
    errno = ENOSPC;  // a short write sets no error: the file system is full
    return false;
  }
  return ::ftruncate(file.get(), static_cast<off_t>(data.size())) == 0;
}

// All hosts have the one body file: whoever writes it holds this until it is removed, so that the
// scripts judge the very body that is forwarded.
stdext::fair_mutex& BodyFileMutex() {
  static stdext::fair_mutex mutex;
  return mutex;
}

// Removes the body file however the hook ends.
class BodyFile {
 public:
  explicit BodyFile(std::string path) : path_(std::move(path)) {}
  ~BodyFile() { std::remove(path_.c_str()); }
  BodyFile(const BodyFile&) = delete;
  BodyFile& operator=(const BodyFile&) = delete;

 private:
  std::string path_;
};

}  // namespace

bool AgentHost::OfferToHook(evhttp_request* req, const std::string& uri, evhttp_cmd_type method) {
  evbuffer* const body = evhttp_request_get_input_buffer(req);
  std::string data(evbuffer_get_length(body), '\0');
  evbuffer_copyout(body, data.data(), data.size());
  bool terminated = false;
  if (!CallHook(uri, method, data, &terminated)) {
    Refuse(req, HTTP_INTERNAL, kInternalError);
    return false;
  }
  if (terminated) {
    Answer(req, HTTP_OK, "OK", nullptr);
    return false;
  }
  return true;
}

bool AgentHost::CallHook(const std::string& uri, evhttp_cmd_type method, const std::string& data,
                         bool* terminated) {
  ORX_LOG(Orx::Log::kDebug, "Calling agent hook");
  int exitCode = 0;
  const char* const methodName = kMethodNames.at(method);
  Orx::Status status = Orx::Status::Ok();
  if (data.empty()) {
    status = invoker_->Agent(methodName, uri, std::string(), &exitCode);
  } else {
    const std::lock_guard<stdext::fair_mutex> lock(BodyFileMutex());
    if (!WriteFile(agentDataPath_, data)) {
      ORX_LOG(Orx::Log::kError, "Failed to write file %s: %s", agentDataPath_.c_str(),
              stdext::error_number_and_text(errno).c_str());
      return false;
    }
    const BodyFile bodyFile(agentDataPath_);
    status = invoker_->Agent(methodName, uri, agentDataPath_, &exitCode);
  }
  if (!status.IsOk()) {
    ORX_LOG(Orx::Log::kError, "Failed to invoke agent hook: %s", status.Message().c_str());
    return false;
  }
  if (exitCode != 0) {
    ORX_LOG(Orx::Log::kDebug, "Call terminated by hook");
    *terminated = true;
  }
  return true;
}

}  // namespace tavlo
