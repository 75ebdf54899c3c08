#include "util/router_util.h"

#include <cerrno>
#include <cstring>
#include <mutex>

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include "util/close_on_exec.h"
#include "util/descriptor.h"
#include "util/error_text.h"
#include "util/retry.h"

namespace Orx::RouterUtil {

namespace {

constexpr size_t kReceiveBufferSize = 16384;
constexpr size_t kAlignment = 4;

struct AddressRequest {
  nlmsghdr header;
  ifaddrmsg message;
};
static_assert(sizeof(AddressRequest) == 24, "the kernel expects both headers without a gap");

Status SystemFailure(const std::string& text) {
  return Status::Failure(text + stdext::error_number_and_text(errno));
}

size_t AlignUp(size_t length) {
  return (length + kAlignment - 1) & ~(kAlignment - 1);
}

size_t AddressSize(unsigned char family) {
  return family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
}

// What the search has to go by, and where its result goes.
struct Search {
  unsigned int interfaceIndex;
  unsigned char family;
  std::string* address;
  unsigned char* prefixLength;
  bool hasCandidate = false;
};

enum class Step { kContinue, kFound, kFailed };

bool IsMatch(const Search& search, const ifaddrmsg& message, const rtattr& attribute) {
  return attribute.rta_type == IFA_ADDRESS && message.ifa_index == search.interfaceIndex &&
         message.ifa_scope == RT_SCOPE_UNIVERSE && (message.ifa_flags & IFA_F_DEPRECATED) == 0 &&
         attribute.rta_len >= sizeof attribute + AddressSize(search.family);
}

// `data` is the raw address of a matching attribute.
Step Judge(Search& search, const ifaddrmsg& message, const char* data) {
  char text[INET6_ADDRSTRLEN] = {};
  if (::inet_ntop(search.family, data, text, sizeof text) == nullptr) {
    return Step::kFailed;
  }
  const bool permanent = (message.ifa_flags & IFA_F_PERMANENT) != 0;
  if (permanent && search.hasCandidate) {
    return Step::kContinue;
  }
  *search.address = text;
  *search.prefixLength = message.ifa_prefixlen;
  search.hasCandidate = true;
  return permanent ? Step::kContinue : Step::kFound;
}

// `start` is a message of `size` bytes, its netlink header included.
Step WalkAttributes(Search& search, const char* start, size_t size) {
  ifaddrmsg message = {};
  if (size < sizeof(AddressRequest)) {
    return Step::kContinue;
  }
  std::memcpy(&message, start + sizeof(nlmsghdr), sizeof message);
  size_t offset = sizeof(AddressRequest);
  while (offset < size && size - offset >= sizeof(rtattr)) {
    rtattr attribute = {};
    std::memcpy(&attribute, start + offset, sizeof attribute);
    if (attribute.rta_len < sizeof attribute || attribute.rta_len > size - offset) {
      break;
    }
    if (IsMatch(search, message, attribute)) {
      const Step step = Judge(search, message, start + offset + sizeof attribute);
      if (step != Step::kContinue) {
        return step;
      }
    }
    offset += AlignUp(attribute.rta_len);
  }
  return Step::kContinue;
}

Step WalkMessages(Search& search, const char* datagram, size_t size) {
  size_t offset = 0;
  while (offset < size && size - offset >= sizeof(nlmsghdr)) {
    nlmsghdr header = {};
    std::memcpy(&header, datagram + offset, sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > size - offset) {
      break;
    }
    const Step step = WalkAttributes(search, datagram + offset, header.nlmsg_len);
    if (step != Step::kContinue) {
      return step;
    }
    offset += AlignUp(header.nlmsg_len);
  }
  return search.hasCandidate ? Step::kFound : Step::kContinue;
}

AddressRequest MakeRequest(unsigned char family) {
  AddressRequest request = {};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETADDR;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
  request.message.ifa_family = family;
  return request;
}

// 0 with errno when there is none. Not every C library makes the socket that it asks through
// close-on-exec.
unsigned int IndexOf(const std::string& name) {
  const std::lock_guard<std::mutex> lock(stdext::exec_mutex());
  return ::if_nametoindex(name.c_str());
}

}  // namespace

Status FindAddress(const char* datagram, size_t size, unsigned int interfaceIndex,
                   const std::string& name, unsigned char family, std::string* address,
                   unsigned char* prefixLength) {
  Search search = {interfaceIndex, family, address, prefixLength};
  switch (WalkMessages(search, datagram, size)) {
    case Step::kFound:
      return Status::Ok();
    case Step::kFailed:
      return SystemFailure("Failed to convert address ");
    case Step::kContinue:
      break;
  }
  const char* version = family == AF_INET ? "4" : "6";
  return Status::Failure(std::string("Could not find active IPv") + version +
                         " address from interface '" + name + "'");
}

Status GetIpAddrAndPrefix(const std::string& name, unsigned char family, std::string* address,
                          unsigned char* prefixLength) {
  const stdext::descriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket.is_open()) {
    return SystemFailure("Failed to create socket: ");
  }
  const unsigned int index = IndexOf(name);
  if (index == 0) {
    return SystemFailure("Failed to get the index of iface '" + name + "' as ");
  }
  const AddressRequest request = MakeRequest(family);
  if (stdext::retry_on_interrupt(
          [&] { return ::send(socket.get(), &request, sizeof request, 0); }) < 0) {
    return SystemFailure("Failed to send to socket: ");
  }
  char datagram[kReceiveBufferSize] = {};
  const ssize_t received = stdext::retry_on_interrupt(
      [&] { return ::recv(socket.get(), datagram, sizeof datagram, 0); });
  if (received < 0) {
    return SystemFailure("Failed to recv from socket: ");
  }
  return FindAddress(datagram, static_cast<size_t>(received), index, name, family, address,
                     prefixLength);
}

}  // namespace Orx::RouterUtil
