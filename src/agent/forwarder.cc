// The queue of requests, the connection that they go over, and what becomes of each reply.

#include "agent/forwarder.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http_struct.h>
#include <event2/keyvalq_struct.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>

#include "agent/callback_guard.h"
#include "agent/client_table.h"
#include "agent/limits.h"
#include "util/close_on_exec.h"
#include "util/log.h"

namespace tavlo {

// What the head of a reply says of where its body ends, and of the connection.
struct ReplyFraming {
  const char* length = nullptr;  // the first one
  const char* coding = nullptr;  // the last one
  size_t codings = 0;
  bool closes = false;
  bool keepsAlive = false;
};

namespace {

constexpr int kContinue = 100;

// What libevent does not take for the line with the length of a chunk.
constexpr char kNoChunk[] = "refused\r\n";

bool IsNumeric(const std::string& address) {
  in6_addr binary = {};
  return ::inet_pton(AF_INET, address.c_str(), &binary) == 1 ||
         ::inet_pton(AF_INET6, address.c_str(), &binary) == 1;
}

// The address as text; empty, after a logged error, when the name has none. Blocks for as long as
// the look-up takes.
std::string LookUp(const std::string& host) {
  if (IsNumeric(host)) {
    return host;
  }
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  char text[NI_MAXHOST] = "";
  int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (error == 0) {
    error = ::getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                          NI_NUMERICHOST);
    ::freeaddrinfo(found);
  }
  if (error != 0) {
    Orx::Log::Message2(Orx::Log::kError, __func__, "Failed to look up %s: %s", host.c_str(),
                       ::gai_strerror(error));
  }
  return error == 0 ? text : "";
}

// What may be sent twice without harm: to do it twice is to do it once.
bool IsRepeatable(evhttp_cmd_type method) {
  return method == EVHTTP_REQ_GET || method == EVHTTP_REQ_PUT || method == EVHTTP_REQ_DELETE;
}

// Whether this is one of the words of a header's value.
bool HasWord(const char* value, const char* word) {
  const size_t length = std::strlen(word);
  while (*(value += std::strspn(value, ", \t")) != '\0') {
    const size_t found = std::strcspn(value, ", \t");
    if (found == length && ::strncasecmp(value, word, length) == 0) {
      return true;
    }
    value += found;
  }
  return false;
}

ReplyFraming ReadFraming(const evkeyvalq* headers) {
  ReplyFraming framing;
  for (const evkeyval* header = headers->tqh_first; header != nullptr;
       header = header->next.tqe_next) {
    if (::strcasecmp(header->key, "Content-Length") == 0) {
      framing.length = framing.length != nullptr ? framing.length : header->value;
    } else if (::strcasecmp(header->key, "Transfer-Encoding") == 0) {
      framing.coding = header->value;
      ++framing.codings;
    } else if (::strcasecmp(header->key, "Connection") == 0) {
      framing.closes = framing.closes || HasWord(header->value, "close");
      framing.keepsAlive = framing.keepsAlive || HasWord(header->value, "keep-alive");
    }
  }
  return framing;
}

bool HasBody(int status) {
  return status != HTTP_NOCONTENT && status != HTTP_NOTMODIFIED;
}

}  // namespace

std::shared_ptr<evhttp_connection> MakeDestinationConnection(event_base* base,
                                                             const std::string& address,
                                                             uint16_t port) {
  evhttp_connection* const made = evhttp_connection_base_new(base, nullptr, address.c_str(), port);
  if (made == nullptr) {
    throw std::runtime_error("Failed to init evcon errno " + std::to_string(errno));
  }
  evhttp_connection_set_timeout(made, kHttpTimeoutSecs);
  evhttp_connection_set_max_headers_size(made, kMaxReplyHead);
  bufferevent_set_max_single_write(evhttp_connection_get_bufferevent(made), kMaxWrite);
  return {made, evhttp_connection_free};
}

void Forwarder::OnTurn(evutil_socket_t, short, void* forwarder) {
  auto* const self = static_cast<Forwarder*>(forwarder);
  if (!RunGuarded(__PRETTY_FUNCTION__, [&] { self->TakeTurn(); }) && self->underWay_) {
    self->End(Outcome::kNotStarted, nullptr);
  }
}

void Forwarder::OnInput(evbuffer* input, const evbuffer_cb_info* change, void* forwarder) {
  auto* const self = static_cast<Forwarder*>(forwarder);
  self->reply_.received += change->n_added;
  if (change->n_added > 0 && change->orig_size > kMaxChunkLine && self->AwaitsChunk()) {
    evbuffer_drain(input, evbuffer_get_length(input));
    evbuffer_prepend(input, kNoChunk, sizeof kNoChunk - 1);
  }
  if (!self->underWay_ && change->n_added > 0) {
    self->hasSentMore_ = true;
  }
}

int Forwarder::OnHead(evhttp_request* reply, void* forwarder) {
  bool goesOn = false;
  RunGuarded(__PRETTY_FUNCTION__,
             [&] { goesOn = static_cast<Forwarder*>(forwarder)->TakeHead(reply); });
  return goesOn ? 0 : -1;
}

// libevent reads into blocks of 8 KiB, 4 KiB at a time, and passes them on half full. Copied, they
// take no more than what has come.
void Forwarder::OnPiece(evhttp_request* reply, void* forwarder) {
  evbuffer* const from = evhttp_request_get_input_buffer(reply);
  evbuffer* const to = static_cast<Forwarder*>(forwarder)->pieces_.get();
  evbuffer_iovec piece;
  while (evbuffer_peek(from, -1, nullptr, &piece, 1) > 0) {
    evbuffer_add(to, piece.iov_base, piece.iov_len);
    evbuffer_drain(from, piece.iov_len);
  }
}

void Forwarder::OnError(evhttp_request_error error, void* forwarder) {
  static_cast<Forwarder*>(forwarder)->reply_.error = error;
}

void Forwarder::OnReply(evhttp_request* reply, void* forwarder) {
  RunGuarded(__PRETTY_FUNCTION__, [&] { static_cast<Forwarder*>(forwarder)->TakeReply(reply); });
}

Forwarder::Forwarder(event_base* base, std::string host, uint16_t port,
                     std::shared_ptr<evhttp_connection>* connection, ClientTable* clients,
                     Finish finish)
    : base_(base),
      host_(std::move(host)),
      port_(port),
      connection_(connection),
      clients_(clients),
      finish_(std::move(finish)) {
  event* const made = event_new(base, -1, 0, OnTurn, this);
  if (made == nullptr) {
    throw std::runtime_error("Failed to init forwarder event errno " + std::to_string(errno));
  }
  turnEvent_.reset(made, event_free);
  evbuffer* const pieces = evbuffer_new();
  if (pieces == nullptr) {
    throw std::runtime_error("Failed to init forwarder buffer errno " + std::to_string(errno));
  }
  pieces_.reset(pieces, evbuffer_free);
}

void Forwarder::Forward(evhttp_request* client, std::string target) {
  char* peer = nullptr;
  uint16_t port = 0;
  evhttp_connection_get_peer(evhttp_request_get_connection(client), &peer, &port);
  Line* const line = LineOf(peer);
  line->requests.push_back({client, std::move(target)});
  ++waiting_;
  if (waiting_ + (underWay_ ? 1 : 0) > kMaxWaiting) {
    RefuseOne(line);
  }
  event_active(turnEvent_.get(), 0, 0);
}

// One that is new comes before that of the request under way, which has just had its turn.
Forwarder::Line* Forwarder::LineOf(const std::string& address) {
  const auto found = std::find_if(lines_.begin(), lines_.end(),
                                  [&](const Line& line) { return line.address == address; });
  if (found != lines_.end()) {
    return &*found;
  }
  const auto place = underWay_ ? std::prev(lines_.end()) : lines_.end();
  return &*lines_.insert(place, {address, {}});
}

// The newest request of the longest line; of lines that are equally long, that of the latest.
void Forwarder::RefuseOne(Line* latest) {
  Line* longest = latest;
  for (Line& line : lines_) {
    if (line.requests.size() > longest->requests.size()) {
      longest = &line;
    }
  }
  evhttp_request* const refused = longest->requests.back().client;
  longest->requests.pop_back();
  --waiting_;
  finish_(refused, Outcome::kTooMany, nullptr);
}

// From the loop alone: the connection may be made anew in here.
void Forwarder::TakeTurn() {
  if (!underWay_) {
    TakeNext();
  }
  if (!underWay_ || isSent_ || SendIfFit()) {
    return;
  }
  if (MakeConnection()) {
    Send();
  } else {
    End(Outcome::kNoReply, nullptr);
  }
}

void Forwarder::TakeNext() {
  while (!lines_.empty() && lines_.front().requests.empty()) {
    lines_.pop_front();
  }
  if (lines_.empty()) {
    return;
  }
  lines_.splice(lines_.end(), lines_, lines_.begin());
  Line& line = lines_.back();
  underWay_ = std::move(line.requests.front());
  line.requests.pop_front();
  --waiting_;
  isSent_ = false;
  reply_ = Reply();
}

// The next request, so that the SDK REST host works on it while the answer to this one is made.
void Forwarder::HandOverNext() {
  underWay_.reset();
  TakeNext();
  const bool done = RunGuarded(__PRETTY_FUNCTION__, [&] {
    if (underWay_ && !SendIfFit()) {
      event_active(turnEvent_.get(), 0, 0);
    }
  });
  if (!done && underWay_) {
    End(Outcome::kNotStarted, nullptr);
  }
}

// Returns whether the connection was fit, and the request is no longer to be sent.
bool Forwarder::SendIfFit() {
  hasServed_ = IsFit();
  if (hasServed_) {
    Send();
  }
  return hasServed_;
}

void Forwarder::Send() {
  isSent_ = true;
  mayServeAgain_ = false;
  evbuffer_drain(pieces_.get(), evbuffer_get_length(pieces_.get()));
  // A copy, since ours may be gone before libevent's call returns; and made before there is a
  // request that would be lost for want of memory.
  const std::string target = underWay_->target;
  evhttp_request* const request = MakeRequest();
  if (request == nullptr || HandOver(request, target) < 0) {
    End(Outcome::kNotStarted, nullptr);
  }
  // Otherwise the reply callback will run, or has run already.
}

// While a script ran or a lock was waited for, the loop has not seen what came over an idle
// connection: that the SDK REST host has closed it, mostly. libevent would send the request into
// it all the same.
bool Forwarder::IsFit() const {
  const int fd = bufferevent_getfd(evhttp_connection_get_bufferevent(connection_->get()));
  char next = 0;
  return mayServeAgain_ && fd >= 0 && ::recv(fd, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT) < 0 &&
         errno == EAGAIN;
}

// A name is looked up here, before the lock is taken under which libevent connects.
bool Forwarder::MakeConnection() {
  const std::string address = LookUp(host_);
  if (address.empty()) {
    return false;
  }
  *connection_ = MakeDestinationConnection(base_, address, port_);
  bufferevent* const stream = evhttp_connection_get_bufferevent(connection_->get());
  evbuffer_add_cb(bufferevent_get_input(stream), OnInput, this);
  return true;
}

// Nothing of the client's goes with it but its body.
evhttp_request* Forwarder::MakeRequest() {
  evhttp_request* const request = evhttp_request_new(OnReply, this);
  if (request == nullptr) {
    return nullptr;
  }
  evhttp_request_set_header_cb(request, OnHead);
  evhttp_request_set_error_cb(request, OnError);
  evbuffer* const body = evhttp_request_get_input_buffer(underWay_->client);
  const size_t length = evbuffer_get_length(body);
  evkeyvalq* const headers = evhttp_request_get_output_headers(request);
  evhttp_add_header(headers, "Content-Length", std::to_string(length).c_str());
  evhttp_add_header(headers, "Host", host_.c_str());
  evbuffer* const output = evhttp_request_get_output_buffer(request);
  if (IsRepeatable(evhttp_request_get_command(underWay_->client))) {
    evbuffer_add(output, evbuffer_pullup(body, -1), length);
  } else {
    evbuffer_remove_buffer(body, output, length);
  }
  return request;
}

int Forwarder::HandOver(evhttp_request* request, const std::string& target) {
  evhttp_connection* const connection = connection_->get();
  const evhttp_cmd_type method = evhttp_request_get_command(underWay_->client);
  if (hasServed_) {
    const int result = evhttp_make_request(connection, request, method, target.c_str());
    const int fd = bufferevent_getfd(evhttp_connection_get_bufferevent(connection));
    event_base_active_by_fd(base_, fd, EV_WRITE);  // in this turn of the loop, not in the next
    return result;
  }
  // libevent opens the connection without making it close-on-exec. The reply callback may run in
  // here, under this lock: it must never start a program.
  const std::lock_guard<std::mutex> lock(stdext::exec_mutex());
  const int result = evhttp_make_request(connection, request, method, target.c_str());
  const int fd = bufferevent_getfd(evhttp_connection_get_bufferevent(connection));
  if (fd >= 0) {
    const int on = 1;
    stdext::set_close_on_exec(fd);
    // Or the last piece of a body would wait for the acknowledgement of the others.
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  return result;
}

// Whether what has come and was not read yet is of the line with the length of a chunk: libevent
// reads all else as it comes, and sets no limit to that line.
bool Forwarder::AwaitsChunk() const {
  return underWay_ && reply_.chunked != nullptr && reply_.chunked->ntoread < 0;
}

// Returns whether the reply is read on.
bool Forwarder::TakeHead(evhttp_request* reply) {
  const int status = evhttp_request_get_response_code(reply);
  if (status == kContinue) {
    return TakeInterimAnswer(reply);
  }
  if (status < HTTP_OK || status > 999) {
    ORX_LOG(Orx::Log::kError, "The SDK REST host answered with status %d, which is none", status);
    return false;
  }
  reply_.hasHead = true;
  const ReplyFraming framing = ReadFraming(evhttp_request_get_input_headers(reply));
  const bool isOld = reply->major < 1 || (reply->major == 1 && reply->minor < 1);
  reply_.endsConnection = framing.closes || (isOld && !framing.keepsAlive);
  return !HasBody(status) || TakeLength(reply, framing);
}

// libevent would take its headers for the reply's own, and hold those of any number of them.
bool Forwarder::TakeInterimAnswer(evhttp_request* reply) {
  evhttp_clear_headers(evhttp_request_get_input_headers(reply));
  if (reply_.received > kMaxReplyHead) {
    ORX_LOG(Orx::Log::kError, "The head of a reply is larger than %zu bytes", kMaxReplyHead);
    return false;
  }
  return true;
}

bool Forwarder::TakeLength(evhttp_request* reply, const ReplyFraming& framing) {
  // Now that all answers before it have been counted.
  reply_.room = clients_->RoomForAnswer(lines_.back().address);
  evhttp_connection_set_max_body_size(connection_->get(), static_cast<ev_ssize_t>(reply_.room));
  const char* const length = framing.length;
  const bool isCoded = framing.codings > 0;
  const bool isChunked = framing.codings == 1 && ::strcasecmp(framing.coding, "chunked") == 0;
  if (isCoded && (length != nullptr || !isChunked)) {
    // Versions of libevent read it differently, and some give an empty body for what came.
    ORX_LOG(Orx::Log::kError, "The length of a reply can be read in two ways");
    return false;
  }
  if (isCoded) {
    reply_.chunked = reply;
  }
  if (length == nullptr) {
    evhttp_request_set_chunked_cb(reply, OnPiece);
  }
  if (length == nullptr && !isCoded) {
    // Without a length the body goes on to the end of the connection; libevent sees that only
    // where no header says otherwise.
    reply_.endsConnection = true;
    evkeyvalq* const headers = evhttp_request_get_input_headers(reply);
    while (evhttp_remove_header(headers, "Connection") == 0) {
    }
  }
  const unsigned long long told = length != nullptr ? std::strtoull(length, nullptr, 10) : 0;
  if (told > reply_.room) {
    RefuseSize("Content-Length:", told);
  }
  return !reply_.isTooLarge;
}

// Either by itself or beside the answers that others have not taken.
void Forwarder::RefuseSize(const char* kind, unsigned long long bytes) {
  reply_.isTooLarge = true;
  if (reply_.room == kMaxReplyBody) {
    ORX_LOG(Orx::Log::kError, "The body of a reply is larger than %zu bytes: %s %llu",
            kMaxReplyBody, kind, bytes);
  } else {
    ORX_LOG(Orx::Log::kError,
            "Answers that clients have not taken hold %zu bytes, the limit is %zu, and a reply is "
            "refused: %s %llu",
            clients_->Untaken(), kMaxUntaken, kind, bytes);
  }
}

void Forwarder::TakeReply(evhttp_request* reply) {
  if (reply == nullptr) {
    if (TryAgain()) {
      return;
    }
    ExplainFailure();
    End(reply_.isTooLarge && reply_.room < kMaxReplyBody ? Outcome::kNoRoom : Outcome::kNoReply,
        nullptr);
  } else if (evhttp_request_get_response_code(reply) == 0) {
    End(Outcome::kNoAnswer, nullptr);
  } else {
    // A destination that has once sent more than it was asked for gets a connection for each
    // request: nothing else tells an answer that it repeats from that to the next one.
    mayServeAgain_ = !reply_.endsConnection && !hasSentMore_;
    evbuffer_add_buffer(evhttp_request_get_input_buffer(reply), pieces_.get());
    EndConnectionWithMore();
    evhttp_request* const client = underWay_->client;
    HandOverNext();
    finish_(client, Outcome::kReply, reply);
  }
}

// The SDK REST host may close a connection whenever it is idle, just when a request comes too. Such
// a request has not been looked at; it goes once more, over a connection that has not served.
bool Forwarder::TryAgain() {
  const bool metTheEnd = hasServed_ && reply_.received == 0 && reply_.error == EVREQ_HTTP_EOF;
  if (!metTheEnd || !IsRepeatable(evhttp_request_get_command(underWay_->client))) {
    return false;
  }
  isSent_ = false;
  reply_ = Reply();
  event_active(turnEvent_.get(), 0, 0);
  return true;
}

// libevent tells a limit and a mistake of the sender in one word; what has come tells them apart.
void Forwarder::ExplainFailure() {
  if (!reply_.hasHead && reply_.error == EVREQ_HTTP_INVALID_HEADER &&
      reply_.received > kMaxReplyHead) {
    ORX_LOG(Orx::Log::kError, "The head of a reply is larger than %zu bytes", kMaxReplyHead);
  } else if (reply_.error != EVREQ_HTTP_DATA_TOO_LONG) {
    return;
  } else if (reply_.received <= reply_.room) {
    ORX_LOG(Orx::Log::kError, "A chunk of a reply is broken, or larger than %zu bytes",
            reply_.room);
  } else {
    RefuseSize("so far", reply_.received);
  }
}

// What has come behind a reply would be taken for that to the next request, which has not gone out
// yet: its client would get what was meant for somebody else.
void Forwarder::EndConnectionWithMore() {
  bufferevent* const stream = evhttp_connection_get_bufferevent(connection_->get());
  if (evbuffer_get_length(bufferevent_get_input(stream)) > 0) {
    ORX_LOG(Orx::Log::kError,
            "The SDK REST host sent more than its reply: the connection is ended");
    hasSentMore_ = true;
    mayServeAgain_ = false;
    ::shutdown(bufferevent_getfd(stream), SHUT_RDWR);
  }
}

void Forwarder::End(Outcome outcome, evhttp_request* reply) {
  evhttp_request* const client = underWay_->client;
  underWay_.reset();
  if (waiting_ > 0) {
    // Not at once: the look-ups of all who wait, seconds each where nobody answers, would be one
    // turn of the loop, without a heartbeat or a time-out.
    const timeval now = {0, 0};
    event_add(turnEvent_.get(), &now);
  }
  finish_(client, outcome, reply);
}

}  // namespace tavlo
