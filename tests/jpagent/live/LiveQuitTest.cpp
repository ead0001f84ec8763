// SPDX-License-Identifier: Apache-2.0
// How a live speaker ends.
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using LiveQuitTest = LiveScene;

constexpr char joinCommand[] = "join (10.9.0.1,239.1.1.1) via 10.0.0.2";

TEST_F(LiveQuitTest, QuitSendsPrunesForAllThatIsJoinedAndThenGoodbyes) {
  interface();
  hello("10.0.0.2");
  ok("join 1000 routes from (10.9.0.1,239.1.0.0) via 10.0.0.2");
  ok("join (*,239.2.0.0) rp 10.255.0.1 via 10.0.0.2");
  ok("prune (10.9.0.1,239.2.0.0,rpt)");
  pass(5);
  take();
  takeSent();
  ok("quit");
  EXPECT_TRUE(speaker_->isQuitting());
  EXPECT_FALSE(speaker_->isDone());
  EXPECT_EQ(error(joinCommand), "it is quitting");
  auto const begun = now_;
  while (!speaker_->isDone()) passTo(speaker_->timeMin());
  EXPECT_LE(now_ - begun, 2);
  std::size_t prunes = 0;
  for (auto const& line : take("sent")) {
    Json const sent = Json::parse(line);
    for (auto const& one : sent["entries"]) prunes += one["kind"] == "prune" ? 1 : 0;
  }
  EXPECT_EQ(prunes, 1001u);
  EXPECT_EQ(takeSent().back(), "eth0 10.0.0.1: goodbye");
  EXPECT_EQ(speaker_->timeMin(), Vel::never);
}

TEST_F(LiveQuitTest, QuitWaitsAtMostTwoSecondsForASystemThatTakesNoPrunes) {
  interface();
  hello("10.0.0.2");
  ok(joinCommand);
  pass(5);
  takeSent();
  onSend_ = [this](Speaker::Outgoing const& packet) {
    bool const isHello = Wire::isPimType(packet.bytes, Wire::PimType::hello);
    return SendResult{
        .sent = isHello ? Speaker::Sent::done : Speaker::Sent::later, .now = now_, .reason = {}};
  };
  speaker_->quit(false);
  passTo(now_ + 1.9);
  EXPECT_FALSE(speaker_->isDone());
  pass(0.1);
  EXPECT_TRUE(speaker_->isDone());
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: goodbye"));
}

TEST_F(LiveQuitTest, QuitNowSendsGoodbyesAloneAlsoAfterAQuitThatIsNotThrough) {
  interface();
  hello("10.0.0.2");
  ok(joinCommand);
  pass(5);
  takeSent();
  speaker_->quit(false);
  EXPECT_FALSE(speaker_->isDone());
  ok("quit now");
  EXPECT_TRUE(speaker_->isDone());
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: goodbye"));
  // Nothing comes after the end.
  kernel("eth0", {"10.0.0.7/24"});
  hello("10.0.0.2");
  pass(300);
  EXPECT_THAT(takeSent(), IsEmpty());
}

TEST_F(LiveQuitTest, WithNothingJoinedQuitIsDoneAtOnce) {
  interface();
  takeSent();
  speaker_->quit(false);
  EXPECT_TRUE(speaker_->isDone());
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: goodbye"));
}

TEST_F(LiveQuitTest, AGoodbyeThatTheSystemWantsLaterIsTriedAgainForTwoSeconds) {
  interface();
  takeSent();
  onSend_ = [this](Speaker::Outgoing const&) {
    return SendResult{.sent = Speaker::Sent::later, .now = now_, .reason = {}};
  };
  speaker_->quit(false);
  EXPECT_FALSE(speaker_->isDone());
  pass(1);
  EXPECT_FALSE(speaker_->isDone());
  auto const refusing = std::exchange(onSend_, {});
  pass(0.1);
  EXPECT_TRUE(speaker_->isDone());
  EXPECT_THAT(takeSent(), ElementsAre("eth0 10.0.0.1: goodbye"));

  start();
  interface();
  onSend_ = refusing;
  take();
  speaker_->quit(false);
  pass(3);
  EXPECT_TRUE(speaker_->isDone());
  EXPECT_THAT(take("error"), ElementsAre(R"j({"event":"error","what":"goodbye on eth0 from 10.0.0.1",)j"
                                         R"j("reason":"the system took it no sooner"})j"));
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live::Test
