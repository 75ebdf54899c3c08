// What happens to a request: the checks, in their order, and its way to the SDK REST host and back.

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/http_struct.h>
#include <event2/util.h>
#include <time.h>

#include "agent/access.h"
#include "agent/agent_host.h"
#include "agent/callback_guard.h"
#include "agent/headers.h"
#include "agent/limits.h"
#include "agent/request_memory.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr const char* kCannotForward = "Cannot forward the http request to the server";
constexpr const char* kNoReply = "Timeout in forwarding request";
constexpr const char* kNoAnswer = "Destination request failed";

// The lines of all steps of the dispatch carry its name.
constexpr const char* kDispatchRequest = "void tavlo::AgentHost::DispatchRequest(evhttp_request*)";

// libevent lets blanks and control characters through, a carriage return among them, which the SDK
// REST host may take for the end of the URI or of the line, and what follows for another request.
bool HasInvalidCharacter(const std::string& uri) {
  return std::any_of(uri.begin(), uri.end(), [](unsigned char c) { return c <= ' ' || c == 127; });
}

// Nothing of the answer has gone out yet: libevent writes from its loop.
void JoinPieces(evhttp_connection* connection) {
  evbuffer* const output = bufferevent_get_output(evhttp_connection_get_bufferevent(connection));
  if (evbuffer_get_length(output) <= kMaxJoined) {
    evbuffer_pullup(output, -1);
  }
}

bool WaitsToContinue(evhttp_request* req) {
  return FindHeader(evhttp_request_get_input_headers(req), "Expect") != nullptr;
}

}  // namespace

void AgentHost::OnRequest(evhttp_request* req, void* host) {
  auto* const self = static_cast<AgentHost*>(host);
  RunGuarded(__PRETTY_FUNCTION__, [&] { self->clients_->OnRequest(req); });
  if (!self->secure_ || !WaitsToContinue(req) || !self->DelayRequest(req)) {
    self->HandleRequest(req);
  }
}

// Over TLS libevent learns a moment later that its "100 Continue" has been written. It would take
// that for the end of an answer that is made before, and drop it.
bool AgentHost::DelayRequest(evhttp_request* req) {
  constexpr timeval kAtOnce = {0, 0};
  auto* const delayed = new (std::nothrow) DelayedRequest{this, req};
  if (delayed == nullptr ||
      event_base_once(base_.get(), -1, EV_TIMEOUT, OnDelayedRequest, delayed, &kAtOnce) != 0) {
    delete delayed;
    return false;
  }
  return true;
}

void AgentHost::OnDelayedRequest(evutil_socket_t, short, void* delayed) {
  const std::unique_ptr<DelayedRequest> request(static_cast<DelayedRequest*>(delayed));
  if (evhttp_request_get_connection(request->request) == nullptr) {
    evhttp_request_free(request->request);  // its client has gone meanwhile
    return;
  }
  request->host->HandleRequest(request->request);
}

// Answering or forwarding a request is the last thing in here that may throw, so that a request
// whose handling threw still waits for its answer.
void AgentHost::HandleRequest(evhttp_request* req) {
  if (!RunGuarded(__PRETTY_FUNCTION__, [&] { DispatchRequest(req); })) {
    Refuse(req, HTTP_INTERNAL, kInternalError);
  }
  // Many slow requests at once, a script each, hold up the timers of the loop: a request that is
  // done is a sign of life too.
  RunGuarded(__PRETTY_FUNCTION__, [this] { heartbeat_(); });
}

void AgentHost::DispatchRequest(evhttp_request* req) {
  const std::string uri = evhttp_request_get_uri(req);
  const evhttp_cmd_type method = evhttp_request_get_command(req);
  ORX_LOG(Orx::Log::kInfo, "%s %s", kMethodNames.at(method), uri.c_str());

  if (uri.rfind("/api/", 0) != 0) {
    ORX_LOG(Orx::Log::kError, "Invalid endpoint is called: %s", uri.c_str());
    Refuse(req, HTTP_NOTFOUND, "Invalid endpoint is called");
    return;
  }
  if (uri == "/api/mac") {
    if (method == EVHTTP_REQ_GET) {
      ApiGetMac(req);
    } else {
      Refuse(req, HTTP_BADMETHOD, "Method not allowed");
    }
    return;
  }
  const bool admitted = secure_ ? CheckPairingKey(req) : CheckEndpoint(req, uri, method);
  if (!admitted) {
    return;
  }
  if (evbuffer_get_length(evhttp_request_get_input_buffer(req)) > kMaxRequestBody) {
    Refuse(req, HTTP_BADREQUEST, "Request data too long");
    return;
  }
  if (HasInvalidCharacter(uri)) {
    ORX_LOG(Orx::Log::kError, "Invalid character in the URI");
    Refuse(req, HTTP_BADREQUEST, "Invalid character in the URI");
    return;
  }
  if (!agentDataPath_.empty() && !OfferToHook(req, uri, method)) {
    return;
  }
  forwarder_->Forward(req, agentPrefix_ + uri);
}

bool AgentHost::CheckPairingKey(evhttp_request* req) {
  std::string expected;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    expected = pairingKey_;
  }
  const char* const header = FindHeader(evhttp_request_get_input_headers(req), "PairingKey");
  const char* const given = header != nullptr ? header : "";
  if (expected.empty()) {
    Orx::Log::Message2(Orx::Log::kError, kDispatchRequest, "Pairing key is not configured");
    Refuse(req, HTTP_INTERNAL, "Pairing key is not configured");
    return false;
  }
  if (!IsSameKey(expected, given)) {
    Orx::Log::Message2(Orx::Log::kDebug, kDispatchRequest, "Pairing key not as expected: '%s'",
                       given);
    Refuse(req, HTTP_EXPECTATIONFAILED, "Pairing key not as expected");
    return false;
  }
  return true;
}

bool AgentHost::CheckEndpoint(evhttp_request* req, const std::string& uri, evhttp_cmd_type method) {
  if (!ApiRequestSupported(uri, method)) {
    Orx::Log::Message2(Orx::Log::kDebug, kDispatchRequest,
                       "Endpoint is not allowed with insecure connection");
    Refuse(req, HTTP_EXPECTATIONFAILED, "Endpoint is not allowed with insecure connection");
    return false;
  }
  return true;
}

void AgentHost::FinishForwarding(evhttp_request* req, Forwarder::Outcome outcome,
                                 evhttp_request* reply) {
  const bool done = RunGuarded(__PRETTY_FUNCTION__, [&] {
    if (outcome == Forwarder::Outcome::kReply) {
      RelayReply(req, reply);
    } else {
      RefuseForwarded(req, outcome);
    }
  });
  if (!done) {
    Refuse(req, HTTP_INTERNAL, kInternalError);
  }
}

void AgentHost::RelayReply(evhttp_request* req, evhttp_request* reply) {
  const char* const contentType =
      FindHeader(evhttp_request_get_input_headers(reply), "Content-Type");
  if (contentType != nullptr) {
    evhttp_add_header(evhttp_request_get_output_headers(req), "Content-Type", contentType);
  }
  Answer(req, evhttp_request_get_response_code(reply), evhttp_request_get_response_code_line(reply),
         evhttp_request_get_input_buffer(reply));
}

void AgentHost::RefuseForwarded(evhttp_request* req, Forwarder::Outcome outcome) {
  switch (outcome) {
    case Forwarder::Outcome::kTooMany:
      Orx::Log::Message2(Orx::Log::kError, kDispatchRequest,
                         "Too many requests wait for the SDK REST host");
      Refuse(req, HTTP_INTERNAL, kCannotForward);
      break;
    case Forwarder::Outcome::kNotStarted:
      Orx::Log::Message2(Orx::Log::kError, kDispatchRequest,
                         "Failed in forwarding the http req to SDK REST host");
      Refuse(req, HTTP_INTERNAL, kCannotForward);
      break;
    case Forwarder::Outcome::kNoRoom:
      Refuse(req, HTTP_INTERNAL, kInternalError);
      break;
    case Forwarder::Outcome::kNoAnswer:
      ORX_LOG(Orx::Log::kError, "%s", kNoAnswer);
      Refuse(req, HTTP_INTERNAL, kNoAnswer);
      break;
    case Forwarder::Outcome::kNoReply:
    case Forwarder::Outcome::kReply:  // is relayed, not refused
      ORX_LOG(Orx::Log::kError, "%s", kNoReply);
      Refuse(req, HTTP_INTERNAL, kNoReply);
      break;
  }
}

void AgentHost::Answer(evhttp_request* req, int status, const char* reason, evbuffer* body) {
  evhttp_connection* const client = evhttp_request_get_connection(req);
  DropBodyAndUri(req);
  AddDate(req);
  evhttp_send_reply(req, status, reason, body);
  if (secure_ && client != nullptr) {
    JoinPieces(client);
  }
  clients_->OnAnswer(client, status);
  WriteAtOnce(client);
}

// libevent adds it where there is none, and makes its text anew each time.
void AgentHost::AddDate(evhttp_request* req) {
  if (req->major != 1 || req->minor < 1) {
    return;
  }
  const time_t now = ::time(nullptr);
  if (now != dateSecond_) {
    dateSecond_ = now;
    evutil_date_rfc1123(date_, sizeof date_, nullptr);
  }
  evhttp_add_header(evhttp_request_get_output_headers(req), "Date", date_);
}

void AgentHost::Refuse(evhttp_request* req, int status, const char* reason) {
  evhttp_connection* const client = evhttp_request_get_connection(req);
  DropBodyAndUri(req);
  evhttp_send_error(req, status, reason);
  clients_->OnAnswer(client, status);
  WriteAtOnce(client);
}

// In this turn of the loop instead of the next. Not for a client that has sent more: its requests
// would have turn after turn, and others would wait.
void AgentHost::WriteAtOnce(evhttp_connection* client) {
  if (client == nullptr) {
    return;
  }
  bufferevent* const stream = evhttp_connection_get_bufferevent(client);
  if (evbuffer_get_length(bufferevent_get_input(stream)) == 0) {
    event_base_active_by_fd(base_.get(), bufferevent_getfd(stream), EV_WRITE);
  }
}

}  // namespace tavlo
