#include "util/fair_mutex.h"

#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/temporary_directory.h"
#include "support/wait.h"

namespace {

class FairMutex : public testing::Test {
 protected:
  ~FairMutex() override {
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }

  // Returns when a new thread waits for the mutex, which is held; it notes its name once it has it.
  void StartWaiting(const std::string& name) {
    std::promise<std::filesystem::path> self;
    threads_.emplace_back([this, name, &self] {
      self.set_value(std::filesystem::read_symlink("/proc/thread-self"));
      const std::lock_guard<stdext::fair_mutex> lock(mutex_);
      order_ += name;
    });
    const std::string stat = "/proc" / self.get_future().get() / "stat";
    ASSERT_TRUE(
        test::WaitUntil([&] { return test::ReadFile(stat).find(") S ") != std::string::npos; }));
  }

  stdext::fair_mutex mutex_;
  std::string order_;
  std::vector<std::thread> threads_;
};

TEST_F(FairMutex, WhoGivesItBackAndAsksAgainComesAfterThoseWhoWaited) {
  mutex_.lock();
  StartWaiting("a");
  StartWaiting("b");
  StartWaiting("c");
  mutex_.unlock();
  mutex_.lock();
  EXPECT_EQ(order_, "abc");
  mutex_.unlock();
}

TEST_F(FairMutex, IsHeldByOneThreadAtATime) {
  int count = 0;
  for (int i = 0; i < 4; ++i) {
    threads_.emplace_back([&] {
      for (int round = 0; round < 5000; ++round) {
        const std::lock_guard<stdext::fair_mutex> lock(mutex_);
        ++count;
      }
    });
  }
  for (std::thread& thread : threads_) {
    thread.join();
  }
  threads_.clear();
  EXPECT_EQ(count, 20000);
}

}  // namespace
