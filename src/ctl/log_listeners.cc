#include "ctl/log_listeners.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "ctl/text.h"

namespace tavlo::ctl {

namespace {

// Whose lines come from the threads of listeners alone.
constexpr std::array<std::string_view, 6> kOnListeners = {"AgentHost::LogEndpoint",
                                                          "AgentHost::DispatchRequest",
                                                          "AgentHost::LoadCertificate",
                                                          "AgentHost::SslConnect",
                                                          "ClientTable::",
                                                          "Forwarder::"};

bool IsOnListener(const LogEntry& entry) {
  return std::any_of(kOnListeners.begin(), kOnListeners.end(),
                     [&](std::string_view name) { return entry.IsOf(name); });
}

}  // namespace

// With -d a process's first line is one of `Init`, without it the one that says that it has
// started.
bool Listeners::BeginsProcess(const LogEntry& entry) {
  if (entry.IsOf("Init") && entry.text == "Enter") {
    beginning_ = entry.process;
    return true;
  }
  if (!entry.IsStart()) {
    return false;
  }
  const bool hasBegun = beginning_ == entry.process;
  beginning_.clear();
  return !hasBegun;
}

std::vector<size_t> Listeners::EndProcess() {
  std::vector<size_t> numbers = Numbers();
  for (size_t& number : numbers) {
    number = number < kFirstThread ? number : kUnknown;
  }
  threads_.clear();
  return numbers;
}

std::vector<size_t> Listeners::Numbers() const {
  std::vector<size_t> numbers = {kUnknown, kPlain, kTls};
  for (const Thread& thread : threads_) {
    const Number listener = ListenerOf(thread);
    numbers.push_back(listener == kUnknown ? numbers.size() : listener);
  }
  return numbers;
}

size_t Listeners::Take(const LogEntry& entry) {
  const size_t number = NumberOf(entry);
  const Number listener = number == kUnknown ? kUnknown : ListenerIn(entry);
  if (listener != kUnknown) {
    threads_.at(number - kFirstThread).listener = listener;
  }
  return number;
}

size_t Listeners::NumberOf(const LogEntry& entry) {
  const auto known = std::find_if(threads_.begin(), threads_.end(),
                                  [&](const Thread& each) { return each.name == entry.thread; });
  if (known != threads_.end()) {
    return kFirstThread + static_cast<size_t>(known - threads_.begin());
  }
  if (!IsOnListener(entry) || threads_.size() >= kMostThreads) {
    return kUnknown;
  }
  threads_.push_back({std::string(entry.process), std::string(entry.thread), kUnknown});
  return kFirstThread + threads_.size() - 1;
}

// What the daemon writes for one of its listeners alone.
Listeners::Number Listeners::ListenerIn(const LogEntry& entry) {
  struct Sign {
    std::string_view function;
    std::string_view begin;
    std::string_view end;
    Number listener;
  };
  // Only whoever has the key, or is asked for none, gets as far as the check of the characters; on
  // the plain listener no endpoint has any that are refused there.
  static constexpr std::array<Sign, 9> kSigns = {{
      {"AgentHost::LogEndpoint", "Serves ", "TLS", kTls},
      {"AgentHost::LogEndpoint", "Serves ", "plain HTTP, for want of certificate and key", kTls},
      {"AgentHost::LogEndpoint", "Serves ", "plain HTTP", kPlain},
      {"AgentHost::LoadCertificate", "", "", kTls},
      {"AgentHost::SslConnect", "", "", kTls},
      {"AgentHost::DispatchRequest", "Pairing key not as expected: ", "", kTls},
      {"AgentHost::DispatchRequest", "Pairing key is not configured", "", kTls},
      {"AgentHost::DispatchRequest", "Invalid character in the URI", "", kTls},
      {"AgentHost::DispatchRequest", "Endpoint is not allowed with insecure connection", "",
       kPlain},
  }};
  for (const Sign& sign : kSigns) {
    if (entry.IsOf(sign.function) && BeginsWith(entry.text, sign.begin) &&
        EndsWith(entry.text, sign.end)) {
      return sign.listener;
    }
  }
  return kUnknown;
}

// Of the two listeners of a process one is plain and one is TLS.
Listeners::Number Listeners::ListenerOf(const Thread& thread) const {
  if (thread.listener != kUnknown) {
    return thread.listener;
  }
  for (const Thread& other : threads_) {
    if (other.process == thread.process && other.listener != kUnknown) {
      return other.listener == kPlain ? kTls : kPlain;
    }
  }
  return kUnknown;
}

std::vector<std::string> Listeners::Names() const {
  std::vector<std::string> names = {"unknown", "plain", "TLS"};
  for (const Thread& thread : threads_) {
    names.push_back(thread.name);
  }
  return names;
}

}  // namespace tavlo::ctl
