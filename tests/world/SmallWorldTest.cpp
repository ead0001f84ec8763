// SPDX-License-Identifier: Apache-2.0
// Small worlds, all of them: a neighbor and an interface, two groups, two sources, and every order of up to
// five of twenty events. After each event the library and the model agree in everything that can be seen.
//
// What need not be tried because another sequence is the same:
//
//   - An event that finds nothing to do (no data to put a source into, no timer to wait for) is left out:
//     what would come after it comes after the shorter sequence too.
//   - The library does not see the packet manager's temper until a timer expires. So the temper changes right
//     before an event in which one may expire. At any other time the next change would replace it, or it
//     could as well have come later.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <utility>

#include "tests/Thorough.h"
#include "tests/world/Paste.h"
#include "tests/world/World.h"

namespace Routing::Pim::Worlds {
namespace {

U32 const longest = thorough() ? 5 : 4;

/// An event as an operation; most undo what they did before.
struct SmallEvent {
  char const* name;
  std::function<Operation(Model const&)> operation;
  bool temper = false;
  bool fires = false;  // timers may
};

// The numbers by which names are known, in their roles.
constexpr U8 theNeighbor = 0;                       // 10.0.0.2
constexpr U8 neighborTarget = 0;                    // 10.0.0.2
constexpr U8 intfTarget = 1;                        // 10.0.0.1
constexpr U8 eth0 = 0;                              // whichever comes first
constexpr U8 ownAddress = 0, neighborsAddress = 2;  // of interfaces

Operation doing(Do what, U8 a = 0) {
  Operation o;
  o.what = what;
  o.a = a;
  return o;
}

SmallEvent toggled(char const* name, SendKind sendKind, U8 target, Kind kind, U8 source, U8 group) {
  return {name, [=](Model const& model) {
            Operation o = doing(Do::remove, target);
            o.sendKind = sendKind;
            o.kind = kind;
            o.source = source;
            o.group = group;
            o.n = 1;
            if (!model.possible(o)) o.what = Do::add;
            return o;
          }};
}

SmallEvent waiting(char const* name, Do what, Seconds time) {
  return {name,
          [=](Model const&) {
            Operation o = doing(what);
            o.x = time;
            return o;
          },
          false, what != Do::busy};
}

SmallEvent tempered(char const* name, Temper const& temper, std::vector<Operation> const& meanwhile = {}) {
  return {name,
          [=](Model const&) {
            Operation o = doing(Do::temper);
            o.temper = temper;
            o.meanwhile = meanwhile;
            return o;
          },
          true, false};
}

std::vector<SmallEvent> const& smallEvents() {
  static std::vector<SmallEvent> const events = {
      {"NeighborComesOrGoes",
       [](Model const& model) {
         auto const up = doing(Do::neighborUp, theNeighbor);
         return model.possible(up) ? up : doing(Do::neighborDown, theNeighbor);
       }},
      {"IntfComesOrGoes",
       [](Model const& model) {
         auto const up = doing(Do::intfUp, eth0);
         return model.possible(up) ? up : doing(Do::intfDown, eth0);
       }},
      {"IntfTakesTheNeighborsAddressOrItsOwn",
       [](Model const& model) {
         Operation o = doing(Do::intfAddress, eth0);
         bool const own = model.intf[eth0]->address == Names::get().intfAddress[ownAddress];
         o.source = own ? neighborsAddress : ownAddress;
         o.n = 24;
         return o;
       }},
      {"MachineStartsOrDrops", [](Model const& model) { return doing(model.engine ? Do::drop : Do::start); }},
      toggled("TriggeredJoin", SendKind::triggered, neighborTarget, Kind::join, 0, 0),
      toggled("TriggeredRptPrune", SendKind::triggered, neighborTarget, Kind::rptPrune, 1, 0),
      toggled("TriggeredWildcard", SendKind::triggered, neighborTarget, Kind::wildcard, 0, 1),
      toggled("OverrideJoin", SendKind::override, neighborTarget, Kind::join, 0, 0),
      toggled("PeriodicJoin", SendKind::periodic, neighborTarget, Kind::join, 0, 0),
      toggled("PeriodicPrune", SendKind::periodic, neighborTarget, Kind::prune, 1, 0),
      toggled("PeriodicWildcard", SendKind::periodic, neighborTarget, Kind::wildcard, 0, 1),
      toggled("TriggeredPruneOfTheIntf", SendKind::triggered, intfTarget, Kind::prune, 0, 0),
      toggled("PeriodicJoinOfTheIntf", SendKind::periodic, intfTarget, Kind::join, 1, 1),
      waiting("NextTimer", Do::waitNext, 0),
      waiting("AMinute", Do::wait, 61),
      waiting("Busy", Do::busy, 0.15),
      tempered("OneByOne", {.take = 1, .cost = 0.06}),
      tempered("Nothing", {.take = 0}),
      tempered("NeighborGoesInASend", {.take = 1, .moment = Temper::Moment::middle},
               {doing(Do::neighborDown, theNeighbor)}),
      tempered("MachineDropsAndStartsInASend", {.moment = Temper::Moment::first},
               {doing(Do::drop), doing(Do::start)}),
  };
  return events;
}

/// The neighbor and the interface are up, and the machine runs.
Sequence beginning() {
  Sequence sequence = {doing(Do::intfAddress, eth0), doing(Do::intfUp, eth0),
                       doing(Do::neighborUp, theNeighbor), doing(Do::start)};
  sequence[0].source = ownAddress;
  sequence[0].n = 24;
  return sequence;
}

class SmallWorldTest : public testing::TestWithParam<std::size_t> {
 protected:
  SmallWorldTest() { Names::useIpv6(false); }

  std::size_t length() const { return sequence_.size() - beginning_; }

  /// Tries an event after those that were, and what can come after it. False if something differs.
  bool follow(SmallEvent const& event) {
    auto ready = std::exchange(ready_, nullptr);
    if (!ready) {
      ready = std::make_unique<World>();
      for (auto const& operation : sequence_) ready->repeat(operation);
    }
    World& world = *ready;
    auto const operation = event.operation(world.model());
    if (!world.model().possible(operation)) {
      ++nothingToDo_;
      ready_ = std::move(ready);
      return true;
    }
    sequence_.push_back(operation);
    // A temper alone changes nothing that counts as a sequence; the next event shows it.
    auto const difference = world.step(operation);
    sequences_ += !event.temper;
    if (!difference.empty() || world.stopped()) {
      ADD_FAILURE() << (world.stopped() ? "it stops the process\n" : difference)
                    << asConversation("A small world.", sequence_);
      return false;
    }
    if (length() < longest) ready_ = std::move(ready);
    ready.reset();  // one world at a time
    if (length() < longest)
      for (auto const& next : smallEvents())
        if (event.temper ? next.fires : !next.temper || length() + 1 < longest)
          if (!follow(next)) return false;
    ready_.reset();
    sequence_.pop_back();
    return true;
  }

  Sequence sequence_ = beginning();
  std::size_t const beginning_ = sequence_.size();
  std::unique_ptr<World> ready_;  // in which the sequence has been done, if there is one
  U64 sequences_ = 0, nothingToDo_ = 0;
};

TEST_P(SmallWorldTest, EveryOrderOfEventsAgrees) {
  EXPECT_TRUE(follow(smallEvents()[GetParam()]));
  EXPECT_NE(sequences_ + nothingToDo_, 0u);
  std::cout << sequences_ << " sequences, and " << nothingToDo_ << " whose last event has nothing to do\n";
}

INSTANTIATE_TEST_SUITE_P(ThatBeginWith, SmallWorldTest, testing::Range(std::size_t{0}, smallEvents().size()),
                         [](auto const& tested) { return std::string(smallEvents()[tested.param].name); });

}  // namespace
}  // namespace Routing::Pim::Worlds
