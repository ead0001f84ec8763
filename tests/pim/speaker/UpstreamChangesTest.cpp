// SPDX-License-Identifier: Apache-2.0
// Upstream routes under changes in any order, and under changes from inside their own changes.
#include <random>
#include <set>

#include "runtime/vel/Trace.h"
#include "tests/Thorough.h"
#include "tests/pim/speaker/UpstreamScene.h"

namespace Routing::Pim::Speaker::Test {
namespace {

class UpstreamChangesTest : public UpstreamScene {
 protected:
  ~UpstreamChangesTest() override {
    Vel::traceSinkIs({});
    engineTrace().levelsDel();
  }
  static Vel::TraceHandle& engineTrace() { return Vel::TraceHandle::find("Pim::JoinPrune"); }

  /// Calls at the n-th trace line from now on.
  void atLine(U32 n, std::function<void()> const& call) {
    for (U32 level = 1; level <= 8; ++level) engineTrace().levelIs(level, true);
    Vel::traceSinkIs([n, call, count = U32{0}](Vel::TraceLine const&) mutable {
      if (++count == n) call();
    });
  }

  static std::set<std::string> entriesOf(Vel::Ptr<Packet::JoinPruneData> const& data, Names const& names) {
    std::set<std::string> entries;
    if (!data) return entries;
    for (auto const& group : data->joinPruneGroupDataIterator()) {
      auto const add = [&](char const* verb, RouteKind kind, auto sources) {
        for (; sources; ++sources)
          entries.insert(verb + names.name(Route{kind, sources.key(), group.group()}));
      };
      if (auto const wildcard = group.wcSourceData())
        entries.insert((wildcard->join() ? "join " : "prune ") + names.name(Route::wildcard(group.group())));
      add("join ", RouteKind::source, group.joinedSourceIterator());
      add("prune ", RouteKind::source, group.prunedSourceIterator());
      add("join ", RouteKind::sourceRpt, group.joinedRptSourceIterator());
      add("prune ", RouteKind::sourceRpt, group.prunedRptSourceIterator());
    }
    return entries;
  }

  /// What is to be refreshed follows from the wishes alone, and what is pending does not contradict them.
  void expectConsistent() {
    for (std::string const name : {"N1", "N2", "N3"}) {
      IpGenAddr const neighbor = names.address(name);
      std::set<std::string> wanted;
      for (auto const& route : upstream->routes())
        if (eth0.link.neighborUp(neighbor) && route.upstream &&
            eth0.link.neighborOf(route.upstream->address) == neighbor)
          wanted.insert((route.route.kind == RouteKind::sourceRpt ? "prune " : "join ") +
                        names.name(route.route));
      EXPECT_EQ(entriesOf(eth0.link.periodic(neighbor), names), wanted) << name;
      for (auto const& pending : {eth0.link.triggered(neighbor), eth0.link.overriding(neighbor)}) {
        for (auto const& entry : entriesOf(pending, names)) {
          bool const isJoin = entry.starts_with("join ");
          std::string const route = entry.substr(isJoin ? 5 : 6);
          bool const isRpt = route.ends_with("rpt)");
          bool const isWanted = wanted.contains((isRpt ? "prune " : "join ") + route);
          EXPECT_EQ(isWanted, isJoin != isRpt) << name << " " << entry;
        }
      }
    }
  }

  /// An address that no neighbor has as its own: another one lists it, or none.
  void moveAddress(std::string const& neighbor, bool isLost) {
    auto& secondary = eth0.link.secondary;
    if (isLost)
      secondary.erase(names.address("N4"));
    else
      secondary[names.address("N4")] = names.address(neighbor);
    if (eth0.link.neighborUp(names.address(neighbor)))
      eth0.observer->neighborAddressesChanged(names.address(neighbor));
    else if (auto const up = eth0.link.neighbors.begin(); up != eth0.link.neighbors.end())
      eth0.observer->neighborAddressesChanged(IpGenAddr(*up));
  }

  /// A change that is taken from a random number.
  void change(U32 random) {
    std::string const neighbor = "N" + std::to_string(1 + random % 3);
    std::string const upstreamOf = random / 2880 % 3 == 0 ? "N4" : neighbor;
    std::string const source = "S" + std::to_string(1 + random / 3 % 2),
                      group = "G" + std::to_string(1 + random / 6 % 2);
    std::string const sg = "(" + source + "," + group + ")", wildcard = "(*," + group + ")";
    bool const other = random / 12 % 2 != 0;
    if (random / 240 % 12 == 0) return moveAddress(neighbor, other);
    U32 const step = random / 24 % 10;
    switch (step) {
      case 0:
      case 1:
        return join(other ? sg : wildcard, upstreamOf, step == 0 ? "R1" : "R2",
                    step == 0 ? UpstreamMove::routing : UpstreamMove::assert);
      case 2:
        return leave(other ? sg : wildcard);
      case 3:
        return other ? prune(sg) : unprune(sg);
      case 4:
        if (eth0.link.neighborUp(names.address(neighbor))) return neighborDown(neighbor);
        return neighborUp(neighbor);
      case 5:
        if (eth0.link.neighborUp(names.address(neighbor)))
          eth0.observer->neighborRestarted(names.address(neighbor));
        return;
      case 6:
        return hear(neighbor,
                    (other ? "prune " + sg + ", prune " : "join " + sg + ", join ") + wildcard + " R1");
      case 7:
        return hear(neighbor, (other ? "prune (" : "join (") + source + "," + group + ",rpt)");
      case 8:
        upstream->moveAll(at(neighbor), at(other ? "N1" : "N2"));
        return;
      default:
        sentUntil(time + (other ? 0.15 : 3));
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Families, UpstreamChangesTest,
                         testing::Values(AddressFamily::ipv4, AddressFamily::ipv6));

TEST_P(UpstreamChangesTest, WhatIsRefreshedFollowsFromTheWishesAfterAnyChanges) {
  std::mt19937 random(7761);
  for (int i = 0; i < 3000; ++i) {
    U32 const number = static_cast<U32>(random());
    change(number);
    expectConsistent();
    if (HasFailure()) FAIL() << "change " << i << ", number " << number;
  }
}

TEST_P(UpstreamChangesTest, AChangeFromInsideAnotherOneIsTheOneThatCounts) {
  std::mt19937 random(7761);
  int changedInside = 0;
  for (int i = 0; i < 2000; ++i) {
    U32 const outer = static_cast<U32>(random()), inner = static_cast<U32>(random());
    // Time does not move inside, and a neighbor that comes up or goes down twice at once is no change of a
    // wish.
    bool const isWish = inner / 240 % 12 == 0 || inner / 24 % 10 < 4;
    atLine(1 + static_cast<U32>(random()) % 12, [&] {
      if (!isWish) return;
      ++changedInside;
      change(inner);
    });
    change(outer);
    Vel::traceSinkIs({});
    expectConsistent();
    if (HasFailure()) FAIL() << "change " << i << ", numbers " << outer << " and " << inner;
  }
  EXPECT_GT(changedInside, 200);
}

// Each walk over four routes that name N4, and at each or every other of its trace lines a change of all of
// them.
TEST_P(UpstreamChangesTest, AChangeOfAllRoutesFromInsideAWalkOverThemChangesThoseStillToCome) {
  using Call = std::function<void()>;
  auto const listBy = [this](std::string const& neighbor) { moveAddress(neighbor, false); };
  auto const moveTo = [this](std::string_view to) { upstream->moveAll(at("N4"), at(to)); };
  struct {
    char const* name;
    bool isDown, isMove;  // Before it and by it.
    Call begin;
  } const walks[] = {
      {"another owner", false, false, [=] { listBy("N2"); }},
      {"owner up", true, false, [=, this] { listBy("N1"), neighborUp("N1"); }},
      {"restart", false, false, [this] { eth0.observer->neighborRestarted(names.address("N1")); }},
      {"move", false, true, [=] { moveTo("N2"); }},
  };
  struct {
    char const *name, *to;  // Null if it is no move.
    Call call;
  } const changes[] = {
      {"move", "N3", [=] { moveTo("N3"); }},
      {"move to the owner's own address", "N1", [=] { moveTo("N1"); }},
      {"another owner", nullptr, [=] { listBy("N3"); }},
      {"another owner and move", "N3", [=] { listBy("N3"), moveTo("N3"); }},
      {"two owners", nullptr, [=] { listBy("N3"), listBy("N2"); }},
  };
  std::string const routes[] = {"(S1,G1)", "(S2,G1)", "(S3,G1)", "(S4,G1)"};
  neighborUp("N3");
  for (auto const& walk : walks)
    for (auto const& change : changes) {
      bool isInside = true;
      for (U32 line = 1; isInside; line += thorough() ? 1 : 2) {
        SCOPED_TRACE(std::string(change.name) + " inside " + walk.name + ", line " + std::to_string(line));
        listBy("N1");
        for (auto const& route : routes) join(route, "N4");
        sentUntil(time + 10);
        if (walk.isDown) {
          neighborDown("N1");
          moveAddress("N1", true);
        }
        isInside = false;
        atLine(line, [&] {
          isInside = true;
          change.call();
        });
        walk.begin();
        Vel::traceSinkIs({});
        engineTrace().levelsDel();
        expectConsistent();
        // A move leaves none of them behind; one inside it takes those that it has not come to.
        std::set<std::string> allowed;
        if (walk.isMove) allowed.insert("N2");
        if (isInside && change.to) allowed.insert(change.to);
        if (allowed.empty()) allowed.insert("N4");
        for (auto const& route : upstream->routes())
          EXPECT_TRUE(allowed.contains(names.name(route.upstream->address))) << names.name(route.route);
        if (HasFailure()) return;
        for (auto const& route : routes) leave(route);
      }
    }
}

TEST_P(UpstreamChangesTest, AnyTraceLineMayDestroyTheRoutes) {
  std::mt19937 random(1);
  int destroyed = 0;
  for (int i = 0; i < 600; ++i) {
    for (int before = 0; before < 20 && upstream; ++before) change(static_cast<U32>(random()));
    eth0.manager->heardJoinsAre(nullptr);
    eth1.manager->heardJoinsAre(nullptr);
    atLine(1 + static_cast<U32>(random()) % 20, [this] { upstream = nullptr; });
    for (int step = 0; step < 5 && upstream; ++step) {
      U32 const number = static_cast<U32>(random());
      if (number / 24 % 10 != 9) change(number);
    }
    Vel::traceSinkIs({});
    if (upstream) continue;
    ++destroyed;
    upstream = std::make_unique<UpstreamRoutes>();
    for (EngineLink* one : {&eth0, &eth1}) one->observer = &upstream->linkIs(one->link);
    for (std::string const name : {"N1", "N2", "N3"})
      if (eth0.link.neighborUp(names.address(name))) {
        neighborDown(name);
        neighborUp(name);
      }
  }
  EXPECT_GT(destroyed, 100);
}

TEST_P(UpstreamChangesTest, AMessageThatRepeatsAGroupPruneWalksTheGroupOnce) {
  join("(*,G1)", "N1");
  for (int n = 1; n <= 99; ++n) join("(S" + std::to_string(n) + ",G1)", "N1");
  sentUntil(1);
  U32 lines = 0;
  for (U32 level = 1; level <= 8; ++level) engineTrace().levelIs(level, true);
  auto const linesOf = [&](std::string const& entries) {
    lines = 0;
    Vel::traceSinkIs([&](Vel::TraceLine const&) { ++lines; });
    hear("N1", entries);
    Vel::traceSinkIs({});
    return lines;
  };
  std::string const once = "prune (*,G1) R1";
  std::string many = once;
  for (int i = 0; i < 100; ++i) many += "; join (S1,G1); " + once;
  U32 const ofOne = linesOf(once);
  EXPECT_GE(ofOne, 99u);
  sentUntil(5);
  EXPECT_LE(linesOf(many), ofOne + 10);
  EXPECT_THAT(sentUntil(9), testing::Not(IsEmpty()));
}

TEST_P(UpstreamChangesTest,
       AGroupPruneThatIsRepeatedInEachMessageWalksTheGroupFourTimesInAnOverrideInterval) {
  join("(*,G1)", "N1");
  for (int n = 1; n <= 99; ++n) join("(S" + std::to_string(n) + ",G1)", "N1");
  sentUntil(1);
  // A walk is seen by what it does to a route of the group that is suppressed.
  U32 walks = 0;
  Seconds const begin = time;
  while (time < begin + 10) {
    hear("N1", "join (S7,G1)");
    bool const wasSuppressed = sending("(S7,G1)") == "suppressed";
    hear("N1", "prune (*,G1) R1");
    walks += wasSuppressed && sending("(S7,G1)") != "suppressed";
    sentUntil(time + 0.01);
  }
  EXPECT_GE(walks, 1u);
  EXPECT_LE(walks, 4u * 10 / 2.5);
}

TEST_P(UpstreamChangesTest, AGroupPruneAfterTheOverrideOfAnotherOneIsOverriddenInTime) {
  join("(S1,G1)", "N1");
  sentUntil(1);
  for (Seconds const gap : {0.3, 0.7, 1.2, 1.3, 2.0, 2.6, 3.4}) {
    Seconds const begin = time;
    hear("N1", "prune (*,G1) R1");
    Seconds heard = begin, joined = -1;
    while (time < begin + 10) {
      if (time >= begin + gap && heard == begin) {
        hear("N1", "prune (*,G1) R1");
        heard = time;
        joined = -1;
      }
      for (auto const& line : sentUntil(time + 0.05))
        if (line.find("join (S1,G1)") != line.npos && joined < 0) joined = time;
    }
    EXPECT_GT(heard, begin);
    EXPECT_GE(joined, heard) << "gap " << gap;
    EXPECT_LE(joined, heard + 3) << "J/P_Override_Interval; gap " << gap;
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker::Test
