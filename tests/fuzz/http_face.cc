#include "fuzz/http_face.h"

#include <algorithm>
#include <thread>

#include <event2/thread.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/agent_host.h"
#include "agent/libevent_log.h"
#include "agent/listening_socket.h"
#include "fuzz/fuzz.h"
#include "support/socket.h"
#include "support/temporary_directory.h"

namespace fuzz {

const std::string kPairingKey = "opensesame";

namespace {

constexpr timeval kLongestSilence = {10, 0};

void MakeCertificate(const test::TemporaryDirectory& directory) {
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=router "
      "-keyout " +
      (directory / "mirel.key") + " -out " + (directory / "mirel.crt") + " 2>/dev/null";
  // NOLINTNEXTLINE(cert-env33-c): a command of our own, without foreign input
  Require(std::system(command.c_str()) == 0, "there is a certificate");
}

// Reads up to and including the empty line; the requests that come here have a body only when a
// Content-Length says so, which is read as well. Empty when the connection has ended.
std::string ReadRequest(int connection) {
  std::string request;
  char buffer[4096];
  size_t wanted = std::string::npos;
  while (request.size() < wanted) {
    const ssize_t count = ::recv(connection, buffer, sizeof buffer, 0);
    if (count <= 0) {
      return {};
    }
    request.append(buffer, static_cast<size_t>(count));
    const size_t headersEnd = request.find("\r\n\r\n");
    if (headersEnd != request.npos) {
      const size_t length = request.find("Content-Length: ");
      Require(length < headersEnd, "a forwarded request tells its length");
      wanted = headersEnd + 4 + std::strtoul(request.c_str() + length + 16, nullptr, 10);
    }
  }
  Require(request.size() == wanted, "nothing follows a forwarded request");
  return request;
}

void Serve(int connection, const Destination& destination) {
  std::string request = ReadRequest(connection);
  while (!request.empty()) {
    const std::string answer = destination.answer(request.substr(0, request.find("\r\n")));
    ::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
    request = destination.closes ? std::string() : ReadRequest(connection);
  }
  ::close(connection);
}

uint16_t RunDestination(const Destination& destination) {
  const int listener = tavlo::OpenListeningSocket("127.0.0.1", 0);
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  Require(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "the destination listens");
  Require(::fcntl(listener, F_SETFL, 0) == 0, "the destination waits for its client");
  std::thread([listener, destination] {
    for (;;) {
      // The host has one connection at a time.
      Serve(::accept(listener, nullptr, nullptr), destination);
    }
  }).detach();
  return ntohs(address.sin_port);
}

// The fuzzer's timer would interrupt what waits here, and for nothing: no wait is without an end.
void BlockTimer() {
  sigset_t timer;
  sigemptyset(&timer);
  sigaddset(&timer, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &timer, nullptr);
}

int Connect(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Require(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0,
          "the host accepts a connection");
  const int on = 1;
  // Ends by a reset: a million connections that linger would leave no port.
  const linger reset = {1, 0};
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kLongestSilence, sizeof kLongestSilence);
  return fd;
}

// Until the other side ends the connection, well or badly.
std::string ReadAll(int fd) {
  std::string all;
  char buffer[4096];
  ssize_t count = 0;
  while ((count = ::recv(fd, buffer, sizeof buffer, 0)) > 0) {
    all.append(buffer, static_cast<size_t>(count));
  }
  Require(count == 0 || errno != EAGAIN, "the host ends the connection");
  return all;
}

}  // namespace

uint16_t RunHost(bool tls, const Destination& destination) {
  static test::TemporaryDirectory directory;
  ::signal(SIGPIPE, SIG_IGN);
  BlockTimer();
  // The host's thread outlives the program's end: what OpenSSL keeps for it is no leak, but would
  // look like one after OpenSSL's own cleaning up.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  evthread_use_pthreads();
  tavlo::RouteLibeventLog();
  if (tls) {
    MakeCertificate(directory);
  }
  directory.Write("devices.json",
                  R"({"devices":[{"ip":["127.0.0.1"],"mac":"02:00:5e:10:00:01"}]})");
  const uint16_t destinationPort = RunDestination(destination);
  const uint16_t port = test::FreePort();
  // Never destroyed: its thread goes on while the program ends.
  static auto& host =
      *new tavlo::AgentHost(nullptr, tls, "", directory.Path(), directory / "devices.json", port,
                            "127.0.0.1", destinationPort, "", [] {});
  host.SetPairingKey(kPairingKey);
  std::thread([] { host.Run(); }).detach();
  return port;
}

std::string Exchange(uint16_t port, const std::string& bytes) {
  const int fd = Connect(port);
  ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  ::shutdown(fd, SHUT_WR);
  std::string answer = ReadAll(fd);
  ::close(fd);
  return answer;
}

TlsConnection::TlsConnection(uint16_t port) : fd_(Connect(port)), tls_(nullptr, SSL_free) {
  static SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
  tls_.reset(SSL_new(context));
  Require(SSL_set_fd(tls_.get(), fd_) == 1 && SSL_connect(tls_.get()) == 1, "the host speaks TLS");
}

TlsConnection::~TlsConnection() {
  ::close(fd_);
}

void TlsConnection::Write(const std::string& bytes) {
  if (!bytes.empty()) {
    SSL_write(tls_.get(), bytes.data(), static_cast<int>(bytes.size()));
  }
}

std::string TlsConnection::Read() {
  char buffer[4096];
  const int count = SSL_read(tls_.get(), buffer, sizeof buffer);
  return {buffer, static_cast<size_t>(std::max(count, 0))};
}

std::string TlsConnection::ReadWhatIsThere() {
  Require(::fcntl(fd_, F_SETFL, O_NONBLOCK) == 0, "the connection does not block");
  std::string all;
  for (std::string part = Read(); !part.empty(); part = Read()) {
    all += part;
  }
  return all;
}

}  // namespace fuzz
