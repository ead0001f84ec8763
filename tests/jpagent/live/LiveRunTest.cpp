// SPDX-License-Identifier: Apache-2.0
// `jpagent run` in network namespaces: real sockets, a real kernel.
#include <gmock/gmock.h>

#include "tests/jpagent/live/Cable.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

using testing::HasSubstr;

TEST(LiveRunTest, OneJoinsFromTheOtherAndWhatItLeavesIsPruned) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  lab.in("one", "ip address add 10.0.1.1/24 dev va");
  QuickAgent one(
      lab, "one", "va",
      {"--pcap", lab.path("pcap"), "--control", lab.path("control"), "--record", lab.path("record")});
  QuickAgent two(lab, "two", "vb");
  EXPECT_EQ(one.await(interfaceIs("up", "10.0.0.1/24"))["mtu"], 1500);
  EXPECT_EQ(one.await(neighborUp("10.0.0.2"))["hold"], 3);
  two.await(neighborUp("10.0.0.1"));
  // By an address that is not its primary one.
  EXPECT_TRUE(two.ask("join (10.9.0.1,239.1.1.1) via 10.0.1.1")["ok"]);
  EXPECT_EQ(two.await({{"event", "sent"}})["upstream"], "10.0.0.1");
  EXPECT_TRUE(two.ask("join 5 routes from (*,239.2.0.1) rp 10.255.0.1 via 10.0.0.1")["ok"]);
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(one.await(downstream("joined", "(*,239.2.0.5)"))["rp"], "10.255.0.1");
  EXPECT_EQ(one.ask("show downstream")["result"].size(), 6u);
  EXPECT_TRUE(two.ask("leave (10.9.0.1,239.1.1.1)")["ok"]);
  one.await(downstream("pruned", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(two.ask("leave (10.9.0.1,239.1.1.1)")["ok"], false);

  EXPECT_THAT(one.ask("show counters").dump(), HasSubstr("dropped_by_kernel"));

  // What is joined is pruned before the goodbye.
  EXPECT_EQ(two.end(), 0) << two.allText();
  one.await(downstream("pruned", "(*,239.2.0.5)"));
  one.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.2"}});
  EXPECT_EQ(one.count({{"event", "downstream"}, {"state", "pruned"}}), 6);
  one.say("quit");
  EXPECT_EQ(one.wait(), 0) << one.allText();
  EXPECT_FALSE(std::filesystem::exists(lab.path("control")));

  // What was recorded gives the same events again.
  auto const performed = shell(JPAGENT " simulate " + lab.path("record"));
  EXPECT_EQ(performed.status, 0) << performed.output;
  EXPECT_EQ(performed.output, one.text());

  // The capture has both directions.
  auto const replayed = shell(JPAGENT " replay --json " + lab.path("pcap"));
  EXPECT_EQ(replayed.status, 0) << replayed.output;
  EXPECT_THAT(replayed.output, HasSubstr("239.2.0.5"));
}

TEST(LiveRunTest, Ipv6WaitsForDuplicateAddressDetectionAndThenJoins) {
  REQUIRE_NAMESPACES();
  // The detection begins at once instead of within a second.
  Lab const lab({"one", "two"}, "echo 0 > /proc/sys/net/ipv6/conf/default/router_solicitation_delay");
  lab.cable("one", "va", "two", "vb");
  QuickAgent one(lab, "one", "va"), two(lab, "two", "vb");
  auto const up = one.await({{"event", "interface"}, {"state", "up"}});
  auto const upstream =
      up["address"].get<std::string>().substr(0, up["address"].get<std::string>().find('/'));
  EXPECT_TRUE(two.ask("join (2001:db8::1,ff0e::1) via " + upstream + "%vb")["ok"]);
  one.await(downstream("joined", "(2001:db8::1,ff0e::1)"));
  EXPECT_TRUE(two.ask("leave (2001:db8::1,ff0e::1)")["ok"]);
  one.await(downstream("pruned", "(2001:db8::1,ff0e::1)"));
  EXPECT_EQ(one.count({{"event", "refused"}}), 0) << one.allText();
  // The goodbye from an address that the kernel has removed.
  lab.in("one", "ip address del " + up["address"].get<std::string>() + " dev va");
  EXPECT_EQ(one.await(interfaceIs("down", up["address"]))["goodbye"], true);
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", upstream}});
  EXPECT_EQ(two.end(), 0);
}

TEST(LiveRunTest, OnALanAnotherRoutersPruneIsOverridden) {
  REQUIRE_NAMESPACES();
  Lab const lab({"switch", "one", "two", "three"}, withoutIpv6);
  lab.in("switch", "ip link add lan type bridge mcast_snooping 0; ip link set lan up");
  int number = 0;
  for (std::string const space : {"one", "two", "three"}) {
    lab.cable("switch", "to" + space, space, "e", "", "10.0.0." + std::to_string(++number) + "/24");
    lab.in("switch", "ip link set to" + space + " master lan");
  }
  QuickAgent one(lab, "one", "e", {}, " override 0.3 propagation 0.1"),
      two(lab, "two", "e", {}, " override 0.3 propagation 0.1"),
      three(lab, "three", "e", {}, " override 0.3 propagation 0.1");
  for (auto* const agent : {&two, &three}) {
    agent->await(neighborUp("10.0.0.1"));
    agent->ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  }
  one.await(neighborUp("10.0.0.2"));
  one.await(neighborUp("10.0.0.3"));
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  three.await({{"event", "sent"}});
  three.await({{"event", "received"}, {"source", "10.0.0.2"}});  // heard
  auto const before = one.eventCount();
  two.ask("leave (10.9.0.1,239.1.1.1)");
  one.await(downstream("prune-pending", "(10.9.0.1,239.1.1.1)"), before);
  auto const join = one.await({{"event", "received"}, {"source", "10.0.0.3"}}, before);
  EXPECT_EQ(join["entries"][0]["kind"], "join");
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"), before);
  pause(0.6);
  EXPECT_EQ(one.count(downstream("pruned", "(10.9.0.1,239.1.1.1)")), 0) << one.allText();
}

TEST(LiveRunTest, ANeighborThatWasKilledExpiresAndOneThatStartsAgainHasRestarted) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va");
  std::size_t restarted = 0;
  {
    QuickAgent two(lab, "two", "vb");
    one.await(neighborUp("10.0.0.2"));
    two.await(neighborUp("10.0.0.1"));
    two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
    one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
    two.process().signal(SIGKILL);
  }
  QuickAgent two(lab, "two", "vb", {}, " hello-hold 1");
  one.await({{"event", "neighbor"}, {"state", "restarted"}, {"address", "10.0.0.2"}, {"hold", 1}});
  restarted = one.eventCount();
  EXPECT_EQ(one.count({{"event", "neighbor"}, {"state", "up"}}), 1);
  two.process().signal(SIGKILL);
  one.await({{"event", "neighbor"}, {"state", "expired"}, {"hold", 1}}, restarted);
  EXPECT_EQ(one.end(), 0);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
