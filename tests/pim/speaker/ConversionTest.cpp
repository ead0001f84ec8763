// From wire messages to model messages. Expectations are the model messages in text, one a line.
#include "pim/speaker/Conversion.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <sstream>

namespace Routing::Pim::Speaker {
namespace {

IpGenAddr const upstream("10.0.0.13"), rp("10.255.0.1"), otherRp("10.255.0.2");
IpGenAddr const group("239.1.1.1"), otherGroup("239.1.1.2");
IpGenAddr const s1("192.0.2.1"), s2("192.0.2.2");

/// Addresses in ascending order, so that an expectation does not depend on the hash.
template <class Iterator>
std::string sorted(char const* what, Iterator i) {
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
    std::string text =
        sorted("join", i->joinedSourceIterator()) + sorted("prune", i->prunedSourceIterator()) +
        sorted("join-rpt", i->joinedRptSourceIterator()) + sorted("prune-rpt", i->prunedRptSourceIterator());
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
  wire.groupAdd(group);
  wire.joinAdd(Wire::SourceKind::wildcard, rp);
  wire.joinAdd(Wire::SourceKind::source, s1);
  wire.joinAdd(Wire::SourceKind::sourceRpt, s1);
  wire.pruneAdd(Wire::SourceKind::source, s2);
  wire.pruneAdd(Wire::SourceKind::sourceRpt, s2);
  wire.groupAdd(otherGroup);
  wire.pruneAdd(Wire::SourceKind::wildcard, rp);
  EXPECT_EQ(converted(wire),
            "to 10.0.0.13 hold 210; 239.1.1.1 join 192.0.2.1 prune 192.0.2.2 join-rpt 192.0.2.1 "
            "prune-rpt 192.0.2.2 join-rp 10.255.0.1; 239.1.1.2 prune-rp 10.255.0.1\n");
}

TEST(ConversionTest, AMessageWithoutGroupsIsOneModelMessage) {
  EXPECT_EQ(converted(Wire::JoinPrune(upstream, 65535)), "to 10.0.0.13 hold 65535\n");
}

TEST(ConversionTest, AGroupThatComesAgainBeginsAnotherMessage) {
  Wire::JoinPrune wire(upstream, 210);
  wire.groupAdd(group);
  wire.pruneAdd(Wire::SourceKind::source, s1);
  wire.groupAdd(otherGroup);
  wire.joinAdd(Wire::SourceKind::source, s2);
  wire.groupAdd(group);
  wire.joinAdd(Wire::SourceKind::source, s1);
  EXPECT_EQ(converted(wire),
            "to 10.0.0.13 hold 210; 239.1.1.1 prune 192.0.2.1; 239.1.1.2 join 192.0.2.2\n"
            "to 10.0.0.13 hold 210; 239.1.1.1 join 192.0.2.1\n");
}

TEST(ConversionTest, ASecondWildcardBeginsAnotherMessage) {
  Wire::JoinPrune wire(upstream, 210);
  wire.groupAdd(group);
  wire.joinAdd(Wire::SourceKind::wildcard, rp);
  wire.joinAdd(Wire::SourceKind::wildcard, otherRp);
  wire.joinAdd(Wire::SourceKind::source, s1);
  wire.pruneAdd(Wire::SourceKind::wildcard, otherRp);
  EXPECT_EQ(converted(wire),
            "to 10.0.0.13 hold 210; 239.1.1.1 join-rp 10.255.0.1\n"
            "to 10.0.0.13 hold 210; 239.1.1.1 join 192.0.2.1 join-rp 10.255.0.2\n"
            "to 10.0.0.13 hold 210; 239.1.1.1 prune-rp 10.255.0.2\n");
}

TEST(ConversionTest, ARepeatedSourceBeginsAnotherMessageInEachList) {
  for (auto const kind : {Wire::SourceKind::source, Wire::SourceKind::sourceRpt}) {
    for (bool const join : {true, false}) {
      auto const add = join ? &Wire::JoinPrune::joinAdd : &Wire::JoinPrune::pruneAdd;
      Wire::JoinPrune wire(upstream, 210);
      wire.groupAdd(group);
      (wire.*add)(kind, s1);
      (wire.*add)(kind, s1);
      (wire.*add)(kind, s2);
      std::string const list =
          std::string(join ? "join" : "prune") + (kind == Wire::SourceKind::source ? "" : "-rpt");
      EXPECT_EQ(converted(wire), "to 10.0.0.13 hold 210; 239.1.1.1 " + list + " 192.0.2.1\n" +
                                     "to 10.0.0.13 hold 210; 239.1.1.1 " + list + " 192.0.2.1 " + list +
                                     " 192.0.2.2\n");
    }
  }
}

TEST(ConversionTest, NothingIsLostAndEntriesOfOneRouteKeepTheirOrder) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 random(seed);
    Wire::JoinPrune wire(upstream, 210);
    // What each route is told, in order; joins of a group set come before its prunes.
    std::map<std::string, std::string> expected, found;
    auto const route = [](IpGenAddr const& g, Wire::SourceKind kind, IpGenAddr const& address) {
      return Dova::toText(g) + std::string(text(kind)) +
             (kind == Wire::SourceKind::wildcard ? "" : Dova::toText(address));
    };
    for (unsigned sets = 1 + random() % 6; sets; --sets) {
      auto const g = IpGenAddr::ipv4(0xef010100 + random() % 3);
      wire.groupAdd(g);
      unsigned const entries = random() % 8;
      for (unsigned i = 0; i < entries; ++i) {
        bool const join = i < entries / 2;
        auto const kind = static_cast<Wire::SourceKind>(random() % 3);
        auto const address = IpGenAddr::ipv4(0xc0000200 + random() % 3);
        join ? wire.joinAdd(kind, address) : wire.pruneAdd(kind, address);
        expected[route(g, kind, address)] += (join ? '+' : '-') + Dova::toText(address);
      }
    }
    for (auto const& model : modelMessages(wire)) {
      auto const data = model->joinPruneData();
      for (auto g = data->joinPruneGroupDataIterator(); g; ++g) {
        auto const note = [&](Wire::SourceKind kind, bool join, IpGenAddr const& address) {
          found[route(g->group(), kind, address)] += (join ? '+' : '-') + Dova::toText(address);
        };
        for (auto i = g->joinedSourceIterator(); i; ++i) note(Wire::SourceKind::source, true, *i);
        for (auto i = g->prunedSourceIterator(); i; ++i) note(Wire::SourceKind::source, false, *i);
        for (auto i = g->joinedRptSourceIterator(); i; ++i) note(Wire::SourceKind::sourceRpt, true, *i);
        for (auto i = g->prunedRptSourceIterator(); i; ++i) note(Wire::SourceKind::sourceRpt, false, *i);
        if (auto const w = g->wcSourceData()) note(Wire::SourceKind::wildcard, w->join(), w->address());
      }
    }
    EXPECT_EQ(found, expected) << "seed " << seed;
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
