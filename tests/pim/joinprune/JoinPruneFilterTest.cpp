// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneFilter.h"

#include <gtest/gtest.h>

#include "runtime/dova/IpGenPrefix.h"

namespace Routing::Pim {
namespace {

TEST(JoinPruneFilterTest, TheFactoryMakesAFilterWithACountOfOne) {
  auto const filter = joinPruneFilterFactory();
  ASSERT_TRUE(filter);
  EXPECT_EQ(filter->references(), 1u);
  EXPECT_EQ(filter->fwkType(), "Routing::Pim::JoinPruneFilter");
  EXPECT_TRUE(filter->attributeTable().empty());
}

TEST(JoinPruneFilterTest, ItDeniesNothing) {
  Vel::Ptr<JoinPruneFilter const> const filter = joinPruneFilterFactory();
  for (char const* group : {"239.1.1.1", "0.0.0.0", "ff0e::1", "::", "unknown"})
    EXPECT_FALSE(filter->deny(Dova::IpGenAddr(group))) << group;
}

TEST(JoinPruneFilterTest, AnAgentsOwnFilterIsAskedThroughTheReadOnlyReference) {
  class NoLocalGroups final : public JoinPruneFilter {
    bool deny(Dova::IpGenAddr const& group) const override { return local.contains(group); }
    Dova::IpGenPrefix const local{Dova::IpGenAddr("239.255.0.0"), 16};
  };
  Vel::Ptr<JoinPruneFilter const> const filter = Vel::create<NoLocalGroups>();
  EXPECT_TRUE(filter->deny(Dova::IpGenAddr("239.255.1.1")));
  EXPECT_FALSE(filter->deny(Dova::IpGenAddr("239.254.1.1")));
  EXPECT_FALSE(filter->deny(Dova::IpGenAddr()));
}

}  // namespace
}  // namespace Routing::Pim
