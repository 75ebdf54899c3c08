// The reader of framings beside libevent's own, over sockets: a request ends for both at the same
// byte, and what has a fault never becomes one.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/request_framing.h"

using namespace std::string_literals;

namespace {

using tavlo::RequestFraming;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::chrono::seconds kLongest(20);

// An HTTP server of libevent's, whose input is read along with, and its clients, one at a time.
class Server {
 public:
  Server() : base_(event_base_new(), event_base_free), http_(evhttp_new(base_.get()), evhttp_free) {
    evhttp_set_allowed_methods(http_.get(), EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_PUT |
                                                EVHTTP_REQ_DELETE | EVHTTP_REQ_PATCH);
    evhttp_set_gencb(http_.get(), OnRequest, this);
    evhttp_set_bevcb(http_.get(), OnConnection, this);
    evhttp_bound_socket* const bound = evhttp_bind_socket_with_handle(http_.get(), "127.0.0.1", 0);
    socklen_t size = sizeof address_;
    if (bound == nullptr || ::getsockname(evhttp_bound_socket_get_fd(bound),
                                          reinterpret_cast<sockaddr*>(&address_), &size) != 0) {
      throw std::runtime_error("no HTTP server");
    }
  }

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() { Disconnect(); }

  // Begins anew with a new client.
  void Connect() {
    Disconnect();
    const int on = 1;
    client_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::setsockopt(client_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(client_, reinterpret_cast<sockaddr*>(&address_), sizeof address_) != 0) {
      throw std::runtime_error("no connection");
    }
    framing_ = {};
    sent_ = received_ = 0;
    hasEnded_ = false;
    answer_.clear();
    bodies_.clear();
  }

  // Sends it and waits until the server has read it and done what it does then.
  void Send(const std::string& bytes) {
    if (::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      return;  // the server has ended the connection
    }
    sent_ += bytes.size();
    RunUntil(received_, sent_);
  }

  // All that has come back when the server ends the connection, which it does once it has refused
  // something, or got the end of what the client sends.
  std::string ReadToEnd() {
    ::shutdown(client_, SHUT_WR);
    RunUntil(hasEnded_, true);
    return answer_;
  }

  // The bodies of the requests that libevent has told of, and what was said of the first by then.
  const std::vector<std::string>& Bodies() const { return bodies_; }
  const RequestFraming& Framing() const { return framing_; }

 private:
  static bufferevent* OnConnection(event_base* base, void* server) {
    bufferevent* const made = bufferevent_socket_new(base, -1, 0);
    evbuffer_add_cb(bufferevent_get_input(made), OnInput, server);
    return made;
  }

  static void OnInput(evbuffer* input, const evbuffer_cb_info* change, void* server) {
    if (change->n_added > 0) {
      static_cast<Server*>(server)->Take(input, change->n_added);
    }
  }

  static void OnRequest(evhttp_request* request, void* server) {
    auto* const self = static_cast<Server*>(server);
    evbuffer* const body = evhttp_request_get_input_buffer(request);
    const size_t length = evbuffer_get_length(body);
    self->bodies_.emplace_back(reinterpret_cast<char*>(evbuffer_pullup(body, -1)), length);
    evhttp_send_reply(request, HTTP_OK, "OK", nullptr);
  }

  void Take(evbuffer* input, size_t added) {
    if (isChanging_) {
      return;
    }
    received_ += added;
    const size_t length = evbuffer_get_length(input);
    if (framing_.Fault() != nullptr) {
      // libevent does not end the connection of a CONNECT that it has refused.
      ReplaceLast(input, added, "");
      return;
    }
    framing_.Take(reinterpret_cast<char*>(evbuffer_pullup(input, -1)) + length - added, added);
    if (framing_.Fault() != nullptr) {
      ReplaceLast(input, framing_.Unsound(), "refused\r\n");
    }
  }

  // What is left may be a body's beginning: libevent leaves that there until it is whole.
  void ReplaceLast(evbuffer* input, size_t count, const char* text) {
    isChanging_ = true;
    const std::unique_ptr<evbuffer, void (*)(evbuffer*)> kept(evbuffer_new(), evbuffer_free);
    evbuffer_remove_buffer(input, kept.get(), evbuffer_get_length(input) - count);
    evbuffer_drain(input, count);
    evbuffer_add_buffer(input, kept.get());
    evbuffer_add(input, text, std::strlen(text));
    isChanging_ = false;
  }

  template <typename Value>
  void RunUntil(const Value& state, Value wanted) {
    const auto end = std::chrono::steady_clock::now() + kLongest;
    while (state < wanted && !hasEnded_ && std::chrono::steady_clock::now() < end) {
      event_base_loop(base_.get(), EVLOOP_NONBLOCK);
      char buffer[4096];
      const ssize_t count = ::recv(client_, buffer, sizeof buffer, MSG_DONTWAIT);
      hasEnded_ = count == 0 || (count < 0 && errno != EAGAIN);
      answer_.append(buffer, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    EXPECT_TRUE(state >= wanted || hasEnded_) << answer_;
  }

  void Disconnect() {
    if (client_ >= 0) {
      ::close(client_);
    }
  }

  std::unique_ptr<event_base, void (*)(event_base*)> base_;
  std::unique_ptr<evhttp, void (*)(evhttp*)> http_;
  sockaddr_in address_ = {};
  RequestFraming framing_;
  int client_ = -1;
  size_t sent_ = 0;
  size_t received_ = 0;
  bool hasEnded_ = false;
  bool isChanging_ = false;
  std::string answer_;
  std::vector<std::string> bodies_;
};

const std::string kStart = "POST / HTTP/1.1\r\n";
const std::string kKey = "PairingKey: key\r\n";
const std::string kChunked = kStart + "Transfer-Encoding: chunked\r\n\r\n";
const std::string kEnd = "0\r\n\r\n";
const std::string kHidden = "GET /hidden HTTP/1.1\r\n\r\n";

const std::vector<std::string> kFaultyHeads = {
    "POST /\0 HTTP/1.1\r\n\r\n"s,
    "POST / HTTP/\r1.1\r\n\r\n",
    "POST / HTTP/\t+1.01\r\n\r\n",
    "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n" + kEnd + kHidden,
    kStart + "PairingKey : key\r\n\r\n",
    kStart + "PairingKey\t: key\r\n\r\n",
    kStart + " PairingKey: key\r\n\r\n",
    kStart + "X: y\r\n PairingKey: key\r\n\r\n",
    kStart + "X: y\0\rPairingKey: key\r\n\r\n"s,
    kStart + "X: y\rPairingKey: key\r\n\r\n",
    kStart + "PairingKey: key\0x\r\n\r\n"s,
    kStart + "PairingKey\0: key\r\n\r\n"s,
    kStart + "\0PairingKey: key\r\n\r\n"s,
    kStart + "PairingKey: key\x01\r\n\r\n",
    kStart + "PairingKey: k\x7f\r\n\r\n",
    kStart + "PairingKey\r\n\r\n",
    kStart + ": key\r\n\r\n",
    kStart + "Pairing(Key): key\r\n\r\n",
    kStart + kKey + kKey + "\r\n",
    kStart + "Content-Length: 0\r\nContent-Length: 24\r\n\r\n" + kHidden,
    kStart + "Content-Length: 24\r\nContent-Length: 24\r\n\r\n" + kHidden,
    kStart + "Content-Length: 0, 24\r\n\r\n" + kHidden,
    kStart + "Content-Length: +24\r\n\r\n" + kHidden,
    kStart + "Content-Length: \r\n\r\n" + kHidden,
    kStart + "Content-Length: 18446744073709551640\r\n\r\n" + kHidden,
    kStart + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n" + kEnd + kHidden,
    kStart + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n" + kEnd + kHidden,
    kStart + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n" + kEnd + kHidden,
    kStart + "Transfer-Encoding: gzip\r\n\r\n" + kHidden,
    kStart + "Transfer-Encoding:\tchunked\r\n\r\n" + kEnd + kHidden,
    kStart + "Transfer-Encoding: chunked;x\r\n\r\n" + kEnd + kHidden,
    kStart + "Transfer-Encoding: x, chunked\r\n\r\n" + kEnd + kHidden,
    "HEAD / HTTP/1.1\r\nContent-Length: 24\r\n\r\n" + kHidden,
    "TRACE / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + kEnd + kHidden,
    "CONNECT x:1 HTTP/1.1\r\nContent-Length: 24\r\n\r\n" + kHidden,
    "FOO / HTTP/1.1\r\nContent-Length: 24\r\n\r\n" + kHidden,
};
const std::vector<std::string> kFaultyBodies = {
    kChunked + "+5\r\nhello\r\n" + kEnd,
    kChunked + "0x5\r\nhello\r\n" + kEnd,
    kChunked + " 5\r\nhello\r\n" + kEnd,
    kChunked + "5 x\r\nhello\r\n" + kEnd,
    kChunked + "5\0\r\nhello\r\n"s + kEnd,
    kChunked + "\r\n5\r\nhello\r\n" + kEnd,
    kChunked + "\0\r\n5\r\nhello\r\n"s + kEnd,
    kChunked + "5\r\nhello" + kEnd,
    kChunked + "5\r\nhello world\r\n" + kEnd,
    kChunked + "5\r\nhello\r\n\r\n" + kEnd,
    kChunked + "c\r\nhello, world\r" + kEnd,
    kChunked + "5\r\nhello\r\n" + std::string(2000, '0') + "\r\n\r\n",
    kChunked + "0\r\n" + kKey + "\r\n",
    kChunked + "5\r\nhello\r\n0\r\nContent-Length: 24\r\n\r\n" + kHidden,
    kChunked + "0\r\n \r\n\r\n",
    kChunked + "0\r\n\r\r\n\r\n",
    kChunked + "0\r\n\0\r\n\r\n"s,
};

void ExpectRefused(const std::vector<std::string>& requests, const std::string& status) {
  Server server;
  for (const std::string& request : requests) {
    for (size_t split = 1; split < std::min<size_t>(request.size(), 120); ++split) {
      server.Connect();
      server.Send(request.substr(0, split));
      server.Send(request.substr(split));
      EXPECT_THAT(server.ReadToEnd(), StartsWith("HTTP/1.1 " + status)) << request << split;
      EXPECT_THAT(server.Bodies(), IsEmpty()) << request << split;
      EXPECT_NE(server.Framing().Fault(), nullptr) << request << split;
    }
  }
}

TEST(RequestFramingBesideLibevent, HasAFaultyHeadRefused) {
  ExpectRefused(kFaultyHeads, "400 ");
}

// libevent has no other answer to a body that it cannot read.
TEST(RequestFramingBesideLibevent, HasAFaultyBodyRefused) {
  ExpectRefused(kFaultyBodies, "413 ");
}

// Requests in all their forms, with more behind them.
class Requests {
 public:
  explicit Requests(unsigned seed) : random_(seed) {}

  std::string Next() {
    const std::string method = Any({"GET", "POST", "PUT", "DELETE", "PATCH"});
    const std::string version = Any({"HTTP/1.1", "HTTP/1.1", "HTTP/1.0"});
    const std::string lineEnd = Any({"\r\n", "\n"});
    std::string request =
        method + Any({" / ", " /a b ", " http://x/ "}) + version + Any({"", "  "}) + lineEnd;
    while (Up(2) > 0) {
      request += Any({"A: b", "A:", "a:\t\xc3\xa9 ", "Connection: close", "Connection: keep-alive",
                      "Expect: 100-continue", "Trailer: X"}) +
                 lineEnd;
    }
    switch (Up(version == "HTTP/1.0" ? 1 : 2)) {
      case 0:
        return request + lineEnd;
      case 1:
        return request + WithLength(lineEnd);
      default:
        return request + InChunks(lineEnd);
    }
  }

  size_t Up(size_t most) { return std::uniform_int_distribution<size_t>(0, most)(random_); }

 private:
  std::string Any(const std::vector<std::string>& of) { return of[Up(of.size() - 1)]; }

  std::string Body() {
    return std::string(Up(40), 'b') + Any({"", "\n", "\r\n\r\n", "\x01", "0\r\n\r\n"});
  }

  std::string WithLength(const std::string& lineEnd) {
    const std::string body = Body();
    return Any({"Content-Length: ", "content-length:", "CONTENT-LENGTH: \t0"}) +
           std::to_string(body.size()) + Any({"", " ", "\t"}) + lineEnd + lineEnd + body;
  }

  std::string InChunks(const std::string& lineEnd) {
    std::string text =
        Any({"Transfer-Encoding: chunked", "transfer-encoding:Chunked \t"}) + lineEnd;
    text += lineEnd;
    while (Up(2) > 0) {
      const std::string chunk = Body() + "x";
      char length[16];
      std::snprintf(length, sizeof length, Up(1) == 0 ? "%zx" : "%05zX", chunk.size());
      text += length + Any({"", " ", "  ;x=y"}) + lineEnd + chunk + Any({"\r\n", "\n"});
    }
    return text + Any({"0", "000"}) + lineEnd + lineEnd;
  }

  std::mt19937 random_;
};

TEST(RequestFramingBesideLibevent, EndsARequestAtTheSameByte) {
  Requests requests(1);
  Server server;
  for (int round = 0; round < 1000; ++round) {
    const std::string request = requests.Next();
    server.Connect();
    // libevent answers what has come whole at once: each byte may be the last.
    size_t sent = 0;
    while (sent < request.size() && server.Bodies().empty()) {
      ASSERT_FALSE(server.Framing().IsWhole()) << request << " at " << sent;
      const size_t next = request.size() - sent > 8 ? 1 + requests.Up(6) : 1;
      server.Send(request.substr(sent, next));
      sent += next;
      ASSERT_EQ(server.Framing().Fault(), nullptr) << request;
      ASSERT_EQ(server.Framing().IsWhole(), !server.Bodies().empty()) << request << " at " << sent;
    }
    EXPECT_EQ(server.Bodies().size(), 1u) << request;
    EXPECT_EQ(sent, request.size()) << request;
  }
}

}  // namespace
