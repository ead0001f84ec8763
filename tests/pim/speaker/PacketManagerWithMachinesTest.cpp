// SPDX-License-Identifier: Apache-2.0
// A packet manager together with the machines.
#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

/// A machine and its world, with a packet manager that sends. The neighbor is 10.0.0.2 on eth0.
struct SendingWorld : World {
  SendingWorld() {
    eth0 = intf("eth0", "10.0.0.1/24");
    neighbor("10.0.0.2", eth0);
    sending->start();
  }
  ~SendingWorld() { machine = nullptr; }

  void startMachine() {
    machine =
        joinPruneMessageSmFactory(status, filter, pim, rpHash, rxJoin, rxPrune, channel, sending, wheel);
  }
  Data data(bool override) {
    return override ? status->overrideGroupIs(addr("10.0.0.2")) : status->triggeredGroupIs(addr("10.0.0.2"));
  }
  static void fill(Data const& data, U32 groups) {
    for (U32 n = 1; n <= groups; ++n) {
      auto const group = data->joinPruneGroupDataIs(behind("239.1.1.0", n));
      group->wcSourceDataIs(wildcardOf(IpGenAddr("10.255.0.1")));
      group->prunedRptSourceIs(IpGenAddr("10.9.0.1"));
      group->joinedSourceIs(IpGenAddr("10.9.0.2"));
      group->joinedSourceIs(IpGenAddr("10.9.0.3"));
      group->prunedSourceIs(IpGenAddr("10.9.0.4"));
    }
  }

  Vel::Ptr<Intf> eth0;
  CapturedPackets captured;
  std::function<void(OutgoingPacket const&)> onSend;
  ForwardedPackets sink{[this](OutgoingPacket const& packet) {
    captured.send(packet);
    if (auto const call = onSend) call(packet);
  }};
  Suppression suppression = [](auto const&...) { return false; };
  Vel::Ptr<PacketManager> sending =
      Vel::create<PacketManager>(sink, pim, filter, [this](auto const&... of) { return suppression(of...); });
};

TEST(PacketManagerWithMachinesTest, EmptiesTheTriggeredAndTheOverrideDataAndLetsTheTimersRest) {
  SendingWorld world;
  world.startMachine();
  for (bool const override : {false, true}) {
    world.captured.take();
    auto const data = world.data(override);
    SendingWorld::fill(data, 3);
    auto const pending = entriesOf(data);
    world.runUntil(world.time + 3);
    EXPECT_THAT(world.captured.packets(), SizeIs(1));
    EXPECT_EQ(entriesOf(world.captured.packets()), pending);
    EXPECT_EQ(world.captured.packets()[0].message.holdTime(), 210);
    EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
    auto const sm = world.sm("10.0.0.2");
    EXPECT_EQ(sm->triggeredGroupDataCount() + sm->overrideGroupDataCount(), 0u);
    EXPECT_FALSE(sm->triggeredTimer()->armed());
    EXPECT_FALSE(sm->overrideTimer()->armed());
  }
}

TEST(PacketManagerWithMachinesTest, DoesNotSpinOverWhatIsFilteredSuppressedOrUnencodable) {
  SendingWorld world;
  world.startMachine();
  world.filter->denied = {"239.1.1.1"};
  world.suppression = [](auto const&, auto const&, RouteKey const& route, EntryKind) {
    return route.group() == addr("239.1.1.2");
  };
  auto const data = world.data(false);
  SendingWorld::fill(data, 4);
  Pim::group(data, "10.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
  auto const record = world.sending->txMessageInfo();
  world.runUntil(world.time + 0.15);
  EXPECT_THAT(entriesOf(world.captured.packets()), SizeIs(10));
  EXPECT_EQ(entriesOf(data), Lines{"join (S,G) 10.9.0.1 10.1.1.1"});
  EXPECT_LE(record->count(), 3u);
  // What cannot be encoded is tried again at the timer's pace, and no faster.
  U32 const before = record->count();
  world.runUntil(world.time + 10);
  EXPECT_LE(record->count() - before, 101u);
  EXPECT_THAT(world.captured.packets(), SizeIs(1));
}

TEST(PacketManagerWithMachinesTest, TriesAgainAfterTheSinkHasThrown) {
  SendingWorld world;
  world.startMachine();
  auto const data = world.data(false);
  SendingWorld::fill(data, 3);
  int failures = 3;
  world.onSend = [&](auto const&) {
    if (failures-- > 0) throw std::runtime_error("no buffer space");
  };
  world.runUntil(world.time + 0.35);
  EXPECT_THAT(world.captured.packets(), SizeIs(3));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 3u);
  world.runUntil(world.time + 0.1);
  EXPECT_THAT(world.captured.packets(), SizeIs(4));
  EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
}

TEST(PacketManagerWithMachinesTest, RefreshesEachPeriodicRouteOnceAnInterval) {
  SendingWorld world;
  world.startMachine();
  auto const data = world.periodic("10.0.0.2");
  for (U32 n = 0; n < 500; ++n)
    data->joinPruneGroupDataIs(behind("239.1.0.0", n))->joinedSourceIs(addr("10.9.0.1"));
  auto const routes = entriesOf(data);
  world.runUntil(world.time + 59);
  world.captured.take();
  for (int interval = 0; interval < 3; ++interval) {
    world.runUntil(world.time + 60);
    EXPECT_EQ(entriesOf(world.captured.take()), routes);
  }
}

/// Calls once when the first entry is taken out of a group.
class RemovalReactor final : public Packet::JoinPruneGroupData::NotifieeConst {
 public:
  RemovalReactor(Group const& group, std::function<void()> call) : call_(std::move(call)) {
    notifierIs(group);
  }
  void onJoinedSource(IpGenAddr) override { fire(); }
  void onPrunedSource(IpGenAddr) override { fire(); }
  void onPrunedRptSource(IpGenAddr) override { fire(); }
  void onWcSourceData() override { fire(); }

 private:
  void fire() {
    if (auto const call = std::exchange(call_, nullptr)) call();
  }
  std::function<void()> call_;
};

struct Disaster {
  char const* name;
  std::function<void(SendingWorld&)> strike;
};

std::vector<Disaster> const disasters = {
    {"the neighbor is removed", [](SendingWorld& w) { w.pim->pimNeighborDel(addr("10.0.0.2")); }},
    {"the interface is removed", [](SendingWorld& w) { w.pim->pimIntfDel(Dova::IntfId("eth0")); }},
    {"the interface changes its address",
     [](SendingWorld& w) { w.eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.7.1/24")); }},
    {"the machine is dropped", [](SendingWorld& w) { w.machine = nullptr; }},
    {"the data sets go",
     [](SendingWorld& w) {
       w.status->triggeredGroupDelAll();
       w.status->overrideGroupDelAll();
     }},
    {"the data is emptied",
     [](SendingWorld& w) {
       for (bool const override : {false, true}) {
         for (auto i = w.data(override)->joinPruneGroupDataIterator(); i; ++i) {
           Group const group = i.ptr();
           group->wcSourceDataDel();
           group->joinedSourceDelAll();
           group->prunedSourceDelAll();
           group->prunedRptSourceDelAll();
         }
       }
     }},
    {"the groups are removed",
     [](SendingWorld& w) {
       for (bool const override : {false, true}) w.data(override)->joinPruneGroupDataDelAll();
     }},
    {"the manager is dropped",
     [](SendingWorld& w) {
       w.sending->txMessageInfoDel();
       w.sending = nullptr;
       w.machine = nullptr;
     }},
    {"everything is dropped",
     [](SendingWorld& w) {
       w.pim->pimNeighborDelAll();
       w.pim->pimIntfDelAll();
       w.status->triggeredGroupDelAll();
       w.status->overrideGroupDelAll();
       w.sending = nullptr;
       w.machine = nullptr;
       w.status = nullptr;
       w.pim = nullptr;
     }},
};

enum class Moment { filter, suppression, sink, removal };

TEST(PacketManagerWithMachinesTest, SurvivesWhateverACallbackTakesDown) {
  for (auto const& disaster : disasters) {
    for (Moment const moment : {Moment::filter, Moment::suppression, Moment::sink, Moment::removal}) {
      for (bool const override : {false, true}) {
        // With the data filled first, the test's reactors are called before the machine's.
        for (bool const filledFirst : {false, true}) {
          for (bool const held : {false, true}) {
            SCOPED_TRACE(std::string(disaster.name) + ", moment " + std::to_string(static_cast<int>(moment)) +
                         (override ? ", override" : ", triggered") + (filledFirst ? ", filled first" : "") +
                         (held ? ", data held" : ""));
            SendingWorld world;
            if (!filledFirst) world.startMachine();
            int strikes = 0;
            auto const strike = [&] {
              if (strikes++ == 0) disaster.strike(world);
            };
            std::vector<Vel::Ptr<RemovalReactor>> reactors;
            auto data = world.data(override);
            SendingWorld::fill(data, 3);
            if (moment == Moment::removal)
              for (auto i = data->joinPruneGroupDataIterator(); i; ++i)
                reactors.push_back(Vel::create<RemovalReactor>(i.ptr(), strike));
            if (filledFirst) world.startMachine();
            if (moment == Moment::filter) world.filter->hook = strike;
            if (moment == Moment::sink) world.onSend = [&](auto const&) { strike(); };
            if (moment == Moment::suppression)
              world.suppression = [&](auto const&...) { return strike(), false; };
            auto const pending = entriesOf(data);
            if (!held) data = nullptr;

            world.runUntil(world.time + 3);

            EXPECT_GE(strikes, 1);
            auto const sent = entriesOf(world.captured.packets());
            EXPECT_TRUE(std::includes(pending.begin(), pending.end(), sent.begin(), sent.end()));
            if (moment == Moment::sink || moment == Moment::removal) {
              EXPECT_EQ(sent, pending);
              EXPECT_THAT(held ? entriesOf(data) : Lines(), IsEmpty());
            }
            reactors.clear();
            if (testing::Test::HasFailure()) return;
          }
        }
      }
    }
  }
}

TEST(PacketManagerWithMachinesTest, SurvivesWhateverTheSinkTakesDownDuringARefresh) {
  for (auto const& disaster : disasters) {
    SCOPED_TRACE(disaster.name);
    SendingWorld world;
    world.startMachine();
    auto const data = world.periodic("10.0.0.2");
    SendingWorld::fill(data, 200);
    auto const routes = entriesOf(data);
    int strikes = 0;
    world.onSend = [&](auto const&) {
      if (strikes++ == 0) disaster.strike(world);
    };
    world.runUntil(world.time + 61);
    EXPECT_GE(strikes, 1);
    EXPECT_THAT(world.captured.packets(), SizeIs(strikes));
    EXPECT_EQ(entriesOf(data), routes);
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
