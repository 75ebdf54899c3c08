#pragma once

#include <mutex>

#include <sys/types.h>

namespace Orx {

/// A program that `SecureExec` runs.
struct RunningProgram {
  const char* path;
  pid_t pid;
};

/// The programs that run at this moment, on whatever thread. Any thread may call any operation.
class RunningPrograms {
 public:
  RunningPrograms() = default;
  RunningPrograms(const RunningPrograms&) = delete;
  RunningPrograms& operator=(const RunningPrograms&) = delete;

  /// Shows `look` each of them, the latest first. None begins or ends until it has returned, so
  /// that their process numbers are their own; it must be brief, and run no program itself.
  template <typename Look>
  void ForEach(const Look& look) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry* entry = latest_; entry != nullptr; entry = entry->previous_) {
      look(entry->program_);
    }
  }

  /// One program of the process's list, for as long as this lives. Its path is not copied.
  class Entry {
   public:
    explicit Entry(const RunningProgram& program);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    friend class RunningPrograms;

    const RunningProgram program_;
    Entry* previous_;
  };

 private:
  std::mutex mutex_;  // guards what follows
  Entry* latest_ = nullptr;
};

/// The process's list.
RunningPrograms& TheRunningPrograms();

}  // namespace Orx
