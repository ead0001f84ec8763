// SPDX-License-Identifier: Apache-2.0
#include "jpagent/common/Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Routing::Pim::Jpagent {
namespace {

using testing::ElementsAre;

template <class Action>
std::string thrown(Action const& action) {
  try {
    action();
  } catch (OptionError const& e) {
    return e.what();
  }
  return "nothing";
}

TEST(OptionsTest, TheLongestPrefixDecidesForAGroup) {
  RpTable rps;
  rps.add("239.0.0.0/8=10.0.0.1");
  rps.add("239.1.1.0/24=10.0.0.3");
  rps.add("239.1.0.0/16=10.0.0.2");
  rps.add("ff00::/8=2001:db8::1");
  IpGenAddr const otherwise("10.9.9.9");
  struct {
    char const *group, *rp;
  } const rows[] = {{"239.1.1.1", "10.0.0.3"},
                    {"239.1.2.1", "10.0.0.2"},
                    {"239.2.2.1", "10.0.0.1"},
                    {"238.0.0.1", "10.9.9.9"},
                    {"ff0e::1", "2001:db8::1"}};
  for (auto const& row : rows)
    EXPECT_EQ(rps.rp(IpGenAddr(row.group), otherwise), IpGenAddr(row.rp)) << row.group;
}

TEST(OptionsTest, WithoutPrefixesEveryRpIsRight) {
  EXPECT_EQ(RpTable().rp(IpGenAddr("239.1.1.1"), IpGenAddr("10.0.0.1")), IpGenAddr("10.0.0.1"));
}

TEST(OptionsTest, APrefixMayBeAllThereIsOrOneGroup) {
  RpTable rps;
  rps.add("0.0.0.0/0=10.0.0.1");
  rps.add("239.1.1.1=10.0.0.2");
  EXPECT_EQ(rps.rp(IpGenAddr("239.1.1.2"), IpGenAddr()), IpGenAddr("10.0.0.1"));
  EXPECT_EQ(rps.rp(IpGenAddr("239.1.1.1"), IpGenAddr()), IpGenAddr("10.0.0.2"));
}

TEST(OptionsTest, AnRpThatDoesNotParseIsQuoted) {
  struct {
    std::string text, what;
  } const rows[] = {
      {"", "is not GROUP/LEN=ADDRESS"},
      {"239.0.0.0/8", "is not GROUP/LEN=ADDRESS"},
      {"239.0.0.0/8=", "does not end in an address"},
      {"239.0.0.0/8=rp", "does not end in an address"},
      {"239.0.0.0/8=unknown", "has groups and an RP of different families"},
      {"239.0.0.0/8=2001:db8::1", "has groups and an RP of different families"},
      {"239.0.0.0/8=239.1.1.1", "names an RP that is not unicast"},
      {"239.0.0.0/8=0.0.0.0", "names an RP that is not unicast"},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(thrown([&] { RpTable().add(row.text); }), '"' + row.text + "\" " + row.what);
  }
}

TEST(OptionsTest, TheSameGroupsCannotHaveTwoRps) {
  RpTable rps;
  rps.add("239.1.0.0/16=10.0.0.1");
  EXPECT_EQ(thrown([&] { rps.add("239.1.2.3/16=10.0.0.2"); }),
            "\"239.1.2.3/16=10.0.0.2\" gives the same groups an RP again");
}

TEST(OptionsTest, APrefixOfGroupsMustHaveSome) {
  EXPECT_EQ(groupPrefixFromText("239.0.0.0/8"), IpGenPrefix(IpGenAddr("239.0.0.0"), 8));
  EXPECT_EQ(groupPrefixFromText("ff3e::/32"), IpGenPrefix(IpGenAddr("ff3e::"), 32));
  EXPECT_EQ(groupPrefixFromText("192.0.0.0/2"), IpGenPrefix(IpGenAddr("192.0.0.0"), 2));
  struct {
    std::string text, what;
  } const rows[] = {
      {"239.0.0.0/33", "is not GROUP/LEN"},
      {"239.0.0.0/", "is not GROUP/LEN"},
      {"unknown", "is not GROUP/LEN"},
      {"10.0.0.0/8", "has no multicast group"},
      {"2001:db8::/32", "has no multicast group"},
  };
  for (auto const& row : rows) {
    EXPECT_EQ(thrown([&] { groupPrefixFromText(row.text); }), '"' + row.text + "\" " + row.what);
  }
}

TEST(OptionsTest, LevelsAreNumbersAndRanges) {
  EXPECT_THAT(traceLevelsFromText("7"), ElementsAre(7));
  EXPECT_THAT(traceLevelsFromText("1,2,7"), ElementsAre(1, 2, 7));
  EXPECT_THAT(traceLevelsFromText("1-3,8"), ElementsAre(1, 2, 3, 8));
  EXPECT_THAT(traceLevelsFromText("30-30"), ElementsAre(30));
  for (std::string const text : {"", "a", "0", "31", "1,", ",1", "1-", "-1", "1--2", "1 2", "99999999999"}) {
    EXPECT_EQ(thrown([&] { traceLevelsFromText(text); }),
              '"' + text + "\" is no list of trace levels from 1 to 30, such as 1,2,7 or 1-8");
  }
  EXPECT_EQ(thrown([] { traceLevelsFromText("8-1"); }), "\"8-1\" has a range that ends before it begins");
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
