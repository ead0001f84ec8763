// SPDX-License-Identifier: Apache-2.0
// Every callback that an outsider can put in meets every misdeed, in a router in full traffic. The callbacks
// are a table, the misdeeds are a table, the test is their product; a scan of the headers says whether the
// first is complete.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "tests/Thorough.h"
#include "tests/memory/Scene.h"

namespace Routing::Pim {
namespace {

using testing::ContainerEq;

// --- Who listens ---------------------------------------------------------------------------------

/// How often each of the three watchers ("before", "evil", "after") heard each callback, and what the evil
/// one does.
struct Hearing {
  std::map<std::string, std::map<std::string, int>> calls;
  std::function<void(std::string const& callback)> evil;

  void hear(std::string const& who, std::string const& callback) {
    ++calls[who][callback];
    if (who == "evil" && evil) {
      auto const act = evil;
      act(callback);
    }
  }
};

/// A reactor that overrides everything and passes it on to a Hearing.
template <class T>
class EarBase : public T::NotifieeConst {
 public:
  EarBase(std::string who, Hearing& hearing) : who_(std::move(who)), hearing_(hearing) {}
  void onZeroReferences() override { heard("onZeroReferences"); }
  void onNotificationException(Vel::AttributeId) override { ++hearing_.calls[who_]["exception"]; }
  void onNotificationException() override { ++hearing_.calls[who_]["exception"]; }

 protected:
  void heard(char const* callback) { hearing_.hear(who_, callback); }

 private:
  std::string const who_;
  Hearing& hearing_;
};

template <class T>
class Ear final : public EarBase<T> {
 public:
  using EarBase<T>::EarBase;
};

#define HEAR(callback) \
  void callback() override { heard(#callback); }
#define HEAR_KEY(callback, Key) \
  void callback(Key) override { heard(#callback "(key)"); }
#define HEAR_COLLECTION(callback, Key) HEAR_KEY(callback, Key) HEAR(callback##velImmediate) HEAR(callback)
#define EAR(T, ...)                        \
  template <>                              \
  class Ear<T> final : public EarBase<T> { \
   public:                                 \
    using EarBase<T>::EarBase;             \
    __VA_ARGS__                            \
  };

using Dova::IntfId;
using Dova::IpGenAddr;

EAR(Intf, HEAR(onUsedAddressWithMask) HEAR(onJoinPruneHoldTime) HEAR(onJoinPruneInterval)
              HEAR(onUsedOverrideIntervalInSeconds))
EAR(Status, HEAR_COLLECTION(onPimIntf, IntfId) HEAR_COLLECTION(onPimNeighbor, IpGenAddr))
EAR(IO::MessageInfo, HEAR(onJoinPruneMessage) HEAR(onIntfId) HEAR(onCount))
EAR(IO::PamManager, HEAR(onTxMessageInfo))
EAR(Packet::JoinPruneData, HEAR(onHoldTime) HEAR(onPeriodic) HEAR_COLLECTION(onJoinPruneGroupData, IpGenAddr))
EAR(Packet::JoinPruneGroupData,
    HEAR_COLLECTION(onJoinedSource, IpGenAddr) HEAR_COLLECTION(onPrunedSource, IpGenAddr)
        HEAR_COLLECTION(onJoinedRptSource, IpGenAddr) HEAR_COLLECTION(onPrunedRptSource, IpGenAddr)
            HEAR(onWcSourceData))
EAR(Packet::JoinPruneMessage, HEAR(onJoinPruneData) HEAR(onReport))
EAR(Packet::JoinPruneStatus, HEAR_COLLECTION(onUpJoinPrune, IpGenAddr))
EAR(JoinPruneMessageInfo, HEAR(onRiKey) HEAR(onUpstreamNeighbor) HEAR(onSourceFlags) HEAR(onHoldTime)
                              HEAR(onWcSource) HEAR(onRxCount))
EAR(JoinPruneStatus, HEAR_COLLECTION(onTriggeredGroup, IpGenAddr) HEAR_COLLECTION(onOverrideGroup, IpGenAddr)
                         HEAR(onPeriodicGroupStatus) HEAR_COLLECTION(onRxPrune, RouteIntfKey))
EAR(PeriodicTimerSm, HEAR(onPeriodicParams))
EAR(JoinPrunePeriodicTimerSm, HEAR(onInterval) HEAR(onHoldTime) HEAR(onNumberOfMessages) HEAR(onInitialized))
EAR(JoinPruneMessageSm,
    HEAR(onTxMessage) HEAR(onDiagUpJoinCount) HEAR_COLLECTION(onJoinPruneNeighborSm, IpGenAddr)
        HEAR_COLLECTION(onPimIntf, IntfId) HEAR(onInitialized))
EAR(Zanth::TimerExpiry, HEAR(onTimer))
EAR(JoinPruneNeighborSm,
    HEAR(onTriggeredTimer) HEAR(onOverrideTimer) HEAR(onLoopQuantum) HEAR(onTriggeredInterval)
        HEAR(onJoinPrunePeriodicTimerSm) HEAR_COLLECTION(onTriggeredGroupData, IpGenAddr)
            HEAR_COLLECTION(onOverrideGroupData, IpGenAddr) HEAR(onNumPeriodicRoutes)
                HEAR_COLLECTION(onPeriodicGroupData, IpGenAddr) HEAR(onInitialized))

// --- What can be changed from inside -------------------------------------------------------------

enum class Change { add, removeCurrent, removeOthers, clear };

// A collection in the four ways: `current` is what most callbacks are about, `add` puts something in.
template <class Iterator, class Add, class Del>
void change(Change how, Iterator i, typename std::decay_t<decltype(i.key())> const& current, Add const& add,
            Del const& del) {
  if (how == Change::add) {
    add();
    return;
  }
  for (; i; ++i) {
    auto const key = i.key();
    if (how == Change::clear || (key == current) == (how == Change::removeCurrent)) del(key);
  }
}

IpGenAddr newAddress() {
  static U32 n = 0;
  return IpGenAddr::ipv4(0x0a630000 + ++n % 0xffff);
}

// Of an entity without collections, everything changes as soon as one thing does.
void change(Change, Intf& e, Scene&) {
  e.usedAddressWithMaskIs(Dova::IpGenPrefix(newAddress(), 24));
  e.joinPruneHoldTimeIs(static_cast<U16>(e.joinPruneHoldTime() + 1));
  e.joinPruneIntervalIs(e.joinPruneInterval() + 1);
}
void change(Change how, Status& e, Scene& s) {
  change(
      how, e.pimNeighborIterator(), addr(Scene::neighborText),
      [&] {
        if (s.eth0) e.pimNeighborIs(newAddress(), s.eth0);
      },
      [&](IpGenAddr const& key) { e.pimNeighborDel(key); });
  change(
      how, e.pimIntfIterator(), IntfId("eth0"), [&] { e.pimIntfIs(IntfId("added")); },
      [&](IntfId const& key) { e.pimIntfDel(key); });
}
void change(Change, IO::MessageInfo& e, Scene&) {
  e.joinPruneMessageIs(Vel::create<Packet::JoinPruneMessage>());
  e.intfIdIs(IntfId("other"));
  e.countInc(1);
}
void change(Change how, IO::PamManager& e, Scene&) {
  if (how != Change::add) e.txMessageInfoDel();
  if (how != Change::clear) e.txMessageInfoIs(Vel::create<IO::MessageInfo>());
}
void change(Change how, Packet::JoinPruneGroupData& e, Scene&) {
  auto const current = addr("10.9.0.1");
  change(
      how, e.joinedSourceIterator(), current, [&] { e.joinedSourceIs(newAddress()); },
      [&](IpGenAddr const& key) { e.joinedSourceDel(key); });
  change(
      how, e.prunedSourceIterator(), current, [&] { e.prunedSourceIs(newAddress()); },
      [&](IpGenAddr const& key) { e.prunedSourceDel(key); });
  change(
      how, e.joinedRptSourceIterator(), current, [&] { e.joinedRptSourceIs(newAddress()); },
      [&](IpGenAddr const& key) { e.joinedRptSourceDel(key); });
  change(
      how, e.prunedRptSourceIterator(), current, [&] { e.prunedRptSourceIs(newAddress()); },
      [&](IpGenAddr const& key) { e.prunedRptSourceDel(key); });
  if (how == Change::clear)
    e.wcSourceDataDel();
  else
    e.wcSourceDataIs(wildcard("10.5.0.9"));
}
void change(Change how, Packet::JoinPruneData& e, Scene&) {
  // A filled group is never removed: that is the caller's side of the contract.
  change(
      how, e.joinPruneGroupDataIterator(), addr(Scene::groupText),
      [&] { e.joinPruneGroupDataIs(newAddress())->joinedSourceIs(newAddress()); },
      [&](IpGenAddr const& key) {
        if (auto const g = e.joinPruneGroupData(key)) Scene::drain(*g);
        if (e.joinPruneGroupData(key)) e.joinPruneGroupDataDel(key);
      });
  e.holdTimeIs(static_cast<U16>(e.holdTime() + 1));
}
void change(Change, Packet::JoinPruneMessage& e, Scene&) {
  e.joinPruneDataIs(Vel::create<Packet::JoinPruneData>(newAddress()));
  e.reportIs({7, 7, 7});
}
void change(Change how, Packet::JoinPruneStatus& e, Scene&) {
  change(
      how, e.upJoinPruneIterator(), addr(Scene::neighborText), [&] { e.upJoinPruneIs(newAddress()); },
      [&](IpGenAddr const& key) { e.upJoinPruneDel(key); });
}
void change(Change, JoinPruneMessageInfo& e, Scene&) {
  e.rxCountInc(1);
  e.riKeyIs({newAddress(), newAddress(), IntfId()});
  e.holdTimeIs(e.holdTime() + 1);
}
void change(Change how, JoinPruneStatus& e, Scene&) {
  auto const current = addr(Scene::neighborText);
  change(
      how, e.triggeredGroupIterator(), current, [&] { e.triggeredGroupIs(newAddress()); },
      [&](IpGenAddr const& key) { e.triggeredGroupDel(key); });
  change(
      how, e.overrideGroupIterator(), current, [&] { e.overrideGroupIs(newAddress()); },
      [&](IpGenAddr const& key) { e.overrideGroupDel(key); });
  change(
      how, e.rxPruneIterator(), Scene::pruneKey(),
      [&] {
        e.rxPruneIs({newAddress(), newAddress(), IntfId()}, joinPruneMessageInfoFactory());
      },
      [&](RouteIntfKey const& key) { e.rxPruneDel(key); });
  if (how == Change::clear) e.periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
}
void change(Change, PeriodicTimerSm& e, Scene&) { e.periodicParamsIs({17, 17}); }
void change(Change how, JoinPrunePeriodicTimerSm& e, Scene& s) {
  e.intervalIs(17);
  if (how == Change::clear) e.periodicTimerDel();
  if (how == Change::removeCurrent && s.wheel) e.newPeriodicTimer(s.wheel);
}
void change(Change how, JoinPruneNeighborSm& e, Scene& s) {
  auto const current = addr(Scene::groupText);
  if (how == Change::add) {
    for (auto const& data : {s.triggered(), s.override_(), s.periodic()})
      if (data) data->joinPruneGroupDataIs(newAddress())->joinedSourceIs(newAddress());
  } else {
    change(
        how, e.triggeredGroupDataIterator(), current, [] {},
        [&](IpGenAddr const& key) { e.triggeredGroupDataDel(key); });
    change(
        how, e.overrideGroupDataIterator(), current, [] {},
        [&](IpGenAddr const& key) { e.overrideGroupDataDel(key); });
    if (auto const data = s.periodic())
      change(how, *data, s);  // its reactors count, so they stay with their groups
    e.joinPrunePeriodicTimerSmDel();
    // The groups are still there, so they are followed again.
    for (auto const& data : {s.triggered(), s.override_()})
      if (data) data->joinPruneGroupDataNotifyImmediate();
  }
}
void change(Change how, JoinPruneMessageSm& e, Scene& s) {
  if (how == Change::add) {
    if (s.pim) change(how, *s.pim, s);
    return;
  }
  change(
      how, e.joinPruneNeighborSmIterator(), addr(Scene::neighborText), [] {},
      [&](IpGenAddr const& key) { e.joinPruneNeighborSmDel(key); });
  change(
      how, e.pimIntfIterator(), IntfId("eth0"), [] {}, [&](IntfId const& key) { e.pimIntfDel(key); });
}
// Nothing to change in these.
void change(Change, Neighbor&, Scene&) {}
void change(Change, Packet::WcSourceData&, Scene&) {}
void change(Change, JoinPruneFilter&, Scene&) {}
void change(Change, RpHashComputeStatus&, Scene&) {}
void change(Change, Zanth::TimerWheel&, Scene&) {}
void change(Change, Zanth::TimerExpiry&, Scene&) {}

// --- The table of callbacks ----------------------------------------------------------------------

/// A place where an outsider's code is called.
struct Callback {
  std::string name;      // in the test's name: the entity in the scene and the callback
  std::string declared;  // as the scan of the headers has it: "JoinPruneData.onHoldTime"
  std::string callback;  // what the ear hears
  /// Puts three watchers in, the middle one evil; none for a place that has room for only one.
  std::function<std::vector<Vel::Ptr<Vel::Reactor>>(Scene&, Hearing&)> install;
  /// Makes the callback happen.
  std::function<void(Scene&)> trigger;
  std::function<Vel::Entity*(Scene&)> entity;
  std::function<void(Change, Scene&)> change;
  std::function<void(Scene&)> drop;  // lets the entity go, as far as the scene holds it
  bool late = false;                 // there is nothing to watch before the machine has started
};

void PrintTo(Callback const& row, std::ostream* os) { *os << row.name; }

template <class T>
struct Subject {
  std::string name, type;
  std::function<Vel::Ptr<T>(Scene&)> find;
  std::function<void(Scene&)> drop;
  std::vector<std::pair<std::string, std::function<void(Scene&, T&)>>> triggers;
  bool late = false;
};

void dropEverything(Scene& s) { s.end(); }

template <class T>
void addRows(std::vector<Callback>& rows, Subject<T> const& subject) {
  Callback row;
  row.entity = [find = subject.find](Scene& s) { return static_cast<Vel::Entity*>(find(s).get()); };
  row.install = [find = subject.find](Scene& s, Hearing& hearing) {
    std::vector<Vel::Ptr<Vel::Reactor>> ears;
    for (char const* const who : {"before", "evil", "after"}) {
      auto const ear = Vel::create<Ear<T>>(who, hearing);
      ear->isNondestructingIs(true);  // so that the entity can go
      ear->notifierIs(Vel::Ptr<T const>(find(s)));
      ears.push_back(Vel::Ptr<Vel::Reactor>(ear));
    }
    return ears;
  };
  row.change = [find = subject.find](Change how, Scene& s) {
    if (Vel::Ptr<T> const e = find(s)) change(how, *e, s);
  };
  row.drop = subject.drop;
  row.late = subject.late;
  for (auto const& [callback, trigger] : subject.triggers) {
    row.callback = callback;
    row.declared = subject.type + "." + callback;
    row.name = subject.name + "_" + callback;
    // Without a reference of its own: the entity may go while it is changed.
    row.trigger = [find = subject.find, act = trigger](Scene& s) {
      T* const raw = find(s).get();
      act(s, *raw);
    };
    rows.push_back(row);
  }
  row.callback = "onZeroReferences";
  row.declared = subject.type + ".onZeroReferences";
  row.name = subject.name + "_onZeroReferences";
  row.trigger = dropEverything;
  rows.push_back(row);
}

// The three callbacks of a collection.
template <class T>
void addCollection(Subject<T>& subject, std::string const& callback, std::function<void(Scene&, T&)> add,
                   std::function<void(Scene&, T&)> del, std::function<void(Scene&, T&)> notify) {
  subject.triggers.push_back({callback + "(key)", add});
  subject.triggers.push_back({callback, del});
  subject.triggers.push_back({callback + "velImmediate", notify});
}

#define MEMBER(member) [](Scene& s) { return s.member; }
#define DO(T, act) [](Scene& s, T& e) { (void)s, (void)e, act; }

Subject<IO::MessageInfo> messageInfo(std::string const& name) {
  return {name,
          "MessageInfo",
          {},
          {},
          {{"onJoinPruneMessage",
            DO(IO::MessageInfo, e.joinPruneMessageIs(Vel::create<Packet::JoinPruneMessage>()))},
           {"onIntfId", DO(IO::MessageInfo, e.intfIdIs(IntfId("eth7")))}}};
}

Subject<Packet::JoinPruneData> dataSet(std::string const& name,
                                       Vel::Ptr<Packet::JoinPruneData> (Scene::*find)(),
                                       std::function<void(Scene&)> drop) {
  using D = Packet::JoinPruneData;
  bool const refreshed = name == "Periodic";
  Subject<D> subject{name + "Data",
                     "JoinPruneData",
                     [find](Scene& s) { return (s.*find)(); },
                     drop,
                     {{"onHoldTime", DO(D, e.holdTimeIs(77))},
                      {"onPeriodic", [refreshed](Scene&, D& e) {
                         Vel::Ptr<D> const keep(&e);
                         e.periodicIs(!refreshed);
                         e.periodicIs(refreshed);  // since what is not periodic must drain
                       }}}};
  addCollection<D>(subject, "onJoinPruneGroupData", DO(D, e.joinPruneGroupDataIs(addr("239.2.2.2"))),
                   DO(D, Scene::drain(e)), DO(D, e.joinPruneGroupDataNotifyImmediate()));
  return subject;
}

Subject<Packet::JoinPruneGroupData> groupOf(std::string const& name,
                                            Vel::Ptr<Packet::JoinPruneData> (Scene::*find)()) {
  using G = Packet::JoinPruneGroupData;
  Subject<G> subject{name + "Group",
                     "JoinPruneGroupData",
                     [find](Scene& s) {
                       auto const data = (s.*find)();
                       return data ? data->joinPruneGroupData(addr(Scene::groupText)) : nullptr;
                     },
                     [find](Scene& s) {
                       auto const data = (s.*find)();
                       auto const g = data ? data->joinPruneGroupData(addr(Scene::groupText)) : nullptr;
                       if (g) Scene::drain(*g);
                       if (data) data->joinPruneGroupDataDel(addr(Scene::groupText));
                     },
                     {{"onWcSourceData", DO(G, e.wcSourceDataIs(wildcard("10.5.0.7")))}}};
  addCollection<G>(subject, "onJoinedSource", DO(G, e.joinedSourceIs(addr("10.9.8.8"))),
                   DO(G, Scene::drain(e)), DO(G, e.joinedSourceNotifyImmediate()));
  addCollection<G>(subject, "onPrunedSource", DO(G, e.prunedSourceIs(addr("10.9.8.8"))),
                   DO(G, Scene::drain(e)), DO(G, e.prunedSourceNotifyImmediate()));
  addCollection<G>(subject, "onJoinedRptSource", DO(G, e.joinedRptSourceIs(addr("10.9.8.8"))),
                   DO(G, Scene::drain(e)), DO(G, e.joinedRptSourceNotifyImmediate()));
  addCollection<G>(subject, "onPrunedRptSource", DO(G, e.prunedRptSourceIs(addr("10.9.8.8"))),
                   DO(G, Scene::drain(e)), DO(G, e.prunedRptSourceNotifyImmediate()));
  return subject;
}

// A place with room for one: the agent's own subclass, clock or timer.
Callback single(std::string const& name, std::string const& declared,
                std::function<void(Scene&, Hearing&)> install, std::function<void(Scene&)> trigger,
                std::function<void(Scene&)> drop, bool late = false) {
  Callback row;
  row.name = name;
  row.declared = declared;
  row.callback = name;
  row.install = [install](Scene& s, Hearing& h) {
    install(s, h);
    return std::vector<Vel::Ptr<Vel::Reactor>>{};
  };
  row.trigger = trigger;
  row.entity = [](Scene&) { return nullptr; };
  row.change = [](Change how, Scene& s) {
    for (auto const& data : {s.triggered(), s.periodic()})
      if (data) change(how, *data, s);
    if (s.channel && s.channel->joinPruneMessage() && s.channel->joinPruneMessage()->joinPruneData())
      change(how, *s.channel->joinPruneMessage()->joinPruneData(), s);
  };
  row.drop = drop;
  row.late = late;
  return row;
}

class AgentTimer final : public Zanth::TimerWheel::Notifiee {
 public:
  explicit AgentTimer(Hearing& h) : hearing(h) {}
  void onTime() override { hearing.hear("evil", "Timer"); }
  void onNotificationException() override {}
  Hearing& hearing;
};

std::vector<Callback> const& callbacks() {
  static std::vector<Callback> const all = [] {
    std::vector<Callback> rows;
    addRows<Intf>(rows,
                  {"Intf",
                   "Intf",
                   MEMBER(eth0),
                   [](Scene& s) {
                     s.eth0 = nullptr;
                     if (s.pim) s.pim->pimNeighborDel(addr(Scene::neighborText));
                     if (s.pim) s.pim->pimIntfDel(IntfId("eth0"));
                   },
                   {{"onUsedAddressWithMask",
                     DO(Intf, e.usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.0.7"), 24)))},
                    {"onJoinPruneHoldTime", DO(Intf, e.joinPruneHoldTimeIs(33))},
                    {"onJoinPruneInterval", DO(Intf, e.joinPruneIntervalIs(33))},
                    {"onUsedOverrideIntervalInSeconds", DO(Intf, e.usedOverrideIntervalInSecondsIs(3.3))}}});
    addRows<Neighbor>(
        rows, {"Neighbor",
               "Neighbor",
               [](Scene& s) { return s.pim ? s.pim->pimNeighbor(addr(Scene::neighborText)) : nullptr; },
               [](Scene& s) {
                 if (s.pim) s.pim->pimNeighborDel(addr(Scene::neighborText));
               },
               {}});
    Subject<Status> status{"Status",
                           "Status",
                           MEMBER(pim),
                           [](Scene& s) {
                             s.pim = nullptr;
                             if (s.machine && s.machine->pimStatus())
                               s.machine->pimStatus()->notifierIs(nullptr);
                           },
                           {}};
    addCollection<Status>(status, "onPimIntf", DO(Status, e.pimIntfIs(IntfId("eth5"))),
                          DO(Status, e.pimIntfDel(IntfId("eth0"))), DO(Status, e.pimIntfNotifyImmediate()));
    addCollection<Status>(status, "onPimNeighbor", DO(Status, e.pimNeighborIs(addr("10.0.0.5"), s.eth0)),
                          DO(Status, e.pimNeighborDel(addr(Scene::neighborText))),
                          DO(Status, e.pimNeighborNotifyImmediate()));
    addRows(rows, status);

    auto received = messageInfo("Received");
    received.find = MEMBER(channel);
    received.drop = [](Scene& s) {
      s.channel = nullptr;
      if (s.machine && s.machine->rxMessageInfo()) s.machine->rxMessageInfo()->notifierIs(nullptr);
    };
    received.triggers.push_back({"onCount", DO(IO::MessageInfo, e.countInc(1))});
    addRows(rows, received);
    auto sent = messageInfo("Sent");
    sent.find = [](Scene& s) { return s.manager ? s.manager->txMessageInfo() : nullptr; };
    sent.drop = [](Scene& s) {
      if (!s.manager) return;
      s.manager->txMessageInfoDel();
      s.manager->stop();
    };
    sent.triggers.push_back({"onCount", DO(IO::MessageInfo, s.pass(0.2))});
    addRows(rows, sent);
    addRows<IO::PamManager>(
        rows, {"PamManager",
               "PamManager",
               [](Scene& s) { return Vel::Ptr<IO::PamManager>(s.manager); },
               [](Scene& s) {
                 s.manager = nullptr;
                 if (s.machine && s.machine->pimPamManager()) s.machine->pimPamManager()->notifierIs(nullptr);
                 if (auto const sm = s.sm()) sm->pimPamManager()->notifierIs(nullptr);
               },
               {{"onTxMessageInfo", DO(IO::PamManager, e.txMessageInfoIs(Vel::create<IO::MessageInfo>()))}}});

    addRows(rows, dataSet("Triggered", &Scene::triggered, [](Scene& s) {
              if (s.status) s.status->triggeredGroupDel(addr(Scene::neighborText));
            }));
    addRows(rows, dataSet("Override", &Scene::override_, [](Scene& s) {
              if (s.status) s.status->overrideGroupDel(addr(Scene::neighborText));
            }));
    addRows(rows, dataSet("Periodic", &Scene::periodic, [](Scene& s) {
              if (s.status && s.status->periodicGroupStatus())
                s.status->periodicGroupStatus()->upJoinPruneDel(addr(Scene::neighborText));
            }));
    addRows(rows, groupOf("Triggered", &Scene::triggered));
    addRows(rows, groupOf("Override", &Scene::override_));
    addRows(rows, groupOf("Periodic", &Scene::periodic));
    addRows<Packet::WcSourceData>(
        rows, {"Wildcard",
               "WcSourceData",
               [](Scene& s) {
                 auto const data = s.periodic();
                 auto const g = data ? data->joinPruneGroupData(addr(Scene::groupText)) : nullptr;
                 return g ? g->wcSourceData() : nullptr;
               },
               [](Scene& s) {
                 auto const data = s.periodic();
                 auto const g = data ? data->joinPruneGroupData(addr(Scene::groupText)) : nullptr;
                 if (g) g->wcSourceDataDel();
               },
               {}});
    using M = Packet::JoinPruneMessage;
    addRows<M>(rows, {"ReceivedMessage",
                      "JoinPruneMessage",
                      [](Scene& s) { return s.channel ? s.channel->joinPruneMessage() : nullptr; },
                      [](Scene& s) {
                        if (s.channel) s.channel->joinPruneMessageIs(nullptr);
                      },
                      {{"onJoinPruneData", DO(M, e.joinPruneDataIs(nullptr))},
                       {"onReport", DO(M, e.reportIs({1, 1, 1}))}}});
    addRows<M>(rows, {"SentMessage",
                      "JoinPruneMessage",
                      [](Scene& s) { return s.machine ? s.machine->txMessage() : nullptr; },
                      [](Scene& s) {
                        if (s.machine) s.machine->newTxMessage();
                      },
                      {{"onJoinPruneData", DO(M, s.pass(0.2))}, {"onReport", DO(M, s.pass(0.2))}},
                      true});
    using P = Packet::JoinPruneStatus;
    Subject<P> periodic{"PeriodicStatus",
                        "Packet::JoinPruneStatus",
                        [](Scene& s) { return s.status ? s.status->periodicGroupStatus() : nullptr; },
                        [](Scene& s) {
                          if (s.status) s.status->periodicGroupStatusIs(nullptr);
                        },
                        {}};
    addCollection<P>(periodic, "onUpJoinPrune", DO(P, e.upJoinPruneIs(addr("10.0.0.5"))),
                     DO(P, e.upJoinPruneDel(addr(Scene::neighborText))),
                     DO(P, e.upJoinPruneNotifyImmediate()));
    addRows(rows, periodic);

    using R = JoinPruneMessageInfo;
    auto const record = [&rows](std::string const& name, Vel::Ptr<R> Scene::*member) {
      addRows<R>(rows,
                 {name,
                  "JoinPruneMessageInfo",
                  [member](Scene& s) { return s.*member; },
                  [member](Scene& s) {
                    s.*member = nullptr;
                    s.machine = nullptr;  // which holds the record for good
                  },
                  {{"onRiKey", DO(R, s.receive())},
                   {"onUpstreamNeighbor", DO(R, s.receive())},
                   {"onSourceFlags", DO(R, s.receive())},
                   {"onHoldTime",
                    DO(R, (s.channel->joinPruneMessage()->joinPruneData()->holdTimeIs(5), s.receive()))},
                   {"onWcSource", DO(R, ((s.channel->joinPruneMessage()->joinPruneData()->joinPruneGroupData(
                                              addr(Scene::groupText)))
                                             ->wcSourceDataIs(wildcard("10.5.0.1", &e == s.rxJoin.get())),
                                         s.receive()))},
                   {"onRxCount", DO(R, s.receive())}}});
    };
    record("RxJoin", &Scene::rxJoin);
    record("RxPrune", &Scene::rxPrune);

    using S = JoinPruneStatus;
    Subject<S> shared{"JoinPruneStatus",
                      "JoinPruneStatus",
                      [](Scene& s) { return Vel::Ptr<S>(s.status); },
                      [](Scene& s) {
                        s.status = nullptr;
                        s.machine = nullptr;
                      },
                      {{"onPeriodicGroupStatus", DO(S, e.periodicGroupStatusIs(Vel::create<P>()))}}};
    addCollection<S>(shared, "onTriggeredGroup", DO(S, e.triggeredGroupIs(addr("10.0.0.5"))),
                     DO(S, e.triggeredGroupDel(addr(Scene::neighborText))),
                     DO(S, e.triggeredGroupNotifyImmediate()));
    addCollection<S>(shared, "onOverrideGroup", DO(S, e.overrideGroupIs(addr("10.0.0.5"))),
                     DO(S, e.overrideGroupDel(addr(Scene::neighborText))),
                     DO(S, e.overrideGroupNotifyImmediate()));
    addCollection<S>(
        shared, "onRxPrune",
        DO(S, e.rxPruneIs({addr("10.9.0.7"), addr("239.1.1.1"), IntfId()}, joinPruneMessageInfoFactory())),
        DO(S, e.rxPruneDel(Scene::pruneKey())), DO(S, e.rxPruneNotifyImmediate()));
    addRows(rows, shared);

    auto const refresher = [](Scene& s) {
      auto const sm = s.sm();
      return sm ? sm->joinPrunePeriodicTimerSm() : nullptr;
    };
    auto const dropRefresher = [](Scene& s) {
      if (auto const sm = s.sm()) sm->joinPrunePeriodicTimerSmDel();
    };
    addRows<PeriodicTimerSm>(rows, {"Refresh",
                                    "PeriodicTimerSm",
                                    [refresher](Scene& s) { return Vel::Ptr<PeriodicTimerSm>(refresher(s)); },
                                    dropRefresher,
                                    {{"onPeriodicParams", DO(PeriodicTimerSm, e.periodicParamsIs({33, 33}))}},
                                    true});
    using T = JoinPrunePeriodicTimerSm;
    addRows<T>(rows, {"RefreshMachine",
                      "JoinPrunePeriodicTimerSm",
                      refresher,
                      dropRefresher,
                      {{"onInterval", DO(T, e.intervalIs(33))},
                       {"onHoldTime", DO(T, e.holdTimeIs(33))},
                       {"onNumberOfMessages", DO(T, e.numberOfMessagesIs(33))},
                       {"onInitialized", DO(T, e.initializedIs(false))}},
                      true});
    using N = JoinPruneNeighborSm;
    Subject<N> target{
        "NeighborSm",
        "JoinPruneNeighborSm",
        [](Scene& s) { return s.sm(); },
        [](Scene& s) {
          if (s.machine) s.machine->joinPruneNeighborSmDel(addr(Scene::neighborText));
        },
        {{"onTriggeredTimer", DO(N, e.triggeredTimerIs(nullptr))},
         {"onOverrideTimer", DO(N, e.overrideTimerIs(nullptr))},
         {"onLoopQuantum", DO(N, e.loopQuantumIs(0.3))},
         {"onTriggeredInterval", DO(N, e.triggeredIntervalIs(0.3))},
         {"onJoinPrunePeriodicTimerSm", DO(N, e.joinPrunePeriodicTimerSmDel())},
         {"onNumPeriodicRoutes", DO(N, group(s.periodic(), "239.1.1.1")->joinedSourceIs(addr("10.9.8.8")))},
         {"onInitialized", DO(N, e.initializedIs(false))}},
        true};
    addCollection<N>(target, "onTriggeredGroupData", DO(N, group(s.triggered(), "239.2.2.2")),
                     DO(N, Scene::drain(*s.triggered())), DO(N, e.triggeredGroupDataNotifyImmediate()));
    addCollection<N>(target, "onOverrideGroupData", DO(N, group(s.override_(), "239.2.2.2")),
                     DO(N, Scene::drain(*s.override_())), DO(N, e.overrideGroupDataNotifyImmediate()));
    addCollection<N>(target, "onPeriodicGroupData", DO(N, group(s.periodic(), "239.2.2.2")),
                     DO(N, Scene::drain(*s.periodic())), DO(N, e.periodicGroupDataNotifyImmediate()));
    addRows(rows, target);
    using X = JoinPruneMessageSm;
    Subject<X> top{"MessageSm",
                   "JoinPruneMessageSm",
                   MEMBER(machine),
                   [](Scene& s) { s.machine = nullptr; },
                   {{"onTxMessage", DO(X, e.newTxMessage())},
                    {"onDiagUpJoinCount", DO(X, e.diagUpJoinCountIs(!e.diagUpJoinCount()))},
                    {"onInitialized", DO(X, e.initializedIs(false))}},
                   true};
    addCollection<X>(top, "onJoinPruneNeighborSm", DO(X, s.pim->pimNeighborIs(addr("10.0.0.5"), s.eth0)),
                     DO(X, e.joinPruneNeighborSmDel(addr(Scene::neighborText))),
                     DO(X, e.joinPruneNeighborSmNotifyImmediate()));
    addCollection<X>(top, "onPimIntf", DO(X, s.pim->pimIntfIs(IntfId("eth5"))),
                     DO(X, s.pim->pimIntfDel(IntfId("eth0"))), DO(X, e.pimIntfNotifyImmediate()));
    addRows(rows, top);

    addRows<JoinPruneFilter>(rows, {"Filter",
                                    "JoinPruneFilter",
                                    [](Scene& s) { return Vel::Ptr<JoinPruneFilter>(s.filter); },
                                    [](Scene& s) { s.filter = nullptr; },
                                    {}});
    addRows<RpHashComputeStatus>(rows, {"RpHash",
                                        "RpHashComputeStatus",
                                        [](Scene& s) { return Vel::Ptr<RpHashComputeStatus>(s.rpHash); },
                                        [](Scene& s) { s.rpHash = nullptr; },
                                        {}});
    addRows<Zanth::TimerWheel>(rows, {"Wheel",
                                      "TimerWheel",
                                      MEMBER(wheel),
                                      [](Scene& s) {
                                        s.wheel = nullptr;
                                        if (s.machine && s.machine->timerWheel())
                                          s.machine->timerWheel()->notifierIs(nullptr);
                                      },
                                      {}});
    using Expiry = Zanth::TimerExpiry;
    addRows<Expiry>(rows, {"Expiry",
                           "TimerExpiry",
                           [](Scene& s) { return s.wheel ? s.wheel->expiry() : nullptr; },
                           [](Scene& s) {
                             s.wheel = nullptr;
                             if (s.machine && s.machine->timerWheel())
                               s.machine->timerWheel()->notifierIs(nullptr);
                           },
                           {{"onTimer", [](Scene& s, Expiry&) {
                               if (auto const data = s.triggered()) Scene::fill(*data);
                               s.pass(0.2);
                             }}}});

    rows.push_back(single(
        "Filter_deny", "JoinPruneFilter.deny",
        [](Scene& s, Hearing& h) { s.filter->hook = [&h] { h.hear("evil", "Filter_deny"); }; },
        [](Scene& s) { s.receive(); }, [](Scene& s) { s.filter = nullptr; }));
    rows.push_back(single(
        "RpHash_rpHashCompute", "RpHashComputeStatus.rpHashCompute",
        [](Scene& s, Hearing& h) { s.rpHash->hook = [&h] { h.hear("evil", "RpHash_rpHashCompute"); }; },
        [](Scene& s) { s.receive(); }, [](Scene& s) { s.rpHash = nullptr; }));
    for (bool const before : {true, false}) {
      std::string const name = before ? "Manager_send" : "Manager_sent";
      rows.push_back(single(
          name, "",
          [before, name](Scene& s, Hearing& h) {
            (before ? s.manager->before : s.manager->after) = [&h, name](PacketManager&) {
              h.hear("evil", name);
            };
          },
          [](Scene& s) { s.pass(0.2); }, [](Scene& s) { s.manager = nullptr; }));
    }
    rows.push_back(single(
        "Timer", "TimerWheel.onTime",
        [](Scene& s, Hearing& h) {
          auto const timer = Vel::create<AgentTimer>(h);
          timer->notifierIs(s.wheel);
          timer->timeMinIs(s.time + 0.05);
          s.others.push_back(Vel::Ptr<Vel::Reactor>(timer));
        },
        [](Scene& s) { s.pass(0.2); }, [](Scene& s) { s.others.clear(); }));
    rows.push_back(single(
        "Wheel_clock", "", [](Scene& s, Hearing& h) { s.onClock = [&h] { h.hear("evil", "Wheel_clock"); }; },
        [](Scene& s) {
          if (auto const data = s.triggered()) Scene::fill(*data);
          s.pass(0.2);
        },
        [](Scene& s) { s.wheel = nullptr; }));
    return rows;
  }();
  return all;
}

// --- The table of misdeeds -----------------------------------------------------------------------

struct Case {
  Scene& scene;
  Callback const& row;
  std::vector<Vel::Ptr<Vel::Reactor>> ears;  // before, evil, after; or none
  std::vector<Vel::Ptr<Vel::Counted>> kept;
};

struct Misdeed {
  char const* name = "";
  void (*act)(Case&) = nullptr;
  // Whether the machine must be whole afterwards, if what was done to it is no more than the change that led
  // to it.
  bool spares = false;
  // The machine's own reactors are not told of what happens any more, so its books cannot be right.
  bool deafens = false;
  // It changes the periodic data. An agent may do that inside a callback of the same data only if the
  // machine's reactor has seen the first change.
  bool changesPeriodic = false;
};

std::vector<Misdeed> const misdeeds{
    {"Nothing", [](Case&) {}, true},
    {"ThrowsAnException", [](Case&) { throw std::runtime_error("no"); }, true},
    {"ThrowsSomethingElse", [](Case&) { throw 7; }, true},
    {"UnbindsItself",
     [](Case& c) {
       if (c.ears.empty()) return;
       auto const evil = c.ears[1];
       evil->isRegisteredNotifieeIs(false);
     },
     true},
    {"DropsItself",
     [](Case& c) {
       if (!c.ears.empty()) c.ears[1] = nullptr;
     },
     true},
    {"DropsTheOtherWatchers",
     [](Case& c) {
       if (!c.ears.empty()) c.ears[0] = c.ears[2] = nullptr;
     },
     true},
    {"UnregistersEveryOther",
     [](Case& c) {
       Vel::Entity* const entity = c.row.entity(c.scene);
       if (!entity) return;
       for (Vel::SnapshotIterator i(*entity); i; ++i)
         if (&*i != c.ears[1].get()) (*i).isRegisteredNotifieeIs(false);
     },
     false, true},
    {"RetiresEveryOther",
     [](Case& c) {
       Vel::Entity* const entity = c.row.entity(c.scene);
       if (!entity) return;
       for (Vel::SnapshotIterator i(*entity); i; ++i)
         if (std::find(c.ears.begin(), c.ears.end(), &*i) == c.ears.end()) (*i).velDoZombieReactors(true);
     },
     false, true},
    {"KeepsTheEntity",
     [](Case& c) {
       if (Vel::Entity* const entity = c.row.entity(c.scene))
         c.kept.push_back(Vel::Ptr<Vel::Counted>(entity));
     },
     true},
    {"DropsTheEntity", [](Case& c) { c.row.drop(c.scene); }, false, false, true},
    {"DropsTheMachine", [](Case& c) { c.scene.machine = nullptr; }},
    {"ReplacesTheMachine",
     [](Case& c) {
       Scene& s = c.scene;
       s.machine = nullptr;
       if (s.manager && s.status && s.pim && s.wheel) s.start();
     }},
    {"TakesTheInterfaceDown",
     [](Case& c) {
       if (c.scene.pim) c.scene.pim->pimIntfDel(IntfId("eth0"));
       c.scene.eth0 = nullptr;
     },
     true},
    {"TakesTheNeighborDown",
     [](Case& c) {
       if (c.scene.pim) c.scene.pim->pimNeighborDel(addr(Scene::neighborText));
     },
     true},
    {"DropsTheNeighborMachine",
     [](Case& c) {
       if (c.scene.machine) c.scene.machine->joinPruneNeighborSmDel(addr(Scene::neighborText));
     },
     true},
    {"DropsTheInterfacesMachine",
     [](Case& c) {
       if (c.scene.machine) c.scene.machine->joinPruneNeighborSmDel(addr("10.0.0.1"));
     },
     true},
    {"DropsTheStatus",
     [](Case& c) {
       c.scene.pim = nullptr;
       if (c.scene.machine && c.scene.machine->pimStatus()) c.scene.machine->pimStatus()->notifierIs(nullptr);
     }},
    {"DropsTheJoinPruneStatus", [](Case& c) { c.scene.status = nullptr; }},
    {"DrainsTheGroup",
     [](Case& c) {
       for (auto const& data : {c.scene.triggered(), c.scene.override_(), c.scene.periodic()})
         if (auto const g = data ? data->joinPruneGroupData(addr(Scene::groupText)) : nullptr)
           Scene::drain(*g);
     },
     true, false, true},
    {"DropsTheGroup",
     [](Case& c) {
       for (auto const& data : {c.scene.triggered(), c.scene.override_()})
         if (data) data->joinPruneGroupDataDel(addr(Scene::groupText));
     },
     true},
    {"DropsTheDataSets",
     [](Case& c) {
       Scene& s = c.scene;
       if (s.status) s.status->triggeredGroupDel(addr(Scene::neighborText));
       if (s.status) s.status->overrideGroupDel(addr(Scene::neighborText));
       if (s.status && s.status->periodicGroupStatus())
         s.status->periodicGroupStatus()->upJoinPruneDel(addr(Scene::neighborText));
     },
     true},
    {"DropsTheWheelAndTheManager",
     [](Case& c) {
       c.scene.wheel = nullptr;
       if (c.scene.manager) c.scene.manager->stop();
       c.scene.manager = nullptr;
     }},
    {"Adds", [](Case& c) { c.row.change(Change::add, c.scene); }, true, false, true},
    {"RemovesTheCurrent", [](Case& c) { c.row.change(Change::removeCurrent, c.scene); }, true, false, true},
    {"RemovesTheOthers", [](Case& c) { c.row.change(Change::removeOthers, c.scene); }, true, false, true},
    {"Clears", [](Case& c) { c.row.change(Change::clear, c.scene); }, true, false, true},
    {"EndsTheWorld", [](Case& c) { c.scene.end(); }},
};

// --- The product ---------------------------------------------------------------------------------

enum class When { early, late, inTraffic };

class MisdeedTest : public testing::TestWithParam<Callback> {
 protected:
  void run(Callback const& row, Misdeed const& misdeed, When when) {
    std::size_t const blocks = CountedHeap::liveBlocks, bytes = CountedHeap::liveBytes;
    act(row, misdeed, when);
    if (HasFailure()) return;  // whose record takes memory
    EXPECT_EQ(CountedHeap::liveBlocks, blocks);
    EXPECT_EQ(CountedHeap::liveBytes, bytes);
  }

  int fired = 0;

 private:
  void act(Callback const& row, Misdeed const& misdeed, When when) {
    // A machine that is deaf to its periodic sources stops the process when they go, on purpose.
    if (misdeed.deafens && when == When::inTraffic && row.name.starts_with("PeriodicGroup_")) return;
    Hearing hearing;
    Scene scene;
    Case c{scene, row, {}, {}};
    bool const seenFirst = misdeed.changesPeriodic && row.name.starts_with("PeriodicGroup_");
    bool const early = !row.late && when != When::late && !seenFirst;
    if (early) c.ears = row.install(scene, hearing);
    scene.start();
    if (!misdeed.deafens) scene.machine->diagUpJoinCountIs(true);
    if (!early) c.ears = row.install(scene, hearing);

    int firedHere = 0, afterThen = 0;
    hearing.evil = [&](std::string const& callback) {
      if (callback != row.callback || firedHere++ != 0) return;
      if (!c.ears.empty()) {
        EXPECT_GT(hearing.calls["before"][callback], 0) << "the one before";
      }
      afterThen = hearing.calls["after"][callback];
      misdeed.act(c);
    };
    bool const watched = !c.ears.empty();
    hearing.calls.clear();
    if (when == When::inTraffic && row.callback != "onZeroReferences")
      scene.traffic();
    else
      row.trigger(scene);
    if (firedHere != 0 && watched) {
      EXPECT_GT(hearing.calls["after"][row.callback], afterThen) << "the one after";
    }
    if (when != When::inTraffic) {
      EXPECT_GT(firedHere, 0) << "the callback did not happen";
    }
    fired += firedHere != 0;
    hearing.evil = nullptr;

    bool const whole = scene.whole();
    if (misdeed.spares && whole) {
      EXPECT_EQ(scene.audit(), "");
    }
    if (!misdeed.deafens) {
      scene.traffic();
      EXPECT_EQ(scene.audit(), "");
    } else {
      scene.machine = nullptr;
    }
    scene.mend();
    EXPECT_TRUE(scene.whole());
    EXPECT_TRUE(scene.sendsAFreshJoin());
    for (auto const& ear : c.ears) EXPECT_EQ(ear ? ear->auditErrors() : 0, 0u);
    scene.end();
    c.kept.clear();
  }

  AllTraces const traces;
};

// Each misdeed at each of three moments, or one such case in 23: others for each length of the callback's
// name.
TEST_P(MisdeedTest, HurtsNobodyElse) {
  std::size_t turn = GetParam().name.size();
  for (When const when : {When::early, When::late, When::inTraffic})
    for (Misdeed const& misdeed : misdeeds) {
      if (++turn % 23 != 0 && !thorough()) continue;
      SCOPED_TRACE(std::string(misdeed.name) + (when == When::early  ? ", before the machine's reactors"
                                                : when == When::late ? ", behind the machine's reactors"
                                                                     : ", in the traffic"));
      run(GetParam(), misdeed, when);
      if (HasFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, MisdeedTest, testing::ValuesIn(callbacks()), [](auto const& row) {
  std::string name = row.param.name;
  for (auto const& [from, to] : {std::pair<std::string, std::string>{"(key)", "Key"}, {"::", ""}})
    if (auto const at = name.find(from); at != name.npos) name.replace(at, from.size(), to);
  return name;
});

// --- The trace sink ------------------------------------------------------------------------------

class TraceSinkTest : public testing::TestWithParam<Misdeed> {
 protected:
  // A life that is broken into at one of its trace lines, counted from 1; how many there are.
  int live(int evilLine) {
    int line = 0;
    Scene scene;
    Hearing hearing;
    Callback row = callbacks().front();
    row.entity = [](Scene& s) { return static_cast<Vel::Entity*>(s.machine.get()); };
    row.drop = [](Scene&) { Vel::traceSinkIs([](Vel::TraceLine const&) {}); };  // the sink itself
    row.change = [](Change how, Scene& s) {
      if (auto const data = s.triggered()) change(how, *data, s);
    };
    Case c{scene, row, {}, {}};
    Vel::traceSinkIs([&](Vel::TraceLine const& written) {
      if (++line != evilLine) return;
      // In the middle of counting a periodic source no callback may change the sources that are counted.
      if (GetParam().changesPeriodic && written.text.find("::Periodic(") != written.text.npos) return;
      GetParam().act(c);
    });
    scene.start();
    if (scene.machine) scene.machine->diagUpJoinCountIs(true);
    scene.traffic();
    EXPECT_EQ(scene.audit(), "");
    scene.machine = nullptr;
    scene.end();
    c.kept.clear();
    Vel::traceSinkIs([](Vel::TraceLine const&) {});
    return line;
  }

  AllTraces const traces;
};

// At every line, or at one in nineteen.
TEST_P(TraceSinkTest, MayDoItAtEveryLine) {
  int const lines = live(0);
  EXPECT_GT(lines, 200);
  for (int at = 1; at <= lines; at += thorough() ? 1 : 19) {
    SCOPED_TRACE(at);
    std::size_t const blocks = CountedHeap::liveBlocks, bytes = CountedHeap::liveBytes;
    live(at);
    if (HasFailure()) return;
    EXPECT_EQ(CountedHeap::liveBlocks, blocks);
    EXPECT_EQ(CountedHeap::liveBytes, bytes);
  }
}

std::vector<Misdeed> sinkMisdeeds() {
  std::vector<Misdeed> some;
  for (Misdeed const& misdeed : misdeeds)
    if (!misdeed.deafens) some.push_back(misdeed);
  return some;
}

void PrintTo(Misdeed const& misdeed, std::ostream* os) { *os << misdeed.name; }

INSTANTIATE_TEST_SUITE_P(Of, TraceSinkTest, testing::ValuesIn(sinkMisdeeds()),
                         [](auto const& row) { return std::string(row.param.name); });

// --- Whether the table is complete ---------------------------------------------------------------

// What an outsider can override, by the headers: "JoinPruneData.onHoldTime" for every virtual callback of an
// entity's reactor base, "JoinPruneData.onZeroReferences" for every entity that has one, and the virtual
// functions of the classes that an agent derives from.
std::set<std::string> declaredCallbacks() {
  namespace fs = std::filesystem;
  fs::path const root = fs::path(__FILE__).parent_path().parent_path().parent_path();
  std::vector<fs::path> headers{root / "runtime/zanth/TimerWheel.h"};
  for (char const* folder : {"pim/model", "pim/joinprune"})
    for (auto const& entry : fs::recursive_directory_iterator(root / folder))
      if (entry.path().extension() == ".h") headers.push_back(entry.path());
  std::regex const classLine(R"(^class (?:VEL_API )?(\w+)\b.*\{)"),
      reactorLine(R"(class NotifieeConst\b.*\{)"),
      callbackLine(R"(virtual \w[\w:]* (on\w+|deny|rpHashCompute)\(([^)]*)\))");
  std::set<std::string> found;
  for (fs::path const& header : headers) {
    std::ifstream in(header);
    std::string entity;
    bool const packetStatus =
        header.filename() == "JoinPruneStatus.h" && header.parent_path().filename() == "packet";
    for (std::string line; std::getline(in, line);) {
      std::smatch match;
      if (std::regex_search(line, match, classLine))
        entity = (packetStatus ? "Packet::" : "") + match[1].str();
      if (std::regex_search(line, reactorLine)) found.insert(entity + ".onZeroReferences");
      if (std::regex_search(line, match, callbackLine)) {
        bool const keyed = match[1].str().starts_with("on") && match[2].length() != 0;
        found.insert(entity + "." + match[1].str() + (keyed ? "(key)" : ""));
      }
    }
  }
  return found;
}

TEST(MisdeedTableTest, EveryCallbackThatTheHeadersDeclareHasItsRow) {
  std::set<std::string> rows;
  for (Callback const& row : callbacks())
    if (!row.declared.empty()) rows.insert(row.declared);
  EXPECT_THAT(rows, ContainerEq(declaredCallbacks()));
  EXPECT_GT(rows.size(), 90u);
}

}  // namespace
}  // namespace Routing::Pim
