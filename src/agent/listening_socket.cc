#include "agent/listening_socket.h"

#include <cerrno>
#include <stdexcept>

#include <arpa/inet.h>
#include <event2/event.h>
#include <event2/http.h>
#include <event2/listener.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "agent/callback_guard.h"
#include "agent/limits.h"
#include "util/descriptor.h"
#include "util/error_text.h"
#include "util/log.h"

namespace tavlo {

namespace {

// Accepted sockets inherit the options. Without TCP_NODELAY each answer over TLS waits some 40 ms
// for the client's delayed acknowledgement.
bool SetSocketOptions(int fd) {
  const int on = 1;
  return ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
         ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == 0 &&
         ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
}

}  // namespace

int OpenListeningSocket(const std::string& address, uint16_t port) {
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  if (::inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  stdext::descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket.is_open() || !SetSocketOptions(socket.get()) ||
      ::bind(socket.get(), reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 ||
      ::listen(socket.get(), kListenBacklog) != 0) {
    return -1;
  }
  return socket.release();
}

void ListeningSockets::OnAcceptError(evconnlistener* listener, void* /*server*/) {
  RunGuarded(__PRETTY_FUNCTION__, [listener] { PauseAccepting(listener); });
}

// The connection goes on waiting in the backlog; without a pause accept would fail again at once,
// for ever.
void ListeningSockets::PauseAccepting(evconnlistener* listener) {
  const int errnum = errno;
  if (event_base_once(evconnlistener_get_base(listener), -1, EV_TIMEOUT, OnPauseEnd, listener,
                      &kAcceptPause) == 0) {
    evconnlistener_disable(listener);
  }
  ORX_LOG(Orx::Log::kError, "Failed to accept a connection: %s",
          stdext::error_number_and_text(errnum).c_str());
}

void ListeningSockets::OnPauseEnd(evutil_socket_t, short, void* listener) {
  if (evconnlistener_enable(static_cast<evconnlistener*>(listener)) != 0) {
    ORX_LOG(Orx::Log::kError, "Failed to accept connections again");
  }
}

void ListeningSockets::OnNextTurn(evutil_socket_t, short, void* sockets) {
  for (evconnlistener* const listener : static_cast<ListeningSockets*>(sockets)->listeners_) {
    OnPauseEnd(-1, 0, listener);
  }
}

ListeningSockets::ListeningSockets(event_base* base, evhttp* server)
    : base_(base), server_(server) {
  event* const made = event_new(base, -1, 0, OnNextTurn, this);
  if (made == nullptr) {
    throw std::runtime_error("Failed to init listener event errno " + std::to_string(errno));
  }
  nextTurnEvent_.reset(made, event_free);
}

bool ListeningSockets::Listen(const std::string& address, uint16_t port) {
  listeners_.reserve(listeners_.size() + 1);  // or one that listens could be missing there
  stdext::descriptor socket(OpenListeningSocket(address, port));
  if (!socket.is_open()) {
    return false;
  }
  evconnlistener* const listener = evconnlistener_new(
      base_, nullptr, nullptr, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, 0, socket.get());
  if (listener == nullptr) {
    return false;
  }
  socket.release();  // the listener owns it now
  evconnlistener_set_error_cb(listener, OnAcceptError);
  if (evhttp_bind_listener(server_, listener) == nullptr) {
    evconnlistener_free(listener);
    return false;
  }
  listeners_.push_back(listener);
  return true;
}

// libevent goes on accepting until the backlog is empty, or the listener disabled.
void ListeningSockets::OnAccepted() {
  constexpr timeval kAtOnce = {0, 0};
  if (++accepted_ < kMaxAcceptsPerTurn) {
    return;
  }
  accepted_ = 0;
  if (event_add(nextTurnEvent_.get(), &kAtOnce) == 0) {
    for (evconnlistener* const listener : listeners_) {
      evconnlistener_disable(listener);
    }
  }
}

}  // namespace tavlo
