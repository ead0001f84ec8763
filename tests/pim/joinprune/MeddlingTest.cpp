// SPDX-License-Identifier: Apache-2.0
// The same story again and again: each time, somebody who is called on the way changes the world. However it
// ends, the machine, the status and what is listed agree.
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

struct Meddling {
  char const* name;
  std::function<void(World&)> act;
};

void PrintTo(Meddling const& meddling, std::ostream* os) { *os << meddling.name; }

class MeddlingTest : public testing::TestWithParam<Meddling> {
 protected:
  /// Counts the calls to the outside, and meddles at one of them.
  struct Calls {
    void operator()() {
      if (++count == at && act) std::exchange(act, nullptr)();
    }
    int at = 0, count = 0;
    std::function<void()> act;
  };
  class MachineWatcher final : public JoinPruneMessageSm::NotifieeConst {
   public:
    explicit MachineWatcher(Calls& calls) : calls_(calls) {}
    void onJoinPruneNeighborSm(Dova::IpGenAddr) override { calls_(); }
    void onPimIntf(Dova::IntfId) override { calls_(); }
    void onInitialized() override { calls_(); }

   private:
    Calls& calls_;
  };
  class StatusWatcher final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit StatusWatcher(Calls& calls) : calls_(calls) {}
    void onTriggeredGroup(Dova::IpGenAddr) override { calls_(); }
    void onOverrideGroup(Dova::IpGenAddr) override { calls_(); }

   private:
    Calls& calls_;
  };
  class PeriodicWatcher final : public Packet::JoinPruneStatus::NotifieeConst {
   public:
    explicit PeriodicWatcher(Calls& calls) : calls_(calls) {}
    void onUpJoinPrune(Dova::IpGenAddr) override { calls_(); }

   private:
    Calls& calls_;
  };

  /// Tells the story, in which the n-th call meddles. How many calls there were.
  int story(int at) {
    World w;
    Calls calls;
    calls.at = at;
    calls.act = [&] { GetParam().act(w); };
    auto const statusWatcher = Vel::create<StatusWatcher>(calls);
    statusWatcher->notifierIs(w.status);
    auto const periodicWatcher = Vel::create<PeriodicWatcher>(calls);
    periodicWatcher->notifierIs(w.periodicStatus());
    auto const machineWatcher = Vel::create<MachineWatcher>(calls);
    machineWatcher->isNondestructingIs(true);
    log.hook = [&](Vel::TraceLine const&) { calls(); };
    w.rpHash->hook = [&] { calls(); };
    w.filter->hook = [&] { calls(); };
    Lines writes;
    auto const joins = Vel::create<RecordLog>("join", writes),
               prunes = Vel::create<RecordLog>("prune", writes);
    joins->notifierIs(w.rxJoin);
    prunes->notifierIs(w.rxPrune);
    joins->hook = prunes->hook = [&] { calls(); };

    auto const message = Vel::create<Packet::JoinPruneMessage>();
    auto const received = Vel::create<Packet::JoinPruneData>(addr("10.0.0.1"));
    message->joinPruneDataIs(received);
    for (auto const* const g : {"239.1.1.1", "239.1.1.2"}) {
      auto const entries = group(received, g);
      entries->joinedSourceIs(addr("10.9.0.1"));
      entries->prunedSourceIs(addr("10.9.0.2"));
      entries->wcSourceDataIs(wildcard("10.5.0.1"));
      entries->joinedRptSourceIs(addr("10.9.0.3"));
      entries->prunedRptSourceIs(addr("10.9.0.4"));
    }
    w.channel->joinPruneMessageIs(message);

    auto const eth0 = w.intf("eth0", "10.0.0.1/24");
    w.neighbor("10.0.0.2", eth0);
    w.periodicStatus()->upJoinPruneIs(addr("10.0.0.6"));  // left over
    w.periodicStatus()->upJoinPruneIs(addr("10.0.0.7"));
    w.start();
    machineWatcher->notifierIs(w.machine);
    w.neighbor("10.0.0.3", eth0);
    auto const eth1 = w.intf("eth1", "10.1.0.1/24");
    w.neighbor("10.1.0.2", eth1);
    eth1->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.1.0.8/24"));
    w.channel->countInc(1);
    w.pim->pimNeighborNotify(addr("10.0.0.2"));
    w.pim->pimIntfNotifyImmediate();
    w.pim->pimNeighborDel(addr("10.0.0.3"));
    w.pim->pimIntfDel(Dova::IntfId("eth1"));
    w.pim->pimNeighborDel(addr("10.1.0.2"));
    agree(w);
    log.hook = {};
    return calls.count;
  }

  /// What there is is what is listed.
  void agree(World& w) {
    std::map<std::string, Vel::Ptr<Intf>> interfaces;
    for (auto i = w.pim->pimIntfIterator(); i; ++i)
      interfaces[text(i->usedAddressWithMask().ipGenAddr())] = w.pim->pimIntf(i.key());
    if (!w.machine) {
      EXPECT_EQ(w.wheel->armedCount(), 0u);
      for (auto const& [address, intf] : interfaces) EXPECT_EQ(w.sets(address), "-") << address;
      return;
    }
    EXPECT_TRUE(w.machine->initialized());
    EXPECT_EQ(w.machine->pimIntfCount(), interfaces.size());
    U32 targets = 0;
    for (auto const* const address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.6", "10.0.0.7", "10.0.0.9",
                                      "10.1.0.1", "10.1.0.2", "10.1.0.8"}) {
      auto const listed = w.pim->pimNeighbor(addr(address));
      auto const own = interfaces.contains(address) ? interfaces[address] : nullptr;
      auto const sm = w.sm(address);
      ASSERT_EQ(sm != nullptr, listed || own) << address;
      EXPECT_EQ(w.sets(address), sm ? "top" : "-") << address;
      if (!sm) continue;
      ++targets;
      EXPECT_TRUE(sm->initialized());
      EXPECT_EQ(sm->neighbor() != nullptr, listed != nullptr) << address;
      EXPECT_TRUE(sm->intf() == (own ? own : listed->intf()).get()) << address;
      EXPECT_EQ(sm->parentSm(), w.machine.get());
      EXPECT_TRUE(sm->triggeredGroup()->notifier() == w.triggered(address)) << address;
      EXPECT_TRUE(sm->overrideGroup()->notifier() == w.override_(address)) << address;
      EXPECT_TRUE(sm->periodicGroup()->notifier() == w.periodic(address)) << address;
      if (own) {
        EXPECT_EQ(w.machine->pimIntf(own->intfId())->address(), addr(address));
      }
    }
    EXPECT_EQ(w.machine->joinPruneNeighborSmCount(), targets);
  }

  TraceLog log;
};

TEST_P(MeddlingTest, LeavesMachineStatusAndListsInAgreementWhereverItHappens) {
  int const calls = story(0);
  EXPECT_GT(calls, 100);
  for (int at = 1; at <= calls && !HasFailure(); ++at) {
    SCOPED_TRACE(at);
    story(at);
  }
}

Vel::Ptr<Intf> listed(World& w, char const* name) { return w.pim->pimIntf(Dova::IntfId(name)); }

INSTANTIATE_TEST_SUITE_P(
    Of, MeddlingTest,
    testing::Values(Meddling{"Dropping", [](World& w) { w.machine = nullptr; }},
                    Meddling{"Restarting",
                             [](World& w) {
                               if (!std::exchange(w.machine, nullptr)) return;
                               w.start();
                             }},
                    Meddling{"ANeighborGoing", [](World& w) { w.pim->pimNeighborDel(addr("10.0.0.2")); }},
                    Meddling{"ANeighborComing",
                             [](World& w) {
                               if (auto const eth0 = listed(w, "eth0")) w.neighbor("10.0.0.3", eth0);
                             }},
                    Meddling{"ANeighborChanging",
                             [](World& w) {
                               auto const eth0 = listed(w, "eth0");
                               w.pim->pimNeighborDel(addr("10.0.0.2"));
                               if (eth0) w.neighbor("10.0.0.2", eth0);
                             }},
                    Meddling{"AnInterfaceGoing", [](World& w) { w.pim->pimIntfDel(Dova::IntfId("eth0")); }},
                    Meddling{"AnotherInterfaceGoing",
                             [](World& w) { w.pim->pimIntfDel(Dova::IntfId("eth1")); }},
                    Meddling{"AnInterfaceChanging",
                             [](World& w) {
                               w.pim->pimIntfDel(Dova::IntfId("eth0"));
                               w.intf("eth0", "10.0.0.1/24");
                             }},
                    Meddling{"AnInterfaceReplaced", [](World& w) { w.intf("eth0", "10.0.0.1/24"); }},
                    Meddling{"AnAddressChanging",
                             [](World& w) {
                               if (auto const eth0 = listed(w, "eth0"))
                                 eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
                             }},
                    Meddling{"EverythingAnnounced",
                             [](World& w) {
                               w.pim->pimIntfNotifyImmediate();
                               for (auto const* n : {"10.0.0.2", "10.0.0.3", "10.0.0.6", "10.1.0.2"})
                                 w.pim->pimNeighborNotify(addr(n));
                             }}),
    [](auto const& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace Routing::Pim
