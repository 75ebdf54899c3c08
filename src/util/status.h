#pragma once

#include <string>
#include <utility>

namespace Orx {

/// The result of a fallible operation: success, or failure with one message.
/// The operation itself does not log; its caller logs the message.
class Status {
 public:
  static Status Ok() { return {true, std::string()}; }
  static Status Failure(std::string message) { return {false, std::move(message)}; }

  bool IsOk() const { return ok_; }

  /// Empty on success.
  const std::string& Message() const { return message_; }

 private:
  Status(bool ok, std::string message) : ok_(ok), message_(std::move(message)) {}

  bool ok_;
  std::string message_;
};

}  // namespace Orx
