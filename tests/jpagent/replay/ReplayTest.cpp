// SPDX-License-Identifier: Apache-2.0
// Frames into a replay, and everything that comes out of it, as text.
#include "jpagent/replay/Replay.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "jpagent/capture/FrameBuilder.h"
#include "jpagent/capture/Sample.h"
#include "tests/jpagent/Support.h"
#include "tests/runtime/vel/AnotherProcess.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;

IpGenAddr const sender("10.0.0.14"), upstream("10.0.0.13"), rp("10.255.0.1"), otherRp("10.255.0.2");
IpGenAddr const group("239.1.1.1"), otherGroup("239.1.1.2"), s1("192.0.2.1"), s2("192.0.2.2");

class Recorder final : public Report {
 public:
  void entry(Place const& place, Entry const& entry) override {
    text += std::to_string(place.frame) + " " + std::string(actionText(entry.kind)) + " " +
            std::string(routeText(entry.kind)) + " " + toText(entry.source) + " " + toText(entry.group) +
            " to " + toText(entry.upstreamNeighbor) + " hold " + std::to_string(entry.holdTime) + " flags " +
            std::to_string(entry.flags.value());
    if (isWildcard(entry.kind)) text += " rp " + toText(entry.rp);
    text += "\n";
  }
  void refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) override {
    text += std::to_string(place.frame) + (type == Wire::PimType::hello ? " Hello refused: " : " refused: ") +
            toText(refusal) + "\n";
  }
  void totals(Totals const&) override {}

  std::string text;
};

class ReplayTest : public testing::Test {
 protected:
  /// What comes out of a replay of raw datagrams, one a frame.
  std::string shown(std::vector<Bytes> const& datagrams) {
    recorder_.text.clear();
    replay_ = std::make_unique<Replay>(options_, recorder_);
    Frame frame;
    frame.link = LinkType::rawIp;
    for (auto const& datagram : datagrams) {
      ++frame.number;
      frame.bytes = datagram;
      replay_->receiveFrame(frame);
    }
    return recorder_.text;
  }

  /// A replay that has heard nothing yet; hears() continues it.
  void begin() {
    recorder_.text.clear();
    replay_ = std::make_unique<Replay>(options_, recorder_);
  }

  /// The neighbors after a datagram at this time; an empty one is a frame without any.
  std::vector<std::string> neighborsAt(Vel::Seconds time, Bytes const& datagram = {}) {
    Frame frame;
    frame.link = LinkType::rawIp;
    frame.time = time;
    frame.bytes = datagram;
    replay_->receiveFrame(frame);
    return neighbors();
  }

  static Bytes datagram(Wire::JoinPrune const& message) {
    return ipDatagram(sender, routers, Wire::pimProtocol, Wire::encodeJoinPrune(message, sender, routers));
  }

  /// The neighbors of the last replay, each with its interface.
  std::vector<std::string> neighbors() const {
    std::vector<std::string> found;
    for (auto i = replay_->pimStatus()->pimNeighborIterator(); i; ++i) {
      found.push_back(toText(i->address()) + "@" + i->intf()->intfId().name());
    }
    return found;
  }

  static Wire::JoinPrune oneJoin(U16 holdTime = 210) {
    Wire::JoinPrune message(upstream, holdTime);
    message.groupAdd(group);
    message.entryAdd(EntryKind::sourceJoin, s1);
    return message;
  }

  static Bytes hello(IpGenAddr const& from, IpGenAddr const& to, char const* options = "0001 0002 0069") {
    return ipDatagram(from, to, Wire::pimProtocol, withChecksum(hex("20000000") + hex(options), from, to));
  }

  static constexpr char const* oneJoinShown =
      " join (S,G) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 4\n";

  ReplayOptions options_;
  Recorder recorder_;
  std::unique_ptr<Replay> replay_;
};

TEST_F(ReplayTest, EveryKindOfEntryIsShown) {
  Wire::JoinPrune message(upstream, 65535);
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardJoin, rp);
  message.entryAdd(EntryKind::sourceJoin, s1);
  message.entryAdd(EntryKind::sourceRptJoin, s2);
  message.entryAdd(EntryKind::sourceRptPrune, s1);
  message.entryAdd(EntryKind::sourcePrune, s2);
  Wire::JoinPrune prune(upstream, 210);
  prune.groupAdd(group);
  prune.entryAdd(EntryKind::wildcardPrune, rp);
  EXPECT_EQ(shown({datagram(message), datagram(prune)}),
            "1 join (S,G) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 65535 flags 4\n"
            "1 prune (S,G) 192.0.2.2 239.1.1.1 to 10.0.0.13 hold 65535 flags 4\n"
            "1 join (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 65535 flags 7 rp 10.255.0.1\n"
            "1 join (S,G,rpt) 192.0.2.2 239.1.1.1 to 10.0.0.13 hold 65535 flags 5\n"
            "1 prune (S,G,rpt) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 65535 flags 5\n"
            "2 prune (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 210 flags 7 rp 10.255.0.1\n");
}

TEST_F(ReplayTest, WildcardsOverIpv6HaveTheSourceOfTheirFamily) {
  IpGenAddr const from("fe80::14"), to = Wire::allPimRouters(AddressFamily::ipv6);
  Wire::JoinPrune message(IpGenAddr("fe80::13"), 210);
  message.groupAdd(IpGenAddr("ff0e::1"));
  message.entryAdd(EntryKind::wildcardJoin, IpGenAddr("2001:db8::1"));
  EXPECT_EQ(shown({ipDatagram(from, to, Wire::pimProtocol, Wire::encodeJoinPrune(message, from, to))}),
            "1 join (*,G) :: ff0e::1 to fe80::13 hold 210 flags 7 rp 2001:db8::1\n");
}

TEST_F(ReplayTest, WhatAMessageRepeatsIsShownAsOftenAndInOrder) {
  Wire::JoinPrune message(upstream, 210);
  message.groupAdd(group);
  message.entryAdd(EntryKind::sourcePrune, s1);
  message.entryAdd(EntryKind::sourcePrune, s1);
  message.groupAdd(group);
  message.entryAdd(EntryKind::sourceJoin, s1);
  message.entryAdd(EntryKind::wildcardJoin, rp);
  message.entryAdd(EntryKind::wildcardJoin, otherRp);
  EXPECT_EQ(shown({datagram(message)}),
            "1 prune (S,G) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 4\n"
            "1 prune (S,G) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 4\n"
            "1 join (S,G) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 4\n"
            "1 join (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 210 flags 7 rp 10.255.0.1\n"
            "1 join (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 210 flags 7 rp 10.255.0.2\n");
}

TEST_F(ReplayTest, AFaultInTheLastEntryKeepsTheWholeMessageOut) {
  auto message = oneJoin();
  message.entryAdd(EntryKind::wildcardPrune, rp);
  auto bytes = Wire::encodeJoinPrune(message, sender, routers);
  bytes[bytes.size() - 6] = 0x06;  // The flags of the last entry, without R.
  auto const broken = ipDatagram(sender, routers, Wire::pimProtocol, withChecksum(bytes, sender, routers));
  EXPECT_EQ(shown({broken, datagram(oneJoin())}),
            std::string("1 refused: wildcard without the RPT bit (10.255.0.1)\n2") + oneJoinShown);
}

TEST_F(ReplayTest, AWildcardJoinToAnotherRpThanTheHashGivesIsNotShown) {
  options_.rps.add("239.1.1.0/24=10.255.0.2");
  Wire::JoinPrune message(upstream, 210);
  for (auto const& address : {rp, otherRp}) {
    message.groupAdd(group);
    message.entryAdd(EntryKind::wildcardJoin, address);
    message.entryAdd(EntryKind::sourceRptPrune, s1);
    message.groupAdd(group);
    message.entryAdd(EntryKind::wildcardPrune, address);
  }
  EXPECT_EQ(shown({datagram(message)}),
            "1 prune (S,G,rpt) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 5\n"
            "1 prune (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 210 flags 7 rp 10.255.0.1\n"
            "1 join (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 210 flags 7 rp 10.255.0.2\n"
            "1 prune (S,G,rpt) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 5\n"
            "1 prune (*,G) 0.0.0.0 239.1.1.1 to 10.0.0.13 hold 210 flags 7 rp 10.255.0.2\n");
}

TEST_F(ReplayTest, OfADeniedGroupTheSourceTreeEntriesAloneAreShown) {
  options_.denied = {groupPrefixFromText("239.1.1.1")};
  for (auto const& [address, all] : {std::pair(group, false), std::pair(otherGroup, true)}) {
    Wire::JoinPrune message(upstream, 210);
    message.groupAdd(address);
    message.entryAdd(EntryKind::sourceJoin, s1);
    message.entryAdd(EntryKind::wildcardJoin, rp);
    message.entryAdd(EntryKind::sourceRptPrune, s2);
    auto const text = toText(address);
    EXPECT_EQ(shown({datagram(message)}),
              "1 join (S,G) 192.0.2.1 " + text + " to 10.0.0.13 hold 210 flags 4\n" +
                  (all ? "1 join (*,G) 0.0.0.0 " + text + " to 10.0.0.13 hold 210 flags 7 rp 10.255.0.1\n" +
                             "1 prune (S,G,rpt) 192.0.2.2 " + text + " to 10.0.0.13 hold 210 flags 5\n"
                       : ""));
  }
}

TEST_F(ReplayTest, SendersOfHellosAndMessagesBecomeNeighbors) {
  IpGenAddr const other("10.0.0.15"), six("fe80::15");
  EXPECT_EQ(shown({hello(other, routers), hello(six, Wire::allPimRouters(AddressFamily::ipv6)),
                   hello(other, routers)}),
            "");
  EXPECT_THAT(neighbors(), testing::UnorderedElementsAre("10.0.0.15@capture0", "fe80::15@capture0"));
  shown({datagram(oneJoin())});
  EXPECT_THAT(neighbors(), testing::ElementsAre("10.0.0.14@capture0"));
}

TEST_F(ReplayTest, WhoSendsWhatIsBrokenBecomesNoNeighbor) {
  auto brokenHello = hello(sender, routers);
  brokenHello.back() ^= 1;
  auto brokenJoin = datagram(oneJoin());
  brokenJoin.back() ^= 1;
  shown({brokenHello, brokenJoin});
  EXPECT_THAT(neighbors(), testing::IsEmpty());
}

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(ReplayTest, ASenderIsANeighborUntilTheHoldTimeOfItsHelloHasPassed) {
  begin();
  EXPECT_THAT(neighborsAt(7, hello(sender, routers)), ElementsAre("10.0.0.14@capture0"));
  EXPECT_THAT(neighborsAt(111.999), ElementsAre("10.0.0.14@capture0"));
  EXPECT_THAT(neighborsAt(112), IsEmpty());
  EXPECT_THAT(neighborsAt(113, hello(sender, routers)), ElementsAre("10.0.0.14@capture0"));
}

TEST_F(ReplayTest, ASenderIsANeighborUntilTheHoldTimeOfItsMessageHasPassed) {
  begin();
  EXPECT_THAT(neighborsAt(7, datagram(oneJoin(210))), ElementsAre("10.0.0.14@capture0"));
  EXPECT_THAT(neighborsAt(216.999), ElementsAre("10.0.0.14@capture0"));
  EXPECT_THAT(neighborsAt(217), IsEmpty());
}

TEST_F(ReplayTest, TheLatestHelloOrMessageDecidesHowLongItsSenderIsANeighbor) {
  begin();
  neighborsAt(0, hello(sender, routers));
  neighborsAt(100, hello(sender, routers));
  EXPECT_THAT(neighborsAt(204), ElementsAre("10.0.0.14@capture0"));
  neighborsAt(204, datagram(oneJoin(300)));
  EXPECT_THAT(neighborsAt(503), ElementsAre("10.0.0.14@capture0"));
  neighborsAt(503, datagram(oneJoin(10)));
  EXPECT_THAT(neighborsAt(513), IsEmpty());
}

TEST_F(ReplayTest, EachSenderHasAHoldTimeOfItsOwn) {
  IpGenAddr const other("10.0.0.15");
  begin();
  neighborsAt(0, hello(sender, routers));
  neighborsAt(0, hello(other, routers, "0001 0002 000a"));
  EXPECT_THAT(neighborsAt(10), ElementsAre("10.0.0.14@capture0"));
  EXPECT_THAT(neighborsAt(105), IsEmpty());
}

TEST_F(ReplayTest, AHelloWithoutAHoldTimeHolds105Seconds) {
  begin();
  neighborsAt(0, hello(sender, routers, "0014 0004 01020304"));
  EXPECT_THAT(neighborsAt(104), ElementsAre("10.0.0.14@capture0"));
  EXPECT_THAT(neighborsAt(105), IsEmpty());
}

TEST_F(ReplayTest, AHoldTimeOf65535NeverExpires) {
  begin();
  neighborsAt(0, hello(sender, routers, "0001 0002 ffff"));
  EXPECT_THAT(neighborsAt(1e18), ElementsAre("10.0.0.14@capture0"));
  neighborsAt(1e18, hello(sender, routers, "0001 0002 0001"));
  EXPECT_THAT(neighborsAt(2e18), IsEmpty());
}

TEST_F(ReplayTest, AHoldTimeOf0EndsTheNeighborAtOnce) {
  begin();
  EXPECT_THAT(neighborsAt(0, hello(sender, routers, "0001 0002 0000")), IsEmpty());
  neighborsAt(1, hello(sender, routers, "0001 0002 ffff"));
  EXPECT_THAT(neighborsAt(2, hello(sender, routers, "0001 0002 0000")), IsEmpty());
  neighborsAt(3, hello(sender, routers));
  EXPECT_THAT(neighborsAt(4, datagram(oneJoin(0))), IsEmpty());
  EXPECT_THAT(neighborsAt(1000, hello(sender, routers)), ElementsAre("10.0.0.14@capture0"));
}

TEST_F(ReplayTest, WhatIsShownDoesNotDependOnTheSeedOfTheHash) {
  Wire::JoinPrune message(upstream, 210);
  for (U32 g = 0; g < 40; ++g) {
    message.groupAdd(IpGenAddr::ipv4(0xef010101 + g * 7 % 40));
    for (U32 s = 0; s < 10; ++s) {
      message.entryAdd(EntryKind::sourceJoin, IpGenAddr::ipv4(0xc0000201 + s * 3 % 10));
      message.entryAdd(EntryKind::sourceRptJoin, IpGenAddr::ipv4(0xc0000201 + s * 7 % 10));
    }
  }
  std::vector<std::string> seen;
  for (U64 const seed : {1, 2, 3})
    seen.push_back(Vel::inAnotherProcess(seed, [&] { return shown({datagram(message)}); }));
  EXPECT_EQ(lines(seen[0]).size(), 800u);
  EXPECT_EQ(seen[0], seen[1]);
  EXPECT_EQ(seen[0], seen[2]);
}

TEST_F(ReplayTest, EntriesOfAMessageAreSortedByGroupKindAndSource) {
  Wire::JoinPrune message(upstream, 210);
  for (auto const& address : {otherGroup, group}) {
    message.groupAdd(address);
    message.entryAdd(EntryKind::sourceRptJoin, s1);
    message.entryAdd(EntryKind::sourceJoin, s2);
    message.entryAdd(EntryKind::sourceJoin, s1);
  }
  EXPECT_EQ(shown({datagram(message)}),
            "1 join (S,G) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 4\n"
            "1 join (S,G) 192.0.2.2 239.1.1.1 to 10.0.0.13 hold 210 flags 4\n"
            "1 join (S,G,rpt) 192.0.2.1 239.1.1.1 to 10.0.0.13 hold 210 flags 5\n"
            "1 join (S,G) 192.0.2.1 239.1.1.2 to 10.0.0.13 hold 210 flags 4\n"
            "1 join (S,G) 192.0.2.2 239.1.1.2 to 10.0.0.13 hold 210 flags 4\n"
            "1 join (S,G,rpt) 192.0.2.1 239.1.1.2 to 10.0.0.13 hold 210 flags 5\n");
}

Bytes changed(Bytes bytes, std::size_t at, U8 value) {
  bytes[at] = value;
  return bytes;
}

TEST_F(ReplayTest, WhatCannotBeCheckedIsRefused) {
  auto const good = datagram(oneJoin());
  auto const pim = [](char const* bytes) {
    return ipDatagram(sender, routers, Wire::pimProtocol, hex(bytes));
  };
  struct {
    char const* what;
    Bytes datagram;
    char const* shown;
  } const rows[] = {
      {"snapped in the payload", firstOf(good, good.size() - 1), "1 refused: truncated (by the capture)\n"},
      {"snapped after the type", firstOf(good, 21), "1 refused: truncated (by the capture)\n"},
      {"snapped before the type", firstOf(good, 20), "1 refused: truncated (by the capture)\n"},
      {"snapped in the IP header", firstOf(good, 12), "1 refused: truncated (by the capture)\n"},
      {"first fragment", changed(good, 6, 0x20), "1 refused: fragment\n"},
      {"header length of 16", changed(good, 0, 0x44), "1 refused: bad IP header\n"},
      {"no payload", pim(""), "1 refused: truncated (in the PIM header)\n"},
      {"a type alone", pim("23"), "1 refused: truncated (in the PIM header)\n"},
      {"half a header", pim("2300 0000"), "1 refused: bad checksum (0x0000, computed 0xdcff)\n"},
      {"a header alone", pim("2300 dcff"), "1 refused: truncated (in the upstream neighbor)\n"},
      {"not intact", changed(good, 40, 9), "1 refused: bad checksum (0x18da, computed 0x10da)\n"},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(shown({row.datagram}), row.shown) << row.what;
    EXPECT_EQ(replay_->totals().messages, 1u) << row.what;
    EXPECT_EQ(replay_->totals().refusedMessages(), 1u) << row.what;
  }
}

TEST_F(ReplayTest, AHelloThatCannotBeCheckedIsRefused) {
  auto const good = hello(sender, routers);
  auto const pim = [](char const* bytes) {
    return ipDatagram(sender, routers, Wire::pimProtocol, withChecksum(hex(bytes), sender, routers));
  };
  struct {
    char const* what;
    Bytes datagram;
    char const* shown;
  } const rows[] = {
      {"snapped", firstOf(good, 22), "1 Hello refused: truncated (by the capture)\n"},
      {"first fragment", changed(good, 6, 0x20), "1 Hello refused: fragment\n"},
      {"not intact", changed(good, 29, 9), "1 Hello refused: bad checksum (0xdf93, computed 0xdff3)\n"},
      {"an option over the end", pim("20000000 0001 0003 0069"),
       "1 Hello refused: truncated (in the Hello option at byte 4)\n"},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(shown({row.datagram}), row.shown) << row.what;
    EXPECT_EQ(replay_->totals().hellos, 1u) << row.what;
    EXPECT_EQ(replay_->totals().messages, 0u) << row.what;
    EXPECT_EQ(replay_->totals().refusedMessages(), 1u) << row.what;
    EXPECT_THAT(neighbors(), IsEmpty()) << row.what;
  }
}

TEST_F(ReplayTest, WhatIsNeitherJoinPruneNorHelloIsPassedOverAndCounted) {
  auto const good = datagram(oneJoin());
  struct {
    char const* what;
    Bytes datagram;
    PassedOver why;
  } const rows[] = {
      {"later fragment", changed(good, 7, 1), PassedOver::laterFragment},
      {"another protocol", changed(good, 9, 17), PassedOver::otherProtocol},
      {"version 1", changed(good, 20, 0x13), PassedOver::otherMessage},
      {"an assert", changed(good, 20, 0x25), PassedOver::otherMessage},
      {"a snapped assert", firstOf(changed(good, 20, 0x25), 22), PassedOver::otherMessage},
      {"a security payload", changed(good, 9, 50), PassedOver::notOpened},
      {"another IP version", changed(good, 0, 0x55), PassedOver::notIp},
      {"nothing", {}, PassedOver::unreadable},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(shown({row.datagram, row.datagram}), "") << row.what;
    EXPECT_EQ(replay_->totals().frames, 2u) << row.what;
    EXPECT_EQ(replay_->totals().messages, 0u) << row.what;
    EXPECT_EQ(replay_->totals().passedOver[static_cast<std::size_t>(row.why)], 2u) << row.what;
    EXPECT_EQ(replay_->totals().passedOverFrames(), 2u) << row.what;
  }
}

TEST_F(ReplayTest, FramesOfAnUnknownLinkAreCounted) {
  begin();
  Frame frame;
  frame.link = LinkType::unknown;
  auto const good = datagram(oneJoin());
  frame.bytes = good;
  replay_->receiveFrame(frame);
  EXPECT_EQ(recorder_.text, "");
  EXPECT_EQ(replay_->totals().passedOver[static_cast<std::size_t>(PassedOver::unknownLink)], 1u);
}

struct SenderRow {
  char const *source, *destination;
  U8 hopLimit;
  char const* reason;
};

SenderRow const senderRows[] = {
    {"0.0.0.0", "224.0.0.13", 1, "sender not unicast (0.0.0.0)"},
    {"239.1.1.1", "224.0.0.13", 1, "sender not unicast (239.1.1.1)"},
    {"255.255.255.255", "224.0.0.13", 1, "sender not unicast (255.255.255.255)"},
    {"10.0.0.14", "10.0.0.13", 1, "destination not ALL-PIM-ROUTERS (10.0.0.13)"},
    {"10.0.0.14", "224.0.0.14", 1, "destination not ALL-PIM-ROUTERS (224.0.0.14)"},
    {"10.0.0.14", "224.0.0.13", 0, "TTL or hop limit not 1 (0)"},
    {"10.0.0.14", "224.0.0.13", 2, "TTL or hop limit not 1 (2)"},
    {"10.0.0.14", "224.0.0.13", 255, "TTL or hop limit not 1 (255)"},
    {"::", "ff02::d", 1, "sender not unicast (::)"},
    {"ff02::d", "ff02::d", 1, "sender not unicast (ff02::d)"},
    {"2001:db8::14", "ff02::d", 1, "sender not link-local (2001:db8::14)"},
    {"fec0::14", "ff02::d", 1, "sender not link-local (fec0::14)"},
    {"fe80::14", "fe80::13", 1, "destination not ALL-PIM-ROUTERS (fe80::13)"},
    {"fe80::14", "ff05::d", 1, "destination not ALL-PIM-ROUTERS (ff05::d)"},
    {"fe80::14", "ff02::d", 64, "TTL or hop limit not 1 (64)"},
};

/// A Join/Prune and a Hello, sent in this way.
std::vector<Bytes> bothSent(SenderRow const& row) {
  IpGenAddr const from(row.source), to(row.destination);
  bool const four = from.isIpv4();
  Wire::JoinPrune message(IpGenAddr(four ? "10.0.0.13" : "fe80::13"), 210);
  message.groupAdd(IpGenAddr(four ? "239.1.1.1" : "ff0e::1"));
  message.entryAdd(EntryKind::sourceJoin, IpGenAddr(four ? "192.0.2.1" : "2001:db8::1"));
  std::vector<Bytes> both = {
      ipDatagram(from, to, Wire::pimProtocol, Wire::encodeJoinPrune(message, from, to)),
      ipDatagram(from, to, Wire::pimProtocol, withChecksum(hex("20000000 0001 0002 0069"), from, to))};
  for (auto& bytes : both) bytes[four ? 8 : 7] = row.hopLimit;
  return both;
}

TEST_F(ReplayTest, OnlyALinkLocalWayToAllPimRoutersCounts) {
  for (auto const& row : senderRows) {
    EXPECT_EQ(shown(bothSent(row)),
              "1 refused: " + std::string(row.reason) + "\n2 Hello refused: " + row.reason + "\n");
    EXPECT_THAT(neighbors(), IsEmpty()) << row.reason;
    EXPECT_EQ(replay_->totals().messages, 1u) << row.reason;
    EXPECT_EQ(replay_->totals().hellos, 1u) << row.reason;
    EXPECT_EQ(replay_->totals().lenient, 0u) << row.reason;
  }
}

TEST_F(ReplayTest, ALenientReplayTakesEverySenderAndCountsThem) {
  options_.lenient = true;
  for (auto const& row : senderRows) {
    bool const four = IpGenAddr(row.source).isIpv4();
    EXPECT_EQ(shown(bothSent(row)), four ? std::string("1") + oneJoinShown
                                         : "1 join (S,G) 2001:db8::1 ff0e::1 to fe80::13 hold 210 flags 4\n");
    EXPECT_THAT(neighbors(), ElementsAre(std::string(row.source) + "@capture0"));
    EXPECT_EQ(replay_->totals().refusedMessages(), 0u) << row.reason;
    EXPECT_EQ(replay_->totals().lenient, 2u) << row.reason;
  }
  shown({datagram(oneJoin())});
  EXPECT_EQ(replay_->totals().lenient, 0u);
}

TEST_F(ReplayTest, WhatALenientReplayRefusesForAnotherReasonIsNotCountedAsTaken) {
  options_.lenient = true;
  for (auto both = bothSent(senderRows[0]); auto& bytes : both) {
    bytes.back() ^= 1;  // which the checksum covers
    EXPECT_THAT(shown({bytes}), testing::HasSubstr("refused"));
    EXPECT_EQ(replay_->totals().lenient, 0u);
  }
}

TEST_F(ReplayTest, MessagesInsideTunnelsCountLikeOthers) {
  auto const inner = datagram(oneJoin());
  auto const gre = ipDatagram(IpGenAddr("192.0.2.7"), IpGenAddr("192.0.2.8"), 47, hex("0000 0800") + inner);
  EXPECT_EQ(shown({gre}), std::string("1") + oneJoinShown);
  EXPECT_THAT(neighbors(), ElementsAre("10.0.0.14@capture0"));
}

TEST_F(ReplayTest, NoMoreThanTheMostNeighborsAreKept) {
  begin();
  Frame frame;
  frame.link = LinkType::rawIp;
  for (U32 n = 0; n < Replay::maxNeighbors + 2; ++n) {
    auto const bytes = hello(IpGenAddr::ipv4(0x0a000001 + n), routers);
    frame.bytes = bytes;
    replay_->receiveFrame(frame);
  }
  EXPECT_THAT(neighbors(), testing::SizeIs(Replay::maxNeighbors));
  EXPECT_EQ(replay_->totals().strangers, 2u);
  EXPECT_EQ(replay_->totals().refusedMessages(), 0u);
  // Those that are there are heard again, and leave room behind.
  auto const goodbye = hello(IpGenAddr("10.0.0.1"), routers, "0001 0002 0000");
  EXPECT_THAT(neighborsAt(1, goodbye), testing::SizeIs(Replay::maxNeighbors - 1));
  EXPECT_THAT(neighborsAt(1, hello(IpGenAddr("10.99.0.1"), routers)), testing::SizeIs(Replay::maxNeighbors));
}

TEST_F(ReplayTest, TotalsCountWhatWasShown) {
  Wire::JoinPrune message(upstream, 210);
  message.groupAdd(group);
  message.entryAdd(EntryKind::sourceJoin, s1);
  message.entryAdd(EntryKind::sourceJoin, s2);
  message.entryAdd(EntryKind::wildcardPrune, rp);
  shown({datagram(message), hello(sender, routers), changed(datagram(message), 40, 9), datagram(message)});
  auto const& totals = replay_->totals();
  EXPECT_EQ(totals.frames, 4u);
  EXPECT_EQ(totals.messages, 3u);
  EXPECT_EQ(totals.hellos, 1u);
  EXPECT_EQ(totals.passedOverFrames(), 0u);
  EXPECT_EQ(totals.entries, (decltype(totals.entries){4, 0, 0, 2, 0, 0}));
  EXPECT_EQ(totals.refused[static_cast<std::size_t>(Wire::Reason::badChecksum)], 1u);
}

TEST_F(ReplayTest, OfADamagedCaptureEveryMessageIsCountedOnce) {
  TemporaryFolder const folder;
  auto const path = folder.file("sample.pcap");
  writeSample(path);
  auto const sample = readBytes(path);
  unsigned readToTheEnd = 0;
  for (unsigned seed = 0; seed < 1000; ++seed) {
    std::mt19937 random(seed);
    auto bytes = sample;
    for (unsigned changes = 1 + random() % 8; changes; --changes) {
      bytes[24 + random() % (bytes.size() - 24)] = static_cast<U8>(random());
    }
    folder.with("sample.pcap", bytes);
    recorder_.text.clear();
    Replay replay(options_, recorder_);
    try {
      Capture capture(path);
      Frame frame;
      while (capture.next(frame)) replay.receiveFrame(frame);
      ++readToTheEnd;
    } catch (CaptureError const& e) {
      EXPECT_EQ(std::string(e.what()).rfind(path + ": after frame ", 0), 0u) << e.what();
    }
    U64 entries = replay.totals().refusedMessages();
    for (U64 const count : replay.totals().entries) entries += count;
    EXPECT_EQ(lines(recorder_.text).size(), entries) << "seed " << seed;
    auto const& totals = replay.totals();
    EXPECT_LE(totals.refusedMessages(), totals.messages + totals.hellos) << "seed " << seed;
    EXPECT_EQ(totals.messages + totals.hellos + totals.passedOverFrames(), totals.frames) << "seed " << seed;
  }
  EXPECT_GT(readToTheEnd, 100u);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
