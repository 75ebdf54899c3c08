#include "agent/client_table.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/http.h>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/limits.h"
#include "agent/request_memory.h"
#include "support/log_capture.h"
#include "support/socket.h"
#include "support/wait.h"
#include "util/descriptor.h"

namespace {

constexpr const char* kHog = "127.0.0.2";
constexpr const char* kOther = "127.0.0.3";
constexpr const char* kThird = "127.0.0.4";

// A client that connects from `address`, any of loopback.
class Peer {
 public:
  Peer(const std::string& address, uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const int size = 4096;
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_in name = Name(address, 0);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
    name = Name("127.0.0.1", port);
    EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
  }

  // Returns how many of the bytes the kernel has taken.
  size_t Send(const char* bytes, size_t length) {
    const ssize_t sent = ::send(socket_.get(), bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<size_t>(sent);
  }

  bool HasArrived() const {
    int left = 0;
    return ::ioctl(socket_.get(), SIOCOUTQ, &left) != 0 || left == 0;
  }

  // Takes what has come so far.
  void Read() {
    std::vector<char> bytes(1 << 16);
    while (::recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }

  // Nothing must be left to read.
  bool HasEnded() const {
    char byte = 0;
    const ssize_t got = ::recv(socket_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno == ECONNRESET);
  }

  void Leave() { socket_.close(); }

 private:
  static sockaddr_in Name(const std::string& address, uint16_t port) {
    sockaddr_in name = {};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    ::inet_pton(AF_INET, address.c_str(), &name.sin_addr);
    return name;
  }

  stdext::descriptor socket_;
};

// A table with bounds of the test's own, and an HTTP server that answers when the test says so. All
// of it is on the test's thread.
class ClientTableTest : public testing::Test {
 protected:
  void Make(size_t maxClients, size_t maxUnfinished) {
    base_.reset(event_base_new(), event_base_free);
    table_ = std::make_unique<tavlo::ClientTable>(base_.get(), maxClients, maxUnfinished);
    http_.reset(evhttp_new(base_.get()), evhttp_free);
    evhttp_set_bevcb(http_.get(), OnConnection, this);
    evhttp_set_gencb(http_.get(), OnRequest, this);
    ASSERT_EQ(evhttp_bind_socket(http_.get(), "127.0.0.1", port_), 0);
  }

  Peer& Connect(const std::string& address) {
    peers_.emplace_back(address, port_);
    Settle();
    return peers_.back();
  }

  // Returns when all of it has been read that is read at all.
  void Send(Peer& peer, const std::string& text) {
    size_t sent = 0;
    EXPECT_TRUE(test::WaitUntil([&] {
      Turn();
      sent += peer.Send(text.data() + sent, text.size() - sent);
      return (sent == text.size() && peer.HasArrived()) || peer.HasEnded();
    }));
    Settle();
  }

  Peer& ConnectAndSend(const std::string& address, const std::string& text) {
    Peer& peer = Connect(address);
    Send(peer, text);
    return peer;
  }

  void Answer(size_t number, size_t size) {
    evhttp_request* const request = requests_.at(number);
    evhttp_connection* const connection = evhttp_request_get_connection(request);
    const std::unique_ptr<evbuffer, decltype(&evbuffer_free)> body(evbuffer_new(), evbuffer_free);
    const std::string text(size, 'x');
    evbuffer_add(body.get(), text.data(), text.size());
    evhttp_send_reply(request, HTTP_OK, "OK", body.get());
    table_->OnAnswer(connection, HTTP_OK);
    Settle();
  }

  // More turns than the largest request here takes, which is read 4 KiB at a time.
  void Settle() {
    for (int i = 0; i < 500; ++i) {
      Turn();
    }
  }

  size_t LinesWith(const std::string& text) const {
    const std::vector<std::string> lines = log_.Messages();
    return static_cast<size_t>(std::count_if(
        lines.begin(), lines.end(),
        [&](const std::string& line) { return line.find(text) != std::string::npos; }));
  }

  void Turn() { event_base_loop(base_.get(), EVLOOP_NONBLOCK); }

  std::shared_ptr<SSL_CTX> tls_;  // if there is one, TLS is spoken
  std::unique_ptr<tavlo::ClientTable>& Table() { return table_; }
  std::vector<evhttp_request*> requests_;

 private:
  static bufferevent* OnConnection(event_base* base, void* test) {
    auto* const self = static_cast<ClientTableTest*>(test);
    bufferevent* const made = self->tls_ ? bufferevent_openssl_socket_new(
                                               base, -1, SSL_new(self->tls_.get()),
                                               BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE)
                                         : bufferevent_socket_new(base, -1, BEV_OPT_CLOSE_ON_FREE);
    self->table_->Add(made);
    return made;
  }

  static void OnRequest(evhttp_request* request, void* test) {
    auto* const self = static_cast<ClientTableTest*>(test);
    self->table_->OnRequest(request);
    self->requests_.push_back(request);
  }

  test::LogCapture log_;
  const uint16_t port_ = test::FreePort();
  std::shared_ptr<event_base> base_;
  std::unique_ptr<tavlo::ClientTable> table_;
  std::shared_ptr<evhttp> http_;
  std::list<Peer> peers_;
};

std::string Post(size_t length) {
  return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n" +
         std::string(length, 'b');
}

// Without its last byte.
std::string Unfinished(size_t length) {
  std::string text = Post(length + 1);
  text.pop_back();
  return text;
}

constexpr const char* kGet = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";

TEST_F(ClientTableTest, AnAddressWhoseRequestsAllWaitLeavesSomePlaces) {
  Make(2, 1 << 20);
  const Peer& first = ConnectAndSend(kHog, kGet);
  const Peer& second = ConnectAndSend(kHog, kGet);
  ASSERT_EQ(requests_.size(), 2);
  EXPECT_TRUE(Connect(kHog).HasEnded());
  std::vector<const Peer*> others;
  for (size_t i = 0; i < tavlo::kReservedClients; ++i) {
    others.push_back(&Connect("127.0.1." + std::to_string(i + 1)));
  }
  for (const Peer* other : others) {
    EXPECT_FALSE(other->HasEnded());
  }
  EXPECT_TRUE(Connect("127.0.2.1").HasEnded());
  EXPECT_FALSE(first.HasEnded());
  EXPECT_FALSE(second.HasEnded());
}

TEST_F(ClientTableTest, AnAddressWhoseRequestsAllWaitLeavesSomeMemory) {
  Make(100, 600000);
  const Peer& hog = ConnectAndSend(kHog, Post(599000));
  ASSERT_EQ(requests_.size(), 1);
  const Peer& other = ConnectAndSend(kOther, Unfinished(500000));
  const Peer& third = ConnectAndSend(kThird, Unfinished(500000));
  const Peer& late = ConnectAndSend("127.0.0.5", Unfinished(500000));
  EXPECT_FALSE(other.HasEnded());
  EXPECT_FALSE(third.HasEnded());
  EXPECT_TRUE(late.HasEnded());
  EXPECT_FALSE(hog.HasEnded());
  EXPECT_TRUE(ConnectAndSend(kHog, "G").HasEnded());
}

TEST_F(ClientTableTest, ARequestThatIsTooLargeIsNotServed) {
  Make(100, 1000);
  EXPECT_TRUE(ConnectAndSend(kHog, Post(2000)).HasEnded());
  EXPECT_TRUE(requests_.empty());
}

TEST_F(ClientTableTest, WhatWaitsBehindARequestIsNoReasonToEndIt) {
  Make(100, 1000);
  Peer& peer = ConnectAndSend(kHog, kGet);
  Send(peer, Unfinished(2000));
  EXPECT_EQ(requests_.size(), 1);
  EXPECT_FALSE(peer.HasEnded());
}

TEST_F(ClientTableTest, ALongUriOfARequestThatWaitsCountsWithItsCopies) {
  Make(100, 60000);
  const Peer& peer = ConnectAndSend(kHog, "GET /" + std::string(30000, 'u') + " HTTP/1.1\r\n\r\n");
  EXPECT_EQ(requests_.size(), 1);
  EXPECT_TRUE(ConnectAndSend(kHog, "G").HasEnded());
  EXPECT_FALSE(peer.HasEnded());
}

TEST_F(ClientTableTest, ALongUriCountsNoMoreOnceItIsAnswered) {
  Make(100, 60000);
  Peer& peer = ConnectAndSend(kHog, "GET /" + std::string(30000, 'u') + " HTTP/1.1\r\n\r\n");
  Answer(0, 10);
  peer.Read();
  EXPECT_FALSE(ConnectAndSend(kHog, "G").HasEnded());
  EXPECT_FALSE(peer.HasEnded());
}

TEST_F(ClientTableTest, AClientThatHasGoneIsNoBurdenForItsAddress) {
  Make(100, 10000);
  const Peer& stays = Connect(kHog);
  Peer& leaves = ConnectAndSend(kHog, Unfinished(8000));
  leaves.Leave();
  Settle();
  const Peer& other = ConnectAndSend(kOther, Unfinished(5500));
  const Peer& third = ConnectAndSend(kThird, Unfinished(5000));
  EXPECT_FALSE(stays.HasEnded());
  EXPECT_TRUE(other.HasEnded());
  EXPECT_FALSE(third.HasEnded());
}

TEST_F(ClientTableTest, ATlsConnectionCountsBeforeItHasSentAnything) {
  tls_.reset(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  Make(100, 2 * tavlo::kTlsConnectionSize);
  const Peer& first = Connect(kHog);
  const Peer& second = Connect(kHog);
  EXPECT_FALSE(first.HasEnded());
  const Peer& third = Connect(kHog);
  EXPECT_TRUE(first.HasEnded());
  EXPECT_FALSE(second.HasEnded());
  EXPECT_FALSE(third.HasEnded());
}

TEST_F(ClientTableTest, WhereAnswersTakeMuchRequestsMayTakeLess) {
  Make(100, 40000);
  ConnectAndSend(kHog, kGet);
  const Peer& before = ConnectAndSend(kOther, Unfinished(20000));
  EXPECT_FALSE(before.HasEnded());
  Answer(0, tavlo::kMaxReplyBody);
  ASSERT_GT(Table()->Untaken(), tavlo::kMaxUntaken / 2);
  const Peer& after = ConnectAndSend(kThird, "G");
  EXPECT_TRUE(before.HasEnded());
  EXPECT_FALSE(after.HasEnded());
}

TEST_F(ClientTableTest, TheLargestAnswerTakesNoRoomAndOthersHaveAReserve) {
  Make(100, 1 << 20);
  ConnectAndSend(kHog, kGet);
  Answer(0, tavlo::kMaxReplyBody);
  ASSERT_GT(Table()->Untaken(), tavlo::kMaxUntaken);
  EXPECT_EQ(Table()->RoomForAnswer(kHog), tavlo::kMaxUntaken);
  EXPECT_EQ(Table()->RoomForAnswer(kOther), tavlo::kMaxUntaken + tavlo::kReservedBytes);
}

TEST_F(ClientTableTest, AnAnswerThatWasTakenCountsNoMoreWhenTheNextRequestWasThereBefore) {
  Make(100, 1 << 20);
  Peer& peer = ConnectAndSend(kHog, std::string(kGet) + kGet);
  ASSERT_EQ(requests_.size(), 1);
  Answer(0, 100000);
  EXPECT_TRUE(test::WaitUntil([&] {
    peer.Read();
    Turn();
    return requests_.size() == 2;
  }));
  EXPECT_EQ(Table()->Untaken(), 0);
}

TEST_F(ClientTableTest, ALargeHeadKeepsWhatIsStillRead) {
  Make(100, 1 << 20);
  ConnectAndSend(kHog,
                 "GET / HTTP/1.1\r\nConnection: close\r\nProxy-Connection: x\r\n"
                 "PairingKey: key\r\nExpect: nothing\r\nX: " +
                     std::string(tavlo::kWorthDropping, 'x') + "\r\n\r\n");
  ASSERT_EQ(requests_.size(), 1);
  const evkeyvalq* const headers = evhttp_request_get_input_headers(requests_[0]);
  EXPECT_STREQ(evhttp_find_header(headers, "Connection"), "close");
  EXPECT_STREQ(evhttp_find_header(headers, "Proxy-Connection"), "x");
  EXPECT_STREQ(evhttp_find_header(headers, "PairingKey"), "key");
  EXPECT_STREQ(evhttp_find_header(headers, "Expect"), "nothing");
  EXPECT_EQ(evhttp_find_header(headers, "X"), nullptr);
}

TEST_F(ClientTableTest, AnAnsweredRequestKeepsNeitherItsBodyNorItsUri) {
  Make(100, 1 << 20);
  ConnectAndSend(kHog, Post(1000));
  ASSERT_EQ(requests_.size(), 1);
  tavlo::DropBodyAndUri(requests_[0]);
  EXPECT_EQ(evbuffer_get_length(evhttp_request_get_input_buffer(requests_[0])), 0);
  EXPECT_EQ(evhttp_request_get_uri(requests_[0]), nullptr);
  EXPECT_EQ(evhttp_request_get_evhttp_uri(requests_[0]), nullptr);
  Answer(0, 10);
}

TEST_F(ClientTableTest, WhoHadAnAnswerAMomentAgoStays) {
  Make(2, 1 << 20);
  Peer& early = ConnectAndSend(kHog, kGet);
  const Peer& late = Connect(kHog);
  Answer(0, 10);
  early.Read();
  EXPECT_FALSE(Connect(kHog).HasEnded());
  EXPECT_FALSE(early.HasEnded());
  EXPECT_TRUE(late.HasEnded());
  // But not for good.
  const Peer& last = Connect(kHog);
  EXPECT_FALSE(Connect(kHog).HasEnded());
  EXPECT_TRUE(early.HasEnded());
  EXPECT_FALSE(last.HasEnded());
}

TEST_F(ClientTableTest, WhoseAnswerIsBeingWrittenStays) {
  Make(1, 1 << 20);
  ConnectAndSend(kHog, kGet);
  Answer(0, tavlo::kMaxReplyBody);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(Connect(kHog).HasEnded());
  }
  EXPECT_GT(Table()->Untaken(), 0);  // it would be none if its client had been ended
}

TEST_F(ClientTableTest, ClientsThatAreEndedAreOneLine) {
  Make(1, 1 << 20);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) {
    Connect(kHog);
  }
  EXPECT_EQ(LinesWith("Ended 1 clients to make room, the last of 127.0.0.2: too many connections"),
            1);
  if (std::chrono::steady_clock::now() < start + std::chrono::seconds(1)) {
    EXPECT_EQ(LinesWith("Ended "), 1);
  }
}

TEST_F(ClientTableTest, AnInterimAnswerIsNone) {
  Make(1, 1 << 20);
  Peer& peer =
      ConnectAndSend(kHog, "POST / HTTP/1.1\r\nContent-Length: 1\r\nExpect: 100-continue\r\n\r\n");
  Send(peer, "b");
  EXPECT_EQ(requests_.size(), 1);
  EXPECT_EQ(LinesWith("Answered "), 0);
}

constexpr const char* kTwoLengths =
    "POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nb";

TEST_F(ClientTableTest, ASecondRequestIsReadAlongWith) {
  Make(1, 1 << 20);
  Peer& peer = ConnectAndSend(kHog, kGet);
  Answer(0, 10);
  peer.Read();
  Send(peer, kTwoLengths);
  EXPECT_EQ(requests_.size(), 1);
  EXPECT_EQ(LinesWith("A request of 127.0.0.2 is refused: Two Content-Length"), 1);
  EXPECT_EQ(LinesWith("Answered 400 to a request of 127.0.0.2 that was not taken up"), 1);
}

TEST_F(ClientTableTest, WhatFollowsAnUnknownMethodIsReadAlongWith) {
  Make(1, 1 << 20);
  Peer& peer = ConnectAndSend(kHog, kGet);
  Answer(0, 10);
  Send(peer, "CONNECT x:1 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(LinesWith("Answered 501 to a request of 127.0.0.2 that was not taken up"), 1);
  peer.Read();
  Send(peer, kTwoLengths);
  EXPECT_EQ(requests_.size(), 1);
  EXPECT_EQ(LinesWith("A request of 127.0.0.2 is refused: Two Content-Length"), 1);
}

TEST_F(ClientTableTest, AHeadCountsByItsLines) {
  Make(100, 60000);
  std::string head = "GET / HTTP/1.1\r\n";
  for (int i = 0; i < 700; ++i) {
    head += "a:\n";
  }
  EXPECT_TRUE(ConnectAndSend(kHog, head).HasEnded());
}

TEST_F(ClientTableTest, LinesOfABodyAreNone) {
  Make(100, 60000);
  EXPECT_FALSE(ConnectAndSend(kHog, "POST / HTTP/1.1\r\nContent-Length: 50000\r\n\r\n" +
                                        std::string(40000, '\n'))
                   .HasEnded());
}

}  // namespace
