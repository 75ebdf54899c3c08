#include "support/faults.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <netdb.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>

namespace {

// One per function below, ready before any code runs.
struct FaultState {
  std::atomic<bool> armed{false};
  std::atomic<int> errnum{0};
  std::atomic<int> skip{0};
  std::atomic<int> times{0};
  std::atomic<int> calls{0};
  std::atomic<const std::function<void()>*> before{nullptr};

  bool ShouldFail() {
    if (const std::function<void()>* action = before) {
      (*action)();
    }
    if (!armed) {
      return false;
    }
    ++calls;
    if (skip-- > 0 || times-- <= 0) {
      return false;
    }
    errno = errnum;
    return true;
  }
};

std::map<std::string, FaultState*>& States() {
  static std::map<std::string, FaultState*> states;
  return states;
}

struct Registration {
  // The library's function is looked up at once, since that may not be done everywhere it is
  // called: not in a signal handler, nor between fork and exec.
  Registration(const char* function, FaultState* state, void* /*real*/) {
    States()[function] = state;
  }
};

// For functions that own what they are given also when they fail.
void* FreeWith(const char* function, void* object) {
  reinterpret_cast<void (*)(void*)>(::dlsym(RTLD_DEFAULT, function))(object);
  return nullptr;
}

// What FrozenClock and SocketStandIn put in the place of a failure.
std::atomic<const timeval*> frozenTime{nullptr};
std::atomic<int> socketStandIn{-1};

// What FrozenSeconds puts there.
std::atomic<time_t> frozenSeconds{0};

// How far the monotonic clock is ahead, in nanoseconds.
std::atomic<long long> passedTime{0};

// How far the wall clock is, in nanoseconds.
std::atomic<long long> wallClockOffset{0};

// What nanosleep was last asked for, in nanoseconds.
std::atomic<long long> refusedPause{0};

constexpr long long kSecond = 1000000000;

int RefusePause(const timespec* wanted) {
  refusedPause = wanted->tv_sec * kSecond + wanted->tv_nsec;
  return -1;
}

long long OffsetOf(int clock) {
  switch (clock) {
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_COARSE:
      return passedTime;
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
      return wallClockOffset;
    default:
      return 0;
  }
}

void Advance(int clock, timespec* now) {
  const long long offset = OffsetOf(clock);
  if (offset != 0) {
    const long long time = now->tv_sec * kSecond + now->tv_nsec + offset;
    now->tv_sec = static_cast<time_t>(time / kSecond);
    now->tv_nsec = static_cast<long>(time % kSecond);
  }
}

int FailOrFreeze(timeval* now) {
  const timeval* frozen = frozenTime;
  if (frozen == nullptr) {
    return -1;
  }
  *now = *frozen;
  return 0;
}

ssize_t FailOrReadOne(int fd, void* data) {
  const iovec place = {data, 1};
  return errno != 0 ? -1 : ::readv(fd, &place, 1);
}

}  // namespace

// Defines a function that takes the place of the library's function of that name in the whole
// process: it passes every call on, unless a Fault is alive for it. (The C++ name differs from the
// symbol, so that it does not collide with the libraries' own declarations.)
// NOLINTBEGIN(bugprone-macro-parentheses): parameters are a list, Result is a type
#define FAULTY_AS(Result, function, symbol, failure, parameters, arguments)                      \
  static auto function##_real() {                                                                \
    static const auto real = reinterpret_cast<Result(*) parameters>(::dlsym(RTLD_NEXT, symbol)); \
    return real;                                                                                 \
  }                                                                                              \
  static FaultState function##_state;                                                            \
  static const Registration function##_registration(#function, &function##_state,                \
                                                    reinterpret_cast<void*>(function##_real())); \
  extern "C" Result faulty_##function parameters __asm__(symbol);                                \
  Result faulty_##function parameters {                                                          \
    if (function##_state.ShouldFail()) {                                                         \
      return failure;                                                                            \
    }                                                                                            \
    return function##_real() arguments;                                                          \
  }
// NOLINTEND(bugprone-macro-parentheses)

#define FAULTY(Result, function, failure, parameters, arguments) \
  FAULTY_AS(Result, function, #function, failure, parameters, arguments)

// For processors of 32 bits glibc has functions with times and file sizes of 64 bits under other
// names than those of 32.
#if defined(__GLIBC__) && __SIZEOF_POINTER__ == 4
#define WIDE(symbol, wide) wide
#else
#define WIDE(symbol, wide) symbol
#endif

// The C library's. The failure value of pthread_sigmask is its error number.
FAULTY_AS(int, gettimeofday, WIDE("gettimeofday", "__gettimeofday64"), FailOrFreeze(now),
          (timeval * now, void* zone), (now, zone))
FAULTY_AS(int, open, WIDE("open", "open64"), -1, (const char* path, int flags, unsigned mode),
          (path, flags, mode))
FAULTY_AS(off_t, lseek, WIDE("lseek", "lseek64"), -1, (int fd, off_t offset, int from),
          (fd, offset, from))
FAULTY(ssize_t, read, FailOrReadOne(fd, data), (int fd, void* data, size_t size), (fd, data, size))
FAULTY(ssize_t, write, -1, (int fd, const void* data, size_t size), (fd, data, size))
FAULTY(int, close, -1, (int fd), (fd))
FAULTY(int, dup2, -1, (int fd, int wanted), (fd, wanted))
FAULTY(int, socket, socketStandIn.exchange(-1), (int domain, int type, int protocol),
       (domain, type, protocol))
FAULTY(int, bind, -1, (int fd, const void* address, unsigned size), (fd, address, size))
FAULTY(ssize_t, send, -1, (int fd, const void* data, size_t size, int flags),
       (fd, data, size, flags))
FAULTY(ssize_t, recv, -1, (int fd, void* data, size_t size, int flags), (fd, data, size, flags))
FAULTY(const char*, inet_ntop, nullptr, (int family, const void* in, char* out, unsigned size),
       (family, in, out, size))
FAULTY(int, accept4, -1, (int fd, void* address, unsigned* size, int flags),
       (fd, address, size, flags))
FAULTY(int, flock, -1, (int fd, int operation), (fd, operation))
FAULTY_AS(int, nanosleep, WIDE("nanosleep", "__nanosleep64"), RefusePause(wanted),
          (const timespec* wanted, timespec* left), (wanted, left))
FAULTY(int, pthread_sigmask, errno, (int how, const void* set, void* old), (how, set, old))
FAULTY_AS(int, sigtimedwait, WIDE("sigtimedwait", "__sigtimedwait64"), -1,
          (const void* set, void* info, const timespec* limit), (set, info, limit))
FAULTY(int, pipe2, -1, (int* fds, int flags), (fds, flags))
FAULTY(pid_t, fork, -1, (), ())
FAULTY(int, kill, -1, (pid_t pid, int signal), (pid, signal))
FAULTY(int, waitid, -1, (int type, unsigned id, void* info, int options), (type, id, info, options))
FAULTY(int, poll, -1, (void* entries, unsigned long count, int timeout), (entries, count, timeout))
FAULTY(int, epoll_wait, -1, (int fd, void* events, int count, int timeout),
       (fd, events, count, timeout))
FAULTY(int, setgid, -1, (unsigned gid), (gid))
FAULTY(int, setuid, -1, (unsigned uid), (uid))
FAULTY_AS(int, ftruncate, WIDE("ftruncate", "ftruncate64"), -1, (int fd, off_t length),
          (fd, length))
FAULTY(char*, strsignal, nullptr, (int number), (number))
FAULTY_AS(time_t, time, WIDE("time", "__time64"), frozenSeconds, (time_t * now), (now))
FAULTY_AS(tm*, gmtime_r, WIDE("gmtime_r", "__gmtime64_r"), nullptr, (const time_t* time, tm* parts),
          (time, parts))

// The C++ library's, and the compiler's.
FAULTY(char*, __cxa_demangle, nullptr, (const char* name, char* text, size_t* size, int* status),
       (name, text, size, status))
FAULTY(int, _Unwind_Backtrace, 5, (int (*look)(void*, void*), void* argument), (look, argument))

// A value that stands for no option.
FAULTY(int, getopt_long, 0,
       (int count, char* const* arguments, const char* letters, const void* names, int* index),
       (count, arguments, letters, names, index))
FAULTY(int, pthread_create, errno,
       (void* thread, const void* attributes, void* (*body)(void*), void* argument),
       (thread, attributes, body, argument))
FAULTY(int, pthread_join, errno, (unsigned long thread, void** result), (thread, result))
FAULTY(int, getaddrinfo, EAI_NONAME,
       (const char* name, const char* service, const void* hints, void* results),
       (name, service, hints, results))
FAULTY(void*, signal, reinterpret_cast<void*>(SIG_ERR), (int number, void* handler),
       (number, handler))

// PassTime puts it forward.
#define CLOCK_GETTIME WIDE("clock_gettime", "__clock_gettime64")
extern "C" int advanced_clock_gettime(int clock, timespec* now) __asm__(CLOCK_GETTIME);
int advanced_clock_gettime(int clock, timespec* now) {
  static const auto real =
      reinterpret_cast<int (*)(int, timespec*)>(::dlsym(RTLD_NEXT, CLOCK_GETTIME));
  const int result = real(clock, now);
  if (result == 0) {
    Advance(clock, now);
  }
  return result;
}

#if defined(__GLIBC__) && __SIZEOF_POINTER__ == 4
// The C++ library's clocks ask the one with times of 32 bits.
struct NarrowTime {
  int32_t seconds;
  int32_t nanoseconds;
};
extern "C" int advanced_narrow_clock_gettime(int clock, NarrowTime* now) __asm__("clock_gettime");
int advanced_narrow_clock_gettime(int clock, NarrowTime* now) {
  timespec wide = {};
  const int result = advanced_clock_gettime(clock, &wide);
  *now = {static_cast<int32_t>(wide.tv_sec), static_cast<int32_t>(wide.tv_nsec)};
  return result;
}
#endif

// The C++ library's operator new, whose name tells what a size is.
#if __SIZEOF_POINTER__ == 4
#define OPERATOR_NEW "_Znwj"
#else
#define OPERATOR_NEW "_Znwm"
#endif
FAULTY_AS(void*, operator_new, OPERATOR_NEW, (throw std::bad_alloc(), nullptr), (size_t size),
          (size))

// libevent's.
FAULTY(void*, event_base_new_with_config, nullptr, (const void* config), (config))
FAULTY(void*, event_new, nullptr,
       (void* base, int fd, short what, void (*callback)(int, short, void*), void* argument),
       (base, fd, what, callback, argument))
FAULTY(void, event_active, , (void* event, int what, short calls), (event, what, calls))
FAULTY(void*, evhttp_new, nullptr, (void* base), (base))
FAULTY(void*, evhttp_connection_base_new, nullptr,
       (void* base, void* dns, const char* address, unsigned short port),
       (base, dns, address, port))
FAULTY(void*, evhttp_request_new, nullptr, (void (*callback)(void*, void*), void* argument),
       (callback, argument))
FAULTY(int, evhttp_make_request, (FreeWith("evhttp_request_free", request), -1),
       (void* connection, void* request, int type, const char* uri),
       (connection, request, type, uri))
FAULTY(void, evhttp_send_reply, , (void* request, int code, const char* reason, void* body),
       (request, code, reason, body))
FAULTY(void*, evconnlistener_new, nullptr,
       (void* base, void (*callback)(void*, int, void*, int, void*), void* argument, unsigned flags,
        int backlog, int fd),
       (base, callback, argument, flags, backlog, fd))
FAULTY(int, evconnlistener_enable, -1, (void* listener), (listener))
FAULTY(void*, evhttp_bind_listener, nullptr, (void* http, void* listener), (http, listener))
FAULTY(int, event_base_once, -1,
       (void* base, int fd, short what, void (*callback)(int, short, void*), void* argument,
        const timeval* delay),
       (base, fd, what, callback, argument, delay))
FAULTY(void*, evbuffer_new, nullptr, (), ())
FAULTY(const char*, evhttp_request_get_uri, nullptr, (const void* request), (request))
FAULTY(int, evthread_use_pthreads, -1, (), ())
FAULTY(void*, bufferevent_openssl_socket_new, FreeWith("SSL_free", ssl),
       (void* base, int fd, void* ssl, int state, int options), (base, fd, ssl, state, options))

// OpenSSL's.
FAULTY(void*, SSL_CTX_new, nullptr, (const void* method), (method))
FAULTY(long, SSL_CTX_ctrl, 0, (void* context, int command, long number, void* data),
       (context, command, number, data))
FAULTY(void*, SSL_new, nullptr, (void* context), (context))
FAULTY(void*, EC_KEY_new_by_curve_name, nullptr, (int curve), (curve))

namespace test {

Fault::Fault(const char* function, int errnum, int skip, int times) : function_(function) {
  FaultState& state = *States().at(function);
  state.errnum = errnum;
  state.skip = skip;
  state.times = times;
  state.calls = 0;
  state.armed = true;
}

Fault::~Fault() {
  States().at(function_)->armed = false;
}

int Fault::Calls() const {
  return States().at(function_)->calls;
}

Before::Before(const char* function, std::function<void()> action)
    : function_(function), action_(std::move(action)) {
  States().at(function_)->before = &action_;
}

Before::~Before() {
  States().at(function_)->before = nullptr;
}

std::chrono::nanoseconds RefusedPause() {
  return std::chrono::nanoseconds(refusedPause);
}

void PassTime(std::chrono::nanoseconds time) {
  passedTime += time.count();
}

void ShowWallClock(std::chrono::nanoseconds ahead) {
  wallClockOffset = ahead.count();
}

FrozenClock::FrozenClock(long seconds, long microseconds)
    : time_{seconds, microseconds}, fault_("gettimeofday", 0) {
  frozenTime = &time_;
}

FrozenClock::~FrozenClock() {
  frozenTime = nullptr;
}

FrozenSeconds::FrozenSeconds(time_t seconds) : fault_("time", 0) {
  frozenSeconds = seconds;
}

SocketStandIn::SocketStandIn(int fd) : fault_("socket", 0, 0, 1) {
  socketStandIn = fd;
}

SocketStandIn::~SocketStandIn() {
  socketStandIn = -1;
}

}  // namespace test
