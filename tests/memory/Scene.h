// SPDX-License-Identifier: Apache-2.0
// A router in full traffic, for tests that break into it: two interfaces, two neighbors, something to be sent
// in every way, a message to be received, timers armed, all traces formatted.
#pragma once

#include "tests/memory/CountedHeap.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {

/// What is made when it is first needed and stays: here, so that no test takes it for a leak.
inline bool const handlesAreMade = (Vel::frameTrace(), TraceLog::handle(), true);

/// While it exists, every trace line is formatted and thrown away, so that all that a line names must be
/// alive.
class AllTraces {
 public:
  AllTraces() {
    Vel::traceSinkIs([](Vel::TraceLine const&) {});
    for (U32 level = 1; level <= 8; ++level) TraceLog::handle().levelIs(level, true);
  }
  AllTraces(AllTraces const&) = delete;
  ~AllTraces() {
    Vel::traceSinkIs({});
    TraceLog::handle().levelsDel();
  }
};

/// Any of its members may be null when a test looks: every step asks before it acts.
struct Scene : World {
  using GroupData = Packet::JoinPruneGroupData;
  using Data = Packet::JoinPruneData;
  static constexpr char neighborText[] = "10.0.0.2", groupText[] = "239.1.1.1";

  Scene() {
    wheel = Vel::create<Zanth::TimerWheel>([this] {
      if (auto const act = onClock) act();
      return time;
    });
    // Made before the machine, so that a test can be there before the machine's own reactors.
    for (char const* const target : {"10.0.0.1", neighborText}) {
      for (auto const& data : {status->triggeredGroupIs(addr(target)), status->overrideGroupIs(addr(target)),
                               status->periodicGroupStatus()->upJoinPruneIs(addr(target))})
        fill(*data);
    }
    eth0 = intf("eth0", "10.0.0.1/24");
    eth1 = intf("eth1", "10.0.1.1/24");
    neighbor(neighborText, eth0);
    neighbor("10.0.1.2", eth1);
    status->rxPruneIs(pruneKey(), joinPruneMessageInfoFactory());
    auto const received = Vel::create<Packet::JoinPruneMessage>();
    received->joinPruneDataIs(Vel::create<Data>(addr("10.0.0.1")));
    received->joinPruneData()->holdTimeIs(210);
    fill(*received->joinPruneData());
    channel->joinPruneMessageIs(received);
    manager->txMessageInfoIs();
  }
  Scene(Scene const&) = delete;
  ~Scene() { end(); }

  static RouteIntfKey pruneKey() { return {addr("10.9.0.1"), addr(groupText), Dova::IntfId("eth0")}; }

  static void fill(Data& data) {
    for (char const* const g : {groupText, "239.1.1.2"}) {
      auto const made = data.joinPruneGroupDataIs(addr(g));
      made->joinedSourceIs(addr("10.9.0.1"));
      made->joinedSourceIs(addr("10.9.0.2"));
      made->prunedSourceIs(addr("10.9.0.3"));
      made->joinedRptSourceIs(addr("10.9.0.4"));
      made->prunedRptSourceIs(addr("10.9.0.5"));
      made->wcSourceDataIs(wildcard("10.5.0.1"));
    }
  }

  /// Takes every source out of a data set, one by one, and the groups if nothing else does.
  static void drain(Data& data) {
    Vel::Ptr<Data> const keep(&data);
    for (auto i = data.joinPruneGroupDataIterator(); i; ++i) {
      drain(*i);
      if (data.joinPruneGroupData(i.key()) == i.ptr()) data.joinPruneGroupDataDel(i.key());
    }
  }
  static void drain(GroupData& group) {
    Vel::Ptr<GroupData> const keep(&group);
    // Again if a callback has put something back meanwhile: a filled group must not be removed.
    for (int round = 0; round < 4 && !group.empty(); ++round) {
      Packet::forEachEntry(group, [&](EntryKind kind, Dova::IpGenAddr const& source) {
        Packet::removeEntry(group, kind, source);
      });
    }
  }

  using World::triggered;
  Vel::Ptr<Data> triggered() { return status ? World::triggered(neighborText) : nullptr; }
  Vel::Ptr<Data> override_() { return status ? World::override_(neighborText) : nullptr; }
  Vel::Ptr<Data> periodic() {
    auto const all = status ? status->periodicGroupStatus() : nullptr;
    return all ? all->upJoinPrune(addr(neighborText)) : nullptr;
  }
  Vel::Ptr<JoinPruneNeighborSm> sm() {
    return machine ? machine->joinPruneNeighborSm(addr(neighborText)) : nullptr;
  }

  /// Lets time pass; a clock that throws only loses a turn.
  void pass(Seconds seconds) {
    Seconds const end = time + seconds;
    for (int turn = 0; wheel && wheel->timeMin() <= end && turn < 2000; ++turn) {
      time = std::max(time, wheel->timeMin());
      expire();
    }
    time = end;
    expire();
  }
  void expire() {
    Vel::Ptr<Zanth::TimerWheel> const turning = wheel;
    try {
      if (turning) turning->expire();
    } catch (...) {
    }
  }

  void receive() {
    if (Vel::Ptr<IO::MessageInfo> const in = channel) in->countInc(1);
  }

  /// What a router sees in two minutes: changes of what is to be sent, timers, messages, addresses, neighbors
  /// that come and go.
  void traffic();
  /// The same by an agent that continues when something cannot be done.
  void trafficWhateverHappens();
  template <class Act>
  static void whateverHappens(Act const& act) {
    try {
      act();
    } catch (std::exception const&) {
    }
  }

  /// True if the machine is there and hangs on everything that this scene has.
  bool whole() {
    return machine && pim && manager && wheel && status && status->periodicGroupStatus() &&
           manager->serving() && machine->joinPruneStatus() == status && hangsOn(machine->pimStatus(), pim) &&
           hangsOn(machine->pimPamManager(), manager) && hangsOn(machine->timerWheel(), wheel);
  }

  /// Replaces what was removed.
  void mend() {
    if (whole()) return;
    machine = nullptr;
    if (!wheel) wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
    if (!status) status = joinPruneStatusFactory();
    periodicStatus();
    pim = Vel::create<Status>();
    if (manager) manager->stop();
    manager = Vel::create<PacketManager>();
    start();
  }

  /// Whether a join to a new neighbor on a new interface is sent.
  bool sendsAFreshJoin() {
    auto const eth9 = intf("eth9", "10.8.0.1/24");
    neighbor("10.8.0.2", eth9);
    auto const data = World::triggered("10.8.0.2");
    if (!data) return false;
    group(data, "239.9.9.9")->joinedSourceIs(addr("10.9.9.9"));
    pass(1);
    auto const& sent = manager->sent;
    bool const found = std::find(sent.begin(), sent.end(),
                                 "eth9 to 10.8.0.2: (10.9.9.9,239.9.9.9) join, hold 210") != sent.end();
    return found && data->joinPruneGroupDataCount() == 0;
  }

  /// Says what is wrong with the machines' books; empty if nothing is.
  std::string audit() {
    if (!machine) return "";
    for (auto i = machine->joinPruneNeighborSmIterator(); i; ++i) {
      U32 routes = 0;
      if (auto const data = i->periodicGroup() ? i->periodicGroup()->notifier() : nullptr) {
        for (auto g = data->joinPruneGroupDataIterator(); g; ++g) routes += g->routes();
        if (i->periodicGroupDataCount() != data->joinPruneGroupDataCount())
          return text(i.key()) + " follows " + text(i->periodicGroupDataCount()) + " of " +
                 text(data->joinPruneGroupDataCount()) + " periodic groups";
      }
      if (routes != i->numPeriodicRoutes())
        return text(i.key()) + " counts " + text(i->numPeriodicRoutes()) + " of " + text(routes) + " routes";
      if (auto const data = i->triggeredGroup() ? i->triggeredGroup()->notifier() : nullptr)
        if (i->triggeredGroupDataCount() != data->joinPruneGroupDataCount())
          return text(i.key()) + " follows " + text(i->triggeredGroupDataCount()) + " of " +
                 text(data->joinPruneGroupDataCount()) + " triggered groups";
      if (auto const data = i->overrideGroup() ? i->overrideGroup()->notifier() : nullptr)
        if (i->overrideGroupDataCount() != data->joinPruneGroupDataCount())
          return text(i.key()) + " follows " + text(i->overrideGroupDataCount()) + " of " +
                 text(data->joinPruneGroupDataCount()) + " override groups";
    }
    return "";
  }

  /// Drops everything that there is.
  void end() {
    if (manager) manager->stop();
    machine = nullptr;
    wheel = nullptr;
    status = nullptr;
    pim = nullptr;
    eth0 = eth1 = nullptr;
    channel = nullptr;
    manager = nullptr;
    rxJoin = rxPrune = nullptr;
    filter = nullptr;
    rpHash = nullptr;
    others.clear();
  }

  Vel::Ptr<Intf> eth0, eth1;
  std::vector<Vel::Ptr<Vel::Reactor>> others;  // of the agent
  std::function<void()> onClock;               // in every reading of the clock

 private:
  template <class Reactor, class Entity>
  static bool hangsOn(Reactor const& reactor, Vel::Ptr<Entity> const& entity) {
    return reactor && reactor->notifier() == entity.get() && reactor->isRegisteredNotifiee() &&
           !reactor->isZombie();
  }
};

inline constexpr void (*trafficSteps[])(Scene&) = {
    [](Scene& s) {
      if (auto const data = s.triggered()) Scene::fill(*data);
    },
    [](Scene& s) {
      if (auto const data = s.override_()) Scene::fill(*data);
    },
    [](Scene& s) {
      if (auto const data = s.periodic()) Scene::fill(*data);
    },
    [](Scene& s) { s.receive(); },
    [](Scene& s) { s.pass(0.2); },
    [](Scene& s) {
      if (s.eth0) s.eth0->joinPruneHoldTimeIs(99);
    },
    [](Scene& s) {
      if (auto const data = s.triggered()) group(data, "239.1.1.3")->prunedSourceIs(addr("10.9.0.9"));
    },
    [](Scene& s) {
      if (auto const data = s.periodic()) group(data, "239.1.1.3")->prunedSourceIs(addr("10.9.0.9"));
    },
    [](Scene& s) { s.pass(61); },
    [](Scene& s) {
      if (s.pim && s.eth0) s.pim->pimNeighborIs(addr("10.0.0.3"), s.eth0);
    },
    [](Scene& s) {
      if (s.pim) s.pim->pimNeighborDel(addr("10.0.0.3"));
    },
    [](Scene& s) {
      if (s.eth0) s.eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.9"), 24));
    },
    [](Scene& s) {
      if (auto const data = s.periodic()) Scene::drain(*data);
    },
    [](Scene& s) {
      if (s.pim) s.pim->pimNeighborDel(addr(Scene::neighborText));
    },
    [](Scene& s) {
      if (s.pim) s.pim->pimIntfDel(Dova::IntfId("eth1"));
    },
    [](Scene& s) { s.pass(61); },
};

inline void Scene::traffic() {
  for (auto const step : trafficSteps) step(*this);
}
inline void Scene::trafficWhateverHappens() {
  for (auto const step : trafficSteps) whateverHappens([&] { step(*this); });
}

}  // namespace Routing::Pim
