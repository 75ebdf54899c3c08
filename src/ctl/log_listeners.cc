#include "ctl/log_listeners.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace tavlo::ctl {

namespace {

// Whose lines come from the threads of listeners alone.
constexpr std::array<std::string_view, 6> kOnListeners = {"AgentHost::LogEndpoint",
                                                          "AgentHost::DispatchRequest",
                                                          "AgentHost::LoadCertificate",
                                                          "AgentHost::SslConnect",
                                                          "ClientTable::",
                                                          "Forwarder::"};

constexpr const char* kUnknownName = "unknown";

bool IsOnListener(const LogEntry& entry) {
  return std::any_of(kOnListeners.begin(), kOnListeners.end(),
                     [&](std::string_view name) { return entry.IsOf(name); });
}

}  // namespace

Listeners::Listeners() : listeners_(1) {}

size_t Listeners::Take(const LogEntry& entry) {
  if (BeginsAnotherProcess(entry)) {
    ++starts_;
    numbers_.clear();
  }
  const size_t number = NumberOf(entry);
  const Role role = number == kUnknown ? Role::kUnknown : RoleIn(entry);
  if (role != Role::kUnknown) {
    listeners_.at(number).role = role;
  }
  return number;
}

// It may have the numbers of the one before: a router gives the same ones at each boot. With -d its
// first line is one of `Init`, without it the one that says that it has started.
bool Listeners::BeginsAnotherProcess(const LogEntry& entry) {
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

size_t Listeners::NumberOf(const LogEntry& entry) {
  const auto known = numbers_.find(entry.thread);
  if (known != numbers_.end()) {
    return known->second;
  }
  if (!IsOnListener(entry) || listeners_.size() > kMost) {
    return kUnknown;
  }
  const size_t number = listeners_.size();
  listeners_.push_back(
      {std::string(entry.process), std::string(entry.thread), Role::kUnknown, starts_});
  numbers_.emplace(entry.thread, number);
  return number;
}

// What the daemon writes for one of its listeners alone.
Listeners::Role Listeners::RoleIn(const LogEntry& entry) {
  struct Sign {
    std::string_view function;
    std::string_view begin;
    std::string_view end;
    Role role;
  };
  // Only whoever has the key, or is asked for none, gets as far as the check of the characters; on
  // the plain listener no endpoint has any that are refused there.
  static constexpr std::array<Sign, 9> kSigns = {{
      {"AgentHost::LogEndpoint", "Serves ", "TLS", Role::kTls},
      {"AgentHost::LogEndpoint", "Serves ", "plain HTTP, for want of certificate and key",
       Role::kTls},
      {"AgentHost::LogEndpoint", "Serves ", "plain HTTP", Role::kPlain},
      {"AgentHost::LoadCertificate", "", "", Role::kTls},
      {"AgentHost::SslConnect", "", "", Role::kTls},
      {"AgentHost::DispatchRequest", "Pairing key not as expected: ", "", Role::kTls},
      {"AgentHost::DispatchRequest", "Pairing key is not configured", "", Role::kTls},
      {"AgentHost::DispatchRequest", "Invalid character in the URI", "", Role::kTls},
      {"AgentHost::DispatchRequest", "Endpoint is not allowed with insecure connection", "",
       Role::kPlain},
  }};
  for (const Sign& sign : kSigns) {
    if (entry.IsOf(sign.function) && entry.BeginsWith(sign.begin) && entry.EndsWith(sign.end)) {
      return sign.role;
    }
  }
  return Role::kUnknown;
}

// Of the two listeners of a process one is plain and one is TLS.
Listeners::Role Listeners::RoleOf(const Listener& listener) const {
  if (listener.role != Role::kUnknown) {
    return listener.role;
  }
  for (const Listener& other : listeners_) {
    if (other.process == listener.process && other.start == listener.start &&
        other.role != Role::kUnknown) {
      return other.role == Role::kPlain ? Role::kTls : Role::kPlain;
    }
  }
  return Role::kUnknown;
}

std::vector<std::string> Listeners::Names() const {
  constexpr int kMostByThread = 4;
  const auto isUnknown = [this](const Listener& each) { return RoleOf(each) == Role::kUnknown; };
  const bool areMany =
      std::count_if(listeners_.begin() + 1, listeners_.end(), isUnknown) > kMostByThread;
  std::vector<std::string> names = {kUnknownName};
  for (size_t i = 1; i < listeners_.size(); ++i) {
    const Listener& listener = listeners_[i];
    switch (RoleOf(listener)) {
      case Role::kPlain:
        names.emplace_back("plain");
        break;
      case Role::kTls:
        names.emplace_back("TLS");
        break;
      case Role::kUnknown:
        names.push_back(areMany ? kUnknownName : listener.thread);
        break;
    }
  }
  return names;
}

}  // namespace tavlo::ctl
