#pragma once

#include <cstdint>
#include <string>

namespace tavlo {

/// Makes a non-blocking, close-on-exec TCP socket that listens on `address` (dotted text) and
/// `port`. Returns its descriptor, which the caller owns, or -1 with `errno` telling why.
///
/// libevent could do so too, but resolves the address, and on a router that has only an IPv6
/// address when the daemon starts it would refuse every IPv4 address for good, loopback included.
int OpenListeningSocket(const std::string& address, uint16_t port);

}  // namespace tavlo
