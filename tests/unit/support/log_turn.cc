#include "support/log_turn.h"

#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/temporary_directory.h"
#include "support/wait.h"
#include "util/log.h"

namespace test {

void AwaitTurn(const std::function<void()>& body, const std::function<void()>& check) {
  std::promise<std::filesystem::path> self;
  std::unique_lock<std::mutex> lock(Orx::Log::Detail::Mutex());
  std::thread thread([&] {
    self.set_value(std::filesystem::read_symlink("/proc/thread-self"));
    body();
  });
  const std::string stat = "/proc" / self.get_future().get() / "stat";
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(stat).find(") S ") != std::string::npos; }))
      << "it did not wait";
  check();
  lock.unlock();
  thread.join();
}

}  // namespace test
