#pragma once

#include <string>

#include "util/status.h"

namespace Orx::RouterUtil {

/// Finds the address that the network interface `name` carries now. `family` is AF_INET or
/// AF_INET6. Of the interface's global, not deprecated addresses the first dynamic one is reported,
/// or else the first permanent one. On success `address` is its text and `prefixLength` its prefix
/// length in bits; they are left alone on failure, except that a failed conversion leaves the
/// candidate found before it.
///
/// One request and one answer of at most 16 KiB are exchanged with the kernel: addresses beyond
/// that are not seen, deliberately. Any thread may call it; it does not block for long. Failure
/// messages end in the error's number and text where a system call failed.
Status GetIpAddrAndPrefix(const std::string& name, unsigned char family, std::string* address,
                          unsigned char* prefixLength);

/// The part of the search that needs no kernel: walks one netlink datagram of `size` bytes for the
/// addresses of the interface with index `interfaceIndex`. Lengths in the datagram are not trusted.
/// Outputs and messages as above; `name` is for the message only.
Status FindAddress(const char* datagram, size_t size, unsigned int interfaceIndex,
                   const std::string& name, unsigned char family, std::string* address,
                   unsigned char* prefixLength);

}  // namespace Orx::RouterUtil
