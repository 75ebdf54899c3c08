#include "ctl/destination.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <string_view>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "util/descriptor.h"
#include "util/error_text.h"

namespace tavlo::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTimeout(3);
constexpr std::string_view kBeginning = "HTTP/1.";

Orx::Status SystemFailure(int error) {
  return Orx::Status::Failure(stdext::error_number_and_text(error));
}

// One connection, and until when something has to come of it.
class Probe {
 public:
  explicit Probe(const addrinfo& target)
      : deadline_(Clock::now() + kTimeout),
        socket_(::socket(target.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const bool isUnderWay =
        ::connect(socket_.get(), target.ai_addr, target.ai_addrlen) == 0 || errno == EINPROGRESS;
    connectError_ = isUnderWay ? 0 : errno;
  }

  // Succeeds when an answer has begun.
  Orx::Status Ask(const std::string& request) {
    Orx::Status connected = FinishConnecting();
    if (!connected.IsOk()) {
      return connected;
    }
    if (::send(socket_.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
      return SystemFailure(errno);
    }
    if (!Wait(POLLIN)) {
      return Orx::Status::Failure("it takes the request and says nothing");
    }
    char answer[kBeginning.size()] = {};
    const ssize_t count = ::recv(socket_.get(), answer, sizeof answer, 0);
    if (count < 0) {
      return SystemFailure(errno);
    }
    return std::string_view(answer, static_cast<size_t>(count)) == kBeginning
               ? Orx::Status::Ok()
               : Orx::Status::Failure("what it says is not HTTP/1");
  }

 private:
  Orx::Status FinishConnecting() const {
    int error = connectError_;
    socklen_t size = sizeof error;
    if (error == 0 &&
        (!Wait(POLLOUT) || ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0)) {
      return Orx::Status::Failure("it takes no connection");
    }
    return error == 0 ? Orx::Status::Ok() : SystemFailure(error);
  }

  bool Wait(short event) const {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
    pollfd entry = {socket_.get(), event, 0};
    return left.count() > 0 && ::poll(&entry, 1, static_cast<int>(left.count())) == 1;
  }

  Clock::time_point deadline_;
  stdext::descriptor socket_;
  int connectError_ = 0;
};

}  // namespace

Orx::Status AskDestination(const std::string& address, uint16_t port, const std::string& uri) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = ::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) {
    return Orx::Status::Failure(::gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> targets(found, freeaddrinfo);
  return Probe(*targets).Ask("GET " + uri + " HTTP/1.1\r\nHost: " + address + ":" +
                             std::to_string(port) + "\r\nConnection: close\r\n\r\n");
}

}  // namespace tavlo::ctl
