// SPDX-License-Identifier: Apache-2.0
// Each command of a live speaker.
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using LiveCommandsTest = LiveScene;

constexpr char sourceRoute[] = "(10.9.0.1,239.1.1.1)";

std::string sentJoin(std::string_view entries, std::string_view upstream = "10.0.0.2") {
  return fmt::format(
      R"j({{"event":"sent","interface":"eth0","source":"10.0.0.1","upstream":"{}","hold":210,)j"
      R"j("entries":[{}]}})j",
      upstream, entries);
}
std::string entry(std::string_view kind, std::string_view route) {
  return fmt::format(R"j({{"kind":"{}","route":"{}"}})j", kind, route);
}

TEST_F(LiveCommandsTest, AnEmptyLineAndACommentHaveNoReplyAndEachOtherLineHasOne) {
  EXPECT_EQ(command(""), nullptr);
  EXPECT_EQ(command("  \t\r"), nullptr);
  EXPECT_EQ(command("# join"), nullptr);
  EXPECT_EQ(command(" # join"), nullptr);
  EXPECT_EQ(command("  show   counters \r")["command"], "show   counters");
}

TEST_F(LiveCommandsTest, AReplyHasTheMembersOfTheInterfaceInTheirOrder) {
  auto const good = speaker_->command("show neighbors");
  EXPECT_EQ(jsonLine(good->event),
            R"j({"time":"2026-11-22T06:00:00.000000Z","event":"reply","ok":true,"command":"show neighbors",)j"
            R"j("result":[]})j");
  auto const bad = speaker_->command("jion x");
  EXPECT_EQ(jsonLine(bad->event),
            R"j({"time":"2026-11-22T06:00:00.000000Z","event":"reply","ok":false,"command":"jion x",)j"
            R"j("error":"expected a command, not \"jion\""})j");
  EXPECT_EQ(textOf(good->event), "ok");
  EXPECT_EQ(textOf(bad->event), "error: expected a command, not \"jion\"");
}

TEST_F(LiveCommandsTest, BytesThatAreNoTextAreReplacedInAReply) {
  auto const reply = speaker_->command("jion \xff\x01");
  EXPECT_THAT(jsonLine(reply->event), HasSubstr("jion \xef\xbf\xbd\\u0001"));
  EXPECT_THAT(textOf(reply->event), testing::Not(HasSubstr("\x01")));
}

TEST_F(LiveCommandsTest, AJoinIsSentAndTheSameAgainSendsNothingAndAnotherNeighborMovesIt) {
  interface();
  hello("10.0.0.2");
  hello("10.0.0.3");
  pass(1);
  take();
  ok(std::string("join ") + sourceRoute + " via 10.0.0.2");
  pass(1);
  EXPECT_THAT(take("sent"), ElementsAre(sentJoin(entry("join", sourceRoute))));
  ok(std::string("join ") + sourceRoute + " via 10.0.0.2");
  pass(1);
  EXPECT_THAT(take(), IsEmpty());
  ok(std::string("join ") + sourceRoute + " via 10.0.0.3%eth0");
  pass(1);
  EXPECT_THAT(take("sent"), testing::UnorderedElementsAre(sentJoin(entry("prune", sourceRoute)),
                                                          sentJoin(entry("join", sourceRoute), "10.0.0.3")));
}

TEST_F(LiveCommandsTest, ARouteThroughAnyAddressOfANeighborNamesItsPrimaryOne) {
  interface();
  hello("10.0.0.2", {.addresses = {"10.7.0.2"}});
  pass(1);
  take();
  ok(std::string("join ") + sourceRoute + " via 10.7.0.2");
  pass(1);
  EXPECT_THAT(take("sent"), ElementsAre(sentJoin(entry("join", sourceRoute))));
  EXPECT_EQ(show("upstream")[0]["via"], "10.0.0.2");
}

TEST_F(LiveCommandsTest, ARouteWaitsForItsNeighborAndItsInterface) {
  speaker_->interfaceGiven("eth0");
  ok("interface eth0 hello-delay 0");
  ok(std::string("join ") + sourceRoute + " via 10.0.0.2");
  EXPECT_EQ(show("upstream")[0]["state"], "waiting");
  kernel("eth0", {"10.0.0.1/24"});
  pass(1);
  EXPECT_EQ(show("upstream")[0]["state"], "waiting");
  take();
  hello("10.0.0.2");
  pass(1);
  EXPECT_THAT(take("sent"), SizeIs(1));
  EXPECT_EQ(show("upstream")[0]["state"], "joined");
}

TEST_F(LiveCommandsTest, AWildcardNeedsAnRpUnlessThePolicyKnowsIt) {
  interface();
  EXPECT_EQ(error("join (*,239.1.1.1) via 10.0.0.2"),
            "expected \"rp\" and the address of an RP: none is known for 239.1.1.1");
  ok("join (*,239.1.1.1) rp 10.255.0.1 via 10.0.0.2");
  speaker_->policyIs({"239.2.0.0/16=10.255.0.2", "239.2.1.0/24=10.255.0.3"}, {});
  ok("join 2 routes from (*,239.2.0.255) via 10.0.0.2");
  std::vector<std::string> rps;
  for (auto const& row : show("upstream")) rps.push_back(row["rp"]);
  EXPECT_THAT(rps, ElementsAre("10.255.0.1", "10.255.0.2", "10.255.0.3"));
  // All or nothing.
  EXPECT_EQ(error("join 2 routes from (*,239.2.255.255) via 10.0.0.2"),
            "expected \"rp\" and the address of an RP: none is known for 239.3.0.0");
  EXPECT_THAT(show("upstream"), SizeIs(3));
}

TEST_F(LiveCommandsTest, LeavePrunesAndIsAnErrorForWhatIsNotWanted) {
  interface();
  hello("10.0.0.2");
  ok(std::string("join ") + sourceRoute + " via 10.0.0.2");
  pass(1);
  take();
  ok(std::string("leave ") + sourceRoute);
  pass(1);
  EXPECT_THAT(take("sent"), ElementsAre(sentJoin(entry("prune", sourceRoute))));
  EXPECT_EQ(error(std::string("leave ") + sourceRoute), "(10.9.0.1,239.1.1.1) is not wanted");
  ok("join (*,239.1.1.1) rp 10.255.0.1 via 10.0.0.2");
  ok("leave (*,239.1.1.1)");
}

TEST_F(LiveCommandsTest, ARangeHasOneReplyAndALeaveOfARangeIsAllOrNothing) {
  interface();
  ok("join 3 routes from (10.9.0.1,239.1.1.1) via 10.0.0.2");
  EXPECT_THAT(show("upstream"), SizeIs(3));
  EXPECT_EQ(error("leave 4 routes from (10.9.0.1,239.1.1.1)"), "(10.9.0.1,239.1.1.4) is not wanted");
  EXPECT_THAT(show("upstream"), SizeIs(3));
  ok("leave 2 routes from (10.9.0.1,239.1.1.2)");
  EXPECT_EQ(show("upstream")[0]["route"], sourceRoute);
  EXPECT_THAT(show("upstream"), SizeIs(1));
}

TEST_F(LiveCommandsTest, PruneAndUnpruneOfASourceOnTheSharedTree) {
  interface();
  hello("10.0.0.2");
  ok("join (*,239.1.1.1) rp 10.255.0.1 via 10.0.0.2");
  pass(1);
  take();
  ok("prune (10.9.0.1,239.1.1.1,rpt)");
  pass(1);
  EXPECT_THAT(take("sent"), ElementsAre(sentJoin(entry("prune", "(10.9.0.1,239.1.1.1,rpt)"))));
  EXPECT_EQ(show("upstream")[1]["state"], "pruned");
  ok("prune (10.9.0.1,239.1.1.1,rpt)");
  ok("unprune (10.9.0.1,239.1.1.1,rpt)");
  pass(1);
  EXPECT_THAT(take("sent"), ElementsAre(sentJoin(entry("join", "(10.9.0.1,239.1.1.1,rpt)"))));
  EXPECT_EQ(error("unprune (10.9.0.1,239.1.1.1,rpt)"), "(10.9.0.1,239.1.1.1,rpt) is not pruned");
}

// --- Where a neighbor is

TEST_F(LiveCommandsTest, ANeighborWithoutAnInterfaceIsWhereItIsElseInItsSubnetElseOnTheOnlyInterface) {
  interface("eth0", {"10.0.0.1/24", "fe80::1/64"});
  ok("join (10.9.0.1,239.1.1.9) via 10.99.0.2");
  EXPECT_EQ(show("upstream")[0]["interface"], "eth0");
  interface("eth1", {"10.0.1.1/24", "fe80::1/64"});
  ok("join (10.9.0.1,239.1.1.1) via 10.0.1.2");
  EXPECT_EQ(show("upstream")[0]["interface"], "eth1");
  // There is one of this address on the other.
  hello("10.0.1.2", {}, "eth0");
  ok("join (10.9.0.1,239.1.1.1) via 10.0.1.2");
  EXPECT_EQ(show("upstream")[0]["interface"], "eth0");
  EXPECT_EQ(error("join (2001:db8::9,ff0e::1) via fe80::2"),
            "fe80::2 may be on several interfaces or on none: name it as fe80::2%INTERFACE");
  ok("join (2001:db8::9,ff0e::1) via fe80::2%eth1");
  EXPECT_EQ(error("join (10.9.0.1,239.1.1.1) via 10.99.0.2"),
            "10.99.0.2 may be on several interfaces or on none: name it as 10.99.0.2%INTERFACE");
  EXPECT_EQ(error("join (10.9.0.1,239.1.1.1) via 10.0.0.2%eth7"), "there is no interface eth7");
}

// --- Interfaces

TEST_F(LiveCommandsTest, AnInterfaceThatWasNotGivenIsAnErrorAndOneThatIsNotThereYetIsNot) {
  EXPECT_EQ(error("interface eth0 up"), "there is no interface eth0");
  speaker_->interfaceGiven("eth0");
  ok("interface eth0 hello 10");
  EXPECT_EQ(show("interfaces")[0]["hello"], 10);
}

TEST_F(LiveCommandsTest, WhatAConversationSaysOfAnInterfaceTheKernelSaysHere) {
  speaker_->interfaceGiven("eth0");
  for (auto const* words : {"10.0.0.1/24", "mtu 1500", "gone", "none", "point-to-point", ""})
    EXPECT_THAT(error(std::string("interface eth0 ") + words), HasSubstr("expected up, down or a setting"))
        << words;
  EXPECT_EQ(error("interface eth0 up down"), "expected one of up and down");
}

TEST_F(LiveCommandsTest, SettingsHoldForBothFamiliesAndSecondsMayHaveFractions) {
  interface("eth0", {"10.0.0.1/24", "fe80::1/64"});
  ok("interface eth0 hello 2.5 hello-hold 9.9 interval 7.4 hold 20.7 override 1.25 propagation 0.3 "
     "hello-delay 0.5 priority 9 tracking on");
  Json const row = show("interfaces")[0];
  EXPECT_EQ(row["hello"], 2.5);
  EXPECT_EQ(row["hello_hold"], 9);
  EXPECT_EQ(row["interval"], 7.4);
  EXPECT_EQ(row["hold"], 20);
  EXPECT_EQ(row["override"], 1.25);
  EXPECT_EQ(row["propagation"], 0.3);
  EXPECT_EQ(row["hello_delay"], 0.5);
  EXPECT_EQ(row["priority"], 9);
  EXPECT_EQ(row["tracking"], true);
  ASSERT_THAT(row["families"], SizeIs(2));
  for (auto const& family : row["families"]) {
    EXPECT_EQ(family["effective_override"], 1.25);
    EXPECT_EQ(family["effective_propagation"], 0.3);
  }
  ok("interface eth0 tracking off");
  EXPECT_EQ(show("interfaces")[0]["tracking"], false);
}

TEST_F(LiveCommandsTest, HoldTimesFollowTheirIntervalsUnlessTheyWereGivenAndAreAtLeastASecond) {
  interface();
  struct Row {
    char const* settings;
    int helloHold, hold;
  };
  for (auto const& [settings, helloHold, hold] : {
           Row{"hello 30", 105, 210},
           {"hello 1 interval 1", 3, 3},
           {"hello 0.1 interval 0.1", 1, 1},
           {"interval 2.5", 1, 8},
           {"hello-hold 50 hold 0.5", 50, 1},
           {"hold 10 hold 0", 50, 1},
           {"hello 10 interval 10", 50, 1},
           {"defaults", 105, 210},
           {"defaults interval 20", 105, 70},
       }) {
    ok(std::string("interface eth0 ") + settings);
    Json const row = show("interfaces")[0];
    EXPECT_EQ(row["hello_hold"], helloHold) << settings;
    EXPECT_EQ(row["hold"], hold) << settings;
  }
}

TEST_F(LiveCommandsTest, AWrongSettingChangesNothing) {
  interface();
  Json const before = show("interfaces");
  EXPECT_EQ(error("interface eth0 hello 5 hold 65536"),
            "expected a hold time in seconds from 0 to 65535, not \"65536\"");
  EXPECT_THAT(error("interface eth0 priority 7 tracking maybe"), HasSubstr("\"on\" or \"off\""));
  EXPECT_THAT(error("interface eth0 hello"), HasSubstr("at the end of the line"));
  EXPECT_EQ(show("interfaces"), before);
}

TEST_F(LiveCommandsTest, TheNextHelloIsDueAtMostAPeriodAfterItIsSet) {
  interface();
  pass(1);
  takeSent();
  ok("interface eth0 hello 2 hello-hold 105");
  takeSent();
  pass(2);
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: hello"));
  pass(2);
  EXPECT_THAT(takeSent(), SizeIs(1));
}

TEST_F(LiveCommandsTest, TheNextRefreshIsDueAtMostAnIntervalAfterItIsSet) {
  interface();
  hello("10.0.0.2", {.hold = 65535});
  ok(std::string("join ") + sourceRoute + " via 10.0.0.2");
  pass(10);
  take();
  EXPECT_GT(show("upstream")[0]["next"], 40);
  ok("interface eth0 interval 5 hold 210");
  EXPECT_EQ(show("upstream")[0]["next"], 5);
  pass(4.9);
  EXPECT_THAT(take("sent"), IsEmpty());
  for (int i = 0; i < 3; ++i) {
    pass(5);
    EXPECT_THAT(take("sent"), SizeIs(1)) << i;
  }
}

TEST_F(LiveCommandsTest, DownSaysGoodbyeAndUpHasANewGenerationIdAndTheWishesStay) {
  interface();
  hello("10.0.0.2", {.hold = 90, .generation = 7, .priority = 3});
  ok(std::string("join ") + sourceRoute + " via 10.0.0.2");
  joinPrune("10.0.0.2", "10.0.0.1", {{EntryKind::sourceJoin, "10.9.0.9", "239.1.1.1"}});
  pass(1);
  auto const generation = latestHello_.generationId();
  take();
  takeSent();
  ok("interface eth0 down");
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: goodbye"));
  EXPECT_THAT(
      take(),
      ElementsAre(R"j({"event":"neighbor","state":"down","interface":"eth0","address":"10.0.0.2","hold":90,)j"
                  R"j("generation":7,"dr_priority":3})j",
                  R"j({"event":"downstream","state":"expired","interface":"eth0",)j"
                  R"j("route":"(10.9.0.9,239.1.1.1)"})j",
                  R"j({"event":"interface","state":"down","interface":"eth0","address":"10.0.0.1/24",)j"
                  R"j("mtu":1500,"goodbye":true})j"));
  EXPECT_EQ(show("upstream")[0]["state"], "waiting");
  pass(200);
  EXPECT_THAT(takeSent(), IsEmpty());
  ok("interface eth0 up");
  pass(0.1);
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: hello"));
  EXPECT_NE(latestHello_.generationId(), generation);
  EXPECT_THAT(take(), ElementsAre(HasSubstr(R"j("state":"up","interface":"eth0")j")));
  hello("10.0.0.2");
  pass(1);
  EXPECT_EQ(show("upstream")[0]["state"], "joined");
}

TEST_F(LiveCommandsTest, DownAndUpOfAnInterfaceLeaveTheOthersAlone) {
  for (std::string const name : {"eth0", "eth1", "eth2"}) {
    interface(name, {"10.0.0.1/24", "fe80::1/64"});
    hello("10.0.0.2", {}, name);
    hello("fe80::2", {}, name);
    joinPrune("fe80::2", "fe80::1", {{EntryKind::sourceJoin, "2001:db8::9", "ff0e::9"}}, 210, name);
    ok("join (2001:db8::1,ff0e::" + name.substr(3) + ") via fe80::2%" + name);
  }
  pass(10);
  take();
  takeSent();
  ok("interface eth1 down");
  EXPECT_THAT(takeSent(), ElementsAre("eth1 10.0.0.1: goodbye", "eth1 fe80::1: goodbye"));
  for (auto const& event : take()) EXPECT_THAT(event, HasSubstr(R"j("interface":"eth1")j"));
  auto const states = [this](char const* subject) {
    std::string all;
    for (auto const& row : show(subject)) all += row["state"].get<std::string>() + " ";
    return all;
  };
  EXPECT_EQ(states("upstream"), "joined waiting joined ");
  EXPECT_EQ(states("interfaces"), "up down up ");
  EXPECT_EQ(states("downstream"), "joined joined ");
  EXPECT_EQ(states("neighbors"), "up up up up ");
  ok("interface eth0 down");
  ok("interface eth1 up");
  EXPECT_EQ(states("interfaces"), "down up up ");
  pass(1);
  hello("fe80::2", {}, "eth1");
  pass(1);
  EXPECT_EQ(states("upstream"), "waiting joined joined ");
}

// --- The others

TEST_F(LiveCommandsTest, EventsTraceAndHelpAreForTheAskerToCarryOut) {
  EXPECT_EQ(speaker_->command("events on")->events, true);
  EXPECT_EQ(speaker_->command("events off")->events, false);
  EXPECT_EQ(speaker_->command("show neighbors")->events, std::nullopt);
  EXPECT_THAT(error("events maybe"), HasSubstr("expected \"on\" or \"off\""));
  EXPECT_THAT(*speaker_->command("trace 1-3")->traceLevels, ElementsAre(1u, 2u, 3u));
  EXPECT_THAT(*speaker_->command("trace off")->traceLevels, IsEmpty());
  EXPECT_THAT(error("trace 99"), HasSubstr("trace levels"));
  std::string words;
  Json const help = command("help");
  for (auto const& row : help["result"]) words += row["command"].get<std::string>() + "\n";
  for (auto const* word :
       {"join", "leave", "prune", "unprune", "interface", "show", "events", "trace", "help", "quit"})
    EXPECT_THAT("\n" + words, testing::ContainsRegex("\n" + std::string(word) + "[ \n]")) << word;
  EXPECT_EQ(error("help me"), "expected the end of the line, not \"me\"");
}

TEST_F(LiveCommandsTest, ALineThatTheCallerRefusesHasAReplyToo) {
  auto const reply = speaker_->refuseCommand("join (1", "a line of more than 65536 bytes");
  EXPECT_FALSE(reply.ok);
  EXPECT_EQ(reply.event.members["command"], "join (1");
  EXPECT_EQ(reply.event.members["error"], "a line of more than 65536 bytes");
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live::Test
