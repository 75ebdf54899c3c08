// The search in the kernel's answer, on datagrams made by hand. What the real kernel answers is in
// router_util_kernel_test.cc.

#include "util/router_util.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "support/faults.h"

namespace {

constexpr unsigned kOurs = 7;
constexpr unsigned kAnother = 8;
constexpr unsigned char kPermanent = IFA_F_PERMANENT;
constexpr unsigned char kDynamic = 0;
constexpr unsigned char kGlobal = RT_SCOPE_UNIVERSE;
constexpr unsigned char kMarker = 255;

template <typename Value>
std::string Bytes(Value value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string Padded(std::string bytes) {
  bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
  return bytes;
}

std::string RawAddress(const std::string& text) {
  const bool isIpv6 = text.find(':') != std::string::npos;
  std::string raw(isIpv6 ? sizeof(in6_addr) : sizeof(in_addr), '\0');
  EXPECT_EQ(::inet_pton(isIpv6 ? AF_INET6 : AF_INET, text.c_str(), raw.data()), 1) << text;
  return raw;
}

// One attribute with the length that it claims to have.
std::string AttributeClaiming(uint16_t length, uint16_t type, const std::string& data) {
  return Padded(Bytes(length) + Bytes(type) + data);
}

std::string Attribute(uint16_t type, const std::string& data) {
  return AttributeClaiming(static_cast<uint16_t>(sizeof(rtattr) + data.size()), type, data);
}

std::string AddressAttribute(const std::string& address) {
  return Attribute(IFA_ADDRESS, RawAddress(address));
}

// What a message says of the address in its attributes.
struct About {
  unsigned char flags = kDynamic;
  unsigned char scope = kGlobal;
  unsigned interface = kOurs;
  unsigned char prefixLength = 24;
  unsigned char family = AF_INET;
  uint16_t type = RTM_NEWADDR;
};

// One message with the length that it claims to have.
std::string MessageClaiming(uint32_t length, const About& about, const std::string& attributes) {
  nlmsghdr header = {};
  header.nlmsg_len = length;
  header.nlmsg_type = about.type;
  ifaddrmsg message = {};
  message.ifa_family = about.family;
  message.ifa_prefixlen = about.prefixLength;
  message.ifa_flags = about.flags;
  message.ifa_scope = about.scope;
  message.ifa_index = about.interface;
  return Bytes(header) + Bytes(message) + attributes;
}

std::string Message(const About& about, const std::string& attributes) {
  return MessageClaiming(static_cast<uint32_t>(24 + attributes.size()), about, attributes);
}

std::string AddressMessage(const About& about, const std::string& address) {
  return Message(about, AddressAttribute(address));
}

// The search's outputs and result.
struct Found {
  std::string address = "untouched";
  unsigned char prefixLength = kMarker;
  Orx::Status status = Orx::Status::Ok();
};

// Runs the search on a copy that ends where the datagram does, so that reading on is noticed.
Found Find(const std::string& datagram, unsigned char family = AF_INET) {
  const std::vector<char> exact(datagram.begin(), datagram.end());
  Found found;
  found.status = Orx::RouterUtil::FindAddress(exact.data(), exact.size(), kOurs, "br0", family,
                                              &found.address, &found.prefixLength);
  return found;
}

Found FindIpv6(const std::string& datagram) {
  return Find(datagram, AF_INET6);
}

void ExpectAddress(const Found& found, const std::string& address, int prefixLength) {
  EXPECT_TRUE(found.status.IsOk()) << found.status.Message();
  EXPECT_EQ(found.address, address);
  EXPECT_EQ(found.prefixLength, prefixLength);
}

void ExpectNone(const Found& found, const std::string& version = "4") {
  EXPECT_FALSE(found.status.IsOk());
  EXPECT_EQ(found.status.Message(),
            "Could not find active IPv" + version + " address from interface 'br0'");
  EXPECT_EQ(found.address, "untouched");
  EXPECT_EQ(found.prefixLength, kMarker);
}

// --- which address

TEST(FindAddress, GivesAnIpv4AddressInDottedDecimal) {
  ExpectAddress(Find(AddressMessage({kPermanent}, "192.168.1.1")), "192.168.1.1", 24);
}

TEST(FindAddress, GivesAnIpv6AddressCompressed) {
  ExpectAddress(FindIpv6(AddressMessage({kPermanent, kGlobal, kOurs, 64}, "fd00:0:0::00a1")),
                "fd00::a1", 64);
}

TEST(FindAddress, GivesTheLongestIpv6Address) {
  const std::string longest = "2001:1db8:1111:2222:3333:4444:5555:6666";
  ExpectAddress(FindIpv6(AddressMessage({kPermanent, kGlobal, kOurs, 128}, longest)), longest, 128);
}

TEST(FindAddress, GivesTheFirstDynamicOne) {
  ExpectAddress(Find(AddressMessage({kDynamic, kGlobal, kOurs, 24}, "10.0.0.1") +
                     AddressMessage({kDynamic, kGlobal, kOurs, 16}, "10.0.0.2")),
                "10.0.0.1", 24);
}

TEST(FindAddress, PrefersALaterDynamicOneToAPermanentOne) {
  ExpectAddress(Find(AddressMessage({kPermanent, kGlobal, kOurs, 24}, "10.0.0.1") +
                     AddressMessage({kPermanent, kGlobal, kOurs, 25}, "10.0.0.2") +
                     AddressMessage({kDynamic, kGlobal, kOurs, 16}, "10.0.0.3") +
                     AddressMessage({kPermanent, kGlobal, kOurs, 26}, "10.0.0.4")),
                "10.0.0.3", 16);
}

TEST(FindAddress, GivesTheFirstPermanentOneOtherwise) {
  ExpectAddress(Find(AddressMessage({kPermanent, kGlobal, kOurs, 24}, "10.0.0.1") +
                     AddressMessage({kPermanent, kGlobal, kOurs, 16}, "10.0.0.2")),
                "10.0.0.1", 24);
}

TEST(FindAddress, IgnoresDeprecatedAddresses) {
  ExpectNone(Find(AddressMessage({IFA_F_DEPRECATED}, "10.0.0.1") +
                  AddressMessage({IFA_F_DEPRECATED | kPermanent}, "10.0.0.2")));
  ExpectNone(FindIpv6(AddressMessage({IFA_F_DEPRECATED}, "fd00::1")), "6");
}

TEST(FindAddress, CaresForNoOtherFlag) {
  const auto others = static_cast<unsigned char>(~(IFA_F_DEPRECATED | IFA_F_PERMANENT));
  ExpectAddress(Find(AddressMessage({others}, "10.0.0.1")), "10.0.0.1", 24);
}

TEST(FindAddress, IgnoresScopesOtherThanGlobal) {
  std::string datagram;
  for (unsigned char scope = kGlobal + 1; scope != kGlobal; ++scope) {
    datagram += AddressMessage({kDynamic, scope}, "10.0.0.1");
  }
  ExpectNone(Find(datagram));
}

TEST(FindAddress, IgnoresOtherInterfaces) {
  const std::string another = AddressMessage({kDynamic, kGlobal, kAnother}, "10.0.0.1");
  ExpectNone(Find(another));
  ExpectAddress(Find(another + AddressMessage({kPermanent}, "10.0.0.2") + another), "10.0.0.2", 24);
}

TEST(FindAddress, ComparesTheWholeInterfaceIndex) {
  ExpectNone(Find(AddressMessage({kDynamic, kGlobal, kOurs + 256}, "10.0.0.1") +
                  AddressMessage({kDynamic, kGlobal, kOurs + 65536}, "10.0.0.1")));
}

TEST(FindAddress, LooksAtTheAddressAttributeOnly) {
  std::string others;
  for (const uint16_t type :
       std::vector<uint16_t>{IFA_UNSPEC, IFA_LOCAL, IFA_LABEL, IFA_BROADCAST, IFA_ANYCAST,
                             IFA_CACHEINFO, IFA_FLAGS, IFA_ADDRESS + 256}) {
    others += Attribute(type, RawAddress("10.0.0.1"));
  }
  ExpectNone(Find(Message({}, others)));
  ExpectAddress(Find(Message({}, others + AddressAttribute("10.0.0.2") + others)), "10.0.0.2", 24);
}

TEST(FindAddress, ReadsEachAddressOfAMessage) {
  const std::string two = AddressAttribute("10.0.0.1") + AddressAttribute("10.0.0.2");
  ExpectAddress(Find(Message({kPermanent}, two)), "10.0.0.1", 24);
  ExpectAddress(Find(Message({kDynamic}, two)), "10.0.0.1", 24);
}

TEST(FindAddress, DoesNotCompareTheFamily) {
  ExpectAddress(Find(AddressMessage({kDynamic, kGlobal, kOurs, 24, AF_INET6}, "10.0.0.1")),
                "10.0.0.1", 24);
}

TEST(FindAddress, TreatsNoMessageTypeSpecially) {
  ExpectAddress(Find(AddressMessage({kDynamic, kGlobal, kOurs, 24, AF_INET, 4242}, "10.0.0.1")),
                "10.0.0.1", 24);
  const std::string done = Message({kDynamic, kGlobal, 0, 0, 0, NLMSG_DONE}, "");
  const std::string error = Message({kDynamic, kGlobal, 0, 0, 0, NLMSG_ERROR}, "");
  ExpectAddress(Find(done + error + AddressMessage({}, "10.0.0.1")), "10.0.0.1", 24);
}

TEST(FindAddress, FailsByTheNameAndTheVersion) {
  ExpectNone(Find(""), "4");
  ExpectNone(Find("", AF_INET6), "6");
  ExpectNone(Find("", AF_UNSPEC), "6");
}

// --- failed conversions

TEST(FindAddressConversion, FailsWithNumberAndText) {
  const test::Fault fault("inet_ntop", ENOSPC);
  const Found found = Find(AddressMessage({kDynamic}, "10.0.0.1"));
  EXPECT_FALSE(found.status.IsOk());
  EXPECT_EQ(found.status.Message(), "Failed to convert address 28 No space left on device");
  EXPECT_EQ(found.address, "untouched");
  EXPECT_EQ(found.prefixLength, kMarker);
}

TEST(FindAddressConversion, FailsForAFamilyWithoutAddressTexts) {
  const Found found = Find(AddressMessage({kDynamic}, "fd00::1"), AF_UNIX);
  EXPECT_EQ(found.status.Message(),
            "Failed to convert address 97 Address family not supported by protocol");
}

TEST(FindAddressConversion, FailureLeavesThePermanentCandidateInTheOutputs) {
  const test::Fault fault("inet_ntop", ENOSPC, 1);
  const Found found = Find(AddressMessage({kPermanent, kGlobal, kOurs, 24}, "10.0.0.1") +
                           AddressMessage({kDynamic, kGlobal, kOurs, 16}, "10.0.0.2"));
  EXPECT_FALSE(found.status.IsOk());
  EXPECT_EQ(found.status.Message(), "Failed to convert address 28 No space left on device");
  EXPECT_EQ(found.address, "10.0.0.1");
  EXPECT_EQ(found.prefixLength, 24);
}

TEST(FindAddressConversion, IsTriedForASecondPermanentAddressToo) {
  const test::Fault fault("inet_ntop", ENOSPC, 1);
  const Found found =
      Find(AddressMessage({kPermanent}, "10.0.0.1") + AddressMessage({kPermanent}, "10.0.0.2"));
  EXPECT_FALSE(found.status.IsOk());
  EXPECT_EQ(found.address, "10.0.0.1");
}

TEST(FindAddressConversion, IsTriedForMatchesOnly) {
  const test::Fault conversions("inet_ntop", 0, 0, 0);
  ExpectNone(Find(AddressMessage({kDynamic, RT_SCOPE_HOST}, "10.0.0.1") +
                  AddressMessage({IFA_F_DEPRECATED}, "10.0.0.1") +
                  AddressMessage({kDynamic, kGlobal, kAnother}, "10.0.0.1")));
  EXPECT_EQ(conversions.Calls(), 0);
}

// --- lengths that lie

TEST(FindAddressLengths, OfMessagesAreRoundedUpToFour) {
  // A label of five bytes makes a message of 24 + 9 bytes, followed by three bytes of padding.
  const std::string odd = MessageClaiming(33, {kDynamic, kGlobal, kAnother}, Attribute(3, "br0:1"));
  ASSERT_EQ(odd.size(), 36U);
  ExpectAddress(Find(odd + AddressMessage({}, "10.0.0.1")), "10.0.0.1", 24);
}

TEST(FindAddressLengths, OfAttributesAreRoundedUpToFour) {
  for (const char* label : {"a", "ab", "abc", "abcd", "abcde"}) {
    ExpectAddress(Find(Message({}, Attribute(IFA_LABEL, label) + AddressAttribute("10.0.0.1"))),
                  "10.0.0.1", 24);
  }
}

TEST(FindAddressLengths, OfTheLastMessageNeedNotBePadded) {
  const std::string last = MessageClaiming(33, {}, Attribute(IFA_LABEL, "br0:1")).substr(0, 33);
  ExpectAddress(Find(AddressMessage({kPermanent}, "10.0.0.1") + last), "10.0.0.1", 24);
}

TEST(FindAddressLengths, BelowTheHeaderEndTheWalk) {
  for (const uint32_t length : {0U, 1U, 15U}) {
    const std::string liar = MessageClaiming(length, {}, AddressAttribute("10.0.0.1"));
    ExpectNone(Find(liar + AddressMessage({}, "10.0.0.2")));
    ExpectAddress(Find(AddressMessage({kPermanent}, "10.0.0.3") + liar), "10.0.0.3", 24);
  }
}

TEST(FindAddressLengths, BeyondTheDatagramEndTheWalk) {
  for (const uint32_t length : {33U, 36U, 0x7fffffffU, 0xfffffffcU, 0xffffffffU}) {
    const std::string liar = MessageClaiming(length, {}, AddressAttribute("10.0.0.1"));
    ASSERT_EQ(liar.size(), 32U);
    ExpectNone(Find(liar));
    ExpectAddress(Find(AddressMessage({kPermanent}, "10.0.0.3") + liar), "10.0.0.3", 24);
  }
}

TEST(FindAddressLengths, OfAMessageWithoutRoomForAnAddressArePassedOver) {
  for (const uint32_t length : {16U, 20U, 24U}) {
    const std::string small = MessageClaiming(length, {}, "").substr(0, length);
    ExpectAddress(Find(small + AddressMessage({}, "10.0.0.1")), "10.0.0.1", 24);
    ExpectNone(Find(small));
  }
}

TEST(FindAddressLengths, OfAttributesBelowTheirHeaderEndTheirMessageOnly) {
  for (const uint16_t length : std::vector<uint16_t>{0, 1, 3}) {
    const std::string liar = AttributeClaiming(length, IFA_ADDRESS, RawAddress("10.0.0.1"));
    ExpectAddress(
        Find(Message({}, liar + AddressAttribute("10.0.0.2")) + AddressMessage({}, "10.0.0.3")),
        "10.0.0.3", 24);
  }
}

TEST(FindAddressLengths, OfAttributesBeyondTheirMessageEndTheirMessageOnly) {
  for (const uint16_t length : std::vector<uint16_t>{9, 12, 0xfffc, 0xffff}) {
    const std::string liar = AttributeClaiming(length, IFA_ADDRESS, RawAddress("10.0.0.1"));
    ExpectAddress(Find(Message({}, liar) + AddressMessage({}, "10.0.0.3")), "10.0.0.3", 24);
    ExpectNone(Find(Message({}, liar)));
  }
}

TEST(FindAddressLengths, OfAnEmptyAttributeStepToTheNext) {
  ExpectAddress(Find(Message({}, Attribute(IFA_LABEL, "") + AddressAttribute("10.0.0.1"))),
                "10.0.0.1", 24);
}

TEST(FindAddressLengths, TooShortForAnAddressAreNoMatch) {
  for (size_t size = 0; size < 4; ++size) {
    const std::string piece = Attribute(IFA_ADDRESS, std::string("\x0a\0\0\x01", size));
    ExpectNone(Find(Message({}, piece)));
    ExpectAddress(Find(Message({}, piece) + AddressMessage({}, "10.0.0.2")), "10.0.0.2", 24);
  }
  ExpectNone(FindIpv6(Message({}, AddressAttribute("10.0.0.1"))), "6");
  ExpectNone(FindIpv6(Message({}, Attribute(IFA_ADDRESS, std::string(15, 'x')))), "6");
}

TEST(FindAddressLengths, AreNotTrustedInATruncatedDatagram) {
  const std::string whole =
      AddressMessage({kDynamic, kGlobal, kAnother}, "10.0.0.1") + AddressMessage({}, "10.0.0.2");
  for (size_t size = 0; size < whole.size(); ++size) {
    SCOPED_TRACE(size);
    ExpectNone(Find(whole.substr(0, size)));
  }
  ExpectAddress(Find(whole), "10.0.0.2", 24);
}

TEST(FindAddressLengths, MayBeAnythingWithoutHarm) {
  const std::string whole = AddressMessage({kPermanent}, "10.0.0.1") +
                            Message({}, Attribute(IFA_LABEL, "br0") + AddressAttribute("10.0.0.2"));
  // The same in every run. NOLINTNEXTLINE(cert-msc32-c,cert-msc51-cpp)
  std::mt19937 random(20260131);
  for (int round = 0; round < 20000; ++round) {
    std::string datagram = whole;
    for (unsigned change = random() % 4; change <= 4; ++change) {
      datagram[random() % datagram.size()] = static_cast<char>(random());
    }
    const Found found = Find(datagram, random() % 2 == 0 ? AF_INET : AF_INET6);
    ASSERT_EQ(found.status.IsOk(), found.address != "untouched");
  }
}

}  // namespace
