// Asks libevent's HTTP server, over loopback, what it makes of three requests that it ought to read
// otherwise than the first releases of 2.1.12 do. Prints the names of the fixes that it is without.
// Ends with 0 if there are none, with 1 if there are, with 2 when it cannot be told.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <event2/event.h>
#include <event2/http.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

struct Question {
  const char* fix;
  const char* request;
};

// Without the fix the server takes the request, and finds a header "Key" in it.
constexpr std::array<Question, 3> kQuestions = {{
    {"CVE-2026-63379",
     "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\nKey: in the trailer\r\n\r\n"},
    {"CVE-2026-63382",
     "POST / HTTP/1.1\r\nKey: x\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n"
     "0\r\n\r\n"},
    {"CVE-2026-63385", "GET / HTTP/1.1\r\nKey: x\r behind a carriage return\r\n\r\n"},
}};

struct Answer {
  event_base* base;
  bool hasKey;
};

void Fail(const char* what) {
  std::perror(what);
  std::exit(2);
}

void OnRequest(evhttp_request* request, void* argument) {
  auto* const answer = static_cast<Answer*>(argument);
  answer->hasKey = evhttp_find_header(evhttp_request_get_input_headers(request), "Key") != nullptr;
  evhttp_send_reply(request, HTTP_OK, "OK", nullptr);
}

// Once the server has answered, in whatever way.
void OnReadable(evutil_socket_t, short events, void* base) {
  if ((events & EV_TIMEOUT) != 0) {
    Fail("the server does not answer");
  }
  event_base_loopbreak(static_cast<event_base*>(base));
}

int Connect(evhttp_bound_socket* bound) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::getsockname(evhttp_bound_socket_get_fd(bound), name, &size) != 0 ||
      ::connect(client, name, sizeof address) != 0) {
    Fail("loopback");
  }
  return client;
}

bool TakesIt(const char* request) {
  constexpr timeval kLongest = {10, 0};
  Answer answer = {event_base_new(), false};
  evhttp* const server = evhttp_new(answer.base);
  evhttp_set_gencb(server, OnRequest, &answer);
  evhttp_bound_socket* const bound = evhttp_bind_socket_with_handle(server, "127.0.0.1", 0);
  if (bound == nullptr) {
    Fail("127.0.0.1");
  }
  const int client = Connect(bound);
  if (::send(client, request, std::strlen(request), MSG_NOSIGNAL) < 0) {
    Fail("send");
  }
  event_base_once(answer.base, client, EV_READ, OnReadable, answer.base, &kLongest);
  event_base_dispatch(answer.base);
  return answer.hasKey;
}

}  // namespace

int main() {
  int status = 0;
  for (const Question& question : kQuestions) {
    if (TakesIt(question.request)) {
      std::printf("%s%s", status == 0 ? "" : ", ", question.fix);
      status = 1;
    }
  }
  return status;
}
