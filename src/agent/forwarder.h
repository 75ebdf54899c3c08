#pragma once

// The way to the SDK REST host and back, one request at a time.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include <event2/http.h>

#include "agent/limits.h"

struct evbuffer;
struct evbuffer_cb_info;
struct event;
struct event_base;

namespace tavlo {

class ClientTable;
struct ReplyFraming;

/// A connection to the SDK REST host that is opened with its first request; `address` is a name or
/// dotted text. Throws std::runtime_error when there is no memory for it.
std::shared_ptr<evhttp_connection> MakeDestinationConnection(event_base* base,
                                                             const std::string& address,
                                                             uint16_t port);

/// The way of one listener's requests to the SDK REST host: those that wait, in a queue of its own,
/// and the one connection over which they go, one after another.
///
/// Addresses take turns, so that a device with many requests delays another's by one. libevent is
/// handed one request at a time, over a connection that is known to be fit: whether it may serve
/// again is decided where its answer is read, whether it still lives is looked up when it is taken.
/// The next request goes out before an answer is made; where that needs a new connection, it is the
/// loop's next turn that makes it.
///
/// Belongs to the thread of the event loop, which stands still while the destination's name, if it
/// has one, is looked up for a new connection.
class Forwarder {
 public:
  enum class Outcome {
    kReply,       // the destination's, whole
    kNoReply,     // none, or a broken one
    kNoAnswer,    // not even a connection: a reply with status 0
    kNoRoom,      // a reply for which there is no memory now
    kNotStarted,  // libevent did not take the request
    kTooMany      // more requests wait than may
  };

  /// Told of each request once, with the reply that belongs to `kReply`; from within `Forward` if
  /// too many wait. The client's request is the callee's to answer.
  using Finish =
      std::function<void(evhttp_request* client, Outcome outcome, evhttp_request* reply)>;

  /// `host` (a name or dotted text) and `port` are the destination's. `connection`, the caller's,
  /// is the one that the requests go over; what it points to is made anew when it can serve no
  /// longer. `clients` tells how large a reply may be. Both outlive the forwarder. Throws
  /// std::runtime_error when the event or a buffer cannot be made.
  Forwarder(event_base* base, std::string host, uint16_t port,
            std::shared_ptr<evhttp_connection>* connection, ClientTable* clients, Finish finish);
  Forwarder(const Forwarder&) = delete;
  Forwarder& operator=(const Forwarder&) = delete;

  /// Sends the method and body of the client's request to `target`, as soon as it is its turn. The
  /// request stays libevent's; it must not be answered or freed before `Finish` is told of it.
  /// Throws std::bad_alloc, and then `Finish` is not told.
  void Forward(evhttp_request* client, std::string target);

 private:
  struct Request {
    evhttp_request* client = nullptr;
    std::string target;
  };

  // The requests of one address that wait, in the order in which they came.
  struct Line {
    std::string address;
    std::list<Request> requests;
  };

  // What is known of the reply to the request under way.
  struct Reply {
    size_t room = kMaxReplyBody;  // the largest body that is taken, in bytes
    size_t received = 0;          // of head and body, in bytes
    bool hasHead = false;
    bool isTooLarge = false;
    bool endsConnection = false;
    const evhttp_request* chunked = nullptr;  // the reply, when its body comes in chunks
    std::optional<evhttp_request_error> error;
  };

  static void OnTurn(evutil_socket_t, short, void* forwarder);
  static void OnInput(evbuffer* input, const evbuffer_cb_info* change, void* forwarder);
  static int OnHead(evhttp_request* reply, void* forwarder);
  static void OnPiece(evhttp_request* reply, void* forwarder);
  static void OnError(evhttp_request_error error, void* forwarder);
  static void OnReply(evhttp_request* reply, void* forwarder);

  Line* LineOf(const std::string& address);
  void RefuseOne(Line* latest);
  void TakeTurn();
  void TakeNext();
  void HandOverNext();
  bool SendIfFit();
  void Send();
  bool IsFit() const;
  bool MakeConnection();
  evhttp_request* MakeRequest();
  int HandOver(evhttp_request* request, const std::string& target);
  bool AwaitsChunk() const;
  bool TakeHead(evhttp_request* reply);
  bool TakeInterimAnswer(evhttp_request* reply);
  bool TakeLength(evhttp_request* reply, const ReplyFraming& framing);
  void RefuseSize(const char* kind, unsigned long long bytes);
  void TakeReply(evhttp_request* reply);
  bool TryAgain();
  void ExplainFailure();
  void EndConnectionWithMore();
  void End(Outcome outcome, evhttp_request* reply);

  event_base* base_;
  std::string host_;
  uint16_t port_;
  std::shared_ptr<evhttp_connection>* connection_;
  ClientTable* clients_;
  Finish finish_;
  std::shared_ptr<event> turnEvent_;
  std::list<Line> lines_;  // in the order of their turns; last, that of the request under way
  size_t waiting_ = 0;     // requests in all lines
  std::optional<Request> underWay_;
  bool isSent_ = false;  // the request under way
  Reply reply_;
  std::shared_ptr<evbuffer> pieces_;  // of its body, when its length is not known beforehand
  bool mayServeAgain_ = false;        // the connection, as far as its last reply tells
  bool hasServed_ = false;            // the connection, before the request under way
  bool hasSentMore_ = false;          // the destination, at any time, than it was asked for
};

}  // namespace tavlo
