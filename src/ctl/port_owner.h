#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

namespace tavlo::ctl {

/// A process that has an address and port.
struct PortOwner {
  std::string name;  ///< empty when it cannot be found out: only root sees others' sockets
  std::string pid;
  uid_t uid = 0;

  /// As a message names it.
  std::string Text() const {
    return name.empty() ? "a program that cannot be seen from here"
                        : "'" + name + "', process " + pid;
  }
};

/// Looks through /proc for who keeps others off the TCP port of that IPv4 address (dotted text): by
/// listening there or on all addresses, or by a connection that goes out from there.
PortOwner FindPortOwner(const std::string& address, uint16_t port);

}  // namespace tavlo::ctl
