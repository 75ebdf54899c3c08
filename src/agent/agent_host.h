#pragma once

// One listener of the daemon: what others call of it, and what it is made of.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <event2/http.h>
#include <time.h>

#include "agent/client_table.h"
#include "agent/forwarder.h"
#include "agent/listening_socket.h"

struct bufferevent;
struct evbuffer;
struct event;
struct event_base;
struct ssl_ctx_st;

namespace Orx {
class HookInvoker;
}  // namespace Orx

namespace tavlo {

/// The name of each HTTP method that libevent knows.
extern const std::map<evhttp_cmd_type, const char*> kMethodNames;

/// The reason of a 500 whose cause only the log tells.
constexpr const char* kInternalError = "Internal error";

/// One HTTP listener of the daemon, plain or TLS, with its event loop and its one connection to the
/// SDK REST host, over which its requests are forwarded one after another.
///
/// `Run` belongs to one thread; all requests are handled on it, and a request that blocks (a hook
/// script, a locked file) blocks the others. `BindSrcAddr` and `SetPairingKey` may be called from
/// any thread, provided that libevent was set up for threads before the host was made. There is no
/// way to stop a running host: the process ends under it.
class AgentHost {
 public:
  /// Binds 127.0.0.1:`listenPort` at once. `invoker` is not owned and outlives the host; it is used
  /// when `agentDataPath`, the file that hands a request's body to the scripts, is not empty.
  /// `secure` makes it the TLS listener, which asks for the pairing key. Its `agentDirectory` (no
  /// trailing slash) holds mirel.crt and mirel.key, which are looked for with each connection until
  /// they have been loaded once; a connection that comes before is served without TLS.
  /// `deviceDiscoveryPath` is the device list, read for each GET of /api/mac. Requests go to
  /// `dstAddr` (a name or dotted text), port `dstPort`, with `agentPrefix` before their URI.
  /// `heartbeat` is called on the loop thread every 30 seconds, and after each request. Throws
  /// std::runtime_error, with the cause, when anything cannot be set up.
  AgentHost(Orx::HookInvoker* invoker, bool secure, const std::string& agentDataPath,
            const std::string& agentDirectory, const std::string& deviceDiscoveryPath,
            uint16_t listenPort, const std::string& dstAddr, uint16_t dstPort,
            const std::string& agentPrefix, const std::function<void()>& heartbeat);
  ~AgentHost() = default;
  AgentHost(const AgentHost&) = delete;
  AgentHost& operator=(const AgentHost&) = delete;

  /// Logs, at debug level, what it listens on and whether it speaks TLS there, if the certificate
  /// and key that it finds can be used.
  void LogEndpoint() const;

  /// Runs the event loop; returns only when the loop has failed, after a logged error.
  void Run();

  /// Asks the host to listen on `addr` as well, at its port; the loop thread does it a moment
  /// later. An address that is empty or bound already is ignored; one that cannot be bound is
  /// logged and forgotten, so that the next call tries again. Earlier addresses stay in service.
  void BindSrcAddr(const std::string& addr);

  /// Replaces the pairing key that requests on a TLS host must carry from now on. With an empty
  /// key, which is what a host starts with, they are refused.
  void SetPairingKey(const std::string& key);

 private:
  // A request that is taken up in the next turn of the loop.
  struct DelayedRequest {
    AgentHost* host;
    evhttp_request* request;
  };

  // What libevent calls; the last argument is the host, or a DelayedRequest.
  static void OnInvokerEvent(evutil_socket_t, short, void* host);
  static void OnHeartbeatEvent(evutil_socket_t, short, void* host);
  static bufferevent* OnConnection(event_base* base, void* argument);
  static void OnRequest(evhttp_request* req, void* host);
  static void OnDelayedRequest(evutil_socket_t, short, void* delayed);

  void InitServer();
  void MakeHttpServer();
  void InitSsl();
  void InitHeartbeating();

  // Binds the pending addresses, on the loop thread; has nothing to do with `invoker_`.
  void Invoke();

  bool HasCertificateFiles() const;
  bool LoadCertificate();
  bufferevent* SslConnect();

  bool DelayRequest(evhttp_request* req);
  void HandleRequest(evhttp_request* req);
  void DispatchRequest(evhttp_request* req);
  // Each returns whether the request goes on; one that does not has been answered.
  bool CheckEndpoint(evhttp_request* req, const std::string& uri, evhttp_cmd_type method);
  bool CheckPairingKey(evhttp_request* req);
  bool OfferToHook(evhttp_request* req, const std::string& uri, evhttp_cmd_type method);

  bool CallHook(const std::string& uri, evhttp_cmd_type method, const std::string& data,
                bool* terminated);
  void FinishForwarding(evhttp_request* req, Forwarder::Outcome outcome, evhttp_request* reply);
  void RelayReply(evhttp_request* req, evhttp_request* reply);
  void RefuseForwarded(evhttp_request* req, Forwarder::Outcome outcome);
  void ApiGetMac(evhttp_request* req);

  // Each request ends in one of these two. They hand it over to libevent: it may be gone
  // afterwards.
  void Answer(evhttp_request* req, int status, const char* reason, evbuffer* body);
  void Refuse(evhttp_request* req, int status, const char* reason);
  void AddDate(evhttp_request* req);
  void WriteAtOnce(evhttp_connection* client);

  Orx::HookInvoker* invoker_;
  bool secure_;
  uint16_t listenPort_;
  uint16_t dstPort_;
  std::string dstAddr_;
  std::string agentPrefix_;
  std::string agentDataPath_;
  std::string certFile_;
  std::string keyFile_;
  std::string deviceDiscoveryPath_;
  std::function<void()> heartbeat_;
  // Destroyed in reverse order: TLS context, what goes over the connection, the connection, sockets
  // and server, the table of its clients, events, and last the loop that they live on.
  std::shared_ptr<event_base> base_;
  std::shared_ptr<event> invokerEvent_;
  std::shared_ptr<event> heartbeatEvent_;
  std::unique_ptr<ClientTable> clients_;
  std::shared_ptr<evhttp> http_;
  std::unique_ptr<ListeningSockets> sockets_;
  std::shared_ptr<evhttp_connection> evcon_;
  std::unique_ptr<Forwarder> forwarder_;
  std::shared_ptr<ssl_ctx_st> sslCtx_;
  bool certificateLoaded_ = false;
  time_t dateSecond_ = -1;
  char date_[32] = "";  // of that second, as the header has it
  std::mutex mutex_;    // guards what follows
  std::string pairingKey_;
  std::set<std::string> pendingAddrs_;
  std::set<std::string> boundAddrs_;
};

}  // namespace tavlo
