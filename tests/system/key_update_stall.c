// key_update_stall PORT KEY COUNT
// Connects by TLS 1.3 to 127.0.0.1:PORT and prints its own port. After a line of input it sends,
// and reads nothing meanwhile: COUNT requests for a key update, a request with the pairing key KEY,
// one more key update and the beginning of another request. After a second line it reads all there
// is.

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

enum { kQuietMs = 200 };

// Small segments and a small window, so that little fills the way back.
static int Connect(const char* port) {
  const struct sockaddr_in address = {.sin_family = AF_INET,
                                      .sin_port = htons((uint16_t)atoi(port)),
                                      .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  const int segment = 536;
  const int window = 2048;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  setsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
  return connect(fd, (const struct sockaddr*)&address, sizeof address) == 0 ? fd : -1;
}

static int UpdateKey(SSL* ssl) {
  return SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED) == 1 && SSL_do_handshake(ssl) == 1;
}

// The end of the head is a record of its own. What comes before is so long that libevent has no
// room for another read of that size behind it, and so reads twice: the end, and the key update.
static int Compose(SSL* ssl, const char* key, int keyUpdates) {
  char head[6000];
  const int length =
      snprintf(head, sizeof head, "GET /api/x HTTP/1.1\r\nPairingKey: %s\r\nX: %05000d", key, 0);
  for (int i = 0; i < keyUpdates; ++i) {
    if (!UpdateKey(ssl)) {
      return 0;
    }
  }
  return SSL_write(ssl, head, length) == length && SSL_write(ssl, "\r\n\r\n", 4) == 4 &&
         UpdateKey(ssl) && SSL_write(ssl, "GET", 3) == 3;
}

static int SendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) {
      return 0;
    }
    data += sent;
    size -= (size_t)sent;
  }
  return 1;
}

static void ReadAll(int fd) {
  char buffer[65536];
  struct pollfd entry = {.fd = fd, .events = POLLIN};
  while (poll(&entry, 1, kQuietMs) > 0 && recv(fd, buffer, sizeof buffer, 0) > 0) {
  }
}

int main(int argc, char** argv) {
  const int fd = argc == 4 ? Connect(argv[1]) : -1;
  SSL* ssl = SSL_new(SSL_CTX_new(TLS_client_method()));
  SSL_set_min_proto_version(ssl, TLS1_3_VERSION);
  SSL_set_fd(ssl, fd);
  if (fd < 0 || SSL_connect(ssl) != 1) {
    return 1;
  }
  struct sockaddr_in own;
  socklen_t size = sizeof own;
  getsockname(fd, (struct sockaddr*)&own, &size);
  printf("%d\n", ntohs(own.sin_port));
  fflush(stdout);

  BIO* records = BIO_new(BIO_s_mem());
  SSL_set0_wbio(ssl, records);
  if (!Compose(ssl, argv[2], atoi(argv[3])) || getchar() != '\n') {
    return 1;
  }
  char* data = NULL;
  const size_t length = (size_t)BIO_get_mem_data(records, &data);
  if (!SendAll(fd, data, length) || getchar() != '\n') {
    return 1;
  }
  ReadAll(fd);
  return 0;
}
