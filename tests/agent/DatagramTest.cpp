// Frames of every link type, written by hand, down to the datagram in them.
#include "agent/Datagram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "agent/FrameBuilder.h"
#include "tests/agent/Support.h"

namespace Routing::Pim::Agent {
namespace {

using namespace Test;

char const* const stateNames[] = {"whole", "snapped", "first fragment", "later fragment", "malformed"};

/// "10.0.0.14 to 224.0.0.13, protocol 103, whole: 2300aabb", or "none".
std::string seen(LinkType link, Bytes const& frame) {
  auto const found = findDatagram(link, frame);
  if (!found) return "none";
  std::string payload;
  for (U8 const byte : found->payload) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    payload += digits;
  }
  return toText(found->source) + " to " + toText(found->destination) + ", protocol " +
         std::to_string(found->protocol) + ", " + stateNames[static_cast<int>(found->state)] + ": " + payload;
}

Bytes const payload = hex("2300aabb");
Bytes const ipv4 = hex("45c00018 00000000 01670000 0a00000e e000000d") + payload;
Bytes const ipv6 =
    hex("6c000000 0004 67 01 fe800000000000000000000000000014 ff02000000000000000000000000000d") + payload;
char const* const ipv4Seen = "10.0.0.14 to 224.0.0.13, protocol 103, whole: 2300aabb";
char const* const ipv6Seen = "fe80::14 to ff02::d, protocol 103, whole: 2300aabb";

Bytes const stations = hex("01005e00000d 020000000001");
Bytes const cooked = hex("0002 0001 0006 020000000001");
Bytes const cooked2Rest = hex("0000 00000003 0001 02 06 0200000000010000");

struct LinkRow {
  char const* name;
  LinkType link;
  Bytes frame;
  char const* seen;
};

LinkRow const linkRows[] = {
    {"EthernetIpv4", LinkType::ethernet, stations + hex("0800") + ipv4, ipv4Seen},
    {"EthernetIpv6", LinkType::ethernet, stations + hex("86dd") + ipv6, ipv6Seen},
    {"EthernetWithPadding", LinkType::ethernet, stations + hex("0800") + ipv4 + Bytes(22), ipv4Seen},
    {"EthernetWithPaddingAfterIpv6", LinkType::ethernet, stations + hex("86dd") + ipv6 + Bytes(4), ipv6Seen},
    {"EthernetWithATag", LinkType::ethernet, stations + hex("8100 0064 0800") + ipv4, ipv4Seen},
    {"EthernetWithTwoTags", LinkType::ethernet, stations + hex("88a8 00c8 8100 0064 86dd") + ipv6, ipv6Seen},
    {"EthernetWithThreeTags", LinkType::ethernet, stations + hex("9100 0001 88a8 00c8 8100 0064 0800") + ipv4,
     ipv4Seen},
    {"EthernetWithAnotherProtocol", LinkType::ethernet, stations + hex("0806") + Bytes(46), "none"},
    {"EthernetWithLlc", LinkType::ethernet, stations + hex("0026 4242 03") + Bytes(43), "none"},
    {"EthernetThatLiesAboutTheVersion", LinkType::ethernet, stations + hex("0800") + ipv6, "none"},
    {"EthernetThatLiesAboutTheOtherVersion", LinkType::ethernet, stations + hex("86dd") + ipv4, "none"},
    {"EthernetTooShort", LinkType::ethernet, stations + hex("08"), "none"},
    {"EthernetWithATagAlone", LinkType::ethernet, stations + hex("8100 0064 08"), "none"},
    {"EthernetOfNothing", LinkType::ethernet, {}, "none"},
    {"RawIpv4", LinkType::rawIp, ipv4, ipv4Seen},
    {"RawIpv6", LinkType::rawIp, ipv6, ipv6Seen},
    {"RawOfAnotherVersion", LinkType::rawIp, hex("50") + Bytes(40), "none"},
    {"RawOfNothing", LinkType::rawIp, {}, "none"},
    {"CookedIpv4", LinkType::linuxCooked, cooked + hex("0000 0800") + ipv4, ipv4Seen},
    {"CookedIpv6", LinkType::linuxCooked, cooked + hex("0000 86dd") + ipv6, ipv6Seen},
    {"CookedWithATag", LinkType::linuxCooked, cooked + hex("0000 8100 0064 0800") + ipv4, ipv4Seen},
    {"CookedTooShort", LinkType::linuxCooked, cooked + hex("0000"), "none"},
    {"Cooked2Ipv4", LinkType::linuxCooked2, hex("0800") + cooked2Rest + ipv4, ipv4Seen},
    {"Cooked2Ipv6", LinkType::linuxCooked2, hex("86dd") + cooked2Rest + ipv6, ipv6Seen},
    {"Cooked2TooShort", LinkType::linuxCooked2, hex("0800") + Bytes(17), "none"},
};

void PrintTo(LinkRow const& row, std::ostream* os) { *os << row.name; }

class LinkTypeTest : public testing::TestWithParam<LinkRow> {};

TEST_P(LinkTypeTest, LeadsToTheDatagram) {
  EXPECT_EQ(seen(GetParam().link, GetParam().frame), GetParam().seen);
}

INSTANTIATE_TEST_SUITE_P(Rows, LinkTypeTest, testing::ValuesIn(linkRows),
                         [](auto const& row) { return std::string(row.param.name); });

struct IpRow {
  char const* name;
  Bytes datagram;
  char const* seen;
};

Bytes ipv6With(U8 next, Bytes const& extensions) {
  auto bytes = ipv6;
  bytes[5] = static_cast<U8>(extensions.size() + payload.size());
  bytes[6] = next;
  bytes.insert(bytes.begin() + 40, extensions.begin(), extensions.end());
  return bytes;
}

Bytes ipv4With(std::size_t at, char const* change) {
  auto bytes = ipv4;
  auto const changed = hex(change);
  std::copy(changed.begin(), changed.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
  return bytes;
}

Bytes firstOf(Bytes bytes, std::size_t size) {
  bytes.resize(size);
  return bytes;
}

IpRow const ipRows[] = {
    {"Ipv4WithOptions", hex("46c0001c 00000000 01670000 0a00000e e000000d 94040000") + payload, ipv4Seen},
    {"Ipv4OfAnotherProtocol", ipv4With(9, "11"), "10.0.0.14 to 224.0.0.13, protocol 17, whole: 2300aabb"},
    {"Ipv4FirstFragment", ipv4With(6, "2000"),
     "10.0.0.14 to 224.0.0.13, protocol 103, first fragment: 2300aabb"},
    {"Ipv4MiddleFragment", ipv4With(6, "2001"),
     "10.0.0.14 to 224.0.0.13, protocol 103, later fragment: 2300aabb"},
    {"Ipv4FragmentFromFarBehind", ipv4With(6, "1000"),
     "10.0.0.14 to 224.0.0.13, protocol 103, later fragment: 2300aabb"},
    {"Ipv4LastFragment", ipv4With(6, "0001"),
     "10.0.0.14 to 224.0.0.13, protocol 103, later fragment: 2300aabb"},
    {"Ipv4DoNotFragmentIsNoFragment", ipv4With(6, "4000"), ipv4Seen},
    {"Ipv4SnappedInThePayload", firstOf(ipv4, 22), "10.0.0.14 to 224.0.0.13, protocol 103, snapped: 2300"},
    {"Ipv4SnappedBeforeThePayload", firstOf(ipv4, 20), "10.0.0.14 to 224.0.0.13, protocol 103, snapped: "},
    {"Ipv4SnappedInTheHeader", firstOf(ipv4, 10), "unknown to unknown, protocol 103, snapped: "},
    {"Ipv4SnappedBeforeTheProtocol", firstOf(ipv4, 9), "none"},
    {"Ipv4WithAShortHeader", ipv4With(0, "44"), "10.0.0.14 to 224.0.0.13, protocol 103, malformed: "},
    {"Ipv4ShorterThanItsHeader", ipv4With(2, "0013"), "10.0.0.14 to 224.0.0.13, protocol 103, malformed: "},
    {"Ipv4OfAHeaderAlone", ipv4With(2, "0014"), "10.0.0.14 to 224.0.0.13, protocol 103, whole: "},

    {"Ipv6WithHopByHop", ipv6With(0, hex("67 00 0502 0000 0100")), ipv6Seen},
    {"Ipv6WithRouting", ipv6With(43, hex("67 02 00 00 00000000") + Bytes(16)), ipv6Seen},
    {"Ipv6WithDestinationOptions", ipv6With(60, hex("67 00 0104 00000000")), ipv6Seen},
    {"Ipv6WithAllOfThem", ipv6With(0, hex("3c 00 050200000100  2b 00 010400000000  67 00 000000000000")),
     ipv6Seen},
    {"Ipv6FragmentThatIsAll", ipv6With(44, hex("67 00 0000 00000001")), ipv6Seen},
    {"Ipv6FirstFragment", ipv6With(44, hex("67 00 0001 00000001")),
     "fe80::14 to ff02::d, protocol 103, first fragment: 2300aabb"},
    {"Ipv6LaterFragment", ipv6With(44, hex("67 00 0008 00000001")),
     "fe80::14 to ff02::d, protocol 103, later fragment: 2300aabb"},
    {"Ipv6LaterFragmentOfAnExtensionHeader", ipv6With(44, hex("3c 00 0008 00000001")),
     "fe80::14 to ff02::d, protocol 60, later fragment: 2300aabb"},
    {"Ipv6WithAnotherProtocolBehind", ipv6With(0, hex("3a 00 050200000100")),
     "fe80::14 to ff02::d, protocol 58, whole: 2300aabb"},
    {"Ipv6WithAnExtensionHeaderOverTheEnd", ipv6With(0, hex("67 01 050200000100")),
     "fe80::14 to ff02::d, protocol 103, malformed: "},
    {"Ipv6SnappedInAnExtensionHeader", firstOf(ipv6With(0, hex("67 00 050200000100")), 44),
     "fe80::14 to ff02::d, protocol 103, snapped: "},
    {"Ipv6SnappedBeforeTheProtocol", firstOf(ipv6With(0, hex("3c 00 050200000100 67 00 000000000000")), 44),
     "none"},
    {"Ipv6SnappedInThePayload", firstOf(ipv6, 41), "fe80::14 to ff02::d, protocol 103, snapped: 23"},
    {"Ipv6SnappedInTheHeader", firstOf(ipv6, 30), "unknown to unknown, protocol 103, snapped: "},
    {"Ipv6SnappedInTheHeaderBeforeExtensions", firstOf(ipv6With(0, hex("67 00 050200000100")), 30), "none"},
    {"Ipv6SnappedAtItsBeginning", firstOf(ipv6, 6), "none"},
};

void PrintTo(IpRow const& row, std::ostream* os) { *os << row.name; }

class DatagramTest : public testing::TestWithParam<IpRow> {};

TEST_P(DatagramTest, IsSeenAsItIs) { EXPECT_EQ(seen(LinkType::rawIp, GetParam().datagram), GetParam().seen); }

INSTANTIATE_TEST_SUITE_P(Rows, DatagramTest, testing::ValuesIn(ipRows),
                         [](auto const& row) { return std::string(row.param.name); });

TEST(FrameBuilderTest, WhatItBuildsIsFoundAgain) {
  struct {
    IpGenAddr source, destination;
    std::string seen;
  } const rows[] = {{IpGenAddr("10.0.0.14"), allPimRouters(AddressFamily::ipv4), ipv4Seen},
                    {IpGenAddr("fe80::14"), allPimRouters(AddressFamily::ipv6), ipv6Seen}};
  for (auto const& row : rows) {
    auto const datagram = ipDatagram(row.source, row.destination, pimProtocol, payload);
    EXPECT_EQ(seen(LinkType::rawIp, datagram), row.seen);
    EXPECT_EQ(seen(LinkType::ethernet, ethernetFrame(datagram)), row.seen);
    EXPECT_EQ(seen(LinkType::ethernet, ethernetFrame(datagram, {7})), row.seen);
    EXPECT_EQ(seen(LinkType::ethernet, ethernetFrame(datagram, {8, 7})), row.seen);
  }
}

TEST(FrameBuilderTest, AFrameHasTheStationOfItsGroupItsTagsAndPadding) {
  auto const datagram = ipDatagram(IpGenAddr("10.0.0.14"), IpGenAddr("239.129.2.3"), 103, payload);
  auto const frame = ethernetFrame(datagram, {8, 7});
  EXPECT_EQ(firstOf(frame, 22), hex("01005e010203 020000000001 88a80008 81000007 0800"));
  EXPECT_EQ(frame.size(), 60u);
  auto const frame6 = ethernetFrame(ipDatagram(IpGenAddr("fe80::14"), IpGenAddr("ff02::d"), 103, payload));
  EXPECT_EQ(firstOf(frame6, 14), hex("33330000000d 020000000001 86dd"));
}

TEST(FrameBuilderTest, TheHeaderOfADatagramHasItsChecksum) {
  // 45c0 + 0018 + 0167 + 0a00 + 000e + e000 + 000d = 1315a -> 315b -> cea4
  EXPECT_EQ(ipDatagram(IpGenAddr("10.0.0.14"), IpGenAddr("224.0.0.13"), 103, payload),
            hex("45c00018 00000000 0167cea4 0a00000e e000000d") + payload);
}

TEST(DatagramTest, NoBytesAtAllMakeItReadBeyondThem) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < 5000; ++round) {
      auto const link = static_cast<LinkType>(random() % 4);
      auto const& row = ipRows[random() % std::size(ipRows)];
      Bytes bytes = link == LinkType::ethernet      ? stations + hex("8100 0064 0800")
                    : link == LinkType::linuxCooked ? cooked + hex("0000 86dd")
                    : link == LinkType::rawIp       ? Bytes{}
                                                    : hex("86dd") + cooked2Rest;
      bytes = bytes + row.datagram;
      for (unsigned changes = random() % 6; changes && !bytes.empty(); --changes) {
        bytes[random() % bytes.size()] = static_cast<U8>(random());
      }
      Bytes const exact(bytes.begin(),
                        bytes.begin() + static_cast<std::ptrdiff_t>(random() % (bytes.size() + 1)));
      auto const found = findDatagram(link, exact);
      if (!found || found->payload.empty()) continue;
      EXPECT_GE(found->payload.data(), exact.data()) << "seed " << seed;
      EXPECT_LE(found->payload.data() + found->payload.size(), exact.data() + exact.size())
          << "seed " << seed;
    }
  }
}

}  // namespace
}  // namespace Routing::Pim::Agent
