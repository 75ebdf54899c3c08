// What any forwarder on libevent costs: one loop, one connection to the destination, no rules, no
// log. The distance from here to tavlo is the price of tavlo's own work.
//
// Usage: floor PLAIN_PORT TLS_PORT DESTINATION_PORT CERTIFICATE KEY

#include <cstdlib>
#include <string>

#include <event2/buffer.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/http.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

namespace {

constexpr const char* kLoopback = "127.0.0.1";

event_base* g_base = nullptr;
evhttp_connection* g_destination = nullptr;
bool g_setUp = false;  // the socket of g_destination's present connection

void SetNoDelay(evutil_socket_t fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void OnReply(evhttp_request* reply, void* argument) {
  auto* const client = static_cast<evhttp_request*>(argument);
  if (reply == nullptr || evhttp_request_get_response_code(reply) == 0) {
    evhttp_send_error(client, HTTP_INTERNAL, nullptr);
    return;
  }
  evhttp_send_reply(client, evhttp_request_get_response_code(reply),
                    evhttp_request_get_response_code_line(reply),
                    evhttp_request_get_input_buffer(reply));
}

void OnRequest(evhttp_request* client, void* /*argument*/) {
  evbuffer* const body = evhttp_request_get_input_buffer(client);
  const std::string length = std::to_string(evbuffer_get_length(body));
  evhttp_request* const forwarded = evhttp_request_new(OnReply, client);
  evkeyvalq* const headers = evhttp_request_get_output_headers(forwarded);
  evhttp_add_header(headers, "Content-Length", length.c_str());
  evhttp_add_header(headers, "Host", kLoopback);
  evbuffer_add_buffer(evhttp_request_get_output_buffer(forwarded), body);
  evhttp_make_request(g_destination, forwarded, evhttp_request_get_command(client),
                      evhttp_request_get_uri(client));
  const evutil_socket_t fd = bufferevent_getfd(evhttp_connection_get_bufferevent(g_destination));
  if (!g_setUp && fd >= 0) {
    SetNoDelay(fd);
    g_setUp = true;
  }
}

void OnDisconnect(evhttp_connection* /*connection*/, void* /*argument*/) {
  g_setUp = false;
}

bufferevent* OnTlsConnection(event_base* base, void* context) {
  return bufferevent_openssl_socket_new(base, -1, SSL_new(static_cast<SSL_CTX*>(context)),
                                        BUFFEREVENT_SSL_ACCEPTING, BEV_OPT_CLOSE_ON_FREE);
}

evhttp* Listen(const char* port) {
  evhttp* const http = evhttp_new(g_base);
  evhttp_set_allowed_methods(http, EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_PATCH);
  evhttp_set_gencb(http, OnRequest, nullptr);
  evhttp_bound_socket* const socket =
      evhttp_bind_socket_with_handle(http, kLoopback, static_cast<uint16_t>(std::atoi(port)));
  if (socket == nullptr) {
    std::exit(EXIT_FAILURE);
  }
  SetNoDelay(evhttp_bound_socket_get_fd(socket));
  return http;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    return EXIT_FAILURE;
  }
  ::signal(SIGPIPE, SIG_IGN);
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  if (SSL_CTX_set1_curves_list(context, "P-256") != 1 ||
      SSL_CTX_use_certificate_chain_file(context, argv[4]) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, argv[5], SSL_FILETYPE_PEM) != 1) {
    return EXIT_FAILURE;
  }
  g_base = event_base_new();
  g_destination = evhttp_connection_base_new(g_base, nullptr, kLoopback,
                                             static_cast<uint16_t>(std::atoi(argv[3])));
  evhttp_connection_set_closecb(g_destination, OnDisconnect, nullptr);
  Listen(argv[1]);
  evhttp_set_bevcb(Listen(argv[2]), OnTlsConnection, context);
  return event_base_dispatch(g_base);
}
