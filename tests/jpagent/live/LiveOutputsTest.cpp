// SPDX-License-Identifier: Apache-2.0
// What `jpagent run` writes to, and the system that takes no more.
#include <gmock/gmock.h>

#include <fstream>

#include "tests/Thorough.h"
#include "tests/jpagent/live/Cable.h"
#include "tests/jpagent/live/Datagrams.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

using testing::HasSubstr;

TEST(LiveOutputsTest, AnOutputThatFailsIsToldOnceAndAllElseContinues) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  std::ofstream(lab.path("script")) << "ulimit -f 4; trap '' XFSZ; exec " JPAGENT " run --json va --pcap "
                                    << lab.path("pcap") << " --record " << lab.path("record") << "\n";
  auto words = lab.entering("one");
  words.insert(words.end(), {"bash", lab.path("script")});
  Process one(words);
  QuickAgent two(lab, "two", "vb");
  one.write("interface va hello 0.02 hello-hold 3 hello-delay 0.02\n");
  std::string output;
  for (int i = 0; i < 200 && output.find("\"what\":\"" + lab.path("pcap")) == output.npos; ++i)
    output += one.read(0.1);
  EXPECT_THAT(output, HasSubstr("File too large"));
  two.await(neighborUp("10.0.0.1"));
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  for (int i = 0; i < 100 && output.find("\"joined\"") == output.npos; ++i) output += one.read(0.1);
  EXPECT_THAT(output, HasSubstr("(10.9.0.1,239.1.1.1)"));
  one.write("quit\n");
  while (!output.ends_with("\"command\":\"quit\"}\n")) {
    auto const more = one.read(3);
    if (more.empty()) break;
    output += more;
  }
  EXPECT_EQ(one.wait(), 2) << output;
  auto const first = output.find("\"event\":\"error\",\"what\":\"" + lab.path("pcap"));
  ASSERT_NE(first, output.npos) << output;
  EXPECT_EQ(output.find("\"event\":\"error\",\"what\":\"" + lab.path("pcap"), first + 1), output.npos);
  EXPECT_EQ(shell(JPAGENT " replay " + lab.path("pcap")).status, 0);  // no part of a packet is left
}

TEST(LiveOutputsTest, WithoutAReaderOfItsEventsItContinuesAndStatusTwoSaysIt) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va", {"--control", lab.path("control")});
  one.await(interfaceIs("up", "10.0.0.1/24"));
  one.process().closeOutput();
  QuickAgent two(lab, "two", "vb");
  two.await(neighborUp("10.0.0.1"));
  std::string shown;
  for (int i = 0; i < 100 && shown.find("10.0.0.2") == shown.npos; ++i, pause(0.05))
    shown = shell(JPAGENT " tell --json " + lab.path("control") + " show neighbors").output;
  EXPECT_THAT(shown, HasSubstr("\"10.0.0.2\""));
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  for (int i = 0; i < 100 && shown.find("joined") == shown.npos; ++i, pause(0.05))
    shown = shell(JPAGENT " tell " + lab.path("control") + " show downstream").output;
  EXPECT_THAT(shown, HasSubstr("joined"));
  one.process().signal(SIGTERM);
  EXPECT_EQ(one.process().wait(), 2);
}

// An agent that is started by a shell, and whose standard error is a file "errors".
Agent byShell(Lab const& lab, std::string const& space, std::string const& before,
              std::string const& arguments) {
  std::ofstream(lab.path("script")) << before << "\nexec " JPAGENT " run --json " << arguments << " 2>"
                                    << lab.path("errors") << "\n";
  auto words = lab.entering(space);
  words.insert(words.end(), {"unshare", "--mount", "sh", "-e", lab.path("script")});
  return Agent(words);
}

TEST(LiveOutputsTest, TracesAndErrorsAreWrittenToStandardErrorAndTheRingsToAFile) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  std::ofstream(lab.path("jpagent.toml"))
      << "[interface.va]\nhello = 0.1\nhello-hold = 3\nhello-delay = 0.02\n";
  auto one = byShell(
      lab, "one", "",
      "--log stderr --trace 1-8 --scrivo " + lab.path("rings") + " --config " + lab.path("jpagent.toml"));
  QuickAgent two(lab, "two", "vb");
  one.await(neighborUp("10.0.0.2"));
  one.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.2");
  one.await({{"event", "sent"}});
  one.ask("trace off");
  auto const untilOff = lab.text("errors");
  one.ask("join (10.9.0.1,239.1.1.2) via 10.0.0.2");
  two.await(downstream("joined", "(10.9.0.1,239.1.1.2)"));
  EXPECT_THAT(untilOff, testing::ContainsRegex("(^|\n)Pim::JoinPrune\\[[1-8]\\] .*10.0.0.2"));
  EXPECT_EQ(lab.text("errors"), untilOff);
  std::ofstream(lab.path("jpagent.toml")) << "helo = 1\n";
  one.process().signal(SIGHUP);
  one.await({{"event", "error"}, {"what", "configuration"}});
  EXPECT_EQ(one.end(), 0);
  EXPECT_THAT(lab.text("errors"), HasSubstr("error: what configuration, reason "));
  auto const rings = shell(JPAGENT " trace " + lab.path("rings"));
  EXPECT_EQ(rings.status, 0);
  EXPECT_THAT(rings.output, HasSubstr("Routing::Pim::JoinPruneNeighborSm::"));
}

TEST(LiveOutputsTest, TheJournalHasErrorsAndTracesWithTheirPriorities) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  Datagrams const journal(lab.path("journal"));
  std::ofstream(lab.path("jpagent.toml")) << "[interface.va]\n";
  // In a mount namespace of its own, the journal is this test.
  auto one = byShell(lab, "one",
                     "mount -t tmpfs tmpfs /run; mkdir -p /run/systemd/journal; touch "
                     "/run/systemd/journal/socket; mount --bind " +
                         lab.path("journal") + " /run/systemd/journal/socket",
                     "--log journald --config " + lab.path("jpagent.toml"));
  one.await(interfaceIs("up", "10.0.0.1/24"));
  std::ofstream(lab.path("jpagent.toml")) << "helo = 1\n";
  one.process().signal(SIGHUP);
  one.await({{"event", "error"}});
  EXPECT_THAT(journal.next(),
              testing::MatchesRegex("PRIORITY=3\nSYSLOG_IDENTIFIER=jpagent\nMESSAGE=.* error: what "
                                    "configuration, reason .*unknown key \"helo\".*\n"));
  QuickAgent two(lab, "two", "vb");
  one.await(neighborUp("10.0.0.2"));
  one.ask("trace 1-8");
  one.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.2");
  EXPECT_THAT(journal.next(), testing::StartsWith("PRIORITY=7\nSYSLOG_IDENTIFIER=jpagent\nMESSAGE="
                                                  "Pim::JoinPrune["));
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveOutputsTest, WhatAFullSendBufferDoesNotTakeStaysPendingAndIsSentLater) {
  REQUIRE_NAMESPACES();
  if (!thorough()) GTEST_SKIP() << "left to scripts/prove";
  Cable const lab;
  QuickAgent one(lab, "one", "va", {}, " hello-hold 60");
  QuickAgent two(lab, "two", "vb", {}, " hello-hold 60 interval 0.2 hold 60");
  two.await(neighborUp("10.0.0.1"));
  one.await(neighborUp("10.0.0.2"));
  // What is sent waits in a queue, and is charged to the socket until it leaves.
  lab.in("two", "ip link set vb mtu 576; tc qdisc add dev vb root tbf burst 2000 limit 100000000 rate 8kbit");
  EXPECT_TRUE(two.ask("join 2000 routes from (10.9.0.1,239.1.0.0) via 10.0.0.1")["ok"]);
  auto const later = [&] {
    auto const shown = two.ask("show counters");
    for (auto const& row : shown["result"])
      if (row["name"] == "sent_later") return row["value"].get<int>();
    return -1;
  };
  for (int i = 0; i < 100 && later() == 0; ++i) pause(0.05);
  EXPECT_GT(later(), 0);
  EXPECT_TRUE(two.ask("join 500 routes from (10.9.0.1,239.2.0.0) via 10.0.0.1")["ok"]);
  EXPECT_EQ(one.count(downstream("joined", "(10.9.0.1,239.2.1.243)")), 0);
  lab.in("two", "tc qdisc change dev vb root tbf burst 100000 limit 100000000 rate 10gbit");
  one.await(downstream("joined", "(10.9.0.1,239.2.1.243)"));
  for (int i = 0; i < 50 && one.count({{"event", "downstream"}}) < 2500; ++i) pause(0.05);
  EXPECT_EQ(one.count({{"event", "downstream"}, {"state", "joined"}}), 2500);
  EXPECT_EQ(two.count({{"event", "error"}}), 0);
  two.process().signal(SIGKILL);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
