// SPDX-License-Identifier: Apache-2.0
// From wire messages to model messages. Expectations are the model messages in text, one a line.
#include "pim/speaker/Conversion.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>

#include "pim/model/packet/GroupEntries.h"

namespace Routing::Pim::Speaker {
namespace {

IpGenAddr const upstream("10.0.0.13"), rp("10.255.0.1"), otherRp("10.255.0.2");
IpGenAddr const firstGroup("239.1.1.1"), otherGroup("239.1.1.2");
IpGenAddr const s1("192.0.2.1"), s2("192.0.2.2");

/// Addresses in ascending order, so that an expectation does not depend on the hash.
template <class Iterator>
std::string sortedText(char const* what, Iterator i) {
  std::set<IpGenAddr> addresses;
  for (; i; ++i) addresses.insert(*i);
  std::string text;
  for (auto const& address : addresses) text += std::string(" ") + what + " " + toText(address);
  return text;
}

std::string toText(Packet::JoinPruneMessage const& message) {
  auto const data = message.joinPruneData();
  std::map<IpGenAddr, std::string> groups;
  for (auto i = data->joinPruneGroupDataIterator(); i; ++i) {
    std::string text = sortedText("join", i->joinedSourceIterator()) +
                       sortedText("prune", i->prunedSourceIterator()) +
                       sortedText("join-rpt", i->joinedRptSourceIterator()) +
                       sortedText("prune-rpt", i->prunedRptSourceIterator());
    if (auto const wildcard = i->wcSourceData()) {
      text += (wildcard->join() ? " join-rp " : " prune-rp ") + Dova::toText(wildcard->address());
    }
    groups[i->group()] = text;
  }
  std::ostringstream os;
  os << "to " << data->upstreamNeighbor() << " hold " << data->holdTime();
  for (auto const& [address, text] : groups) os << "; " << address << text;
  return os.str();
}

std::string converted(Wire::JoinPrune const& message) {
  std::string text;
  for (auto const& model : modelMessages(message)) text += toText(*model) + "\n";
  return text;
}

TEST(ConversionTest, AMessageThatRepeatsNothingIsOneModelMessage) {
  Wire::JoinPrune wire(upstream, 210);
  wire.groupAdd(firstGroup);
  wire.entryAdd(EntryKind::wildcardJoin, rp);
  wire.entryAdd(EntryKind::sourceJoin, s1);
  wire.entryAdd(EntryKind::sourceRptJoin, s1);
  wire.entryAdd(EntryKind::sourcePrune, s2);
  wire.entryAdd(EntryKind::sourceRptPrune, s2);
  wire.groupAdd(otherGroup);
  wire.entryAdd(EntryKind::wildcardPrune, rp);
  EXPECT_EQ(converted(wire),
            "to 10.0.0.13 hold 210; 239.1.1.1 join 192.0.2.1 prune 192.0.2.2 join-rpt 192.0.2.1 "
            "prune-rpt 192.0.2.2 join-rp 10.255.0.1; 239.1.1.2 prune-rp 10.255.0.1\n");
}

TEST(ConversionTest, AMessageWithoutGroupsIsOneModelMessage) {
  EXPECT_EQ(converted(Wire::JoinPrune(upstream, 65535)), "to 10.0.0.13 hold 65535\n");
}

TEST(ConversionTest, AGroupThatComesAgainBeginsAnotherMessage) {
  Wire::JoinPrune wire(upstream, 210);
  wire.groupAdd(firstGroup);
  wire.entryAdd(EntryKind::sourcePrune, s1);
  wire.groupAdd(otherGroup);
  wire.entryAdd(EntryKind::sourceJoin, s2);
  wire.groupAdd(firstGroup);
  wire.entryAdd(EntryKind::sourceJoin, s1);
  EXPECT_EQ(converted(wire),
            "to 10.0.0.13 hold 210; 239.1.1.1 prune 192.0.2.1; 239.1.1.2 join 192.0.2.2\n"
            "to 10.0.0.13 hold 210; 239.1.1.1 join 192.0.2.1\n");
}

TEST(ConversionTest, ASecondWildcardBeginsAnotherMessage) {
  Wire::JoinPrune wire(upstream, 210);
  wire.groupAdd(firstGroup);
  wire.entryAdd(EntryKind::wildcardJoin, rp);
  wire.entryAdd(EntryKind::wildcardJoin, otherRp);
  wire.entryAdd(EntryKind::sourceJoin, s1);
  wire.entryAdd(EntryKind::wildcardPrune, otherRp);
  EXPECT_EQ(converted(wire),
            "to 10.0.0.13 hold 210; 239.1.1.1 join-rp 10.255.0.1\n"
            "to 10.0.0.13 hold 210; 239.1.1.1 join 192.0.2.1 join-rp 10.255.0.2\n"
            "to 10.0.0.13 hold 210; 239.1.1.1 prune-rp 10.255.0.2\n");
}

TEST(ConversionTest, ARepeatedSourceBeginsAnotherMessageInEachList) {
  for (EntryKind const kind : entryKinds) {
    if (isWildcard(kind)) continue;
    Wire::JoinPrune wire(upstream, 210);
    wire.groupAdd(firstGroup);
    wire.entryAdd(kind, s1);
    wire.entryAdd(kind, s1);
    wire.entryAdd(kind, s2);
    std::string const list = std::string(actionText(kind)) + (flagsOf(kind) & EntryFlags::rpt ? "-rpt" : "");
    EXPECT_EQ(converted(wire), "to 10.0.0.13 hold 210; 239.1.1.1 " + list + " 192.0.2.1\n" +
                                   "to 10.0.0.13 hold 210; 239.1.1.1 " + list + " 192.0.2.1 " + list +
                                   " 192.0.2.2\n");
  }
}

TEST(ConversionTest, NothingIsLostAndEntriesOfOneRouteKeepTheirOrder) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 random(seed);
    Wire::JoinPrune wire(upstream, 210);
    // What each route is told, in order; joins of a group set come before its prunes.
    std::map<std::string, std::string> expected, found;
    auto const route = [](IpGenAddr const& g, EntryKind kind, IpGenAddr const& address) {
      return Dova::toText(g) + std::string(routeText(kind)) + (isWildcard(kind) ? "" : Dova::toText(address));
    };
    for (unsigned sets = 1 + random() % 6; sets; --sets) {
      auto const g = IpGenAddr::ipv4(0xef010100 + random() % 3);
      wire.groupAdd(g);
      unsigned const entries = random() % 8;
      for (unsigned i = 0; i < entries; ++i) {
        auto const drawn = entryKinds[random() % entryKinds.size()];
        auto const kind = i < entries / 2 ? joinOf(drawn) : pruneOf(drawn);
        auto const address = IpGenAddr::ipv4(0xc0000200 + random() % 3);
        wire.entryAdd(kind, address);
        expected[route(g, kind, address)] += (isJoin(kind) ? '+' : '-') + Dova::toText(address);
      }
    }
    for (auto const& model : modelMessages(wire)) {
      auto const data = model->joinPruneData();
      for (auto g = data->joinPruneGroupDataIterator(); g; ++g) {
        Packet::forEachEntry(*g, [&](EntryKind kind, IpGenAddr const& address) {
          found[route(g->group(), kind, address)] += (isJoin(kind) ? '+' : '-') + Dova::toText(address);
        });
      }
    }
    EXPECT_EQ(found, expected) << "seed " << seed;
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
