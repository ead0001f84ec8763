// SPDX-License-Identifier: Apache-2.0
// The codec against bytes written by hand from RFC 7761, 4.9, and against itself.
#include "pim/wire/PimMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <random>

#include "runtime/vel/Exception.h"
#include "tests/pim/wire/Bytes.h"

namespace Routing::Pim::Wire {

// For failure messages.
static void PrintTo(JoinPrune const& message, std::ostream* os) {
  *os << "to " << message.upstreamNeighbor() << " hold " << message.holdTime();
  for (auto const& group : message.groups()) {
    *os << "; " << group.group();
    for (auto const& join : group.joins()) *os << " join " << text(join.kind) << ' ' << join.address;
    for (auto const& prune : group.prunes()) *os << " prune " << text(prune.kind) << ' ' << prune.address;
  }
}

namespace {

using namespace Test;

// Two groups and every kind of entry, over IPv4.
Bytes const ipv4Bytes = hex(R"(
    23 00 a9 aa
    01 00 0a00000d  00 02 00d2
    01 00 00 20 ef010101  0002 0001
      01 00 07 20 0aff0001
      01 00 04 20 c000020a
      01 00 05 20 c0000214
    01 00 00 20 ef010102  0001 0002
      01 00 05 20 c000021e
      01 00 07 20 0aff0001
      01 00 04 20 c0000228)");

JoinPrune ipv4Message() {
  JoinPrune message(IpGenAddr("10.0.0.13"), 210);
  message.groupAdd(IpGenAddr("239.1.1.1"));
  message.entryAdd(EntryKind::wildcardJoin, IpGenAddr("10.255.0.1"));
  message.entryAdd(EntryKind::sourceJoin, IpGenAddr("192.0.2.10"));
  message.entryAdd(EntryKind::sourceRptPrune, IpGenAddr("192.0.2.20"));
  message.groupAdd(IpGenAddr("239.1.1.2"));
  message.entryAdd(EntryKind::sourceRptJoin, IpGenAddr("192.0.2.30"));
  message.entryAdd(EntryKind::wildcardPrune, IpGenAddr("10.255.0.1"));
  message.entryAdd(EntryKind::sourcePrune, IpGenAddr("192.0.2.40"));
  return message;
}

Bytes const ipv6Bytes = hex(R"(
    23 00 6d f0
    02 00 fe800000000000000000000000000013  00 01 ffff
    02 00 00 80 ff0e0000000000000000000000000101  0001 0001
      02 00 07 80 20010db800ff00000000000000000001
      02 00 05 80 20010db8000000000000000000000010)");

JoinPrune ipv6Message() {
  JoinPrune message(IpGenAddr("fe80::13"), 65535);
  message.groupAdd(IpGenAddr("ff0e::101"));
  message.entryAdd(EntryKind::wildcardJoin, IpGenAddr("2001:db8:ff::1"));
  message.entryAdd(EntryKind::sourceRptPrune, IpGenAddr("2001:db8::10"));
  return message;
}

/// What the bytes decode to: the message, or a failure of the test with the reason.
JoinPrune decoded(Bytes const& bytes, IpGenAddr const& from = sender, IpGenAddr const& to = routers) {
  auto result = decodeJoinPrune(bytes, from, to);
  if (auto const* refusal = std::get_if<Refusal>(&result)) {
    ADD_FAILURE() << "refused: " << toText(*refusal);
    return JoinPrune(from, 0);
  }
  return std::get<JoinPrune>(std::move(result));
}

/// "accepted", or why not.
std::string verdict(Bytes const& bytes, IpGenAddr const& from = sender, IpGenAddr const& to = routers) {
  auto const result = decodeJoinPrune(bytes, from, to);
  auto const* refusal = std::get_if<Refusal>(&result);
  return refusal ? toText(*refusal) : "accepted";
}

TEST(PimMessageTest, BytesOverIpv4BecomeTheirMessage) { EXPECT_EQ(decoded(ipv4Bytes), ipv4Message()); }

TEST(PimMessageTest, BytesOverIpv6BecomeTheirMessage) {
  EXPECT_EQ(decoded(ipv6Bytes, sender6, routers6), ipv6Message());
}

TEST(PimMessageTest, AMessageOverIpv4BecomesItsBytes) {
  EXPECT_EQ(encodeJoinPrune(ipv4Message(), sender, routers), ipv4Bytes);
  EXPECT_EQ(ipv4Message().encodedSize(), ipv4Bytes.size());
}

TEST(PimMessageTest, AMessageOverIpv6BecomesItsBytes) {
  EXPECT_EQ(encodeJoinPrune(ipv6Message(), sender6, routers6), ipv6Bytes);
  EXPECT_EQ(ipv6Message().encodedSize(), ipv6Bytes.size());
}

TEST(PimMessageTest, TheChecksumOverIpv4LeavesTheAddressesOut) {
  EXPECT_EQ(pimChecksum(ipv4Bytes, sender, routers), 0);
  EXPECT_EQ(pimChecksum(ipv4Bytes, IpGenAddr("10.9.9.9"), routers), 0);
}

TEST(PimMessageTest, TheChecksumOverIpv6TakesThePseudoHeaderIn) {
  EXPECT_EQ(pimChecksum(ipv6Bytes, sender6, routers6), 0);
  EXPECT_NE(pimChecksum(ipv6Bytes, IpGenAddr("fe80::15"), routers6), 0);
  EXPECT_NE(pimChecksum(ipv6Bytes, sender6, IpGenAddr("ff02::e")), 0);
}

TEST(PimMessageTest, AnOddByteIsPaddedForTheChecksum) {
  // 0x0102 + 0x0300 = 0x0402
  EXPECT_EQ(pimChecksum(hex("01 02 03"), sender, routers), 0xfbfd);
}

TEST(PimMessageTest, CarriesOfTheChecksumGoRound) {
  // 0xffff + 0x0001 = 0x10000 -> 0x0001
  EXPECT_EQ(pimChecksum(hex("ffff 0001"), sender, routers), 0xfffe);
}

TEST(PimMessageTest, BitsThatReceiversIgnoreAreIgnored) {
  auto bytes = ipv4Bytes;
  bytes[1] = 0xff;   // Reserved in the PIM header.
  bytes[10] = 0xff;  // Reserved before the number of groups.
  bytes[16] = 0xff;  // B, Z and reserved of the group.
  bytes[28] = 0xff;  // Reserved of the wildcard.
  bytes[36] = 0xf8;  // Reserved of a source, without S.
  EXPECT_EQ(decoded(withChecksum(bytes, sender, routers)), ipv4Message());
}

TEST(PimMessageTest, AMessageMayHaveNoGroupsAndAGroupNoSources) {
  JoinPrune message(IpGenAddr("10.0.0.13"), 0);
  EXPECT_EQ(decoded(encodeJoinPrune(message, sender, routers)), message);
  message.groupAdd(IpGenAddr("239.1.1.1"));
  EXPECT_EQ(decoded(encodeJoinPrune(message, sender, routers)), message);
}

// Each row turns the good message over IPv4 into a bad one at one place.
struct Mutation {
  char const* name;
  std::size_t at;
  char const* bytes;
  char const* verdict;
};

constexpr std::size_t upstreamAt = 4, groupCountAt = 11, groupAt = 14, joinCountAt = 22;
constexpr std::size_t wildcardAt = 26, secondGroupAt = 50;

Mutation const mutations[] = {
    {"AnotherVersion", 0, "13", "not a PIM version 2 Join/Prune (version 1, type 3)"},
    {"AnotherType", 0, "20", "not a PIM version 2 Join/Prune (version 2, type 0)"},
    {"UpstreamOfUnknownFamily", upstreamAt, "03",
     "unknown address family (3 of upstream neighbor at byte 4)"},
    {"UpstreamOfUnknownEncoding", upstreamAt + 1, "01",
     "unknown encoding type (1 of upstream neighbor at byte 5)"},
    {"UpstreamOfOtherFamily", upstreamAt, "02", "address families differ (2 of upstream neighbor at byte 4)"},
    {"MulticastUpstream", upstreamAt + 2, "e0", "upstream neighbor not unicast (224.0.0.13)"},
    {"OneGroupTooMany", groupCountAt, "03", "wrong count (2 of 3 groups)"},
    {"OneGroupTooFew", groupCountAt, "01", "bytes left over (36 at byte 50)"},
    {"NoGroups", groupCountAt, "00", "bytes left over (72 at byte 14)"},
    {"GroupOfUnknownFamily", groupAt, "00", "unknown address family (0 of group at byte 14)"},
    {"GroupOfUnknownEncoding", groupAt + 1, "ff", "unknown encoding type (255 of group at byte 15)"},
    {"GroupOfOtherFamily", groupAt, "02", "address families differ (2 of group at byte 14)"},
    {"GroupMaskTooLong", groupAt + 3, "21", "mask length over the address width (group 239.1.1.1/33)"},
    {"GroupMaskTooShort", groupAt + 3, "1f", "group mask length not full (239.1.1.1/31)"},
    {"GroupMaskOfAllGroups", groupAt + 3, "04", "group mask length not full (239.1.1.1/4)"},
    {"UnicastGroup", groupAt + 4, "df", "group not multicast (223.1.1.1)"},
    {"ReservedGroup", groupAt + 4, "f0", "group not multicast (240.1.1.1)"},
    {"SourceOfUnknownFamily", wildcardAt, "ff", "unknown address family (255 of source at byte 26)"},
    {"SourceOfUnknownEncoding", wildcardAt + 1, "01", "unknown encoding type (1 of source at byte 27)"},
    {"RpOfOtherFamily", wildcardAt, "02", "address families differ (2 of source at byte 26)"},
    {"SourceMaskTooLong", wildcardAt + 3, "80", "mask length over the address width (source 10.255.0.1/128)"},
    {"SourceMaskTooShort", wildcardAt + 3, "18", "source mask length not full (10.255.0.1/24)"},
    {"MulticastSource", wildcardAt + 4, "e0", "source not unicast (224.255.0.1)"},
    {"NoSource", wildcardAt + 4, "00 00 00 00", "source not unicast (0.0.0.0)"},
    {"WildcardWithoutRpt", wildcardAt + 2, "06", "wildcard without the RPT bit (10.255.0.1)"},
    {"WildcardAlone", wildcardAt + 2, "02", "wildcard without the RPT bit (10.255.0.1)"},
    {"ManyJoinsTooMany", joinCountAt, "ffff", "wrong count (65535 joins and 1 prunes in 60 bytes)"},
    {"ManyPrunesTooManyInTheLastGroup", secondGroupAt + 10, "ffff",
     "wrong count (1 joins and 65535 prunes in 24 bytes)"},
    {"OneJoinTooManyInTheLastGroup", secondGroupAt + 8, "0003 0001",
     "wrong count (3 joins and 1 prunes in 24 bytes)"},
    {"OnePruneTooFew", secondGroupAt + 10, "0001", "bytes left over (8 at byte 78)"},
};

void PrintTo(Mutation const& row, std::ostream* os) { *os << row.bytes << " at byte " << row.at; }

class MutatedMessageTest : public testing::TestWithParam<Mutation> {};

TEST_P(MutatedMessageTest, IsRefusedWithItsReason) {
  auto bytes = ipv4Bytes;
  auto const change = hex(GetParam().bytes);
  std::copy(change.begin(), change.end(), bytes.begin() + static_cast<std::ptrdiff_t>(GetParam().at));
  EXPECT_EQ(verdict(withChecksum(bytes, sender, routers)), GetParam().verdict);
}

INSTANTIATE_TEST_SUITE_P(Rows, MutatedMessageTest, testing::ValuesIn(mutations),
                         [](auto const& row) { return std::string(row.param.name); });

TEST(PimMessageTest, AWrongChecksumIsNamedWithTheRightOne) {
  auto bytes = ipv4Bytes;
  bytes[3] ^= 1;
  EXPECT_EQ(verdict(bytes), "bad checksum (0xa9ab, computed 0xa9aa)");
}

TEST(PimMessageTest, EverySingleBitCounts) {
  for (std::size_t bit = 0; bit < ipv6Bytes.size() * 8; ++bit) {
    auto bytes = ipv6Bytes;
    bytes[bit / 8] ^= static_cast<U8>(1 << bit % 8);
    EXPECT_NE(verdict(bytes, sender6, routers6), "accepted") << "bit " << bit;
  }
}

// A buffer of its own size on the heap, so that a byte read beyond it does not go unnoticed.
std::string verdictOfExactBuffer(std::span<U8 const> bytes, IpGenAddr const& from, IpGenAddr const& to) {
  auto const buffer = std::make_unique<U8[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), buffer.get());
  auto const result = decodeJoinPrune({buffer.get(), bytes.size()}, from, to);
  auto const* refusal = std::get_if<Refusal>(&result);
  return refusal ? std::string(text(refusal->reason)) : "accepted";
}

TEST(PimMessageTest, EveryTruncationIsRefused) {
  struct {
    Bytes const& bytes;
    IpGenAddr const &from, &to;
  } const rows[] = {{ipv4Bytes, sender, routers}, {ipv6Bytes, sender6, routers6}};
  for (auto const& row : rows) {
    for (std::size_t size = 0; size < row.bytes.size(); ++size) {
      Bytes cut(row.bytes.begin(), row.bytes.begin() + static_cast<std::ptrdiff_t>(size));
      auto const expectedAsIs = size < 4 ? "truncated" : "bad checksum";
      EXPECT_EQ(verdictOfExactBuffer(cut, row.from, row.to), expectedAsIs) << size;
      if (size < 4) continue;
      cut = withChecksum(cut, row.from, row.to);
      EXPECT_THAT(verdictOfExactBuffer(cut, row.from, row.to), testing::AnyOf("truncated", "wrong count"))
          << size;
    }
  }
}

TEST(PimMessageTest, ACutAmongWhatIsCountedIsAWrongCountAndOneElsewhereIsTruncated) {
  auto const cutTo = [](std::size_t size) {
    return verdict(withChecksum(
        Bytes(ipv4Bytes.begin(), ipv4Bytes.begin() + static_cast<std::ptrdiff_t>(size)), sender, routers));
  };
  EXPECT_EQ(cutTo(78), "wrong count (1 joins and 2 prunes in 16 bytes)");
  EXPECT_EQ(cutTo(77), "wrong count (1 joins and 2 prunes in 15 bytes)");
  EXPECT_EQ(cutTo(50), "wrong count (1 of 2 groups)");
  EXPECT_EQ(cutTo(51), "truncated (in the group)");
  EXPECT_EQ(cutTo(61), "truncated (in the counts of sources)");
  EXPECT_EQ(cutTo(13), "truncated (in the hold time)");
  EXPECT_EQ(cutTo(9), "truncated (in the upstream neighbor)");
}

TEST(PimMessageTest, BytesAfterTheLastGroupAreRefused) {
  EXPECT_EQ(verdict(withChecksum(ipv4Bytes + Bytes{0}, sender, routers)), "bytes left over (1 at byte 86)");
}

constexpr unsigned seeds = 20;

TEST(PimMessageTest, RandomBytesAreDecodedOrRefused) {
  for (unsigned seed = 0; seed < seeds; ++seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; ++round) {
      // Small numbers are families, encodings, counts and flags that get far into the decoder.
      Bytes bytes(random() % 120);
      for (auto& byte : bytes) byte = static_cast<U8>(random() % 4 ? random() % 9 : random());
      if (bytes.size() < 4) continue;
      bytes[0] = 0x23;
      bool const six = random() % 2;
      auto const& from = six ? sender6 : sender;
      auto const& to = six ? routers6 : routers;
      bytes = withChecksum(bytes, from, to);
      auto const result = decodeJoinPrune(bytes, from, to);
      if (auto const* message = std::get_if<JoinPrune>(&result)) {
        EXPECT_EQ(message->encodedSize(), bytes.size()) << "seed " << seed << " round " << round;
      } else {
        EXPECT_NE(std::get<Refusal>(result).reason, Reason::badChecksum)
            << "seed " << seed << " round " << round;
      }
    }
  }
}

TEST(PimMessageTest, MutatedMessagesAreRefusedOrComeBackTheSame) {
  for (unsigned seed = 0; seed < seeds; ++seed) {
    std::mt19937 random(seed);
    unsigned accepted = 0;
    for (int round = 0; round < 2000; ++round) {
      auto bytes = ipv4Bytes;
      for (unsigned changes = 1 + random() % 3; changes; --changes) {
        bytes[4 + random() % (bytes.size() - 4)] = static_cast<U8>(random());
      }
      auto const result = decodeJoinPrune(withChecksum(bytes, sender, routers), sender, routers);
      auto const* message = std::get_if<JoinPrune>(&result);
      if (!message) continue;
      ++accepted;
      EXPECT_EQ(decoded(encodeJoinPrune(*message, sender, routers)), *message) << "seed " << seed;
    }
    EXPECT_GT(accepted, 0u) << "seed " << seed << " tells nothing";
  }
}

IpGenAddr randomAddress(std::mt19937& random, AddressFamily family, bool multicast) {
  Bytes bytes(family == AddressFamily::ipv4 ? 4 : 16);
  for (auto& byte : bytes) byte = static_cast<U8>(random());
  bytes[0] = family == AddressFamily::ipv4
                 ? static_cast<U8>(multicast ? 224 + random() % 16 : 1 + random() % 223)
                 : static_cast<U8>(multicast ? 0xff : 0x20);
  return IpGenAddr::fromBytes(bytes);
}

TEST(PimMessageTest, RandomMessagesSurviveTheWire) {
  for (unsigned seed = 0; seed < seeds; ++seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < 50; ++round) {
      auto const family = random() % 2 ? AddressFamily::ipv4 : AddressFamily::ipv6;
      JoinPrune message(randomAddress(random, family, false), static_cast<U16>(random()));
      for (unsigned groups = random() % 8; groups; --groups) {
        message.groupAdd(randomAddress(random, family, true));
        for (unsigned sources = random() % 20; sources; --sources) {
          auto const kind = entryKinds[random() % entryKinds.size()];
          message.entryAdd(kind, randomAddress(random, family, false));
        }
      }
      auto const& from = family == AddressFamily::ipv4 ? sender : sender6;
      auto const& to = family == AddressFamily::ipv4 ? routers : routers6;
      auto const bytes = encodeJoinPrune(message, from, to);
      EXPECT_EQ(bytes.size(), message.encodedSize());
      EXPECT_EQ(decoded(bytes, from, to), message) << "seed " << seed << " round " << round;
    }
  }
}

TEST(PimMessageTest, TheCountsOnTheWireBoundAMessage) {
  JoinPrune message(IpGenAddr("10.0.0.13"), 210);
  for (unsigned i = 0; i < JoinPrune::maxGroups; ++i) message.groupAdd(IpGenAddr::ipv4(0xef000000 + i));
  EXPECT_EQ(decoded(encodeJoinPrune(message, sender, routers)), message);
  EXPECT_THROW(message.groupAdd(IpGenAddr("239.9.9.9")), Vel::RangeException);
  for (unsigned i = 0; i < JoinPrune::maxSources; ++i) {
    message.entryAdd(EntryKind::sourceJoin, IpGenAddr::ipv4(0x0a000000 + i));
  }
  EXPECT_THROW(message.entryAdd(EntryKind::sourceJoin, IpGenAddr("10.9.9.9")), Vel::RangeException);
  EXPECT_EQ(message.groups().back().joins().size(), JoinPrune::maxSources);
}

TEST(PimMessageTest, TheLargestDatagramIsEncodedAndOneLargerIsNot) {
  JoinPrune message(IpGenAddr("10.0.0.13"), 210);
  message.groupAdd(IpGenAddr("239.1.1.1"));
  for (unsigned i = 0; message.encodedSize() + 8 <= 65515; ++i) {
    message.entryAdd(EntryKind::sourceJoin, IpGenAddr::ipv4(0x0a000000 + i));
  }
  EXPECT_EQ(decoded(encodeJoinPrune(message, sender, routers)), message);
  message.entryAdd(EntryKind::sourceJoin, IpGenAddr("10.200.0.1"));
  EXPECT_THROW(encodeJoinPrune(message, sender, routers), Vel::RangeException);
}

/// The text of the exception that an action throws.
template <class Action>
std::string thrown(Action const& action) {
  try {
    action();
  } catch (Vel::RangeException const& e) {
    return e.what();
  }
  return "nothing";
}

TEST(PimMessageTest, AMessageCannotBecomeInvalid) {
  auto message = ipv4Message();
  IpGenAddr const six("2001:db8::1");
  EXPECT_EQ(thrown([] { JoinPrune(IpGenAddr(), 1); }), "unknown address family");
  EXPECT_EQ(thrown([] { JoinPrune(IpGenAddr("224.0.0.13"), 1); }), "upstream neighbor not unicast");
  EXPECT_EQ(thrown([&] { message.groupAdd(IpGenAddr("ff0e::1")); }), "address families differ");
  EXPECT_EQ(thrown([&] { message.groupAdd(IpGenAddr("10.0.0.1")); }), "group not multicast");
  EXPECT_EQ(thrown([&] { message.entryAdd(EntryKind::sourceJoin, six); }), "address families differ");
  EXPECT_EQ(thrown([&] { message.entryAdd(EntryKind::wildcardPrune, IpGenAddr("0.0.0.0")); }),
            "source not unicast");
  EXPECT_EQ(thrown([&] { message.entryAdd(EntryKind::sourceRptPrune, IpGenAddr("239.0.0.1")); }),
            "source not unicast");
  EXPECT_EQ(thrown([&] { encodeJoinPrune(message, sender6, routers6); }), "address families differ");
  EXPECT_EQ(message, ipv4Message());
  EXPECT_EQ(thrown([&] { JoinPrune(six, 1).entryAdd(EntryKind::sourceJoin, six); }),
            "a source needs a group");
}

TEST(PimMessageTest, TheTypeIsReadFromTheFirstByteAlone) {
  EXPECT_TRUE(isPimType(hex("23"), PimType::joinPrune));
  EXPECT_TRUE(isPimType(hex("20 00"), PimType::hello));
  EXPECT_FALSE(isPimType(hex("13"), PimType::joinPrune));
  EXPECT_FALSE(isPimType(hex("23"), PimType::hello));
  EXPECT_FALSE(isPimType({}, PimType::hello));
}

TEST(PimMessageTest, MulticastIsKnownByItsPrefix) {
  for (auto const* address : {"224.0.0.0", "239.255.255.255", "ff00::", "ffff::1"}) {
    EXPECT_TRUE(isMulticast(IpGenAddr(address))) << address;
  }
  for (auto const* address : {"223.255.255.255", "240.0.0.0", "fe80::1", "::", "0.0.0.0"}) {
    EXPECT_FALSE(isMulticast(IpGenAddr(address))) << address;
  }
  EXPECT_FALSE(isMulticast(IpGenAddr()));
}

}  // namespace
}  // namespace Routing::Pim::Wire
