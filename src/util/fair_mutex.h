#pragma once

#include <condition_variable>
#include <mutex>

namespace stdext {

/// A mutex that its threads get in the order in which they asked for it. With std::mutex one that
/// asks again at once may get it again and again while another waits.
///
/// For std::lock_guard. Not recursive.
class fair_mutex {
 public:
  void lock() {
    std::unique_lock<std::mutex> lock(mutex_);
    const unsigned long ticket = nextTicket_++;
    turn_.wait(lock, [this, ticket] { return served_ == ticket; });
  }

  void unlock() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++served_;
    }
    turn_.notify_all();
  }

 private:
  std::mutex mutex_;  // guards what follows
  std::condition_variable turn_;
  unsigned long nextTicket_ = 0;
  unsigned long served_ = 0;
};

}  // namespace stdext
