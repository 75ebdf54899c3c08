// Connects by TLS 1.3 to 127.0.0.1:PORT and sends key updates, records without data, as fast as the
// other side takes them, until it is killed or the other side hangs up.

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

enum { kBatch = 2000 };

int main(int argc, char** argv) {
  if (argc != 2) {
    return 2;
  }
  const struct sockaddr_in address = {.sin_family = AF_INET,
                                      .sin_port = htons((uint16_t)atoi(argv[1])),
                                      .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(fd, (const struct sockaddr*)&address, sizeof address) != 0) {
    return 1;
  }
  SSL* ssl = SSL_new(SSL_CTX_new(TLS_client_method()));
  SSL_set_min_proto_version(ssl, TLS1_3_VERSION);
  SSL_set_fd(ssl, fd);
  if (SSL_connect(ssl) != 1) {
    return 1;
  }
  BIO* records = BIO_new(BIO_s_mem());
  SSL_set0_wbio(ssl, records);
  for (;;) {
    for (int i = 0; i < kBatch; ++i) {
      if (SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED) != 1 || SSL_do_handshake(ssl) != 1) {
        return 1;
      }
    }
    char* data = NULL;
    size_t left = (size_t)BIO_get_mem_data(records, &data);
    while (left > 0) {
      const ssize_t sent = send(fd, data, left, MSG_NOSIGNAL);
      if (sent <= 0) {
        return 0;
      }
      data += sent;
      left -= (size_t)sent;
    }
    (void)BIO_reset(records);
  }
}
