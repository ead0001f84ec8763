// SPDX-License-Identifier: Apache-2.0
#include "runtime/dova/IntfId.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Dova {
namespace {

TEST(IntfIdTest, TheDefaultIsTheEmptyName) {
  EXPECT_EQ(IntfId(), IntfId(""));
  EXPECT_EQ(IntfId().name(), "");
  EXPECT_EQ(IntfId().hash(), IntfId("").hash());
  EXPECT_FALSE(IntfId() == IntfId("eth0"));
}

TEST(IntfIdTest, TheTextIsTheName) {
  std::ostringstream text;
  text << IntfId("eth0.100") << '|' << IntfId() << '|' << IntfId("a name of more than fifteen characters");
  EXPECT_EQ(text.str(), "eth0.100||a name of more than fifteen characters");
  IntfId id("eth0");
  EXPECT_TRUE(fromText("eth1", id));
  EXPECT_EQ(id, IntfId("eth1"));
  EXPECT_TRUE(fromText("", id));
  EXPECT_EQ(id, IntfId());
}

TEST(IntfIdTest, ATextIsAnIdentifierWhereOneIsWanted) {
  auto const nameOf = [](IntfId const& id) { return id.name(); };
  EXPECT_EQ(nameOf("eth0"), "eth0");
  EXPECT_EQ(nameOf(std::string("eth1")), "eth1");
  EXPECT_EQ(nameOf(std::string_view("eth2.7").substr(0, 4)), "eth2");
}

TEST(IntfIdTest, IdentifiersAreOrderedAndHashedByName) {
  char const* const ascending[] = {"", "eth0", "eth1", "eth10", "eth2", "lo"};
  for (auto const& a : ascending)
    for (auto const& b : ascending) {
      EXPECT_EQ(IntfId(a) < IntfId(b), &a < &b) << a << " and " << b;
      EXPECT_EQ(IntfId(a) == IntfId(b), &a == &b) << a << " and " << b;
      EXPECT_EQ(IntfId(a).hash() == IntfId(b).hash(), &a == &b) << a << " and " << b;
    }
}

}  // namespace
}  // namespace Dova
