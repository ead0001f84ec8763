// SPDX-License-Identifier: Apache-2.0
// Frames of every link type, written by hand, down to the datagram in them.
#include "jpagent/capture/Datagram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "jpagent/capture/FrameBuilder.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;

char const* const stateNames[] = {"whole", "snapped", "first fragment", "later fragment", "malformed"};

/// "10.0.0.14 to 224.0.0.13, protocol 103, whole: 2300aabb", or "not IP".
std::string seen(LinkType link, Bytes const& frame) {
  auto const result = findDatagram(link, frame);
  if (auto const* const why = std::get_if<PassedOver>(&result)) return std::string(text(*why));
  auto const* const found = std::get_if<Datagram>(&result);
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
    {"EthernetWithAnotherProtocol", LinkType::ethernet, stations + hex("0806") + Bytes(46), "not IP"},
    {"EthernetWithLlc", LinkType::ethernet, stations + hex("0026 4242 03") + Bytes(43), "not IP"},
    {"EthernetThatLiesAboutTheVersion", LinkType::ethernet, stations + hex("0800") + ipv6,
     "cut short or damaged"},
    {"EthernetThatLiesAboutTheOtherVersion", LinkType::ethernet, stations + hex("86dd") + ipv4,
     "cut short or damaged"},
    {"EthernetTooShort", LinkType::ethernet, stations + hex("08"), "cut short or damaged"},
    {"EthernetWithATagAlone", LinkType::ethernet, stations + hex("8100 0064 08"), "cut short or damaged"},
    {"EthernetOfNothing", LinkType::ethernet, {}, "cut short or damaged"},
    {"RawIpv4", LinkType::rawIp, ipv4, ipv4Seen},
    {"RawIpv6", LinkType::rawIp, ipv6, ipv6Seen},
    {"RawOfAnotherVersion", LinkType::rawIp, hex("50") + Bytes(40), "not IP"},
    {"RawOfNothing", LinkType::rawIp, {}, "cut short or damaged"},
    {"CookedIpv4", LinkType::linuxCooked, cooked + hex("0000 0800") + ipv4, ipv4Seen},
    {"CookedIpv6", LinkType::linuxCooked, cooked + hex("0000 86dd") + ipv6, ipv6Seen},
    {"CookedWithATag", LinkType::linuxCooked, cooked + hex("0000 8100 0064 0800") + ipv4, ipv4Seen},
    {"CookedTooShort", LinkType::linuxCooked, cooked + hex("0000"), "cut short or damaged"},
    {"Cooked2Ipv4", LinkType::linuxCooked2, hex("0800") + cooked2Rest + ipv4, ipv4Seen},
    {"Cooked2Ipv6", LinkType::linuxCooked2, hex("86dd") + cooked2Rest + ipv6, ipv6Seen},
    {"EthernetWithSnap", LinkType::ethernet, stations + hex("0020 aaaa03 000000 0800") + ipv4, ipv4Seen},
    {"EthernetWithATagAndSnap", LinkType::ethernet,
     stations + hex("8100 0064 0020 aaaa03 000000 86dd") + ipv6, ipv6Seen},
    {"EthernetWithSnapOfAnOrganisation", LinkType::ethernet, stations + hex("0020 aaaa03 00000c 0800") + ipv4,
     "not IP"},
    {"EthernetWithSnapInSnap", LinkType::ethernet,
     stations + hex("0020 aaaa03 000000 0020 aaaa03 000000 0800") + ipv4, "not IP"},
    {"EthernetWithSnapTooShort", LinkType::ethernet, stations + hex("0020 aaaa03 0000"), "not IP"},
    {"EthernetWithPppoe", LinkType::ethernet, stations + hex("8864 1100 0001 001a 0021") + ipv4, ipv4Seen},
    {"EthernetWithPppoeOfIpv6", LinkType::ethernet, stations + hex("8864 1100 0001 002e 0057") + ipv6,
     ipv6Seen},
    {"EthernetWithPppoeTooShort", LinkType::ethernet, stations + hex("8864 1100 0001"),
     "cut short or damaged"},
    {"EthernetWithMpls", LinkType::ethernet, stations + hex("8847 00010140") + ipv4,
     "encapsulation not opened"},
    {"EthernetWithMacsec", LinkType::ethernet, stations + hex("88e5") + Bytes(46),
     "encapsulation not opened"},
    {"CookedWithSnap", LinkType::linuxCooked, cooked + hex("0000 0004 aaaa03 000000 0800") + ipv4, ipv4Seen},
    {"PppIpv4", LinkType::ppp, hex("ff03 0021") + ipv4, ipv4Seen},
    {"PppIpv6", LinkType::ppp, hex("ff03 0057") + ipv6, ipv6Seen},
    {"PppWithoutAddressAndControl", LinkType::ppp, hex("0021") + ipv4, ipv4Seen},
    {"PppWithAProtocolOfOneByte", LinkType::ppp, hex("ff03 21") + ipv4, ipv4Seen},
    {"PppLinkControl", LinkType::ppp, hex("ff03 c021 0101 0004"), "not IP"},
    {"PppMultilink", LinkType::ppp, hex("ff03 003d c0000001 0021") + ipv4, "encapsulation not opened"},
    {"PppTooShort", LinkType::ppp, hex("ff03 00"), "cut short or damaged"},
    {"PppOfNothing", LinkType::ppp, {}, "cut short or damaged"},
    {"UnknownLink", LinkType::unknown, ipv4, "unknown link type"},
    {"Cooked2TooShort", LinkType::linuxCooked2, hex("0800") + Bytes(17), "cut short or damaged"},
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

Bytes ipv4Of(U8 protocol, Bytes const& behind) {
  return ipDatagram(IpGenAddr("10.0.0.14"), IpGenAddr("224.0.0.13"), protocol, behind);
}

Bytes ipv6Of(U8 protocol, Bytes const& behind) {
  return ipDatagram(IpGenAddr("fe80::14"), IpGenAddr("ff02::d"), protocol, behind);
}

Bytes firstFragment(Bytes datagram) {
  datagram[6] = 0x20;
  return datagram;
}

Bytes laterFragment(Bytes datagram) {
  datagram[7] = 1;
  return datagram;
}

Bytes nested(int tunnels) {
  Bytes datagram = ipv4;
  for (int i = 0; i < tunnels; ++i) datagram = ipv4Of(4, datagram);
  return datagram;
}

// Of 24 bytes: a length of 4 in units of 4 bytes, less 2.
Bytes const authentication = hex("6704 0000 00000001 00000002 000000000000000000000000");

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
    {"Ipv4SnappedBeforeTheProtocol", firstOf(ipv4, 9), "cut short or damaged"},
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
     "cut short or damaged"},
    {"Ipv6SnappedInThePayload", firstOf(ipv6, 41), "fe80::14 to ff02::d, protocol 103, snapped: 23"},
    {"Ipv6SnappedInTheHeader", firstOf(ipv6, 30), "unknown to unknown, protocol 103, snapped: "},
    {"Ipv6SnappedInTheHeaderBeforeExtensions", firstOf(ipv6With(0, hex("67 00 050200000100")), 30),
     "cut short or damaged"},
    {"Ipv4WithAuthentication", ipv4Of(51, authentication + payload), ipv4Seen},
    {"Ipv4WithAuthenticationOverTheEnd", ipv4Of(51, hex("6704 0000 00000001")),
     "10.0.0.14 to 224.0.0.13, protocol 103, malformed: "},
    {"Ipv4SnappedInAuthentication", firstOf(ipv4Of(51, authentication + payload), 30),
     "10.0.0.14 to 224.0.0.13, protocol 103, snapped: "},
    {"Ipv4SnappedBeforeAuthentication", firstOf(ipv4Of(51, authentication + payload), 20),
     "cut short or damaged"},
    {"Ipv4LaterFragmentOfAuthentication", laterFragment(ipv4Of(51, authentication + payload)),
     "10.0.0.14 to 224.0.0.13, protocol 51, later fragment: "
     "6704000000000001000000020000000000000000000000002300aabb"},
    {"Ipv6WithAuthentication", ipv6With(51, authentication), ipv6Seen},
    {"Ipv6WithAuthenticationAmongOthers", ipv6With(0, hex("33 00 050200000100") + authentication), ipv6Seen},

    {"Ipv4InIpv4", ipv4Of(4, ipv4), ipv4Seen},
    {"Ipv6InIpv4", ipv4Of(41, ipv6), ipv6Seen},
    {"Ipv4InIpv6", ipv6Of(4, ipv4), ipv4Seen},
    {"Gre", ipv4Of(47, hex("0000 0800") + ipv4), ipv4Seen},
    {"GreOfIpv6", ipv4Of(47, hex("0000 86dd") + ipv6), ipv6Seen},
    {"GreInIpv6", ipv6Of(47, hex("0000 0800") + ipv4), ipv4Seen},
    {"GreWithChecksumKeyAndSequence", ipv4Of(47, hex("b000 0800 00000000 00000001 00000002") + ipv4),
     ipv4Seen},
    {"GreWithAKey", ipv4Of(47, hex("2000 0800 00000001") + ipv4), ipv4Seen},
    {"GreOfEthernet", ipv4Of(47, hex("0000 6558") + stations + hex("8100 0064 0800") + ipv4), ipv4Seen},
    {"GreWithRouting", ipv4Of(47, hex("4000 0800") + ipv4), "encapsulation not opened"},
    {"GreOfAnotherVersion", ipv4Of(47, hex("2001 880b 00000000")), "encapsulation not opened"},
    {"GreOfSomethingElse", ipv4Of(47, hex("0000 0000")), "not IP"},
    {"GreTooShort", ipv4Of(47, hex("2000 0800 0000")), "cut short or damaged"},
    {"GreSnapped", firstOf(ipv4Of(47, hex("0000 0800") + ipv4), 46),
     "10.0.0.14 to 224.0.0.13, protocol 103, snapped: 2300"},
    {"GreInAFirstFragment", firstFragment(ipv4Of(47, hex("0000 0800") + ipv4)), "encapsulation not opened"},
    {"GreInALaterFragment", laterFragment(ipv4Of(47, hex("0000 0800") + ipv4)), "encapsulation not opened"},
    {"SecurityPayload", ipv4Of(50, Bytes(16)), "encapsulation not opened"},
    {"EightTunnels", nested(8), ipv4Seen},
    {"NineTunnels", nested(9), "encapsulation not opened"},
    {"ThousandsOfTunnels", nested(3000), "encapsulation not opened"},
    {"Ipv6SnappedAtItsBeginning", firstOf(ipv6, 6), "cut short or damaged"},
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
  } const rows[] = {{IpGenAddr("10.0.0.14"), Wire::allPimRouters(AddressFamily::ipv4), ipv4Seen},
                    {IpGenAddr("fe80::14"), Wire::allPimRouters(AddressFamily::ipv6), ipv6Seen}};
  for (auto const& row : rows) {
    auto const datagram = ipDatagram(row.source, row.destination, Wire::pimProtocol, payload);
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

TEST(DatagramTest, TheHopLimitIsThatOfTheInnermostHeader) {
  auto const hopLimit = [](Bytes const& bytes) {
    return int{std::get<Datagram>(findDatagram(LinkType::rawIp, bytes)).hopLimit};
  };
  EXPECT_EQ(hopLimit(ipv4With(8, "40")), 64);
  auto six = ipv6;
  six[7] = 255;
  EXPECT_EQ(hopLimit(six), 255);
  EXPECT_EQ(hopLimit(ipv4Of(4, ipv4With(8, "07"))), 7);
}

TEST(DatagramTest, NoBytesAtAllMakeItReadBeyondThem) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    std::mt19937 random(seed);
    for (int round = 0; round < 5000; ++round) {
      auto const link = static_cast<LinkType>(random() % 5);
      auto const& row = ipRows[random() % std::size(ipRows)];
      Bytes bytes = link == LinkType::ethernet      ? stations + hex("8100 0064 0800")
                    : link == LinkType::linuxCooked ? cooked + hex("0000 86dd")
                    : link == LinkType::rawIp       ? Bytes{}
                    : link == LinkType::ppp         ? hex("ff03 0021")
                                                    : hex("86dd") + cooked2Rest;
      bytes = bytes + row.datagram;
      for (unsigned changes = random() % 6; changes && !bytes.empty(); --changes) {
        bytes[random() % bytes.size()] = static_cast<U8>(random());
      }
      Bytes const exact(bytes.begin(),
                        bytes.begin() + static_cast<std::ptrdiff_t>(random() % (bytes.size() + 1)));
      auto const result = findDatagram(link, exact);
      auto const* const found = std::get_if<Datagram>(&result);
      if (!found || found->payload.empty()) continue;
      EXPECT_GE(found->payload.data(), exact.data()) << "seed " << seed;
      EXPECT_LE(found->payload.data() + found->payload.size(), exact.data() + exact.size())
          << "seed " << seed;
    }
  }
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
