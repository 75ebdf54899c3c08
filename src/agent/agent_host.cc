// How a listener is set up, what its loop does besides requests, and what other threads ask of it.

#include "agent/agent_host.h"

#include <cerrno>
#include <ctime>
#include <stdexcept>

#include <event2/bufferevent.h>
#include <event2/event-config.h>
#include <event2/event.h>

#include "agent/callback_guard.h"
#include "agent/libevent_failure.h"
#include "agent/limits.h"
#include "util/error_text.h"
#include "util/log.h"

namespace tavlo {

namespace {

// It would take each time limit for another one.
static_assert(sizeof(std::time_t) == EVENT__SIZEOF_TIME_T, "libevent has another time_t");

constexpr const char* kLoopback = "127.0.0.1";
constexpr timeval kHeartbeatPeriod = {30, 0};
constexpr size_t kShownKeyLength = 3;

// With a list of changes: what is watched changes back and forth within one turn of the loop, and
// only what is left of that is told to the kernel. What is told late can only be that a descriptor
// is watched no more, which libevent always asks for before it closes one. By then the number may
// be gone, or the other loop's; but the kernel knows a watched descriptor by its open file too,
// finds nothing, and says so. libevent takes that for done.
event_base* MakeEventBase() {
  const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                           event_config_free);
  if (config == nullptr ||
      event_config_set_flag(config.get(), EVENT_BASE_FLAG_EPOLL_USE_CHANGELIST) != 0) {
    return nullptr;
  }
  return event_base_new_with_config(config.get());
}

std::runtime_error ErrnoFailure(const std::string& what) {
  return std::runtime_error(what + " errno " + std::to_string(errno));
}

}  // namespace

const std::map<evhttp_cmd_type, const char*> kMethodNames = {
    {EVHTTP_REQ_GET, "GET"},     {EVHTTP_REQ_POST, "POST"},       {EVHTTP_REQ_HEAD, "HEAD"},
    {EVHTTP_REQ_PUT, "PUT"},     {EVHTTP_REQ_DELETE, "DELETE"},   {EVHTTP_REQ_OPTIONS, "OPTIONS"},
    {EVHTTP_REQ_TRACE, "TRACE"}, {EVHTTP_REQ_CONNECT, "CONNECT"}, {EVHTTP_REQ_PATCH, "PATCH"},
};

void AgentHost::OnInvokerEvent(evutil_socket_t, short, void* host) {
  RunGuarded(__PRETTY_FUNCTION__, [host] { static_cast<AgentHost*>(host)->Invoke(); });
}

void AgentHost::OnHeartbeatEvent(evutil_socket_t, short, void* host) {
  RunGuarded(__PRETTY_FUNCTION__, [host] { static_cast<AgentHost*>(host)->heartbeat_(); });
}

bufferevent* AgentHost::OnConnection(event_base* base, void* argument) {
  auto* const host = static_cast<AgentHost*>(argument);
  bufferevent* connection = nullptr;
  if (host->secure_) {
    RunGuarded(__PRETTY_FUNCTION__, [&] { connection = host->SslConnect(); });
  }
  // A TLS listener that cannot speak TLS speaks plain HTTP, deliberately; it asks for the key all
  // the same.
  if (connection == nullptr) {
    connection = bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE);
  }
  if (connection != nullptr) {
    bufferevent_set_max_single_write(connection, kMaxWrite);
    RunGuarded(__PRETTY_FUNCTION__, [&] { host->clients_->Add(connection); });
  }
  host->sockets_->OnAccepted();
  return connection;
}

AgentHost::AgentHost(Orx::HookInvoker* invoker, bool secure, const std::string& agentDataPath,
                     const std::string& agentDirectory, const std::string& deviceDiscoveryPath,
                     uint16_t listenPort, const std::string& dstAddr, uint16_t dstPort,
                     const std::string& agentPrefix, const std::function<void()>& heartbeat)
    : invoker_(invoker),
      secure_(secure),
      listenPort_(listenPort),
      dstPort_(dstPort),
      dstAddr_(dstAddr),
      agentPrefix_(agentPrefix),
      agentDataPath_(agentDataPath),
      certFile_(agentDirectory + "/mirel.crt"),
      keyFile_(agentDirectory + "/mirel.key"),
      deviceDiscoveryPath_(deviceDiscoveryPath),
      heartbeat_(heartbeat) {
  InitServer();
  if (secure_) {
    InitSsl();
  }
  InitHeartbeating();
}

void AgentHost::InitServer() {
  event_base* const base = MakeEventBase();
  if (base == nullptr) {
    throw ErrnoFailure("Failed to init event_base");
  }
  base_.reset(base, event_base_free);

  event* const invokerEvent = event_new(base, -1, 0, OnInvokerEvent, this);
  if (invokerEvent == nullptr) {
    throw ErrnoFailure("Failed to init invoker event");
  }
  invokerEvent_.reset(invokerEvent, event_free);

  clients_ = secure_ ? std::make_unique<ClientTable>(base, kMaxTlsClients, kMaxTlsUnfinished)
                     : std::make_unique<ClientTable>(base, kMaxPlainClients, kMaxPlainUnfinished);
  MakeHttpServer();
  sockets_ = std::make_unique<ListeningSockets>(base, http_.get());
  if (!sockets_->Listen(kLoopback, listenPort_)) {
    throw ErrnoFailure("Failed to bind endpoint '" + std::string(kLoopback) + ":" +
                       std::to_string(listenPort_) + "'");
  }
  boundAddrs_.insert(kLoopback);
  evcon_ = MakeDestinationConnection(base, dstAddr_, dstPort_);
  forwarder_ = std::make_unique<Forwarder>(
      base, dstAddr_, dstPort_, &evcon_, clients_.get(),
      [this](evhttp_request* req, Forwarder::Outcome outcome, evhttp_request* reply) {
        FinishForwarding(req, outcome, reply);
      });
}

void AgentHost::MakeHttpServer() {
  evhttp* const http = evhttp_new(base_.get());
  if (http == nullptr) {
    throw ErrnoFailure("Failed to init evhttp");
  }
  http_.reset(http, evhttp_free);
  evhttp_set_allowed_methods(http, EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_PUT |
                                       EVHTTP_REQ_DELETE | EVHTTP_REQ_PATCH);
  evhttp_set_timeout(http, kHttpTimeoutSecs);
  evhttp_set_max_headers_size(http, kMaxHead);
  evhttp_set_max_body_size(http, kMaxReceivedBody);
  // An answer has the content type that the destination gave it, or none.
  evhttp_set_default_content_type(http, nullptr);
  evhttp_set_gencb(http, OnRequest, this);
  evhttp_set_bevcb(http, OnConnection, this);
}

void AgentHost::InitHeartbeating() {
  event* const heartbeatEvent = event_new(base_.get(), -1, EV_PERSIST, OnHeartbeatEvent, this);
  if (heartbeatEvent == nullptr) {
    throw ErrnoFailure("Failed to init heartbeat");
  }
  event_add(heartbeatEvent, &kHeartbeatPeriod);
  heartbeatEvent_.reset(heartbeatEvent, event_free);
}

void AgentHost::LogEndpoint() const {
  if (!Orx::Log::IsOn(Orx::Log::kDebug)) {
    return;
  }
  const char* protocol = "plain HTTP";
  if (secure_) {
    protocol = HasCertificateFiles() ? "TLS" : "plain HTTP, for want of certificate and key";
  }
  ORX_LOG(Orx::Log::kDebug, "Serves %s:%d: %s", kLoopback, listenPort_, protocol);
}

void AgentHost::Run() {
  SetStarted();
  event_base_dispatch(base_.get());
  ORX_LOG(Orx::Log::kError, "The event loop has ended: %s",
          stdext::error_number_and_text(errno).c_str());
}

void AgentHost::BindSrcAddr(const std::string& addr) {
  ORX_LOG(Orx::Log::kDebug, "Enter addr=%s", addr.c_str());
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (addr.empty() || boundAddrs_.count(addr) != 0) {
      return;
    }
    pendingAddrs_.insert(addr);
  }
  event_active(invokerEvent_.get(), 0, 0);
  ORX_LOG(Orx::Log::kDebug, "Leave");
}

void AgentHost::Invoke() {
  ORX_LOG_SCOPE();
  std::set<std::string> addrs;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    addrs.swap(pendingAddrs_);
  }
  for (const std::string& addr : addrs) {
    if (!sockets_->Listen(addr, listenPort_)) {
      ORX_LOG(Orx::Log::kError, "Failed to bind endpoint '%s:%d' as errno %d", addr.c_str(),
              listenPort_, errno);
      continue;
    }
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      boundAddrs_.insert(addr);
    }
    ORX_LOG(Orx::Log::kDebug, "Listen to endpoint '%s:%d'", addr.c_str(), listenPort_);
  }
}

void AgentHost::SetPairingKey(const std::string& key) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    pairingKey_ = key;
  }
  if (key.size() <= kShownKeyLength) {
    ORX_LOG(Orx::Log::kDebug, "Updated: '%s'", key.c_str());
  } else {
    ORX_LOG(Orx::Log::kDebug, "Updated: '%s...'", key.substr(0, kShownKeyLength).c_str());
  }
}

}  // namespace tavlo
