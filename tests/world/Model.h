// SPDX-License-Identifier: Apache-2.0
// The library told a second time, with maps and plain calls: nothing is watched, every change says itself
// whom it concerns. It is slow, and short enough to be checked by reading; the worlds of this folder
// compare the two after each step.
#pragma once

#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "tests/world/Manager.h"

namespace Routing::Pim::Worlds {

inline constexpr Seconds never = std::numeric_limits<Seconds>::infinity();
/// Times that differ by less are the same.
inline constexpr Seconds hair = 1e-9;

/// What stops the process in the library.
struct Stopped {
  std::string expression;
};

class Model {
 public:
  // --- What there is

  struct Intf {
    IntfName name;
    Addr address;
    U8 length;
    U16 holdTime = 210;
    U32 interval = 60;
    Seconds overrideInterval = 2.5;
  };
  using IntfPtr = std::shared_ptr<Intf>;

  struct Neighbor {
    IntfPtr intf;
  };
  using NeighborPtr = std::shared_ptr<Neighbor>;

  struct Ascending {
    bool operator()(Addr a, Addr b) const { return Names::get().less(a, b); }
  };

  struct Wildcard {
    Addr rp;
    bool join;
  };

  struct Group {
    Addr address;
    std::set<Addr> joined, pruned, rptJoined;
    std::set<Addr, Ascending> rptPruned;
    std::optional<Wildcard> wildcard;

    U32 routes() const {
      return static_cast<U32>(joined.size() + pruned.size() + rptJoined.size() + rptPruned.size() +
                              wildcard.has_value());
    }
    bool has(Kind kind, Addr source) const;
    bool put(Kind kind, Addr source);
    bool takeOut(Kind kind, Addr source);
  };
  using GroupPtr = std::shared_ptr<Group>;

  struct Data {
    Addr upstream;
    U16 holdTime = 0;
    bool periodic = false;
    std::map<Addr, GroupPtr> groups;
  };
  using DataPtr = std::shared_ptr<Data>;

  struct Message {
    DataPtr data;
    JoinPruneMessage::Report report;
  };
  using MessagePtr = std::shared_ptr<Message>;

  struct Record {
    MessagePtr message;
    std::optional<IntfName> intf;
    U32 count = 0;
  };
  using RecordPtr = std::shared_ptr<Record>;

  /// A receive record.
  struct Received {
    std::string name;
    Addr source, group;
    Addr upstream;
    U8 flags = 0;
    Seconds holdTime = 210;
    Addr rp;
    U32 count = 0;
  };

  struct Timer {
    Seconds time = never;
    U64 armedAs = 0;
  };

  /// What follows one group of a data set.
  struct Follower {
    GroupPtr group;
    bool wildcardCounted = false;
  };

  struct Machine {
    U32 number;
    Addr address;
    NeighborPtr neighbor;
    IntfPtr intf;
    DataPtr data[sendKinds];
    Seconds overrideInterval;
    MessagePtr message;
    Seconds loopQuantum = 0.1, triggeredInterval = 0.1;
    Timer timers[sendKinds];
    std::map<Addr, Follower> followers[sendKinds];
    U32 routes = 0;
    bool initialized = false;
    bool retired = false;
    // The periodic machine.
    Seconds sliceInterval = 0;
    U32 sliceRoutes = 0;
    Seconds deadline = -never;
    std::optional<U64> left;  // of a slice that was cut short
    bool sending = false;
  };
  using MachinePtr = std::shared_ptr<Machine>;

  struct FollowedIntf {
    IntfPtr intf;
    Addr address;
  };

  /// The message machine.
  struct Engine {
    MessagePtr message;
    bool diag = false;
    bool initialized = false;
    std::map<Addr, MachinePtr> machines;
    std::map<IntfName, FollowedIntf> intfs;
  };
  using EnginePtr = std::shared_ptr<Engine>;

  Model();

  /// Performs an operation; what happens is in `events`. Throws Stopped where the library stops the process;
  /// the model is of no use then.
  void step(Operation const& operation);

  /// The same in the middle of a step.
  void perform(Operation const& operation);

  /// Whether there is what the operation is about. One for which there is not changes nothing.
  bool possible(Operation const& operation) const;

  // --- The state

  Seconds now = 0;
  IntfPtr intf[Names::intfs];               // by name: the latest object, whether it is up or not
  std::map<IntfName, IntfPtr> statusIntfs;  // those that are up
  std::map<Addr, NeighborPtr> statusNeighbors;
  std::map<Addr, DataPtr> status[sendKinds];  // by target
  Received rxJoin, rxPrune;
  RecordPtr record;
  RecordPtr servedRecord;  // by the manager
  EnginePtr engine;
  std::list<MachinePtr> held;
  U32 channelCount = 0;
  std::vector<Event> events;
  bool silent = false;  // no events
  ManagerState manager;
  U32 expiries = 0;       // in the current operation
  bool cutShort = false;  // there were more than one operation is to wait for

  Seconds timeMin() const;
  U32 armedCount() const;

  // --- The manager's side

  MessagePtr const& message(RecordPtr const& r) const { return r->message; }
  DataPtr data(MessagePtr const& m) const { return m->data; }
  std::string seen(RecordPtr const& r) const;
  std::vector<Entry> entries(DataPtr const& data) const;
  bool periodic(DataPtr const& data) const { return data->periodic; }
  bool takeOut(DataPtr const& data, Entry const& entry);
  void removeEmptyGroups(DataPtr const& data);
  void reportIs(MessagePtr const& m, JoinPruneMessage::Report const& report) { m->report = report; }
  void note(std::string text) {
    if (!silent) events.push_back({0, std::move(text)});
  }
  void advance(Seconds cost) { now += cost; }

 private:
  // --- Traces

  /// The pieces in a row, if traces are on.
  template <class... Pieces>
  std::string said(Pieces const&... pieces) const {
    std::string text;
    if (!silent) (text.append(pieces), ...);
    return text;
  }
  template <class... Pieces>
  void trace(U8 level, Pieces const&... pieces) {
    if (!silent) events.push_back({level, said(pieces...)});
  }
  std::string form(Machine const& m) const;
  std::string form(Machine const& m, SendKind sendKind, Addr group) const;
  std::string periodicForm(Machine const& m) const;

  // --- The message machine

  void start();
  void drop();
  DataPtr dataIs(U32 sendKind, Addr target);
  void followIntf(Engine& e, IntfPtr const& i);
  void unfollowIntf(Engine& e, IntfName name);
  void handleNew(Engine& e, IntfPtr const& i);
  void handleDel(Engine& e, IntfName name);
  void handleUsedAddress(IntfPtr const& i);
  void deleteTarget(Engine& e, Addr target);
  void handleNeighbor(Addr address);
  void doMaybeDeleteNeighbor(Addr address);
  void machineIs(Engine& e, Addr address, NeighborPtr const& n, IntfPtr const& i);
  void machineDel(Engine& e, Addr address);
  void handleRxMessage(Addr upstream, U16 holdTime, std::map<Addr, GroupPtr> const& groups);
  void received(Received& r, char const* kind, bool& header, Addr upstream, U16 holdTime, Addr source,
                Addr group, U8 flags, std::optional<Addr> rp);

  // --- A neighbor machine

  struct Concerned {
    MachinePtr machine;
    SendKind sendKind;
  };
  std::optional<Concerned> concerned(DataPtr const& data) const;
  void initialize(MachinePtr const& m);
  void follow(Machine& m, SendKind sendKind, GroupPtr const& group);
  void reconcile(Machine& m, SendKind sendKind);
  void handleGroup(MachinePtr const& m, SendKind sendKind);
  void retire(Machine& m);
  void routesInc(Machine& m, U32 n);
  void validate(Machine& m);

  void groupChanged(DataPtr const& data, Addr group);
  void groupsChanged(DataPtr const& data);
  void groupDel(DataPtr const& data, Addr group);
  void sourceChanged(DataPtr const& data, GroupPtr const& group, Kind kind, Addr source);
  void handleOnce(MachinePtr const& m, SendKind sendKind, GroupPtr const& group, Kind kind, Addr source);
  void handlePeriodic(MachinePtr const& m, GroupPtr const& group, Kind kind, Addr source);

  // --- Timers

  void arm(Machine& m, SendKind sendKind, Seconds time);
  void doUpdateTimer(Machine& m, SendKind sendKind);
  Seconds randomDelay(Seconds interval);
  void expire();
  RecordPtr prepare(Machine& m, SendKind sendKind);
  void send(RecordPtr const& r);
  void handleOnceExpiry(MachinePtr const& m, SendKind sendKind);
  void handlePeriodicExpiry(MachinePtr const& m);
  void doUpdatePeriodicTimer(Machine& m, bool atEndOfExpiry = false);

  GroupPtr groupIs(DataPtr const& data, Addr group);
  DataPtr find(Operation const& operation) const;
  GroupPtr findGroup(Operation const& operation) const;
  MachinePtr findMachine(Operation const& operation) const;

  U32 machinesMade_ = 0;
  U64 armings_ = 0;
  bool expiring_ = false;
  U64 random_ = 0x330E;  // as after srand48(0)
  std::set<Addr> denied_;
  std::map<Addr, Addr> rps_;
};

}  // namespace Routing::Pim::Worlds
