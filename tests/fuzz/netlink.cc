// The kernel's answer to the question for addresses, with lengths that lie.

#include <arpa/inet.h>

#include "fuzz/fuzz.h"
#include "util/router_util.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr unsigned char kUntouched = 255;
  for (const int family : {AF_INET, AF_INET6}) {
    std::string address;
    unsigned char prefixLength = kUntouched;
    const Orx::Status status =
        Orx::RouterUtil::FindAddress(reinterpret_cast<const char*>(data), size, 2, "lan",
                                     static_cast<unsigned char>(family), &address, &prefixLength);
    in6_addr binary = {};
    fuzz::Require(status.IsOk() == !address.empty(),
                  "there is an address on success, and only then");
    fuzz::Require(address.empty() || ::inet_pton(family, address.c_str(), &binary) == 1,
                  "the address is one of the family");
    fuzz::Require(status.IsOk() == status.Message().empty(), "a failure has a text");
    fuzz::Require(status.IsOk() || prefixLength == kUntouched, "a failure leaves the length alone");
  }
  return 0;
}
