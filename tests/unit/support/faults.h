#pragma once

#include <chrono>
#include <functional>

#include <sys/time.h>
#include <time.h>

namespace test {

/// Makes one library function fail for as long as the object lives: the call returns the failure
/// value of that function and sets `errno` to `errnum`. The functions that can be made to fail are
/// listed in faults.cc; naming another one throws std::out_of_range.
class Fault {
 public:
  /// The first `skip` calls still succeed; after `times` failures the function works again.
  Fault(const char* function, int errnum, int skip = 0, int times = 1 << 30);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  /// How often the function was called since the object was made. With `times` 0 the object does
  /// nothing but count.
  int Calls() const;

 private:
  const char* function_;
};

/// Does something before each call of one of these functions, for as long as the object lives, on
/// the thread that makes the call.
class Before {
 public:
  Before(const char* function, std::function<void()> action);
  ~Before();
  Before(const Before&) = delete;
  Before& operator=(const Before&) = delete;

 private:
  const char* function_;
  const std::function<void()> action_;
};

/// How long the last call of `nanosleep` that failed should have lasted.
std::chrono::nanoseconds RefusedPause();

/// Puts the monotonic clock forward, for good. Who sleeps does not wake up from that: an event
/// loop, for one, notices when something else happens.
void PassTime(std::chrono::nanoseconds time);

/// Lets this process see the wall clock so far ahead of the kernel's, which is the one that ends
/// waits: as if it were set back as soon as somebody has looked at it.
void ShowWallClock(std::chrono::nanoseconds ahead);

/// Makes the next `count` calls of `read` give one byte each.
class ShortReads : public Fault {
 public:
  explicit ShortReads(int count) : Fault("read", 0, 0, count) {}
};

/// Makes `gettimeofday` tell this time for as long as the object lives.
class FrozenClock {
 public:
  FrozenClock(long seconds, long microseconds);
  ~FrozenClock();
  FrozenClock(const FrozenClock&) = delete;
  FrozenClock& operator=(const FrozenClock&) = delete;

 private:
  timeval time_;
  Fault fault_;
};

/// Makes `time` tell this time for as long as the object lives.
class FrozenSeconds {
 public:
  explicit FrozenSeconds(time_t seconds);

 private:
  Fault fault_;
};

/// Makes the next call of `socket` return `fd`, which then belongs to the caller of `socket`.
class SocketStandIn {
 public:
  explicit SocketStandIn(int fd);
  ~SocketStandIn();
  SocketStandIn(const SocketStandIn&) = delete;
  SocketStandIn& operator=(const SocketStandIn&) = delete;

 private:
  Fault fault_;
};

}  // namespace test
