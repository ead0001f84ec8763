// SPDX-License-Identifier: Apache-2.0
// What SIGHUP does: the configuration is read again, and its difference applied.
#include <gmock/gmock.h>

#include <fstream>

#include "tests/jpagent/live/Cable.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(LiveReloadTest, AConfigurationIsCheckedAppliedAndItsDifferenceTakenOver) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  auto const file = lab.path("jpagent.toml");
  auto const write = [&](std::string const& text) { std::ofstream(file) << text; };
  std::string const settings = "[interface.vb]\nhello = 1\nhello-delay = 0.02\n";
  std::string const first = "[[route]]\njoin = \"(10.9.0.1,239.1.1.1)\"\nvia = \"10.0.0.1\"\n";
  std::string const second = "[[route]]\njoin = \"(*,239.1.1.2)\"\nvia = \"10.0.0.1\"\n";
  write(settings + first + second);
  auto const unknown = shell(JPAGENT " run --check " + file);
  EXPECT_EQ(unknown.status, 2);  // no RP
  EXPECT_THAT(unknown.output, HasSubstr("jpagent.toml:7:1: "));
  write("[rp]\n\"239.0.0.0/8\" = \"10.255.0.1\"\n" + settings + first + second);
  EXPECT_EQ(shell(JPAGENT " run --check " + file).status, 0);

  QuickAgent one(lab, "one", "va");
  Agent two(lab, "two", {"--config", file});
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(one.await(downstream("joined", "(*,239.1.1.2)"))["rp"], "10.255.0.1");
  two.ask("show upstream");  // by now all that was sent has been told
  auto const sent = two.eventCount();
  write("[rp]\n\"239.0.0.0/8\" = \"10.255.0.1\"\n" + settings + second +
        "[[route]]\njoin = \"(10.9.0.3,239.1.1.3)\"\nvia = \"10.0.0.1\"\n");
  two.process().signal(SIGHUP);
  one.await(downstream("pruned", "(10.9.0.1,239.1.1.1)"));
  one.await(downstream("joined", "(10.9.0.3,239.1.1.3)"));
  for (auto at = sent; at < two.eventCount(); ++at)
    EXPECT_THAT(two.events()[at].dump(), Not(HasSubstr("239.1.1.2")));  // nothing for what stays
  write(settings + "helo = 3\n");
  two.process().signal(SIGHUP);
  EXPECT_THAT(two.await({{"event", "error"}})["reason"].get<std::string>(),
              HasSubstr("jpagent.toml:4:1: unknown key \"helo\""));
  EXPECT_EQ(two.ask("show upstream")["result"].size(), 2u);
  EXPECT_EQ(two.end(), 0);
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveReloadTest, InterfacesSettingsPolicyAndTheControlPathChangeWithTheFile) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  auto const file = lab.path("jpagent.toml");
  auto const write = [&](std::string const& text) { std::ofstream(file) << text; };
  auto const control = [&](std::string const& name) { return "control = \"" + lab.path(name) + "\"\n"; };
  std::string const quickly = "[interface.va]\nhello = 0.1\nhello-hold = 3\nhello-delay = 0.02\n";
  write(control("before") + "deny = [\"239.9.0.0/16\"]\n" + quickly + "priority = 7\n");
  Agent one(lab, "one", {"--config", file, "--record", lab.path("record")});
  QuickAgent two(lab, "two", "vb");
  EXPECT_EQ(two.await(neighborUp("10.0.0.1"))["dr_priority"], 7);
  two.ask("join (10.9.0.1,239.9.0.1) via 10.0.0.1");
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(one.count(downstream("joined", "(10.9.0.1,239.9.0.1)")), 0);
  EXPECT_EQ(shell(JPAGENT " tell " + lab.path("before") + " show neighbors").status, 0);

  // A key that the file no longer has is as at the start.
  write(control("after") + quickly);
  one.process().signal(SIGHUP);
  two.await({{"event", "neighbor_changed"}, {"dr_priority", 1}});
  EXPECT_EQ(shell(JPAGENT " tell " + lab.path("before") + " show neighbors").status, 2);
  EXPECT_THAT(shell(JPAGENT " tell " + lab.path("after") + " show interfaces").output,
              HasSubstr("priority 1,"));
  two.ask("leave (10.9.0.1,239.9.0.1)");
  two.ask("join (10.9.0.1,239.9.0.1) via 10.0.0.1");
  one.await(downstream("joined", "(10.9.0.1,239.9.0.1)"));
  EXPECT_EQ(one.count(downstream("expired", "(10.9.0.1,239.1.1.1)")), 0);  // nothing ends that stays

  write(control("after") + "[interface.other]\n");
  one.process().signal(SIGHUP);
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.1"}});
  EXPECT_EQ(one.await(interfaceIs("down", "10.0.0.1/24"))["goodbye"], true);
  EXPECT_EQ(one.ask("interface va up")["ok"], false);
  EXPECT_EQ(one.ask("interface other hello 3")["ok"], true);
  EXPECT_EQ(one.end(), 0);
  auto const performed = shell(JPAGENT " simulate " + lab.path("record"));
  EXPECT_EQ(performed.output, one.text());
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
