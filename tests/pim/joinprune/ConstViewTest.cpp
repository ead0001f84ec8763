// SPDX-License-Identifier: Apache-2.0
// Every mutator of every entity type through a const view.
#include "tests/pim/joinprune/Examples.h"

namespace Routing::Pim {
namespace {

class ConstViewTest : public testing::Test, protected Examples {
 protected:
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
