// Every mutator of every entity type through a const view. Mutators.h is made by tests/mutators.py from the
// headers when this is built: a mutator that is new is in it.
#include <functional>
#include <string>
#include <type_traits>
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

#include "tests/Mutators.h"

namespace Routing::Pim {
namespace {

template <class T>
struct Type {};

class ConstViewTest : public testing::Test, protected World {
 protected:
  ConstViewTest() {
    start();
    groupData->joinedSourceIs(addr("10.9.0.1"));
    groupData->wcSourceDataIs(wildcard("10.8.0.1"));
    status->rxPruneIs(RouteIntfKey(addr("10.9.0.1"), addr("239.1.1.1"), Dova::IntfId("eth0")), rxPrune);
  }

  // One of each type.
  Vel::Entity const& example(Type<Vel::Entity>) { return *pim; }
  Vel::Machine const& example(Type<Vel::Machine>) { return *machine; }
  Zanth::TimerWheel const& example(Type<Zanth::TimerWheel>) { return *wheel; }
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

  /// All attributes of all examples.
  std::string everything() {
    std::string all;
    auto const add = [&all](Vel::Entity const& entity) {
      for (Vel::AttributeRow const& row : entity.attributeTable())
        all += std::string(row.name) + ": " + row.text(entity) + '\n';
    };
#define ADD(T) add(example(Type<T>()));
    ENTITY_TYPES(ADD)
#undef ADD
    return all;
  }

  static constexpr char n[] = "10.0.0.2";
  Vel::Ptr<Intf> const eth0 = intf("eth0", "10.0.0.1/24");
  Vel::Ptr<Neighbor> const neighbor_ = neighbor(n, eth0);
  Vel::Ptr<Packet::JoinPruneGroupData> const groupData =
      status->triggeredGroupIs(addr(n))->joinPruneGroupDataIs(addr("239.1.1.1"));
};

TEST_F(ConstViewTest, EveryMutatorHasAConstOverload) { EXPECT_THAT(lacking, testing::IsEmpty()); }

TEST_F(ConstViewTest, EveryMutatorOfEveryEntityTypeThrowsAndChangesNothing) {
  std::string const before = everything();
  std::vector<std::string> names;
  auto const goThrough = [&](char const* type, auto const& object) {
    mutate(object, [&](std::string const& name, std::function<void()> const& call) {
      SCOPED_TRACE(std::string(type) + "::" + name);
      names.push_back(std::string(type) + "::" + name);
      try {
        call();
        ADD_FAILURE() << "nothing was thrown";
      } catch (Vel::RangeException const& error) {
        EXPECT_STREQ(error.what(), "attempting to modify a const instance");
      }
      EXPECT_EQ(everything(), before);
    });
  };
#define GO_THROUGH(T) goThrough(#T, example(Type<T>()));
  ENTITY_TYPES(GO_THROUGH)
#undef GO_THROUGH
  // The list has what the macros declare, what is written by hand, and what is inherited.
  EXPECT_THAT(names,
              testing::IsSupersetOf({"Routing::Pim::Intf::joinPruneHoldTimeIs(U16 const&)",
                                     "Routing::Pim::Intf::attributeIs(std::string_view, std::string_view)",
                                     "Routing::Pim::Packet::JoinPruneGroupData::prunedRptSourceDelAll()",
                                     "Routing::Pim::JoinPruneMessageSm::pimIntfDel(PimIntfIterator const&)",
                                     "Routing::Pim::JoinPruneMessageSm::hasNotificationActiveIs(bool)",
                                     "Routing::Pim::JoinPruneNeighborSm::velDoZombieReactors(bool)",
                                     "Routing::Pim::JoinPruneNeighborSm::periodicGroupDataDel("
                                     "PeriodicGroupDataIterator const&)"}));
}

}  // namespace
}  // namespace Routing::Pim
