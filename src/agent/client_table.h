#pragma once

// Who is connected to a listener, how far each client is, and what it holds.

#include <chrono>
#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/request_framing.h"

struct bufferevent;
struct evbuffer;
struct evbuffer_cb_info;
struct event;
struct event_base;
struct evhttp_connection;
struct evhttp_request;

namespace tavlo {

/// The connections of one listener's clients, anybody in the LAN: what each of them makes the
/// daemon hold is counted here, and bounded (limits.h). A client goes round in this order, and the
/// three verbs tell the table how far it is:
///
///     Add ──> its request comes in ──> OnRequest ──> its answer is made ──> OnAnswer ──> it is
///     written ──> the next request comes in ──> OnRequest ──> ...
///
/// When there is no room, of connections or of memory, the address that holds the most pays, with
/// that connection of its own that has waited longest. One whose answer is being made or written is
/// never ended, unless nothing of that answer has gone out for `kStalled` while its room is needed.
///
/// What is wrong with the framing of a request is refused here as well, before libevent parses it.
///
/// Belongs to the thread of the event loop; outlives the HTTP server whose connections it is told.
class ClientTable {
 public:
  /// `maxClients` is how many connections it keeps, `maxUnfinished` what their unfinished requests
  /// may take, in bytes. Throws std::runtime_error when an event cannot be made.
  ClientTable(event_base* base, size_t maxClients, size_t maxUnfinished);
  ClientTable(const ClientTable&) = delete;
  ClientTable& operator=(const ClientTable&) = delete;

  /// A connection that the HTTP server is about to serve.
  void Add(bufferevent* connection);

  /// A request has come whole: until its answer has been written nothing more is read from its
  /// client, and what came with it that nobody needs any more is let go.
  void OnRequest(evhttp_request* request);

  /// The answer to the client's request, of this status, has been handed to libevent. `connection`
  /// is null when the client has gone meanwhile.
  void OnAnswer(evhttp_connection* connection, int status);

  /// The largest answer, in bytes, that there is room for, for a client of `address`.
  size_t RoomForAnswer(const std::string& address);

  /// What clients have not taken of their answers, in bytes.
  size_t Untaken() const { return untaken_; }

 private:
  using Clock = std::chrono::steady_clock;

  enum class State { kReceiving, kAnswering, kWriting };

  // What the connections of one address hold.
  struct Address {
    size_t connections = 0;
    size_t unfinished = 0;
    size_t untaken = 0;
  };
  using AddressEntry = std::pair<const std::string, Address>;

  struct Client {
    ClientTable* table = nullptr;
    evhttp_connection* connection = nullptr;
    AddressEntry* address = nullptr;
    State state = State::kReceiving;
    size_t stream = 0;               // what OpenSSL takes for it, in bytes
    bool isOver = false;             // libevent has refused its request, and nothing may follow
    bool isRefused = false;          // for the framing of its request
    bool isEnding = false;           // marked; it counts no more, and has no address
    RequestFraming framing;          // of the request that is coming in
    size_t incoming = 0;             // what has come since the last whole request, in bytes
    size_t spare = 0;                // of the blocks that its chunks were read into
    size_t request = 0;              // what is kept of the whole request that is being answered
    size_t unfinished = 0;           // what all these and the header lines take
    size_t untaken = 0;              // of its answer, when that was looked at last
    size_t backlog = 0;              // the same, with what the kernel holds of it
    Clock::time_point progressTime;  // when it was seen first that it was no more than that
    Clock::time_point requestTime;   // when its request had come whole; kept at debug level only
  };
  using Clients = std::list<Client>;

  static void OnLater(int, short, void* table);
  static void OnReportTime(int, short, void* table);
  static void OnInput(evbuffer* input, const evbuffer_cb_info* change, void* client);
  static void OnOutput(evbuffer* output, const evbuffer_cb_info* change, void* client);
  static void OnClose(evhttp_connection* connection, void* table);

  void TakeIn(bufferevent* connection);
  void Forget(evhttp_connection* connection);
  Client* Find(evhttp_connection* connection);
  void TakeInput(Client* client, evbuffer* input, size_t added);
  void Refuse(Client* client, evbuffer* input, size_t sound);
  void OnLibraryOutput(Client* client, int status);
  void LogAnswer(const Client& client, int status);
  void OnWritten(Client* client);
  void BeginNextRequest(Client* client);

  void Recount(Client* client);
  void SetUntaken(Client* client, size_t bytes);
  void CountNoMore(Client* client);
  size_t UnfinishedBound() const;
  void LookAtAnswers();
  void LookAtAnswer(Client* client);

  void MakeRoomForConnection(Client* latest);
  void MakeRoomForInput(Client* reading);
  void MakeRoomForAnswers();
  AddressEntry& LargestAddress(size_t Address::*measure);
  Client* LongestWaiting(const AddressEntry* address, size_t Client::*measure);
  bool MayEnd(Client* client);
  void EndForRoom(Client* client, const char* reason);
  void End(Client* client);
  void EndMarked();
  void Report();

  size_t maxClients_;
  size_t maxUnfinished_;
  std::shared_ptr<event> laterEvent_;         // for what cannot be done within libevent's callbacks
  std::shared_ptr<event> reportEvent_;        // pending while no line about ended clients is due
  std::vector<bufferevent*> newConnections_;  // references of our own
  std::map<std::string, Address> addresses_;
  Clients clients_;  // the one that has waited longest since its last answer comes first
  std::unordered_map<evhttp_connection*, Clients::iterator> byConnection_;
  size_t unfinished_ = 0;  // of all clients
  size_t untaken_ = 0;
  size_t ending_ = 0;  // how many are marked to be ended in this turn of the loop
  size_t unreported_ = 0;
  std::string lastEnded_;
  const char* lastReason_ = "";
};

}  // namespace tavlo
