// The address look-up with the real kernel, in a network namespace of the test's own; and what it
// exchanges with the kernel, through a socket that stands in for the kernel's.

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/error_text.h"
#include "support/faults.h"
#include "support/temporary_directory.h"
#include "util/close_on_exec.h"
#include "util/descriptor.h"
#include "util/router_util.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned char kMarker = 255;

long OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// The exit status of `ip` with these arguments, or -1.
int Ip(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "ip");
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  pid_t child = -1;
  int status = -1;
  if (::posix_spawnp(&child, "ip", nullptr, nullptr, argv.data(), environ) != 0 ||
      ::waitpid(child, &status, 0) != child) {
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Looks up an address; each call must close what it opened and, unless it succeeds, leave the
// outputs alone.
class LookUp : public testing::Test {
 protected:
  std::string Find(const std::string& name, unsigned char family = AF_INET) {
    address_ = "untouched";
    prefixLength_ = kMarker;
    const long descriptors = OpenDescriptors();
    const Orx::Status status =
        Orx::RouterUtil::GetIpAddrAndPrefix(name, family, &address_, &prefixLength_);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    if (!status.IsOk()) {
      EXPECT_EQ(address_, "untouched");
      EXPECT_EQ(prefixLength_, kMarker);
      return status.Message();
    }
    return address_ + "/" + std::to_string(prefixLength_);
  }

 private:
  std::string address_;
  unsigned char prefixLength_ = kMarker;
};

using LookUpFailure = LookUp;

// With a bridge "br0" and a pair "lan0" and "lan1", all without addresses.
class LookUpInNamespace : public LookUp {
 protected:
  void SetUp() override {
    if (::unshare(CLONE_NEWNET) != 0) {
      GTEST_SKIP() << "only root can make a network namespace";
    }
    if (Ip({"link", "add", "br0", "type", "bridge"}) != 0 ||
        Ip({"link", "add", "lan0", "type", "veth", "peer", "name", "lan1"}) != 0) {
      GTEST_SKIP() << "the `ip` command or the kernel cannot make a bridge and a pair";
    }
  }

  static void AddAddress(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {"address", "add"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ASSERT_EQ(Ip(all), 0);
  }
};

TEST_F(LookUpInNamespace, GivesTheIpv4AddressAndItsPrefixLength) {
  AddAddress({"192.168.7.1/23", "dev", "br0"});
  EXPECT_EQ(Find("br0"), "192.168.7.1/23");
}

TEST_F(LookUpInNamespace, GivesTheIpv6AddressAndItsPrefixLength) {
  AddAddress({"fd00:0::1/64", "dev", "br0", "nodad"});
  EXPECT_EQ(Find("br0", AF_INET6), "fd00::1/64");
}

TEST_F(LookUpInNamespace, TellsInterfacesApart) {
  AddAddress({"10.0.1.1/24", "dev", "lan0"});
  AddAddress({"10.0.2.1/25", "dev", "br0"});
  AddAddress({"10.0.3.1/26", "dev", "lan1"});
  EXPECT_EQ(Find("lan0"), "10.0.1.1/24");
  EXPECT_EQ(Find("br0"), "10.0.2.1/25");
  EXPECT_EQ(Find("lan1"), "10.0.3.1/26");
}

TEST_F(LookUpInNamespace, GivesTheFirstOfSeveralPermanentAddresses) {
  AddAddress({"10.0.1.1/24", "dev", "br0"});
  AddAddress({"10.0.2.1/25", "dev", "br0"});
  EXPECT_EQ(Find("br0"), "10.0.1.1/24");
}

TEST_F(LookUpInNamespace, PrefersALaterDynamicAddress) {
  AddAddress({"10.0.1.1/24", "dev", "br0"});
  AddAddress({"10.0.2.1/25", "dev", "br0", "valid_lft", "1000", "preferred_lft", "1000"});
  EXPECT_EQ(Find("br0"), "10.0.2.1/25");
}

TEST_F(LookUpInNamespace, PrefersADynamicIpv6AddressToAPermanentOne) {
  AddAddress({"fd00::1/64", "dev", "br0", "nodad"});
  AddAddress({"fd00::2/64", "dev", "br0", "nodad", "valid_lft", "1000", "preferred_lft", "1000"});
  AddAddress({"fd00::3/64", "dev", "br0", "nodad"});
  EXPECT_EQ(Find("br0", AF_INET6), "fd00::2/64");
}

TEST_F(LookUpInNamespace, FindsNoneWithoutAnAddress) {
  EXPECT_EQ(Find("br0"), "Could not find active IPv4 address from interface 'br0'");
  EXPECT_EQ(Find("br0", AF_INET6), "Could not find active IPv6 address from interface 'br0'");
}

TEST_F(LookUpInNamespace, FindsNoAddressOfTheOtherFamily) {
  AddAddress({"fd00::1/64", "dev", "br0", "nodad"});
  AddAddress({"10.0.1.1/24", "dev", "lan0"});
  EXPECT_EQ(Find("br0"), "Could not find active IPv4 address from interface 'br0'");
  EXPECT_EQ(Find("lan0", AF_INET6), "Could not find active IPv6 address from interface 'lan0'");
}

TEST_F(LookUpInNamespace, FindsNoDeprecatedAddress) {
  AddAddress({"fd00::1/64", "dev", "br0", "nodad", "valid_lft", "1000", "preferred_lft", "0"});
  EXPECT_EQ(Find("br0", AF_INET6), "Could not find active IPv6 address from interface 'br0'");
}

TEST_F(LookUpInNamespace, FindsNoLinkLocalAddress) {
  AddAddress({"fe80::1/64", "dev", "br0", "nodad"});
  EXPECT_EQ(Find("br0", AF_INET6), "Could not find active IPv6 address from interface 'br0'");
}

TEST_F(LookUpInNamespace, FindsNoLoopbackAddress) {
  ASSERT_EQ(Ip({"link", "set", "lo", "up"}), 0);
  EXPECT_EQ(Find("lo"), "Could not find active IPv4 address from interface 'lo'");
  EXPECT_EQ(Find("lo", AF_INET6), "Could not find active IPv6 address from interface 'lo'");
}

TEST_F(LookUpInNamespace, FindsAGlobalAddressOfTheLoopbackInterface) {
  ASSERT_EQ(Ip({"link", "set", "lo", "up"}), 0);
  AddAddress({"10.0.1.1/24", "dev", "lo", "scope", "global"});
  EXPECT_EQ(Find("lo"), "10.0.1.1/24");
}

TEST_F(LookUpInNamespace, GivesThePeersAddressOfAPointToPointConnection) {
  AddAddress({"10.9.0.1", "peer", "10.9.0.2/32", "dev", "lan0"});
  EXPECT_EQ(Find("lan0"), "10.9.0.2/32");
}

TEST_F(LookUpInNamespace, FollowsAChangeOfTheAddress) {
  AddAddress({"10.0.1.1/24", "dev", "br0"});
  EXPECT_EQ(Find("br0"), "10.0.1.1/24");
  ASSERT_EQ(Ip({"address", "flush", "dev", "br0"}), 0);
  AddAddress({"10.0.2.1/24", "dev", "br0"});
  EXPECT_EQ(Find("br0"), "10.0.2.1/24");
}

TEST_F(LookUpInNamespace, SeesTheFirstDatagramOfTheKernelsAnswerOnly) {
  const test::TemporaryDirectory directory;
  std::string commands;
  for (int subnet = 0; subnet < 250; ++subnet) {
    commands += "address add 10.1." + std::to_string(subnet) + ".1/32 dev br0\n";
  }
  ASSERT_LT(::if_nametoindex("br0"), ::if_nametoindex("lan0")) << "the kernel lists br0 first";
  AddAddress({"10.0.1.1/24", "dev", "lan0"});
  EXPECT_EQ(Find("lan0"), "10.0.1.1/24");

  ASSERT_EQ(Ip({"-batch", directory.Write("commands", commands)}), 0);
  EXPECT_EQ(Find("br0"), "10.1.0.1/32");
  EXPECT_EQ(Find("lan0"), "Could not find active IPv4 address from interface 'lan0'");
}

TEST_F(LookUpInNamespace, FailsForAnUnknownInterface) {
  EXPECT_EQ(Find("wan0"), "Failed to get the index of iface 'wan0' as 19 No such device");
  EXPECT_EQ(Find(""), "Failed to get the index of iface '' as 19 No such device");
}

// --- failures; the loopback interface exists everywhere

TEST_F(LookUpFailure, OfTheSocketComesFirst) {
  const test::Fault fault("socket", EMFILE);
  EXPECT_EQ(Find("no such interface"), "Failed to create socket: 24 " + test::ErrorText(EMFILE));
}

int OptionOf(int fd, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, name, &value, &size), 0);
  return value;
}

TEST(LookUpSocket, IsARawOneAndKeptFromPrograms) {
  const int fd = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);  // the lowest number that is free
  ::close(fd);
  {
    const test::Fault fault("close", EIO);  // leaves it open
    std::string address;
    unsigned char prefixLength = 0;
    EXPECT_FALSE(
        Orx::RouterUtil::GetIpAddrAndPrefix("nosuch", AF_INET, &address, &prefixLength).IsOk());
  }
  EXPECT_EQ(OptionOf(fd, SO_DOMAIN), AF_NETLINK);
  EXPECT_EQ(OptionOf(fd, SO_TYPE), SOCK_RAW);
  EXPECT_EQ(OptionOf(fd, SO_PROTOCOL), NETLINK_ROUTE);
  EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  ::close(fd);
}

// Under the lock that keeps programs from starting: a C library may open a socket for it that a
// program would inherit.
TEST(LookUpOfTheName, WaitsForAProgramThatStarts) {
  std::unique_lock<std::mutex> starting(stdext::exec_mutex());
  auto found = std::async(std::launch::async, [] {
    std::string address;
    unsigned char prefixLength = 0;
    return Orx::RouterUtil::GetIpAddrAndPrefix("nosuch", AF_INET, &address, &prefixLength).IsOk();
  });
  EXPECT_EQ(found.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  starting.unlock();
  EXPECT_FALSE(found.get());
}

TEST_F(LookUpFailure, OfTheNameComesBeforeSending) {
  const test::Fault fault("send", ENOBUFS);
  EXPECT_EQ(Find("nosuch"), "Failed to get the index of iface 'nosuch' as 19 No such device");
  EXPECT_EQ(fault.Calls(), 0);
}

TEST_F(LookUpFailure, OfSending) {
  const test::Fault fault("send", ENOBUFS);
  EXPECT_EQ(Find("lo"), "Failed to send to socket: 105 No buffer space available");
  EXPECT_EQ(fault.Calls(), 1);
}

TEST_F(LookUpFailure, OfReceiving) {
  const test::Fault fault("recv", ENOMEM);
  EXPECT_EQ(Find("lo"), "Failed to recv from socket: 12 " + test::ErrorText(ENOMEM));
  EXPECT_EQ(fault.Calls(), 1);
}

TEST_F(LookUpFailure, IsNotMadeOfAnInterruption) {
  const test::Fault sending("send", EINTR, 0, 2);
  const test::Fault receiving("recv", EINTR, 0, 2);
  EXPECT_EQ(Find("lo"), "Could not find active IPv4 address from interface 'lo'");
  EXPECT_EQ(sending.Calls(), 3);
  EXPECT_EQ(receiving.Calls(), 3);
}

// --- the exchange

// The other end of the socket that the look-up takes for the kernel's.
class LookUpExchange : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    lookUpsEnd_ = ends[0];
    kernelsEnd_.emplace(ends[1]);
  }

  void Answer(const std::string& datagram) {
    ASSERT_EQ(::send(kernelsEnd_->get(), datagram.data(), datagram.size(), 0),
              static_cast<ssize_t>(datagram.size()));
  }

  Orx::Status Find(unsigned char family = AF_INET) {
    const test::SocketStandIn standIn(lookUpsEnd_);
    return Orx::RouterUtil::GetIpAddrAndPrefix("lo", family, &address_, &prefixLength_);
  }

  // The next datagram that the look-up sent, or "" when there is none.
  std::string Request() {
    char buffer[1024] = {};
    const ssize_t size = ::recv(kernelsEnd_->get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return {buffer, size > 0 ? static_cast<size_t>(size) : 0};
  }

  // One message of `size` bytes that tells of 10.0.0.`last` on the loopback interface, or of
  // nothing when `last` is 0.
  static std::string Message(unsigned char last, uint32_t size = 32) {
    nlmsghdr header = {};
    header.nlmsg_len = size;
    ifaddrmsg message = {};
    message.ifa_prefixlen = 8;
    message.ifa_index = last != 0 ? ::if_nametoindex("lo") : 0;
    const rtattr attribute = {8, IFA_ADDRESS};
    const unsigned char raw[4] = {10, 0, 0, last};
    std::string bytes(size, '\0');
    std::memcpy(&bytes[0], &header, sizeof header);
    std::memcpy(&bytes[16], &message, sizeof message);
    std::memcpy(&bytes[24], &attribute, sizeof attribute);
    std::memcpy(&bytes[28], raw, sizeof raw);
    return bytes;
  }

  std::optional<stdext::descriptor> kernelsEnd_;
  int lookUpsEnd_ = -1;
  std::string address_;
  unsigned char prefixLength_ = kMarker;
};

// The request in the byte order of the machine.
std::string ExpectedRequest(unsigned char family) {
  const uint32_t length = 24;
  const uint16_t type = 22;
  const uint16_t flags = 0x0101;
  std::string bytes(24, '\0');
  std::memcpy(&bytes[0], &length, sizeof length);
  std::memcpy(&bytes[4], &type, sizeof type);
  std::memcpy(&bytes[6], &flags, sizeof flags);
  bytes[16] = static_cast<char>(family);
  return bytes;
}

TEST_F(LookUpExchange, SendsOneRequestForAllIpv4Addresses) {
  Answer(Message(1));
  const test::Fault binding("bind", 0, 0, 0);
  EXPECT_TRUE(Find(AF_INET).IsOk());
  EXPECT_EQ(binding.Calls(), 0);
  EXPECT_EQ(Request(), ExpectedRequest(2));
  EXPECT_EQ(Request(), "") << "no second request";
}

TEST_F(LookUpExchange, SendsOneRequestForAllIpv6Addresses) {
  Answer(Message(0));
  EXPECT_EQ(Find(AF_INET6).Message(), "Could not find active IPv6 address from interface 'lo'");
  EXPECT_EQ(Request(), ExpectedRequest(10));
}

TEST_F(LookUpExchange, ReceivesOneDatagram) {
  Answer(Message(0));
  Answer(Message(1));
  const test::Fault receiving("recv", 0, 0, 0);
  EXPECT_EQ(Find().Message(), "Could not find active IPv4 address from interface 'lo'");
  EXPECT_EQ(receiving.Calls(), 1);
}

TEST_F(LookUpExchange, ReadsTheDatagramToItsEnd) {
  Answer(Message(0) + Message(0) + Message(2));
  EXPECT_TRUE(Find().IsOk());
  EXPECT_EQ(address_, "10.0.0.2");
  EXPECT_EQ(prefixLength_, 8);
}

TEST_F(LookUpExchange, AcceptsADatagramOf16384Bytes) {
  Answer(Message(0, 16384 - 32) + Message(3));
  EXPECT_TRUE(Find().IsOk());
  EXPECT_EQ(address_, "10.0.0.3");
}

TEST_F(LookUpExchange, CutsALongerDatagram) {
  Answer(Message(0, 16384 - 28) + Message(3));
  EXPECT_EQ(Find().Message(), "Could not find active IPv4 address from interface 'lo'");
}

TEST_F(LookUpExchange, FailsAsEverForAnEmptyDatagram) {
  Answer("");
  EXPECT_EQ(Find().Message(), "Could not find active IPv4 address from interface 'lo'");
}

TEST_F(LookUpExchange, ClosesItsSocket) {
  Answer(Message(1));
  EXPECT_TRUE(Find().IsOk());
  EXPECT_EQ(Request(), ExpectedRequest(AF_INET));
  char byte = 0;
  EXPECT_EQ(::send(kernelsEnd_->get(), &byte, 1, MSG_NOSIGNAL), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

}  // namespace
