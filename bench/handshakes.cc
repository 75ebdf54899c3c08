// Measures TLS connections, one after another: each asks for one path and reads the head of the
// answer. (openssl s_time looks at no answer, and what it resumes ends with a server that closes
// without a close_notify.)
//
// Usage: handshakes PORT PATH STATUS COUNT new|reuse
//
// Prints a line with the microseconds of each connection, its first byte to the answer's head.
// Fails when an answer has another status or, after the first connection, when a session was not
// resumed.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

SSL_SESSION* g_session = nullptr;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(EXIT_FAILURE);
}

// A server sends several tickets; the last one counts.
int KeepSession(SSL* /*ssl*/, SSL_SESSION* session) {
  SSL_SESSION_free(g_session);
  g_session = session;
  return 1;
}

SSL_CTX* MakeContext() {
  SSL_CTX* const context = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_ciphersuites(context, "TLS_AES_128_GCM_SHA256");
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT);
  SSL_CTX_sess_set_new_cb(context, KeepSession);
  return context;
}

int Connect(uint16_t port) {
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  if (fd < 0 || ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) != 0) {
    Fail("cannot connect");
  }
  return fd;
}

// The answer's head, and what has come of its body.
std::string Ask(SSL* ssl, const std::string& request) {
  if (SSL_write(ssl, request.data(), static_cast<int>(request.size())) <= 0) {
    Fail("cannot send");
  }
  std::string answer;
  while (answer.find("\r\n\r\n") == std::string::npos) {
    char part[4096];
    const int count = SSL_read(ssl, part, sizeof part);
    if (count <= 0) {
      Fail("no whole answer");
    }
    answer.append(part, static_cast<size_t>(count));
  }
  return answer;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    Fail("usage: handshakes PORT PATH STATUS COUNT new|reuse");
  }
  const auto port = static_cast<uint16_t>(std::atoi(argv[1]));
  const std::string request =
      "GET " + std::string(argv[2]) + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
  const std::string expected = "HTTP/1.1 " + std::string(argv[3]) + " ";
  const int count = std::atoi(argv[4]);
  const bool reuse = std::strcmp(argv[5], "reuse") == 0;
  SSL_CTX* const context = MakeContext();

  // One more, which is not printed: it brings the first session.
  for (int i = 0; i <= count; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    const int fd = Connect(port);
    SSL* const ssl = SSL_new(context);
    SSL_set_fd(ssl, fd);
    if (reuse && g_session != nullptr) {
      // A copy, because OpenSSL takes a session that was resumed for used up, and not each server
      // sends a new one then.
      SSL_SESSION* const session = SSL_SESSION_dup(g_session);
      SSL_set_session(ssl, session);
      SSL_SESSION_free(session);
    }
    if (SSL_connect(ssl) != 1) {
      Fail("no handshake");
    }
    if (Ask(ssl, request).compare(0, expected.size(), expected) != 0) {
      Fail("another answer than " + expected);
    }
    const std::chrono::duration<double, std::micro> taken =
        std::chrono::steady_clock::now() - begin;
    if (i > 0 && (SSL_session_reused(ssl) != 0) != reuse) {
      Fail(reuse ? "a session was not resumed" : "a session was resumed");
    }
    if (i > 0) {
      std::printf("%.1f\n", taken.count());
    }
    SSL_shutdown(ssl);
    SSL_free(ssl);
    ::close(fd);
  }
  return EXIT_SUCCESS;
}
