#pragma once

// Sockets that listen, and the pace at which they accept.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct event;
struct event_base;
struct evconnlistener;
struct evhttp;

namespace tavlo {

/// Makes a non-blocking, close-on-exec TCP socket that listens on `address` (dotted text) and
/// `port`. Returns its descriptor, which the caller owns, or -1 with `errno` telling why.
///
/// libevent could do so too, but resolves the address, and on a router that has only an IPv6
/// address when the daemon starts it would refuse every IPv4 address for good, loopback included.
int OpenListeningSocket(const std::string& address, uint16_t port);

/// The listening sockets of one host, whose connections its HTTP server takes. They accept a few
/// connections in a turn of the loop, and rest for a while after a refused one.
///
/// Belongs to the thread of the event loop; the HTTP server owns the sockets and outlives this.
class ListeningSockets {
 public:
  /// Throws std::runtime_error when the event cannot be made.
  ListeningSockets(event_base* base, evhttp* server);
  ListeningSockets(const ListeningSockets&) = delete;
  ListeningSockets& operator=(const ListeningSockets&) = delete;

  /// Listens on `address` (dotted text) as well. On failure returns false, and `errno` tells why.
  bool Listen(const std::string& address, uint16_t port);

  /// To be told of each connection that the server takes in.
  void OnAccepted();

 private:
  // The server passes on what it gives to its own callbacks, which is of no use here.
  static void OnAcceptError(evconnlistener* listener, void*);
  static void OnPauseEnd(int, short, void* listener);
  static void OnNextTurn(int, short, void* sockets);

  static void PauseAccepting(evconnlistener* listener);

  event_base* base_;
  evhttp* server_;
  std::shared_ptr<event> nextTurnEvent_;
  std::vector<evconnlistener*> listeners_;
  int accepted_ = 0;  // since they stopped last: in this turn or an earlier one
};

}  // namespace tavlo
