// SPDX-License-Identifier: Apache-2.0
// What a live speaker shows.
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

using LiveShowTest = LiveScene;

TEST_F(LiveShowTest, NeighborsHaveTheMembersOfTheirEventAndWhenTheyExpireAndTheirAddresses) {
  interface();
  hello("10.0.0.2", {.hold = 90, .generation = 1234, .priority = 0, .addresses = {"10.7.0.2"}});
  hello("10.0.0.3", {.hold = 65535});
  pass(10);
  Json const rows = show("neighbors");
  EXPECT_EQ(rows[0].dump(),
            R"j({"state":"up","interface":"eth0","address":"10.0.0.2","hold":90,"generation":1234,)j"
            R"j("dr_priority":0,"expires":80.0,"addresses":["10.7.0.2"],"dr":false,"restarts":0})j");
  EXPECT_EQ(rows[1].dump(),
            R"j({"state":"up","interface":"eth0","address":"10.0.0.3","hold":65535,"generation":null,)j"
            R"j("dr_priority":null,"expires":null,"addresses":[],"dr":true,"restarts":0})j");
}

TEST_F(LiveShowTest, InterfacesHaveTheirStateSettingsAndEffectiveDelays) {
  interface("eth0", {"10.0.0.1/24", "10.7.0.1/24", "fe80::1/64"});
  hello("10.0.0.2", {.delay = Wire::LanPruneDelay{.propagationDelay = 900, .overrideInterval = 4000}});
  speaker_->interfaceGiven("eth1");
  Json const rows = show("interfaces");
  ASSERT_THAT(rows, SizeIs(2));
  EXPECT_EQ(
      rows[0].dump(),
      R"j({"interface":"eth0","addresses":["10.0.0.1/24","10.7.0.1/24","fe80::1/64"],"mtu":1500,)j"
      R"j("state":"up","dr":"10.0.0.2","effective_propagation":0.9,"effective_override":4.0,)j"
      R"j("suppression":true,"hello":30.0,"hello_hold":105,"hello_delay":0.0,"interval":60,"hold":210,)j"
      R"j("override":2.5,"propagation":0.5,"priority":1,"tracking":false,"neighbors_most":1000,)j"
      R"j("routes_most":1000000,"neighbor_routes_most":4294967295,"families":[)j"
      R"j({"address":"10.0.0.1/24","dr":"10.0.0.2","neighbors":1,"effective_propagation":0.9,)j"
      R"j("effective_override":4.0,"suppression":true},)j"
      R"j({"address":"fe80::1/64","dr":"fe80::1","neighbors":0,"effective_propagation":0.5,)j"
      R"j("effective_override":2.5,"suppression":false}]})j");
  EXPECT_EQ(rows[1]["state"], "down");
  EXPECT_EQ(rows[1]["mtu"], nullptr);
  EXPECT_EQ(rows[1]["dr"], nullptr);
}

TEST_F(LiveShowTest, UpstreamRoutesAreJoinedWaitingOrSuppressedAndSayWhenTheirNextRefreshIs) {
  interface();
  Hellos const said{.hold = 65535, .delay = Wire::LanPruneDelay{}};
  hello("10.0.0.2", said);
  hello("10.0.0.3", said);
  ok("join (10.9.0.1,239.1.1.1) via 10.0.0.2");
  ok("join (*,239.1.1.2) rp 10.255.0.1 via 10.0.0.2");
  ok("join (10.9.0.1,239.1.1.3) via 10.0.0.9");
  pass(10);
  joinPrune("10.0.0.3", "10.0.0.2", {{EntryKind::sourceJoin, "10.9.0.1", "239.1.1.1"}}, 300);
  Json const rows = show("upstream");
  ASSERT_THAT(rows, SizeIs(3));
  EXPECT_THAT(rows[0].dump(),
              testing::MatchesRegex(R"j(\{"route":"\(10.9.0.1,239.1.1.1\)","rp":null,"via":"10.0.0.2",)j"
                                    R"j("interface":"eth0","state":"suppressed","next":[0-9.]+\})j"));
  EXPECT_EQ(rows[1]["rp"], "10.255.0.1");
  EXPECT_EQ(rows[1]["state"], "joined");
  double const next = rows[1]["next"];
  EXPECT_GT(next, 40);
  EXPECT_EQ(rows[2]["state"], "waiting");
  EXPECT_EQ(rows[2]["next"], nullptr);
  // It is when the refresh comes.
  take();
  pass(next - 0.01);
  EXPECT_THAT(take("sent"), SizeIs(0));
  pass(0.02);
  EXPECT_THAT(take("sent"), SizeIs(1));
}

TEST_F(LiveShowTest, DownstreamRoutesHaveTheirStateAndTheSecondsThatAreLeft) {
  interface();
  hello("10.0.0.2");
  hello("10.0.0.3");
  joinPrune("10.0.0.2", "10.0.0.1", {{EntryKind::sourceJoin, "10.9.0.1", "239.1.1.1"}});
  joinPrune("10.0.0.2", "10.0.0.1", {{EntryKind::wildcardJoin, "10.255.0.1", "239.1.1.2"}}, 65535);
  joinPrune("10.0.0.2", "10.0.0.1", {{EntryKind::sourceRptPrune, "10.9.0.1", "239.1.1.2"}});
  pass(1);
  std::vector<std::string> rows;
  for (auto const& row : show("downstream")) rows.push_back(row.dump());
  EXPECT_THAT(
      rows,
      ElementsAre(R"j({"interface":"eth0","route":"(10.9.0.1,239.1.1.1)","rp":null,"state":"joined",)j"
                  R"j("expires":209.0,"prune_pending":null,"neighbor":"10.0.0.2"})j",
                  R"j({"interface":"eth0","route":"(*,239.1.1.2)","rp":"10.255.0.1","state":"joined",)j"
                  R"j("expires":null,"prune_pending":null,"neighbor":"10.0.0.2"})j",
                  R"j({"interface":"eth0","route":"(10.9.0.1,239.1.1.2,rpt)","rp":null,)j"
                  R"j("state":"prune-pending","expires":209.0,"prune_pending":2.0,"neighbor":"10.0.0.2"})j"));
}

TEST_F(LiveShowTest, CountersAreNamesAndNumbersAlsoInTheFormatOfPrometheus) {
  interface();
  hello("10.0.0.2");
  EXPECT_EQ(show("counters")[0].dump(), R"j({"name":"hellos_sent","value":1})j");
  EXPECT_EQ(counter("neighbors"), 1u);
  EXPECT_EQ(counter("received: Hello"), 1u);
  auto const reply = speaker_->command("show counters --prometheus");
  schemaLineIs(jsonLine(reply->event));
  std::string const text = textOf(reply->event);
  EXPECT_TRUE(text.ends_with("\nok")) << text;
  std::set<std::string> samples;
  std::string described;  // HELP and TYPE come before the samples of a metric, which are in one place
  std::set<std::string> metrics;
  std::istringstream lines(text.substr(0, text.size() - 3));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("# HELP ")) {
      EXPECT_THAT(line, testing::MatchesRegex(R"j(# HELP jpagent_[a-z_]+ [A-Z][A-Za-z/, ]+\.)j"));
      described = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(metrics.insert(described).second) << described << " comes twice";
      EXPECT_THAT(line, testing::Not(HasSubstr("A number of this program")));
      continue;
    }
    if (line.starts_with("# TYPE ")) {
      EXPECT_THAT(line, testing::MatchesRegex("# TYPE " + described + " (counter|gauge)"));
      continue;
    }
    EXPECT_EQ(line.substr(0, line.find_first_of("{ ")), described) << line;
    EXPECT_THAT(line, testing::MatchesRegex(R"j([a-z_]+(\{[a-z]+="[^"]*"\})? [0-9]+)j"));
    EXPECT_TRUE(samples.insert(line.substr(0, line.rfind(' '))).second) << line << " comes twice";
  }
  EXPECT_THAT(text, HasSubstr("\njpagent_received_total{verdict=\"Hello\"} 1\n"));
  EXPECT_EQ(error("show neighbors --prometheus"), "expected the end of the line, not \"--prometheus\"");
}

TEST_F(LiveShowTest, TheTextOfAShowIsALineForEachRowAndOkInTheEnd) {
  interface();
  ok("join (10.9.0.1,239.1.1.1) via 10.0.0.2");
  EXPECT_EQ(textOf(speaker_->command("show upstream")->event),
            "route (10.9.0.1,239.1.1.1), rp -, via 10.0.0.2, interface eth0, state waiting, next -\nok");
  EXPECT_THAT(error("show routes"),
              HasSubstr("expected interfaces, neighbors, upstream, downstream or counters"));
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live::Test
