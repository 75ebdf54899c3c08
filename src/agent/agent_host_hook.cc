// The firmware's say in a request: the "agent" hook scripts, called before it is forwarded.

#include <cerrno>
#include <mutex>
#include <string>

#include <event2/buffer.h>

#include "agent/agent_host.h"
#include "hooks/body_file.h"
#include "hooks/hook_invoker.h"
#include "util/error_text.h"
#include "util/fair_mutex.h"
#include "util/log.h"

namespace tavlo {

namespace {

// All hosts have the one body file: whoever writes it holds this until it is removed, so that the
// scripts judge the very body that is forwarded.
stdext::fair_mutex& BodyFileMutex() {
  static stdext::fair_mutex mutex;
  return mutex;
}

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
    Orx::BodyFile bodyFile(agentDataPath_);
    if (!bodyFile.Write(data)) {
      ORX_LOG(Orx::Log::kError, "Failed to write file %s: %s", agentDataPath_.c_str(),
              stdext::error_number_and_text(errno).c_str());
      return false;
    }
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
