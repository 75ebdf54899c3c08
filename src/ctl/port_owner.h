#pragma once

#include <cstdint>
#include <string>

namespace tavlo::ctl {

/// A process that listens on an address and port.
struct PortOwner {
  std::string name;  ///< empty when it cannot be found out: only root sees others' sockets
  std::string pid;

  /// As a message names it.
  std::string Text() const {
    return name.empty() ? "a program that cannot be seen from here"
                        : "'" + name + "', process " + pid;
  }
};

/// Looks through /proc for who listens on the TCP port of that IPv4 address (dotted text), or of
/// all addresses.
PortOwner FindPortOwner(const std::string& address, uint16_t port);

}  // namespace tavlo::ctl
