// SPDX-License-Identifier: Apache-2.0
// An object of each entity type, and what the headers declare of the types. Mutators.h is made by
// tests/mutators.py from the headers when this is built: what is new is in it.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/pim/joinprune/World.h"

/// What is done with each mutator: its name, and a call of its const overload.
using Mutation = std::function<void(std::string const& name, std::function<void()> const& call)>;

/// An argument of any type; the overload that throws does not look at it.
template <class Parameter>
Parameter any() {
  static std::remove_cvref_t<Parameter> value{};
  return value;
}

/// What an entity type declares of its attributes, its base's first.
struct Declared {
  Declared() = default;
  Declared(std::vector<std::pair<std::string, Vel::AttributeId>> n, std::vector<std::string> c,
           std::vector<std::string> p)
      : numbers(std::move(n)), callbacks(std::move(c)), publicFunctions(std::move(p)) {}
  Declared(Declared const& own, Declared const& base) : Declared(base) {
    numbers.insert(numbers.end(), own.numbers.begin(), own.numbers.end());
    callbacks.insert(callbacks.end(), own.callbacks.begin(), own.callbacks.end());
    publicFunctions.insert(publicFunctions.end(), own.publicFunctions.begin(), own.publicFunctions.end());
  }

  std::vector<std::pair<std::string, Vel::AttributeId>> numbers;  ///< As the enumeration has them.
  std::vector<std::string> callbacks;  ///< Of NotifieeConst: "onFoo()", "onFoo(key)", "onFoovelImmediate()".
  std::vector<std::string> publicFunctions;  ///< Their names.
};

#include "tests/Mutators.h"

namespace Routing::Pim {

template <class T>
struct Type {};

/// One object of each type.
class Examples : protected World {
 protected:
  Examples() {
    start();
    groupData->joinedSourceIs(addr("10.9.0.1"));
    groupData->wcSourceDataIs(wildcard("10.8.0.1"));
    status->rxPruneIs(RouteIntfKey(addr("10.9.0.1"), addr("239.1.1.1"), Dova::IntfId("eth0")), rxPrune);
  }

  // One of each type.
  Vel::Entity const& example(Type<Vel::Entity>) { return *pim; }
  Vel::FollowedEntity const& example(Type<Vel::FollowedEntity>) { return *groupData; }
  Vel::Machine const& example(Type<Vel::Machine>) { return *machine; }
  Zanth::TimerWheel const& example(Type<Zanth::TimerWheel>) { return *wheel; }
  Zanth::TimerExpiry const& example(Type<Zanth::TimerExpiry>) { return *wheel->expiry(); }
  Intf const& example(Type<Intf>) { return *eth0; }
  Neighbor const& example(Type<Neighbor>) { return *neighbor_; }
  Status const& example(Type<Status>) { return *pim; }
  RpHashComputeStatus const& example(Type<RpHashComputeStatus>) { return *rpHash; }
  IO::MessageInfo const& example(Type<IO::MessageInfo>) { return *manager->txMessageInfo(); }
  IO::PamManager const& example(Type<IO::PamManager>) { return *manager; }
  Packet::WcSourceData const& example(Type<Packet::WcSourceData>) { return *groupData->wcSourceData(); }
  Packet::JoinPruneGroupData const& example(Type<Packet::JoinPruneGroupData>) { return *groupData; }
  Packet::JoinPruneData const& example(Type<Packet::JoinPruneData>) { return *triggered(n); }
  Packet::JoinPruneStatus const& example(Type<Packet::JoinPruneStatus>) { return *periodicStatus(); }
  Packet::JoinPruneMessage const& example(Type<Packet::JoinPruneMessage>) { return *machine->txMessage(); }
  PeriodicTimerSm const& example(Type<PeriodicTimerSm>) { return *sm(n)->joinPrunePeriodicTimerSm(); }
  JoinPruneFilter const& example(Type<JoinPruneFilter>) { return *filter; }
  JoinPruneMessageInfo const& example(Type<JoinPruneMessageInfo>) { return *rxJoin; }
  JoinPruneStatus const& example(Type<JoinPruneStatus>) { return *status; }
  JoinPrunePeriodicTimerSm const& example(Type<JoinPrunePeriodicTimerSm>) {
    return *sm(n)->joinPrunePeriodicTimerSm();
  }
  JoinPruneNeighborSm const& example(Type<JoinPruneNeighborSm>) { return *sm(n); }
  JoinPruneMessageSm const& example(Type<JoinPruneMessageSm>) { return *machine; }

  static constexpr char n[] = "10.0.0.2";
  Vel::Ptr<Intf> const eth0 = intf("eth0", "10.0.0.1/24");
  Vel::Ptr<Neighbor> const neighbor_ = neighbor(n, eth0);
  Vel::Ptr<Packet::JoinPruneGroupData> const groupData =
      status->triggeredGroupIs(addr(n))->joinPruneGroupDataIs(addr("239.1.1.1"));
};

}  // namespace Routing::Pim
