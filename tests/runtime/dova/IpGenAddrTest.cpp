// SPDX-License-Identifier: Apache-2.0
#include "runtime/dova/IpGenAddr.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

#include "runtime/dova/IntfId.h"
#include "runtime/dova/IpGenPrefix.h"
#include "runtime/dova/NetU8.h"
#include "runtime/vel/Exception.h"

namespace Dova {
namespace {

using testing::ElementsAre;

std::string streamed(auto const& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

IpGenAddr ipv6(std::array<U8, 16> const& bytes) { return IpGenAddr::fromBytes(bytes); }

TEST(IpGenAddrTest, TheDefaultIsTheUnspecifiedAddressOfUnknownFamily) {
  IpGenAddr const none;
  EXPECT_EQ(none.af(), ipunknown());
  EXPECT_FALSE(none.isIpv4());
  EXPECT_FALSE(none.isIpv6());
  EXPECT_TRUE(none.isZero());
  EXPECT_EQ(none.width(), 0);
  EXPECT_TRUE(none.bytes().empty());
  EXPECT_EQ(streamed(none), "unknown");
}

TEST(IpGenAddrTest, EqualityNeedsTheFamily) {
  IpGenAddr const all[] = {IpGenAddr(),          IpGenAddr("0.0.0.0"),
                           IpGenAddr("::"),      IpGenAddr("::ffff:0.0.0.0"),
                           IpGenAddr("1.2.3.4"), IpGenAddr("::ffff:1.2.3.4")};
  for (auto const& a : all)
    for (auto const& b : all) EXPECT_EQ(a == b, &a == &b) << a << " and " << b;
}

TEST(IpGenAddrTest, EqualAddressesHaveEqualHashesWhicheverWayTheyWereMade) {
  U8 const bytes[] = {10, 0, 0, 2};
  EXPECT_EQ(IpGenAddr("10.0.0.2"), IpGenAddr::ipv4(0x0a000002));
  EXPECT_EQ(IpGenAddr("10.0.0.2"), IpGenAddr::fromBytes(bytes));
  EXPECT_EQ(IpGenAddr("10.0.0.2").hash(), IpGenAddr::ipv4(0x0a000002).hash());
  EXPECT_EQ(IpGenAddr("2001:db8::1").hash(), IpGenAddr("2001:0DB8:0:0:0:0:0:1").hash());
}

TEST(IpGenAddrTest, ManyAddressesHaveManyHashes) {
  std::set<U32> hashes;
  for (U32 n = 0; n < 10000; ++n) hashes.insert(IpGenAddr::ipv4(0x0a000000 + n).hash());
  EXPECT_GT(hashes.size(), 9990u);
  EXPECT_LE(*hashes.rbegin(), Vel::hashMask);
}

TEST(IpGenAddrTest, AnIpv4AddressIsHeldAndHashedInItsIpv6Form) {
  IpGenAddr const address("1.2.3.4");
  EXPECT_THAT(address.bytes(), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(address.ip6Addr().bytes(), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 1, 2, 3, 4));
  EXPECT_EQ(address.hash(), address.ip6Addr().hash());
  EXPECT_EQ(address.ip6Addr(), IpGenAddr("::ffff:1.2.3.4").ip6Addr());
}

TEST(IpGenAddrTest, OnlyFourOrSixteenBytesAreAnAddress) {
  U8 const bytes[20] = {1, 2, 3, 4, 5};
  for (std::size_t size = 0; size <= sizeof bytes; ++size)
    EXPECT_EQ(IpGenAddr::fromBytes({bytes, size}).af(), size == 4    ? AddressFamily::ipv4
                                                        : size == 16 ? AddressFamily::ipv6
                                                                     : AddressFamily::unknown)
        << size;
  EXPECT_EQ(streamed(IpGenAddr::fromBytes({bytes, 4})), "1.2.3.4");
  EXPECT_EQ(streamed(IpGenAddr::fromBytes({bytes, 16})), "102:304:500::");
}

TEST(IpGenAddrTest, EachFamilyHasItsZero) {
  EXPECT_EQ(IpGenAddr::zero(AddressFamily::ipv4), IpGenAddr("0.0.0.0"));
  EXPECT_EQ(IpGenAddr::zero(AddressFamily::ipv6), IpGenAddr("::"));
  EXPECT_EQ(IpGenAddr::zero(AddressFamily::unknown), IpGenAddr());
  for (char const* zero : {"0.0.0.0", "::"}) EXPECT_TRUE(IpGenAddr(zero).isZero()) << zero;
  for (char const* other : {"0.0.0.1", "1.0.0.0", "::1", "::ffff:0.0.0.0", "8000::"})
    EXPECT_FALSE(IpGenAddr(other).isZero()) << other;
}

// RFC 5952, sections 4 and 5.
TEST(IpGenAddrTest, AddressesHaveTheirCanonicalText) {
  std::pair<char const*, char const*> const rows[] = {
      {"0.0.0.0", "0.0.0.0"},
      {"255.255.255.255", "255.255.255.255"},
      {"10.0.0.2", "10.0.0.2"},
      {"::", "::"},
      {"0:0:0:0:0:0:0:0", "::"},
      {"::1", "::1"},
      {"1::", "1::"},
      // Leading zeros go, letters are small.
      {"2001:0DB8:0000:0000:0000:0000:0002:0001", "2001:db8::2:1"},
      {"2001:DB8:AAAA:BBBB:CCCC:DDDD:EEEE:0AAA", "2001:db8:aaaa:bbbb:cccc:dddd:eeee:aaa"},
      // A single zero stays.
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
      {"0:1:1:1:1:1:1:1", "0:1:1:1:1:1:1:1"},
      {"1:1:1:1:1:1:1:0", "1:1:1:1:1:1:1:0"},
      {"0:1:0:1:0:1:0:1", "0:1:0:1:0:1:0:1"},
      // The longest run is shortened, the first of equal ones.
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
      {"2001:0:0:0:1:0:0:1", "2001::1:0:0:1"},
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
      {"1:0:0:2:0:0:3:4", "1::2:0:0:3:4"},
      {"0:0:1:0:0:1:0:0", "::1:0:0:1:0:0"},
      {"1:0:0:2:3:0:0:0", "1:0:0:2:3::"},
      {"fe80:0:0:0:0:0:0:0", "fe80::"},
      {"0:0:0:0:0:1:0:0", "::1:0:0"},
      {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
      {"0:0:3:4:5:6:7:8", "::3:4:5:6:7:8"},
      // Only mapped addresses have a dotted end.
      {"::1:2", "::1:2"},
      {"::0.1.0.2", "::1:2"},
      {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
      {"::ffff:0102:0304", "::ffff:1.2.3.4"},
      {"::ffff:0:0", "::ffff:0.0.0.0"},
      {"::ffff:0:1:2", "::ffff:0:1:2"},
      {"0:0:0:0:1:ffff:1:2", "::1:ffff:1:2"},
      {"64:ff9b::192.0.2.33", "64:ff9b::c000:221"},
      {"ff02::d", "ff02::d"},
  };
  for (auto const& [given, canonical] : rows) {
    IpGenAddr const address(given);
    EXPECT_EQ(toText(address), canonical) << given;
    EXPECT_EQ(streamed(address), canonical) << given;
    EXPECT_EQ(IpGenAddr::fromText(canonical), address) << given;
  }
}

TEST(IpGenAddrTest, WhateverTheBytesTheTextReadsBackAsTheSameAddressAndIsNoLongerThanAnyOther) {
  for (unsigned seed = 1; seed <= 2000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::array<U8, 16> bytes{};
    // Many zero words, many small ones.
    for (std::size_t word = 0; word < 8; ++word) switch (random() % 4) {
        case 0:
          bytes[2 * word] = static_cast<U8>(random());
          [[fallthrough]];
        case 1:
          bytes[2 * word + 1] = static_cast<U8>(random());
          break;
        default:
          break;
      }
    IpGenAddr const address = ipv6(bytes);
    std::string const text = toText(address);
    ASSERT_EQ(IpGenAddr::fromText(text), address) << text;
    char theirs[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, bytes.data(), theirs, sizeof theirs), nullptr);
    // The C library's text is the same but for a dotted end where there should be none.
    std::string const other = theirs;
    if (other.find('.') == other.npos) {
      ASSERT_EQ(text, other);
    }
  }
}

TEST(IpGenAddrTest, EveryIpv4AddressReadsBackAsItself) {
  std::mt19937 random(1);
  for (int i = 0; i < 2000; ++i) {
    IpGenAddr const address = IpGenAddr::ipv4(static_cast<U32>(random()));
    ASSERT_EQ(IpGenAddr::fromText(toText(address)), address);
  }
}

TEST(IpGenAddrTest, OtherTextsAreRefused) {
  std::string const embedded("10.0.0.1\0", 9);
  for (std::string const& text : {std::string(),
                                  std::string(" 10.0.0.1"),
                                  std::string("10.0.0.1 "),
                                  std::string("10.0.0"),
                                  std::string("10.0.0.256"),
                                  std::string("10.0.0.1.1"),
                                  std::string("10.0.0.1/24"),
                                  std::string("010.0.0.1"),
                                  std::string("0x0a.0.0.1"),
                                  std::string("10"),
                                  std::string("eth0"),
                                  std::string(":"),
                                  std::string(":::"),
                                  std::string("1::2::3"),
                                  std::string("12345::"),
                                  std::string("g::"),
                                  std::string("1:2:3:4:5:6:7"),
                                  std::string("1:2:3:4:5:6:7:8:9"),
                                  std::string("::1%eth0"),
                                  std::string("[::1]"),
                                  std::string("::ffff:1.2.3"),
                                  std::string("Unknown"),
                                  std::string(100, '1'),
                                  embedded}) {
    EXPECT_EQ(IpGenAddr::fromText(text), std::nullopt) << text;
    IpGenAddr kept("10.0.0.9");
    EXPECT_FALSE(fromText(text, kept)) << text;
    EXPECT_EQ(kept, IpGenAddr("10.0.0.9"));
    try {
      IpGenAddr const address(text);
      ADD_FAILURE() << text << " was taken for " << address;
    } catch (Vel::RangeException const& error) {
      EXPECT_EQ(error.what(), std::string(("not an IP address: \"" + text + "\"").c_str()));
    }
  }
}

TEST(IpGenAddrTest, TheDefaultHasATextThatReadsBack) {
  EXPECT_EQ(IpGenAddr("unknown"), IpGenAddr());
  IpGenAddr address("10.0.0.1");
  EXPECT_TRUE(fromText("unknown", address));
  EXPECT_EQ(address, IpGenAddr());
}

TEST(IpGenAddrTest, AddressesAreOrderedByFamilyAndThenAsNumbers) {
  char const* const ascending[] = {
      "unknown",        "0.0.0.0",     "10.0.0.2",        "10.0.0.10", "127.255.255.255",
      "128.0.0.0",      "192.168.0.1", "255.255.255.255", "::",        "::1",
      "::ffff:1.2.3.4", "1::",         "8000::",          "ff02::d"};
  for (auto const& a : ascending)
    for (auto const& b : ascending) EXPECT_EQ(IpGenAddr(a) < IpGenAddr(b), &a < &b) << a << " and " << b;
}

TEST(IpGenAddrTest, FamiliesHaveNames) {
  EXPECT_EQ(streamed(AddressFamily::unknown), "unknown");
  EXPECT_EQ(streamed(AddressFamily::ipv4), "IPv4");
  EXPECT_EQ(streamed(AddressFamily::ipv6), "IPv6");
  EXPECT_EQ(streamed(static_cast<AddressFamily>(9)), "AddressFamily(9)");
}

TEST(IpGenAddrTest, AFamilyReadsBackFromItsName) {
  for (AddressFamily const af : {AddressFamily::unknown, AddressFamily::ipv4, AddressFamily::ipv6}) {
    AddressFamily read = af == AddressFamily::ipv4 ? AddressFamily::ipv6 : AddressFamily::ipv4;
    EXPECT_TRUE(fromText(streamed(af), read)) << af;
    EXPECT_EQ(read, af);
  }
  for (char const* other : {"", "ipv4", "IPv5", "IPv4 "}) {
    AddressFamily untouched = AddressFamily::ipv6;
    EXPECT_FALSE(fromText(other, untouched)) << other;
    EXPECT_EQ(untouched, AddressFamily::ipv6);
  }
}

TEST(IpGenAddrTest, AnIpv4AddressIsReadBackInHostOrderAndNoOtherAddressHasThatForm) {
  for (U32 const number : {0u, 1u, 0x0a000002u, 0x80000000u, 0xffffffffu})
    EXPECT_EQ(IpGenAddr::ipv4(number).ipv4(), number);
  for (char const* other : {"unknown", "::", "::ffff:10.0.0.2"}) try {
      IpGenAddr(other).ipv4();
      ADD_FAILURE() << other;
    } catch (Vel::RangeException const& error) {
      EXPECT_EQ(error.what(), "not an IPv4 address: \"" + toText(IpGenAddr(other)) + '"');
    }
}

TEST(IpGenAddrTest, AnAddressIsReadBackFromItsIpv6FormAndItsFamily) {
  for (char const* text : {"unknown", "0.0.0.0", "10.0.0.2", "::", "2001:db8::1", "::ffff:10.0.0.2"}) {
    IpGenAddr const address(text);
    EXPECT_EQ(IpGenAddr::fromIp6Addr(address.ip6Addr(), address.af()), address);
  }
  Ip6Addr const ip6 = IpGenAddr("2001:db8::1").ip6Addr();
  EXPECT_FALSE(IpGenAddr::fromIp6Addr(ip6, AddressFamily::ipv4));
  EXPECT_FALSE(IpGenAddr::fromIp6Addr(ip6, AddressFamily::unknown));
  EXPECT_FALSE(IpGenAddr::fromIp6Addr(Ip6Addr(), AddressFamily::ipv4));
  EXPECT_FALSE(IpGenAddr::fromIp6Addr(Ip6Addr(), static_cast<AddressFamily>(3)));
}

// Nothing that is handed out refers into an object that has ended with its expression.
template <class T>
concept TemporaryHasBytes = requires {
  T().bytes();
};
static_assert(!TemporaryHasBytes<IpGenAddr>);
static_assert(!TemporaryHasBytes<IpGenAddr const>);
static_assert(std::is_same_v<decltype(std::declval<IpGenAddr const&>().bytes()), std::span<U8 const>>);
static_assert(std::is_same_v<decltype(IpGenAddr().ip6Addr()), Ip6Addr>);
static_assert(std::is_same_v<decltype(IpGenPrefix().ipGenAddr()), IpGenAddr>);
static_assert(std::is_same_v<decltype(IntfId().name()), std::string>);
static_assert(std::is_same_v<decltype(std::declval<IntfId const&>().name()), std::string const&>);

TEST(IpGenAddrTest, TheContainersOfTheStandardLibraryTakeAddressesPrefixesAndInterfaces) {
  std::unordered_set<IpGenAddr> addresses{IpGenAddr("10.0.0.1"), IpGenAddr("::ffff:10.0.0.1"), IpGenAddr()};
  EXPECT_EQ(addresses.count(IpGenAddr::ipv4(0x0a000001)), 1u);
  EXPECT_EQ(addresses.size(), 3u);
  std::unordered_map<IpGenPrefix, int> prefixes;
  for (char const* text : {"10.0.0.1/24", "10.0.0.1/25", "10.0.0.2/24", "10.0.0.1/24"})
    ++prefixes[*IpGenPrefix::fromText(text)];
  EXPECT_EQ(prefixes.size(), 3u);
  EXPECT_EQ(prefixes[*IpGenPrefix::fromText("10.0.0.1/24")], 2);
  std::unordered_set<IntfId> interfaces{IntfId("eth0"), IntfId("eth1"), IntfId("eth0")};
  EXPECT_EQ(interfaces.size(), 2u);
  std::unordered_set<Ip6Addr> forms{IpGenAddr("10.0.0.1").ip6Addr(), IpGenAddr("::ffff:10.0.0.1").ip6Addr()};
  EXPECT_EQ(forms.size(), 1u);
}

TEST(IpGenAddrTest, TheirHashIsTheSeededOneOfTheTables) {
  IpGenAddr const address("2001:db8::1");
  IpGenPrefix const prefix(address, 64);
  EXPECT_EQ(std::hash<IpGenAddr>()(address), address.hash());
  EXPECT_EQ(std::hash<Ip6Addr>()(address.ip6Addr()), address.hash());
  EXPECT_EQ(std::hash<IntfId>()(IntfId("eth0")), IntfId("eth0").hash());
  EXPECT_EQ(std::hash<IpGenPrefix>()(prefix), prefix.hash());
  EXPECT_NE(prefix.hash(), IpGenPrefix(address, 65).hash());
  EXPECT_LE(prefix.hash(), Vel::hashMask);
}

TEST(NetU8Test, AByteIsSetAndReadAndCompared) {
  NetU8 byte;
  EXPECT_EQ(byte.value(), 0);
  byte.valueIs(0xff);
  EXPECT_EQ(byte.value(), 0xff);
  EXPECT_EQ(byte, NetU8(255));
  EXPECT_FALSE(byte == NetU8(254));
}

}  // namespace
}  // namespace Dova
