#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

struct bufferevent;
struct evbuffer;
struct evbuffer_cb_info;
struct event;
struct event_base;
struct evhttp_connection;

namespace tavlo {

/// The largest head of a request, its first line included, in bytes. A larger one is answered 400
/// by libevent itself.
constexpr size_t kMaxHeadSize = size_t{64} * 1024;

/// The largest body that is taken in, in bytes. A larger one is answered 413 by libevent itself.
constexpr size_t kMaxReceivedBody = size_t{4} * 1024 * 1024;

/// How many connections one listener keeps.
constexpr size_t kMaxClients = 128;

/// What the unfinished requests of all clients of one listener may take, in bytes. A single request
/// of any size fits, unless it has more than `kMaxLines` lines, or its body comes in chunks of a
/// few bytes, whose framing counts too.
constexpr size_t kMaxUnfinished = size_t{6} * 1024 * 1024;

/// How many lines, of head and body, a request of the largest size may have. Any line may be a
/// header, which takes much more memory than its bytes.
constexpr size_t kMaxLines = 20000;

/// The connections of one listener's clients, anybody in the LAN: limits how many there are and how
/// much memory their unfinished requests take. A new connection beyond the limit ends the one that
/// has waited longest since its last request, or since it connected; too much memory ends the one
/// that takes most.
///
/// Belongs to the thread of the event loop; outlives the HTTP server whose connections it is told.
class ClientTable {
 public:
  /// Throws std::runtime_error when the event cannot be made.
  explicit ClientTable(event_base* base);
  ClientTable(const ClientTable&) = delete;
  ClientTable& operator=(const ClientTable&) = delete;

  /// A connection that the HTTP server is about to serve.
  void Add(bufferevent* connection);

  /// Tells of a request that has come whole; what it takes is the host's from now on.
  void OnRequest(evhttp_connection* connection);

  /// The connection's request waits: from now on it is not ended to make room, and what should come
  /// meanwhile is left where it is.
  void Hold(evhttp_connection* connection);

  /// Ends that. `connection` is null when the client has gone meanwhile.
  void Release(evhttp_connection* connection);

  /// To be called once an answer has been handed to libevent, which goes on reading from a client
  /// that it writes to, to see it go. Requests that come meanwhile would be held without a limit,
  /// and a client that has sent its last would lose the answer. Reading begins again with the next
  /// request. `connection` may be null, or have ended.
  void StopReading(evhttp_connection* connection);

 private:
  struct Client {
    ClientTable* table = nullptr;
    evhttp_connection* connection = nullptr;
    uint64_t turn = 0;      // the larger, the later its last request
    size_t unfinished = 0;  // what the request that is coming in takes, in bytes
    bool isHeld = false;
    bool isCut = false;
  };

  static void OnLater(int, short, void* table);
  static void OnInput(evbuffer* input, const evbuffer_cb_info* change, void* client);
  static void OnClose(evhttp_connection* connection, void* table);

  void TakeIn(bufferevent* connection);
  void Count(Client* client, evbuffer* input, size_t added);
  void CountRest(Client* client);
  void SetUnfinished(Client* client, size_t bytes);
  void EndLongestWaiting();
  void EndLargest(Client* reading);
  void Cut(Client* client);
  void EndCut();

  std::shared_ptr<event> laterEvent_;         // for what cannot be done within libevent's callbacks
  std::vector<bufferevent*> newConnections_;  // references of our own
  std::map<evhttp_connection*, Client> clients_;
  uint64_t turns_ = 0;
  size_t unfinished_ = 0;  // of all clients
};

}  // namespace tavlo
