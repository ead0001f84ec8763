// SPDX-License-Identifier: Apache-2.0
// The whole of it, engine and packet manager, over long stretches of virtual time.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/PacketSinks.h"
#include "tests/Thorough.h"

namespace Routing::Pim::Speaker {
namespace {

/// An engine with one neighbor, on a clock that the test moves.
class RefreshTest : public testing::Test {
 protected:
  RefreshTest() {
    status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
    eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
    pim->pimIntfIs(eth0);
    pim->pimNeighborIs(neighbor, eth0);
    manager->start();
    machine =
        joinPruneMessageSmFactory(status, nullptr, pim, nullptr, nullptr, nullptr, nullptr, manager, wheel);
  }
  Vel::Ptr<Packet::JoinPruneData> periodic() { return status->periodicGroupStatus()->upJoinPrune(neighbor); }
  void add(RouteKey const& route) {
    periodic()->joinPruneGroupDataIs(route.group())->joinedSourceIs(route.source());
  }
  void remove(RouteKey const& route) {
    periodic()->joinPruneGroupData(route.group())->joinedSourceDel(route.source());
  }
  void runUntil(Seconds end) {
    while (wheel->timeMin() <= end) {
      time = std::max(time, wheel->timeMin());
      wheel->expire();
    }
    time = end;
  }
  static RouteKey route(U32 number) {
    return {IpGenAddr::ipv4(0x0a090000u + number % 7), IpGenAddr::ipv4(0xef010000u + number / 3)};
  }

  Seconds time = 0;
  IpGenAddr const neighbor{"10.0.0.2"};
  std::function<void(OutgoingPacket const&)> sent = [](OutgoingPacket const&) {};
  ForwardedPackets sink{[this](OutgoingPacket const& packet) { sent(packet); }};
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  Vel::Ptr<Status> pim = Vel::create<Status>();
  Vel::Ptr<JoinPruneStatus> status = joinPruneStatusFactory();
  Vel::Ptr<PacketManager> manager = Vel::create<PacketManager>(sink, pim);
  Vel::Ptr<JoinPruneMessageSm> machine;
};

// An hour of it, or half of one: routes come and go all the time, and none that stays waits longer than one
// and a half intervals.
TEST_F(RefreshTest, NoRouteIsStarvedByOthersThatComeAndGo) {
  constexpr Seconds interval = 60;
  Seconds const duration = thorough() ? 3600 : 1800;
  constexpr U32 standing = 2500;  // more than a slice
  for (unsigned seed = 1; seed <= (thorough() ? 2u : 1u); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::map<RouteKey, Seconds> latest;  // of the routes that stay
    std::set<RouteKey> refreshed;
    for (U32 i = 0; i < standing; ++i) {
      add(route(i));
      latest[route(i)] = time;
    }
    Seconds longest = 0, first = 0;
    sent = [&](OutgoingPacket const& packet) {
      for (Wire::GroupSet const& group : packet.message.groups())
        for (Wire::Source const& join : group.joins())
          if (auto const found = latest.find(RouteKey(join.address, group.group())); found != latest.end()) {
            Seconds& wait = refreshed.insert(found->first).second ? first : longest;
            wait = std::max(wait, time - found->second);
            found->second = time;
          }
    };
    std::vector<U32> passing;
    Seconds const end = time + duration;
    while (time < end) {
      for (int change = 0; change < 20; ++change) {
        if (random() % 2 == 0 || passing.empty()) {
          U32 const number = standing + random() % 3000;
          if (std::find(passing.begin(), passing.end(), number) != passing.end()) continue;
          passing.push_back(number);
          add(route(number));
        } else {
          std::swap(passing[random() % passing.size()], passing.back());
          remove(route(passing.back()));
          passing.pop_back();
        }
      }
      runUntil(time + 0.5);
    }
    for (auto const& [key, at] : latest) longest = std::max(longest, time - at);
    EXPECT_LE(longest, 1.5 * interval);
    // Routes that come all at once wait an interval for the first slice, and the last slice comes within
    // another.
    EXPECT_LE(first, 2 * interval);
    EXPECT_EQ(refreshed.size(), standing);
    EXPECT_GT(longest, 0.5 * interval);  // the test looks at what it means to look at
    EXPECT_EQ(machine->joinPruneNeighborSm(neighbor)->numPeriodicRoutes(), standing + passing.size());
    for (U32 const number : passing) remove(route(number));
    for (U32 i = 0; i < standing; ++i) remove(route(i));
    EXPECT_EQ(machine->joinPruneNeighborSm(neighbor)->numPeriodicRoutes(), 0u);
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
