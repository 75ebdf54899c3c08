// What happens to a request: the checks, in their order, and its way to the SDK REST host and back.

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "agent/access.h"
#include "agent/agent_host.h"
#include "agent/callback_guard.h"
#include "util/close_on_exec.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr const char* kCannotForward = "Cannot forward the http request to the server";

// The lines of all steps of the dispatch carry its name.
constexpr const char* kDispatchRequest = "void tavlo::AgentHost::DispatchRequest(evhttp_request*)";

// libevent lets blanks and control characters through, a carriage return among them, which the SDK
// REST host may take for the end of the URI or of the line, and what follows for another request.
bool HasInvalidCharacter(const std::string& uri) {
  return std::any_of(uri.begin(), uri.end(), [](unsigned char c) { return c <= ' ' || c == 127; });
}

// Each piece that an answer comes in from the destination, 4 KiB of it, would be a TLS record and a
// write of its own. An answer of more than this is not worth the copying. Nothing of it has gone
// out yet: libevent writes from its loop.
void JoinPieces(evhttp_connection* connection) {
  constexpr size_t kMaxJoined = size_t{128} * 1024;
  evbuffer* const output = bufferevent_get_output(evhttp_connection_get_bufferevent(connection));
  if (evbuffer_get_length(output) <= kMaxJoined) {
    evbuffer_pullup(output, -1);
  }
}

bool WaitsToContinue(evhttp_request* req) {
  return evhttp_find_header(evhttp_request_get_input_headers(req), "Expect") != nullptr;
}

}  // namespace

void AgentHost::OnRequest(evhttp_request* req, void* host) {
  auto* const self = static_cast<AgentHost*>(host);
  self->clients_->OnRequest(evhttp_request_get_connection(req));
  if (!self->secure_ || !WaitsToContinue(req) || !self->DelayRequest(req)) {
    self->HandleRequest(req);
  }
}

// Over TLS libevent learns a moment later that its "100 Continue" has been written. It would take
// that for the end of an answer that is made before, and drop it.
bool AgentHost::DelayRequest(evhttp_request* req) {
  constexpr timeval kAtOnce = {0, 0};
  auto* const waiting = new (std::nothrow) Waiting{this, req};
  if (waiting == nullptr ||
      event_base_once(base_.get(), -1, EV_TIMEOUT, OnDelayedRequest, waiting, &kAtOnce) != 0) {
    delete waiting;
    return false;
  }
  clients_->Hold(evhttp_request_get_connection(req));
  return true;
}

void AgentHost::OnDelayedRequest(evutil_socket_t, short, void* waiting) {
  const std::unique_ptr<Waiting> delayed(static_cast<Waiting*>(waiting));
  evhttp_connection* const client = evhttp_request_get_connection(delayed->request);
  if (client == nullptr) {
    evhttp_request_free(delayed->request);  // it has gone meanwhile
    return;
  }
  delayed->host->clients_->Release(client);
  delayed->host->HandleRequest(delayed->request);
}

// Answering or forwarding a request is the last thing in here that may throw, so that a request
// whose handling threw still waits for its answer.
void AgentHost::HandleRequest(evhttp_request* req) {
  evhttp_connection* const client = evhttp_request_get_connection(req);
  if (!RunGuarded(__PRETTY_FUNCTION__, [&] { DispatchRequest(req); })) {
    evhttp_send_error(req, HTTP_INTERNAL, kInternalError);
  }
  clients_->StopReading(client);
  // Many slow requests at once, a script each, hold up the timers of the loop: a request that is
  // done is a sign of life too.
  RunGuarded(__PRETTY_FUNCTION__, [this] { heartbeat_(); });
}

void AgentHost::OnReply(evhttp_request* reply, void* waiting) {
  const Waiting forwarded = *static_cast<Waiting*>(waiting);
  forwarded.host->FinishForwarding(reply, forwarded.request);
}

void AgentHost::DispatchRequest(evhttp_request* req) {
  const std::string uri = evhttp_request_get_uri(req);
  const evhttp_cmd_type method = evhttp_request_get_command(req);
  ORX_LOG(Orx::Log::kInfo, "%s %s", kMethodNames.at(method), uri.c_str());

  if (uri.rfind("/api/", 0) != 0) {
    ORX_LOG(Orx::Log::kError, "Invalid endpoint is called: %s", uri.c_str());
    evhttp_send_error(req, HTTP_NOTFOUND, "Invalid endpoint is called");
    return;
  }
  if (uri == "/api/mac") {
    if (method == EVHTTP_REQ_GET) {
      ApiGetMac(req);
    } else {
      evhttp_send_error(req, HTTP_BADMETHOD, "Method not allowed");
    }
    return;
  }
  const bool admitted = secure_ ? CheckPairingKey(req) : CheckEndpoint(req, uri, method);
  if (!admitted) {
    return;
  }
  if (evbuffer_get_length(evhttp_request_get_input_buffer(req)) > kMaxRequestBody) {
    evhttp_send_error(req, HTTP_BADREQUEST, "Request data too long");
    return;
  }
  if (HasInvalidCharacter(uri)) {
    ORX_LOG(Orx::Log::kError, "Invalid character in the URI");
    evhttp_send_error(req, HTTP_BADREQUEST, "Invalid character in the URI");
    return;
  }
  if (!agentDataPath_.empty() && !OfferToHook(req, uri, method)) {
    return;
  }
  Forward(req, uri, method);
}

bool AgentHost::CheckPairingKey(evhttp_request* req) {
  std::string expected;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    expected = pairingKey_;
  }
  const char* const header =
      evhttp_find_header(evhttp_request_get_input_headers(req), "PairingKey");
  const std::string given = header != nullptr ? header : "";
  if (expected.empty()) {
    Orx::Log::Message2(Orx::Log::kError, kDispatchRequest, "Pairing key is not configured");
    evhttp_send_error(req, HTTP_INTERNAL, "Pairing key is not configured");
    return false;
  }
  if (!IsSameKey(expected, given)) {
    Orx::Log::Message2(Orx::Log::kDebug, kDispatchRequest, "Pairing key not as expected: '%s'",
                       given.c_str());
    evhttp_send_error(req, HTTP_EXPECTATIONFAILED, "Pairing key not as expected");
    return false;
  }
  return true;
}

bool AgentHost::CheckEndpoint(evhttp_request* req, const std::string& uri, evhttp_cmd_type method) {
  if (!ApiRequestSupported(uri, method)) {
    Orx::Log::Message2(Orx::Log::kDebug, kDispatchRequest,
                       "Endpoint is not allowed with insecure connection");
    evhttp_send_error(req, HTTP_EXPECTATIONFAILED,
                      "Endpoint is not allowed with insecure connection");
    return false;
  }
  return true;
}

void AgentHost::Forward(evhttp_request* req, const std::string& uri, evhttp_cmd_type method) {
  if (forwardings_.size() == kMaxForwardings) {
    Orx::Log::Message2(Orx::Log::kError, kDispatchRequest,
                       "Too many requests wait for the SDK REST host");
    evhttp_send_error(req, HTTP_INTERNAL, kCannotForward);
    return;
  }
  evbuffer* const body = evhttp_request_get_input_buffer(req);
  const size_t length = evbuffer_get_length(body);
  const std::string lengthText = std::to_string(length);
  const std::string target = agentPrefix_ + uri;

  int result = -1;
  EndStaleConnection();
  Waiting& waiting = forwardings_[req];
  waiting = {this, req};
  clients_->Hold(evhttp_request_get_connection(req));
  evhttp_request* const forwarded = evhttp_request_new(OnReply, &waiting);
  if (forwarded != nullptr) {
    evkeyvalq* const headers = evhttp_request_get_output_headers(forwarded);
    evhttp_add_header(headers, "Content-Length", lengthText.c_str());
    evhttp_add_header(headers, "Host", dstAddr_.c_str());
    evbuffer_remove_buffer(body, evhttp_request_get_output_buffer(forwarded), length);
    // The reply callback may run in here, under this lock: it must never start a program.
    const std::lock_guard<std::mutex> lock(stdext::exec_mutex());
    result = evhttp_make_request(evcon_.get(), forwarded, method, target.c_str());
    SetUpConnection();
  }
  // Otherwise the reply callback will run, or has run already.
  if (result < 0) {
    forwardings_.erase(req);
    clients_->Release(evhttp_request_get_connection(req));
    Orx::Log::Message2(Orx::Log::kError, kDispatchRequest,
                       "Failed in forwarding the http req to SDK REST host");
    evhttp_send_error(req, HTTP_INTERNAL, kCannotForward);
  }
}

// libevent opens the connection without making it close-on-exec. What may slip through is one that
// it opens by itself, while the other listener starts a script, until the reply callback runs.
// Without TCP_NODELAY the last piece of a body would wait for the acknowledgement of the others.
void AgentHost::SetUpConnection() {
  const int fd = bufferevent_getfd(evhttp_connection_get_bufferevent(evcon_.get()));
  if (fd == setUpFd_ || fd < 0) {
    return;
  }
  const int on = 1;
  stdext::set_close_on_exec(fd);
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setUpFd_ = fd;
}

// While a script ran or a lock was waited for, the loop has not seen what came over an idle
// connection: that the SDK REST host has closed it, mostly. libevent would send the request into
// it all the same.
void AgentHost::EndStaleConnection() {
  bufferevent* const connection = evhttp_connection_get_bufferevent(evcon_.get());
  const int fd = bufferevent_getfd(connection);
  if (!forwardings_.empty() || fd < 0) {
    return;
  }
  char next = 0;
  if (::recv(fd, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT) >= 0 || errno != EAGAIN) {
    bufferevent_trigger_event(connection, BEV_EVENT_READING | BEV_EVENT_EOF, 0);
  }
}

void AgentHost::OnDisconnect(evhttp_connection* /*connection*/, void* host) {
  static_cast<AgentHost*>(host)->setUpFd_ = -1;
}

// What has come behind a reply would be taken for that to the next request, which has not gone out
// yet: its client would get what was meant for somebody else.
void AgentHost::EndConnectionWithMore() {
  bufferevent* const connection = evhttp_connection_get_bufferevent(evcon_.get());
  evbuffer* const input = bufferevent_get_input(connection);
  const size_t length = evbuffer_get_length(input);
  if (length == 0) {
    return;
  }
  ORX_LOG(Orx::Log::kError, "The SDK REST host sent more than its reply: the connection is ended");
  evbuffer_drain(input, length);
  ::shutdown(bufferevent_getfd(connection), SHUT_RDWR);
}

void AgentHost::FinishForwarding(evhttp_request* reply, evhttp_request* client) {
  forwardings_.erase(client);
  // Null when the client has gone; its request goes with the answer then.
  evhttp_connection* const connection = evhttp_request_get_connection(client);
  clients_->Release(connection);
  // libevent may already have connected anew for the next request in its queue. A connect that
  // failed does not reach OnDisconnect: a missing or empty reply is its only sign.
  if (reply == nullptr || evhttp_request_get_response_code(reply) == 0) {
    setUpFd_ = -1;
  } else {
    EndConnectionWithMore();
  }
  SetUpConnection();
  if (!RunGuarded(__PRETTY_FUNCTION__, [&] { RelayReply(reply, client); })) {
    evhttp_send_error(client, HTTP_INTERNAL, kInternalError);
  }
  clients_->StopReading(connection);
  if (secure_ && connection != nullptr) {
    JoinPieces(connection);
  }
}

void AgentHost::RelayReply(evhttp_request* reply, evhttp_request* client) {
  const int status = reply != nullptr ? evhttp_request_get_response_code(reply) : 0;
  if (status == 0) {
    const char* const reason =
        reply == nullptr ? "Timeout in forwarding request" : "Destination request failed";
    ORX_LOG(Orx::Log::kError, "%s", reason);
    evhttp_send_error(client, HTTP_INTERNAL, reason);
    return;
  }
  const char* const contentType =
      evhttp_find_header(evhttp_request_get_input_headers(reply), "Content-Type");
  if (contentType != nullptr) {
    evhttp_add_header(evhttp_request_get_output_headers(client), "Content-Type", contentType);
  }
  evhttp_send_reply(client, status, evhttp_request_get_response_code_line(reply),
                    evhttp_request_get_input_buffer(reply));
}

}  // namespace tavlo
