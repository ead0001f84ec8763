// SPDX-License-Identifier: Apache-2.0
// Each event of a live speaker, with its members in their order.
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

using LiveEventsTest = LiveScene;

constexpr auto join = EntryKind::sourceJoin, prune = EntryKind::sourcePrune;
constexpr auto wildJoin = EntryKind::wildcardJoin, wildPrune = EntryKind::wildcardPrune;
constexpr auto rptJoin = EntryKind::sourceRptJoin, rptPrune = EntryKind::sourceRptPrune;

std::string downstream(std::string_view state, std::string_view route, std::string_view rp = {}) {
  return fmt::format(R"j({{"event":"downstream","state":"{}","interface":"eth0","route":"{}"{}}})j", state,
                     route, rp.empty() ? "" : fmt::format(R"j(,"rp":"{}")j", rp));
}
std::string neighbor(std::string_view state, std::string_view values, std::string_view address = "10.0.0.2") {
  return fmt::format(R"j({{"event":"neighbor","state":"{}","interface":"eth0","address":"{}",{}}})j", state,
                     address, values);
}

TEST_F(LiveEventsTest, TheTimeIsUtcInMicrosecondsAndFollowsTheClock) {
  interface();
  events_.clear();
  pass(3.5 - (now_ - beginning));
  hello("10.0.0.2");
  EXPECT_EQ(events_.at(0)["time"], "2026-11-22T06:00:03.500000Z");
  EXPECT_EQ(events_.at(0).begin().key(), "time");
}

// --- interface

TEST_F(LiveEventsTest, AnInterfaceIsUpAndDownForEachFamilyWithItsAddressAndMtu) {
  speaker_->interfaceGiven("eth0");
  EXPECT_THAT(take(), IsEmpty());
  kernel("eth0", {"10.0.0.1/24", "2001:db8::1/64", "fe80::1/64"}, 1400);
  EXPECT_THAT(take(), ElementsAre(R"j({"event":"interface","state":"up","interface":"eth0",)j"
                                  R"j("address":"10.0.0.1/24","mtu":1400})j",
                                  R"j({"event":"interface","state":"up","interface":"eth0",)j"
                                  R"j("address":"fe80::1/64","mtu":1400})j"));
  kernel("eth0", {"10.0.0.1/24"}, 1400);
  EXPECT_THAT(take(),
              ElementsAre(HasSubstr(R"j("state":"down","interface":"eth0","address":"fe80::1/64")j")));
  kernel("eth0", {"10.0.0.1/24"}, 1400, false);
  EXPECT_THAT(take(), ElementsAre(R"j({"event":"interface","state":"down","interface":"eth0",)j"
                                  R"j("address":"10.0.0.1/24","mtu":1400,"goodbye":true})j"));
  kernel("eth0", {"10.0.0.1/24"});
  take();
  speaker_->kernelInterfaceDel("eth0");
  EXPECT_THAT(take(), ElementsAre(HasSubstr(R"j("state":"down")j")));
  speaker_->kernelInterfaceDel("eth0");
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(LiveEventsTest, AnotherAddressIsTheEndOfTheOldOneAndSaysWhetherItsGoodbyeWasSent) {
  interface();
  take();
  takeSent();
  onSend_ = [this](Speaker::Outgoing const& packet) {
    bool const isOld = packet.source == IpGenAddr("10.0.0.1");
    return SendResult{.sent = isOld ? Speaker::Sent::failed : Speaker::Sent::done,
                      .now = now_,
                      .reason = isOld ? "Cannot assign requested address" : ""};
  };
  kernel("eth0", {"10.0.0.7/24"});
  EXPECT_THAT(take(), ElementsAre(R"j({"event":"error","what":"sending on eth0 from 10.0.0.1",)j"
                                  R"j("reason":"Cannot assign requested address"})j",
                                  R"j({"event":"interface","state":"down","interface":"eth0",)j"
                                  R"j("address":"10.0.0.1/24","mtu":1500,"goodbye":false})j",
                                  R"j({"event":"interface","state":"up","interface":"eth0",)j"
                                  R"j("address":"10.0.0.7/24","mtu":1500})j"));
  EXPECT_EQ(counter("sending_failed"), 1u);
  EXPECT_EQ(counter("sending_failures: Cannot assign requested address"), 1u);
}

TEST_F(LiveEventsTest, AnInterfaceThatWasNotGivenOrIsTakenIsNoLongerServed) {
  kernel("eth0", {"10.0.0.1/24"});
  EXPECT_THAT(take(), IsEmpty());
  interface();
  take();
  takeSent();
  speaker_->interfaceTaken("eth0");
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: goodbye"));
  EXPECT_THAT(take(), ElementsAre(HasSubstr(R"j("state":"down")j")));
  kernel("eth0", {"10.0.0.1/24"});
  EXPECT_THAT(take(), IsEmpty());
  for (std::string const name : {"", ".", "a/b", "a b", "sixteencharacter"})
    EXPECT_THROW(speaker_->interfaceGiven(name), std::range_error) << name;
}

TEST_F(LiveEventsTest, AnAddressThatCannotBeIsAnErrorAndTheInterfaceStaysAsItWas) {
  interface();
  take();
  kernel("eth0", {"10.0.0.1/24", "255.255.255.255/32"});
  EXPECT_THAT(take(), ElementsAre(HasSubstr(R"j("event":"error","what":"interface eth0")j")));
  EXPECT_EQ(show("interfaces")[0]["state"], "up");
}

// --- neighbor

TEST_F(LiveEventsTest, WhileAnInterfaceDoesNotServeAFamilyItsPacketsAreCountedAndNoEvent) {
  interface();
  take();
  joinPrune("fe80::2", "fe80::1", {{join, "2001:db8::9", "ff3e::1"}});
  hello("fe80::2");
  ok("interface eth0 down");
  take();
  hello("10.0.0.2");
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(counter("received: no primary address of the family"), 3u);
}

TEST_F(LiveEventsTest, ANeighborIsUpWithWhatItSaidAndNullForWhatItDidNot) {
  interface();
  take();
  hello("10.0.0.2", {.hold = 90, .generation = 1234, .priority = 1});
  EXPECT_THAT(take("neighbor"),
              ElementsAre(neighbor("up", R"j("hold":90,"generation":1234,"dr_priority":1)j")));
  hello("10.0.0.3");
  EXPECT_THAT(
      take("neighbor"),
      ElementsAre(neighbor("up", R"j("hold":105,"generation":null,"dr_priority":null)j", "10.0.0.3")));
  hello("10.0.0.4", {.hold = 65535});
  EXPECT_THAT(take("neighbor"), ElementsAre(HasSubstr(R"j("hold":65535)j")));
}

TEST_F(LiveEventsTest, ANeighborThatEndsIsDownOrExpiredWithItsLastValues) {
  interface();
  Hellos said{.hold = 90, .generation = 1234, .priority = 1};
  hello("10.0.0.2", said);
  said.priority = 5;
  hello("10.0.0.2", said);
  take();
  hello("10.0.0.2", {.hold = 0});
  EXPECT_THAT(take("neighbor"),
              ElementsAre(neighbor("down", R"j("hold":90,"generation":1234,"dr_priority":5)j")));
  hello("10.0.0.2", {.hold = 3, .generation = 9});
  take();
  pass(3.1);
  EXPECT_THAT(take("neighbor"),
              ElementsAre(neighbor("expired", R"j("hold":3,"generation":9,"dr_priority":null)j")));
  hello("10.0.0.2", said);
  take();
  kernel("eth0", {"10.0.0.1/24"}, 1500, false);
  EXPECT_THAT(take("neighbor"),
              ElementsAre(neighbor("down", R"j("hold":90,"generation":1234,"dr_priority":5)j")));
}

TEST_F(LiveEventsTest, ARestartHasNoDownAndNoUpBesideItAndTheNewValues) {
  interface();
  hello("10.0.0.2", {.hold = 90, .generation = 1});
  take();
  hello("10.0.0.2", {.hold = 80, .generation = 2});
  EXPECT_THAT(take("neighbor"),
              ElementsAre(neighbor("restarted", R"j("hold":80,"generation":2,"dr_priority":null)j")));
}

TEST_F(LiveEventsTest, OtherOptionsAndAnotherDesignatedRouterHaveEventsOfTheirOwn) {
  interface();
  hello("10.0.0.2", {.hold = 90, .priority = 1});
  EXPECT_THAT(take("designated_router"),
              ElementsAre(R"j({"event":"designated_router","interface":"eth0","address":"10.0.0.2",)j"
                          R"j("previous":"10.0.0.1"})j"));
  hello("10.0.0.2", {.hold = 90, .priority = 0});
  EXPECT_THAT(take(), ElementsAre(HasSubstr(R"j("event":"designated_router")j"),
                                  R"j({"event":"neighbor_changed","state":"up","interface":"eth0",)j"
                                  R"j("address":"10.0.0.2","hold":90,"generation":null,"dr_priority":0})j"));
}

// --- sent, received, refused

TEST_F(LiveEventsTest, SentAndReceivedHaveTheEntriesOfTheMessage) {
  interface();
  hello("10.0.0.2");
  hello("10.0.0.3");
  ok("join (*,239.1.1.1) rp 10.255.0.1 via 10.0.0.2");
  ok("prune (10.9.0.1,239.1.1.1,rpt)");
  take();
  pass(1);
  EXPECT_THAT(take(), ElementsAre(R"j({"event":"sent","interface":"eth0","source":"10.0.0.1",)j"
                                  R"j("upstream":"10.0.0.2","hold":210,"entries":[)j"
                                  R"j({"kind":"join","route":"(*,239.1.1.1)","rp":"10.255.0.1"},)j"
                                  R"j({"kind":"prune","route":"(10.9.0.1,239.1.1.1,rpt)"}]})j"));
  joinPrune("10.0.0.2", "10.0.0.3", {{join, "10.9.0.1", "239.1.1.1"}, {prune, "10.9.0.2", "239.1.1.1"}}, 77);
  EXPECT_THAT(take(), ElementsAre(R"j({"event":"received","interface":"eth0","source":"10.0.0.2",)j"
                                  R"j("upstream":"10.0.0.3","hold":77,"entries":[)j"
                                  R"j({"kind":"join","route":"(10.9.0.1,239.1.1.1)"},)j"
                                  R"j({"kind":"prune","route":"(10.9.0.2,239.1.1.1)"}]})j"));
}

TEST_F(LiveEventsTest, AMessageThatIsNotAcceptedIsRefusedWithItsReasonAndAtMostTenInASecondForEach) {
  interface();
  interface("eth1", {"10.0.1.1/24"});
  take();
  std::vector<U8> const bad = {0x20, 0, 0, 0};
  for (int i = 0; i < 12; ++i) receive("eth0", "10.0.0.2", bad);
  joinPrune("10.0.0.9", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}});
  receive("eth0", "10.0.0.2", bad, 2);
  receive("eth1", "10.0.1.2", bad);
  auto const refused = take();
  ASSERT_THAT(refused, SizeIs(13));
  EXPECT_EQ(refused[10], R"j({"event":"refused","interface":"eth0","source":"10.0.0.9",)j"
                         R"j("reason":"not from a neighbor"})j");
  EXPECT_THAT(refused[11], HasSubstr("TTL or hop limit not 1 (2)"));
  EXPECT_THAT(refused[12], AllOf(HasSubstr("eth1"), testing::Not(HasSubstr("left_out"))));
  pass(1);
  receive("eth0", "10.0.0.2", bad);
  EXPECT_THAT(take(), ElementsAre(HasSubstr(R"j(,"left_out":2})j")));
}

TEST_F(LiveEventsTest, AMessageOfAnotherTypeIsCountedAndAnOwnOneIsAWarning) {
  interface();
  take();
  receive("eth0", "10.0.0.2", std::vector<U8>{0x24, 0, 0, 0});
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(counter("received: another type"), 1u);
  hello("10.0.0.1");
  EXPECT_THAT(take(),
              ElementsAre(HasSubstr(R"j("event":"warning","what":"a packet on eth0 from 10.0.0.1")j")));
}

// --- downstream

TEST_F(LiveEventsTest, WithASingleNeighborAPruneTakesEffectAtOnce) {
  interface();
  hello("10.0.0.2");
  take();
  joinPrune("10.0.0.2", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}, {wildJoin, "10.255.0.1", "239.1.1.2"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("joined", "(10.9.0.1,239.1.1.1)"),
                                              downstream("joined", "(*,239.1.1.2)", "10.255.0.1")));
  // A refresh has no event.
  joinPrune("10.0.0.2", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}, {wildJoin, "10.255.0.1", "239.1.1.2"}});
  EXPECT_THAT(take("downstream"), IsEmpty());
  joinPrune("10.0.0.2", "10.0.0.1",
            {{prune, "10.9.0.1", "239.1.1.1"}, {wildPrune, "10.255.0.1", "239.1.1.2"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("pruned", "(10.9.0.1,239.1.1.1)"),
                                              downstream("pruned", "(*,239.1.1.2)", "10.255.0.1")));
  // A prune without state does nothing.
  joinPrune("10.0.0.2", "10.0.0.1", {{prune, "10.9.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"), IsEmpty());
  joinPrune("10.0.0.2", "10.0.0.1", {{rptPrune, "10.9.0.1", "239.1.1.2"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("pruned", "(10.9.0.1,239.1.1.2,rpt)")));
}

TEST_F(LiveEventsTest, WithSeveralNeighborsAPruneIsPendingUntilItTakesEffectOrAJoinEndsIt) {
  interface();
  hello("10.0.0.2");
  hello("10.0.0.3");
  joinPrune("10.0.0.2", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}});
  take();
  joinPrune("10.0.0.2", "10.0.0.1", {{prune, "10.9.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("prune-pending", "(10.9.0.1,239.1.1.1)")));
  joinPrune("10.0.0.3", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("joined", "(10.9.0.1,239.1.1.1)")));
  joinPrune("10.0.0.2", "10.0.0.1", {{prune, "10.9.0.1", "239.1.1.1"}});
  take();
  pass(3.1);
  EXPECT_THAT(take(), ElementsAre(downstream("pruned", "(10.9.0.1,239.1.1.1)"),
                                  // The PruneEcho.
                                  HasSubstr(R"j("event":"sent","interface":"eth0","source":"10.0.0.1",)j"
                                            R"j("upstream":"10.0.0.1")j")));
}

TEST_F(LiveEventsTest, AStateThatIsNotRefreshedExpires) {
  interface();
  hello("10.0.0.2");
  joinPrune("10.0.0.2", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}, {rptPrune, "10.9.0.2", "239.1.1.2"}},
            5);
  take();
  pass(5.1);
  EXPECT_THAT(take("downstream"),
              testing::UnorderedElementsAre(downstream("expired", "(10.9.0.1,239.1.1.1)"),
                                            downstream("expired", "(10.9.0.2,239.1.1.2,rpt)")));
}

TEST_F(LiveEventsTest, AnRptPruneIsPendingPrunedAndJoinedAgain) {
  interface();
  hello("10.0.0.2");
  hello("10.0.0.3");
  constexpr char route[] = "(10.9.0.1,239.1.1.1,rpt)";
  joinPrune("10.0.0.2", "10.0.0.1",
            {{wildJoin, "10.255.0.1", "239.1.1.1"}, {rptPrune, "10.9.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("joined", "(*,239.1.1.1)", "10.255.0.1"),
                                              downstream("prune-pending", route)));
  pass(3.1);
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("pruned", route)));
  // The transient states of one message have no event.
  joinPrune("10.0.0.2", "10.0.0.1",
            {{wildJoin, "10.255.0.1", "239.1.1.1"}, {rptPrune, "10.9.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"), IsEmpty());
  joinPrune("10.0.0.2", "10.0.0.1", {{wildJoin, "10.255.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("joined", route)));
  joinPrune("10.0.0.2", "10.0.0.1", {{rptPrune, "10.9.0.1", "239.1.1.1"}});
  joinPrune("10.0.0.2", "10.0.0.1", {{rptJoin, "10.9.0.1", "239.1.1.1"}});
  EXPECT_THAT(take("downstream"),
              ElementsAre(downstream("prune-pending", route), downstream("joined", route)));
}

// --- error

TEST_F(LiveEventsTest, WhatTheOutsideSaysIsAnEvent) {
  speaker_->error("--pcap sent.pcap", "No space left on device");
  EXPECT_THAT(take(), ElementsAre(R"j({"event":"error","what":"--pcap sent.pcap",)j"
                                  R"j("reason":"No space left on device"})j"));
  speaker_->counterIs("eth0: dropped by the kernel", 7);
  EXPECT_EQ(counter("system: eth0: dropped by the kernel"), 7u);
}

TEST_F(LiveEventsTest, WhatTheOutsideThrowsIsAFailureWithItsReason) {
  interface();
  take();
  onSend_ = [](Speaker::Outgoing const&) -> SendResult { throw std::runtime_error("no such device"); };
  kernel("eth0", {"10.0.0.1/24"}, 1500, false);
  EXPECT_THAT(take("error"), ElementsAre(R"j({"event":"error","what":"sending on eth0 from 10.0.0.1",)j"
                                         R"j("reason":"no such device"})j"));
}

TEST_F(LiveEventsTest, AGroupThatThePolicyDeniesIsNeitherTakenNorSent) {
  interface();
  hello("10.0.0.2");
  speaker_->policyIs({}, {"239.1.0.0/16"});
  EXPECT_THROW(speaker_->policyIs({}, {"10.0.0.0/8"}), OptionError);
  EXPECT_THROW(speaker_->policyIs({"239.0.0.0/8=224.0.0.1"}, {}), OptionError);
  take();
  joinPrune("10.0.0.2", "10.0.0.1", {{join, "10.9.0.1", "239.1.1.1"}, {join, "10.9.0.1", "239.2.1.1"}});
  EXPECT_THAT(take("downstream"), ElementsAre(downstream("joined", "(10.9.0.1,239.2.1.1)")));
  EXPECT_EQ(counter("entries_ignored: denied"), 1u);
}

TEST_F(LiveEventsTest, TheTextOfAnEventHasTheSameValuesInOneLine) {
  interface();
  hello("10.0.0.2", {.hold = 90, .generation = 7});
  ok("join (*,239.1.1.1) rp 10.255.0.1 via 10.0.0.2");
  events_.clear();
  pass(1);
  EXPECT_EQ(textOf({.members = events_.at(0), .lines = {}}),
            "2026-11-22T06:00:00.101000Z sent: interface eth0, source 10.0.0.1, upstream 10.0.0.2, hold "
            "210: join "
            "(*,239.1.1.1) rp 10.255.0.1");
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live::Test
