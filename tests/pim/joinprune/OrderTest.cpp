// SPDX-License-Identifier: Apache-2.0
// What the top machine does, in one record: its trace lines, the data sets and machines that come and go, and
// the attributes that change, in the order in which others hear of them.
#include <regex>

#include "pim/joinprune/private/RecordAccess.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OrderTest : public testing::Test, protected World {
 protected:
  class MachineLog final : public JoinPruneMessageSm::NotifieeConst {
   public:
    explicit MachineLog(Lines& story) : story_(story) {}
    void onTxMessage() override { story_.push_back("message"); }
    void onDiagUpJoinCount() override { story_.push_back("diagnostic switch"); }
    void onJoinPruneNeighborSm(Dova::IpGenAddr a) override {
      story_.push_back("machine of " + text(a) + (notifier()->joinPruneNeighborSm(a) ? "" : " gone"));
    }
    void onPimIntf(Dova::IntfId i) override {
      story_.push_back("reactor of " + i.name() + (notifier()->pimIntf(i) ? "" : " gone"));
    }
    void onInitialized() override { story_.push_back("initialized " + text(notifier()->initialized())); }

   private:
    Lines& story_;
  };
  class StatusLog final : public JoinPruneStatus::NotifieeConst {
   public:
    explicit StatusLog(Lines& story) : story_(story) {}
    void onTriggeredGroup(Dova::IpGenAddr a) override {
      story_.push_back("triggered set of " + text(a) + (notifier()->triggeredGroup(a) ? "" : " gone"));
    }
    void onOverrideGroup(Dova::IpGenAddr a) override {
      story_.push_back("override set of " + text(a) + (notifier()->overrideGroup(a) ? "" : " gone"));
    }

   private:
    Lines& story_;
  };
  class PeriodicLog final : public Packet::JoinPruneStatus::NotifieeConst {
   public:
    explicit PeriodicLog(Lines& story) : story_(story) {}
    void onUpJoinPrune(Dova::IpGenAddr a) override {
      story_.push_back("periodic set of " + text(a) + (notifier()->upJoinPrune(a) ? "" : " gone"));
    }

   private:
    Lines& story_;
  };

  OrderTest() {
    statusLog->notifierIs(status);
    periodicLog->notifierIs(periodicStatus());
    trace.hook = [this](Vel::TraceLine const& line) {
      story.push_back("[" + std::to_string(line.level) + "] " +
                      std::regex_replace(line.text, std::regex("@?0x[0-9a-f]+"), "@"));
    };
  }
  ~OrderTest() override { trace.hook = {}; }
  void watch() {
    machineLog->isNondestructingIs(true);
    machineLog->notifierIs(machine);
  }
  Lines told() { return std::exchange(story, {}); }
  /// Without the lines of the neighbor machines and of their periodic timers.
  Lines toldAtTheTop() {
    Lines all = told();
    std::erase_if(all, [](std::string const& line) {
      return line.find("JoinPruneNeighborSm(") != line.npos || line.find("] @") != line.npos;
    });
    return all;
  }

  TraceLog trace;
  Lines story;
  Vel::Ptr<MachineLog> machineLog = Vel::create<MachineLog>(story);
  Vel::Ptr<StatusLog> statusLog = Vel::create<StatusLog>(story);
  Vel::Ptr<PeriodicLog> periodicLog = Vel::create<PeriodicLog>(story);
};

TEST_F(OrderTest, ANeighborsSetsAreMadeBeforeItsMachineAndRemovedAfterIt) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  start();
  watch();
  (void)told();
  neighbor("10.0.0.2", eth0);
  std::string const form = "JoinPruneNeighborSm(eth0::10.0.0.2)::@::";
  EXPECT_THAT(
      told(),
      ElementsAre("[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                  "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor up",
                  "triggered set of 10.0.0.2", "override set of 10.0.0.2", "periodic set of 10.0.0.2",
                  "[7] " + form + "doUpdateTriggeredTimer(): Disarming timer",
                  "[7] " + form + "doUpdateOverrideTimer(): Disarming timer",
                  "[2] " + form + "handleInitialized(), total number of periodic joins and prunes is 0",
                  "machine of 10.0.0.2"));
  pim->pimNeighborDel(addr("10.0.0.2"));
  EXPECT_THAT(told(),
              ElementsAre("[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                          "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor down",
                          "[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2)",
                          "[2] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.2), deleting neighbor",
                          "machine of 10.0.0.2 gone", "triggered set of 10.0.0.2 gone",
                          "override set of 10.0.0.2 gone", "periodic set of 10.0.0.2 gone"));
}

TEST_F(OrderTest, AnInterfacesSetsAndMachineComeBeforeItsReactorIsToldOfAndGoBeforeItIsToldGone) {
  start();
  watch();
  (void)told();
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  EXPECT_THAT(toldAtTheTop(),
              ElementsAre("[8] handleNew(eth0)", "[2] handleNew(eth0), Intf up", "triggered set of 10.0.0.1",
                          "override set of 10.0.0.1", "periodic set of 10.0.0.1", "machine of 10.0.0.1",
                          "reactor of eth0"));
  eth0->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.0.0.9/24"));
  EXPECT_THAT(toldAtTheTop(),
              ElementsAre("[2] handleUsedAddress(eth0), Address changed",
                          "[4] handleUsedAddress(eth0), Previous address: 10.0.0.1, New address: 10.0.0.9",
                          "[2] handleDel(eth0), Intf down", "machine of 10.0.0.1 gone",
                          "triggered set of 10.0.0.1 gone", "override set of 10.0.0.1 gone",
                          "periodic set of 10.0.0.1 gone", "[8] handleNew(eth0)",
                          "[2] handleNew(eth0), Intf up", "triggered set of 10.0.0.9",
                          "override set of 10.0.0.9", "periodic set of 10.0.0.9", "machine of 10.0.0.9"));
  pim->pimIntfDel(Dova::IntfId("eth0"));
  EXPECT_THAT(toldAtTheTop(), ElementsAre("[2] handleDel(eth0), Intf down", "machine of 10.0.0.9 gone",
                                          "triggered set of 10.0.0.9 gone", "override set of 10.0.0.9 gone",
                                          "periodic set of 10.0.0.9 gone", "reactor of eth0 gone"));
}

TEST_F(OrderTest, AnotherObjectForAnInterfaceIsToldOfOnceItsMachineHasBeenRebuilt) {
  intf("eth0", "10.0.0.1/24");
  start();
  watch();
  (void)told();
  intf("eth0", "10.0.0.1/24");
  EXPECT_THAT(toldAtTheTop(), ElementsAre("[2] handleDel(eth0), Intf down", "machine of 10.0.0.1 gone",
                                          "triggered set of 10.0.0.1 gone", "override set of 10.0.0.1 gone",
                                          "periodic set of 10.0.0.1 gone", "[8] handleNew(eth0)",
                                          "[2] handleNew(eth0), Intf up", "triggered set of 10.0.0.1",
                                          "override set of 10.0.0.1", "periodic set of 10.0.0.1",
                                          "machine of 10.0.0.1", "reactor of eth0"));
  pim->pimIntfNotify(Dova::IntfId("eth0"));
  EXPECT_THAT(toldAtTheTop(), IsEmpty());
}

TEST_F(OrderTest, InterfacesComeBeforeNeighborsAndWhatIsLeftOfOldOnesGoesLast) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  periodicStatus()->upJoinPruneIs(addr("10.0.0.7"));
  (void)told();
  start();
  EXPECT_THAT(
      toldAtTheTop(),
      ElementsAre("[8] handleNew(eth0)", "[2] handleNew(eth0), Intf up", "triggered set of 10.0.0.1",
                  "override set of 10.0.0.1", "periodic set of 10.0.0.1",
                  "[8] JoinPruneMessageSm::handleInitialized()", "[2] JoinPruneMessageSm::handleNeighbor()",
                  "[8] JoinPruneMessageSm::handleNeighbor(10.0.0.2)",
                  "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.2), Neighbor up",
                  "triggered set of 10.0.0.2", "override set of 10.0.0.2", "periodic set of 10.0.0.2",
                  "[2] JoinPruneMessageSm::handleInitialized(), Deleting any pending joins and prunes "
                  "for deleted neighbor 10.0.0.7",
                  "[8] JoinPruneMessageSm::handleNeighbor(10.0.0.7)",
                  "[2] JoinPruneMessageSm::handleNeighbor(10.0.0.7), Neighbor down",
                  "[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.7)",
                  "[2] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.7), deleting neighbor",
                  "periodic set of 10.0.0.7 gone"));
}

TEST_F(OrderTest, AMachineIsInitializedOnceEverythingHasBeenTakenUp) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  periodicStatus()->upJoinPruneIs(addr("10.0.0.7"));
  (void)told();
  std::vector<bool> initialized;
  auto const tell = trace.hook;
  trace.hook = [&](Vel::TraceLine const& line) {
    tell(line);
    void const* const latest = EngineAccess<JoinPruneStatus>::machine(*status);
    if (auto const* const made = static_cast<JoinPruneMessageSm const*>(latest))
      initialized.push_back(made->initialized());
  };
  start();
  trace.hook = tell;
  EXPECT_GT(initialized.size(), 8u);
  EXPECT_EQ(std::count(initialized.begin(), initialized.end(), true), 0);
  EXPECT_TRUE(machine->initialized());
  EXPECT_EQ(told().back(), "periodic set of 10.0.0.7 gone");
}

TEST_F(OrderTest, AMessageThatIsMadeAnewIsAnotherOne) {
  start();
  watch();
  (void)told();
  auto const first = machine->txMessage();
  EXPECT_FALSE(machine->newTxMessage() == first);
  EXPECT_THAT(told(), ElementsAre("message"));
}

TEST_F(OrderTest, APeriodicSetIsMadeToSeeWhetherANeighborThatIsNotListedHasAnythingToSend) {
  start();
  watch();
  (void)told();
  machine->doMaybeDeleteNeighbor(addr("10.0.0.7"));
  EXPECT_THAT(
      told(),
      ElementsAre("[8] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.7)", "periodic set of 10.0.0.7",
                  "[2] JoinPruneMessageSm::doMaybeDeleteNeighbor(10.0.0.7), deleting neighbor",
                  "periodic set of 10.0.0.7 gone"));
}

TEST_F(OrderTest, AMachineThatEndsIsDeafFirstWithItsNeighborMachinesAndThenItsInterfacesAreRemoved) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  watch();
  auto const listener = machine->pimStatus();
  auto const receiver = machine->rxMessageInfo();
  auto const sender = machine->pimPamManager();
  auto const clock = machine->timerWheel();
  auto const held = sm("10.0.0.2");
  auto const reactor = machine->pimIntf(Dova::IntfId("eth0"));
  (void)told();
  Lines zombies;
  auto const tell = trace.hook;
  trace.hook = [&](Vel::TraceLine const& line) {
    tell(line);
    for (auto const& [name, zombie] :
         {std::pair("status", listener->isZombie()), std::pair("channel", receiver->isZombie()),
          std::pair("interface", reactor->isZombie()), std::pair("manager", sender->isZombie()),
          std::pair("wheel", clock->isZombie()), std::pair("neighbor", held->parentSm() == nullptr)})
      if (zombie) zombies.push_back(name);
    EXPECT_FALSE(listener->joinPruneMessageSm());
    EXPECT_TRUE(sender->joinPruneMessageSm());
  };
  machine = nullptr;
  EXPECT_THAT(zombies, ElementsAre("status", "channel", "interface", "neighbor"));
  EXPECT_THAT(told(), ElementsAre("[2] handleDel(eth0), Intf down", "machine of 10.0.0.1 gone",
                                  "triggered set of 10.0.0.1 gone", "override set of 10.0.0.1 gone",
                                  "periodic set of 10.0.0.1 gone", "reactor of eth0 gone",
                                  "machine of 10.0.0.2 gone"));
  for (bool const let : {listener->joinPruneMessageSm() == nullptr, receiver->joinPruneMessageSm() == nullptr,
                         reactor->joinPruneMessageSm() == nullptr, sender->joinPruneMessageSm() == nullptr,
                         clock->joinPruneMessageSm() == nullptr, held->parentSm() == nullptr})
    EXPECT_TRUE(let);
  EXPECT_TRUE(sender->isZombie());
  EXPECT_TRUE(clock->isZombie());
}

TEST_F(OrderTest, ReactorsOfTheMachineAreZombiesBeforeThoseOfItsInterfaces) {
  intf("eth0", "10.0.0.1/24");
  start();
  std::vector<bool> others;
  trace.hook = [&](Vel::TraceLine const&) {
    for (bool const zombie : {machine->pimStatus()->isZombie(), machine->rxMessageInfo()->isZombie(),
                              machine->pimPamManager()->isZombie(), machine->timerWheel()->isZombie()})
      others.push_back(zombie);
  };
  machine->velDoZombieReactors(true);
  EXPECT_THAT(others, ElementsAre(true, true, true, true));
}

TEST_F(OrderTest, WithoutAStatusAnyMoreTheInterfacesGoAndTheNeighborsStay) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  watch();
  (void)told();
  machine->pimStatus()->notifierIs(nullptr);
  EXPECT_THAT(told(), ElementsAre("[2] handleDel(eth0), Intf down", "machine of 10.0.0.1 gone",
                                  "triggered set of 10.0.0.1 gone", "override set of 10.0.0.1 gone",
                                  "periodic set of 10.0.0.1 gone", "reactor of eth0 gone"));
  EXPECT_EQ(sets("10.0.0.2"), "top");
  EXPECT_TRUE(sm("10.0.0.2"));
  machine->handleNeighbor();
  EXPECT_THAT(told(), ElementsAre("[2] JoinPruneMessageSm::handleNeighbor()"));
}

TEST_F(OrderTest, AnotherStatusAddsItsInterfacesBeforeThoseThatItLacksGo) {
  auto const eth0 = intf("eth0", "10.0.0.1/24");
  auto const kept = intf("eth1", "10.1.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  watch();
  auto const other = Vel::create<Status>();
  auto const eth2 = Vel::create<Intf>(Dova::IntfId("eth2"));
  eth2->usedAddressWithMaskIs(*Dova::IpGenPrefix::fromText("10.2.0.1/24"));
  other->pimIntfIs(kept);
  other->pimIntfIs(eth2);
  other->pimNeighborIs(addr("10.2.0.2"), eth2);
  (void)told();
  machine->pimStatus()->notifierIs(other);
  EXPECT_THAT(toldAtTheTop(),
              ElementsAre("[8] handleNew(eth2)", "[2] handleNew(eth2), Intf up", "triggered set of 10.2.0.1",
                          "override set of 10.2.0.1", "periodic set of 10.2.0.1", "machine of 10.2.0.1",
                          "reactor of eth2", "[2] handleDel(eth0), Intf down", "machine of 10.0.0.1 gone",
                          "triggered set of 10.0.0.1 gone", "override set of 10.0.0.1 gone",
                          "periodic set of 10.0.0.1 gone", "reactor of eth0 gone"));
  machine->pimStatus()->notifierIs(other);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_TRUE(sm("10.0.0.2"));
  EXPECT_FALSE(sm("10.2.0.2"));
}

// All that a neighbor machine is made with.
struct Parameters {
  JoinPruneMessageSm* parent;
  Vel::Ptr<Neighbor const> neighbor;
  Vel::Ptr<Intf const> intf;
  Vel::Ptr<Packet::JoinPruneData> triggered, override, periodic;
  Vel::Ptr<Zanth::TimerWheel> wheel;
  double overrideInterval;
  Vel::Ptr<IO::PamManager> manager;
  Vel::Ptr<Packet::JoinPruneMessage> message;
};

TEST_F(OrderTest, AMachineThatIsThereWithOtherParametersIsRefusedForTheFirstThatDiffers) {
  auto const eth0 = intf("eth0", "10.0.0.1/24"), eth1 = intf("eth1", "10.1.0.1/24");
  neighbor("10.0.0.2", eth0);
  start();
  auto const present = sm("10.0.0.2");
  Parameters const same{machine.get(),
                        present->neighbor(),
                        eth0,
                        triggered("10.0.0.2"),
                        override_("10.0.0.2"),
                        periodic("10.0.0.2"),
                        wheel,
                        2.5,
                        manager,
                        machine->txMessage()};
  auto const differentIn = [&](std::size_t at, Parameters& p) {
    auto const data = [] { return Vel::create<Packet::JoinPruneData>(addr("10.0.0.2")); };
    switch (at) {
      case 0:
        p.parent = nullptr;
        break;
      case 1:
        p.neighbor = Vel::create<Neighbor>(addr("10.0.0.2"), eth0);
        break;
      case 2:
        p.intf = eth1;
        break;
      case 3:
        p.triggered = data();
        break;
      case 4:
        p.override = data();
        break;
      case 5:
        p.periodic = data();
        break;
      case 6:
        p.wheel = Vel::create<Zanth::TimerWheel>([] { return 0.0; });
        break;
      case 7:
        p.overrideInterval = 7;
        break;
      case 8:
        p.manager = Vel::create<PacketManager>();
        break;
      default:
        p.message = Vel::create<Packet::JoinPruneMessage>();
    }
  };
  auto const said = [&](Parameters const& p) -> std::string {
    try {
      auto const found = machine->joinPruneNeighborSmIs(p.parent, addr("10.0.0.2"), p.neighbor, p.intf,
                                                        p.triggered, p.override, p.periodic, p.wheel,
                                                        p.overrideInterval, p.manager, p.message);
      return found == present ? "found" : "made";
    } catch (Vel::RangeException const& error) {
      return error.what();
    }
  };
  EXPECT_EQ(said(same), "found");
  char const* const names[] = {"_parentSm",      "_neighbor",      "_intf",       "_triggeredGroup",
                               "_overrideGroup", "_periodicGroup", "_timerWheel", "_overrideInterval",
                               "_pimPamManager", "_txMessage"};
  std::string const current[] = {text(static_cast<void const*>(same.parent)),
                                 text(same.neighbor),
                                 text(same.intf),
                                 text(same.triggered),
                                 text(same.override),
                                 text(same.periodic),
                                 text(same.wheel),
                                 text(same.overrideInterval),
                                 text(same.manager),
                                 text(same.message)};
  for (std::size_t at = 0; at < std::size(names); ++at) {
    SCOPED_TRACE(names[at]);
    std::string const begin =
        std::string("Reinstantiating the pointer interface where constructor parameter attribute ") +
        names[at] + " has a different value of ";
    Parameters alone = same, andAllBehind = same;
    differentIn(at, alone);
    for (std::size_t behind = at; behind < std::size(names); ++behind) differentIn(behind, andAllBehind);
    EXPECT_EQ(said(alone).substr(0, begin.size()), begin);
    EXPECT_EQ(said(andAllBehind).substr(0, begin.size()), begin);
    EXPECT_TRUE(said(alone).ends_with(" than the current value of " + current[at])) << said(alone);
  }
  EXPECT_EQ(said(same), "found");
  Parameters other = same;
  other.wheel = Vel::create<Zanth::TimerWheel>([] { return 0.0; });
  EXPECT_EQ(said(other),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_timerWheel has a different value of " +
                text(other.wheel) + " than the current value of " + text(same.wheel));
}

}  // namespace
}  // namespace Routing::Pim
