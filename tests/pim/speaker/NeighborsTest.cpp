// SPDX-License-Identifier: Apache-2.0
// The rules of RFC 7761, 4.3, on a clock of the test's own.
#include "pim/speaker/Neighbors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "runtime/vel/Exception.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Speaker {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

using Lines = std::vector<std::string>;

// The values of a link without neighbors.
constexpr auto* alone = "delay 0.5 override 2.5 no suppression";

/// A neighbor's Hello with all options that count.
Wire::Hello helloOf(U16 holdTime = 105, std::optional<U32> generationId = 1) {
  Wire::Hello hello;
  hello.holdTimeIs(holdTime);
  hello.lanPruneDelayIs(Wire::LanPruneDelay{});
  hello.drPriorityIs(1);
  hello.generationIdIs(generationId);
  return hello;
}

class NeighborsTest : public testing::Test, public NeighborsOwner {
 protected:
  NeighborsTest() { start(); }

  void start(HelloSettings const& settings = {}, std::vector<IpGenAddr> secondary = {}, U64 seed = 7761) {
    random_ = Random(seed);
    neighbors_ = std::make_unique<Neighbors>(*this, Dova::IntfId("eth0"), own_, std::move(secondary),
                                             settings, wheel_, random_);
  }

  // Lets time pass, timer by timer.
  void passTo(Seconds time) {
    while (wheel_->timeMin() <= time) {
      now_ = std::max(now_, wheel_->timeMin());
      wheel_->expire();
    }
    now_ = time;
  }
  void pass(Seconds seconds) { passTo(now_ + seconds); }

  // Past the first Hello, with an empty log.
  void settle() {
    pass(6);
    take();
  }

  bool hear(std::string_view neighbor, Wire::Hello const& hello) {
    return neighbors_->receive(IpGenAddr(neighbor), hello);
  }

  Lines take() { return std::exchange(log_, {}); }
  std::vector<Seconds> takeTimes() { return std::exchange(times_, {}); }

  Sent sendHello(Wire::Hello const& hello) override {
    times_.push_back(now_);
    latest_ = hello;
    if (isLogged_) log_.push_back(hello.holdTime() == 0 ? "goodbye" : "hello");
    if (onSend_) onSend_();
    return answer_;
  }
  void onLanValues() override {
    std::ostringstream line;
    LanValues const& values = neighbors_->values();
    line << "delay " << values.propagationDelay() << " override " << values.overrideInterval()
         << (values.suppressionAllowed() ? "" : " no suppression");
    log_.push_back(line.str());
  }
  void onNeighborUp(IpGenAddr const& neighbor) override {
    if (std::exchange(hasNoMemory_, false)) throw std::bad_alloc();
    tell("routes: up", neighbor);
  }
  void onNeighborAddresses(IpGenAddr const& neighbor) override { tell("routes: addresses", neighbor); }
  void onNeighborDown(IpGenAddr const& neighbor) override {
    EXPECT_FALSE(neighbors_->isUp(neighbor));
    tell("routes: down", neighbor);
  }
  void onNeighborRestarted(IpGenAddr const& neighbor) override { tell("routes: restarted", neighbor); }
  U32 routesTowards(IpGenAddr const&) const override { return routes_; }
  void onNeighborEvent(NeighborEvent const& event) override {
    EXPECT_EQ(event.intf.name(), "eth0");
    std::ostringstream line;
    line << text(event.kind) << ' ' << event.neighbor;
    if (event.other != IpGenAddr()) line << ' ' << event.other;
    if (event.leftOut) line << " (" << event.leftOut << " left out)";
    log_.push_back(line.str());
    if (onEvent_) onEvent_();
  }
  void tell(std::string_view what, IpGenAddr const& neighbor) {
    log_.push_back(std::string(what) + ' ' + toText(neighbor));
    if (onEvent_) onEvent_();
  }

  Seconds now_ = 1000;
  Vel::Ptr<Zanth::TimerWheel> const wheel_ = Vel::create<Zanth::TimerWheel>([this] { return now_; });
  IpGenAddr const own_{"10.0.0.5"};
  Random random_{0};
  Lines log_;
  std::vector<Seconds> times_;
  Wire::Hello latest_;
  Sent answer_ = Sent::done;
  bool isLogged_ = true, hasNoMemory_ = false;
  U32 routes_ = 1'000'000;  // From each neighbor.
  std::function<void()> onSend_, onEvent_;
  std::unique_ptr<Neighbors> neighbors_;
};

// --- Sending -------------------------------------------------------------------------------------

TEST_F(NeighborsTest, TheFirstHelloIsSentAfterARandomPartOfTheTriggeredDelayAndThenOneInEveryPeriod) {
  passTo(1099);
  auto const times = takeTimes();
  ASSERT_EQ(times.size(), 4u);
  EXPECT_GT(times[0], 1000);
  EXPECT_LT(times[0], 1005);
  for (int i = 1; i < 4; ++i) EXPECT_DOUBLE_EQ(times[i], times[0] + 30 * i);
}

TEST_F(NeighborsTest, ASeedGivesTheSameTimesAndGenerationIdAndAnotherSeedOthers) {
  passTo(1020);
  auto const first = takeTimes();
  U32 const id = neighbors_->generationId();
  now_ = 1000;
  start();
  EXPECT_EQ(neighbors_->generationId(), id);
  passTo(1020);
  EXPECT_EQ(takeTimes(), first);
  now_ = 1000;
  start({}, {}, 4601);
  EXPECT_NE(neighbors_->generationId(), id);
  passTo(1020);
  EXPECT_NE(takeTimes(), first);
}

TEST_F(NeighborsTest, AHelloAnnouncesAllOptions) {
  HelloSettings settings;
  settings.period = 10;
  settings.lanPruneDelay = {.tracking = true, .propagationDelay = 700, .overrideInterval = 3000};
  settings.drPriority = 9;
  start(settings, {IpGenAddr("10.0.1.5"), IpGenAddr("10.0.2.5")});
  pass(6);
  char id[16];
  std::snprintf(id, sizeof id, "0x%08x", neighbors_->generationId());
  EXPECT_EQ(toText(latest_),
            "hold 35, delay 700 ms, override 3000 ms, tracking, DR priority 9, generation ID " +
                std::string(id) + ", also 10.0.1.5, 10.0.2.5");
}

TEST_F(NeighborsTest, ANewNeighborIsAnsweredWithinTheTriggeredDelayAndThePeriodStays) {
  pass(6);
  Seconds const first = takeTimes().at(0);
  take();
  for (int n = 2; n < 20; ++n) hear("10.0.0." + std::to_string(100 + n), helloOf());
  pass(5);
  auto const answers = takeTimes();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_GT(answers[0], 1006);
  passTo(first + 31);
  EXPECT_THAT(takeTimes(), ElementsAre(testing::DoubleEq(first + 30)));
}

TEST_F(NeighborsTest, AnAnswerThatIsPendingIsNotMoved) {
  settle();
  hear("10.0.0.2", helloOf());
  Seconds const answer = wheel_->timeMin();
  EXPECT_LE(answer, now_ + 5);
  for (int n = 3; n < 12; ++n) {
    hear("10.0.0." + std::to_string(100 + n), helloOf());
    ASSERT_EQ(wheel_->timeMin(), answer);
  }
}

TEST_F(NeighborsTest, ANeighborThatRestartedIsAnsweredAndOneThatIsHeardAgainIsNot) {
  settle();
  hear("10.0.0.2", helloOf(105, 1));
  pass(6);
  takeTimes();
  hear("10.0.0.2", helloOf(105, 1));
  pass(5.5);
  EXPECT_THAT(takeTimes(), IsEmpty());
  hear("10.0.0.2", helloOf(105, 2));
  pass(5);
  EXPECT_EQ(takeTimes().size(), 1u);
}

TEST_F(NeighborsTest, AHelloThatTheSinkWantsLaterIsTriedAgainAfterATenthOfASecond) {
  answer_ = Sent::later;
  pass(6);
  auto times = takeTimes();
  ASSERT_GT(times.size(), 10u);
  EXPECT_DOUBLE_EQ(times[1], times[0] + 0.1);
  EXPECT_TRUE(neighbors_->helloDueBefore(IpGenAddr("10.0.0.2")));
  EXPECT_EQ(neighbors_->counters().sent, 0u);
  answer_ = Sent::done;
  pass(0.2);
  EXPECT_EQ(takeTimes().size(), 1u);
  EXPECT_FALSE(neighbors_->helloDueBefore(IpGenAddr("10.0.0.2")));
}

TEST_F(NeighborsTest, AHelloThatCouldNotBeMadeForWantOfMemoryIsTriedAgain) {
  onSend_ = [] { throw std::bad_alloc(); };
  Vel::traceSinkIs([](Vel::TraceLine const&) {});
  pass(6);
  Vel::traceSinkIs({});
  EXPECT_GT(takeTimes().size(), 10u);
  EXPECT_EQ(neighbors_->counters().sent, 0u);
  onSend_ = nullptr;
  pass(0.2);
  EXPECT_EQ(takeTimes().size(), 1u);
  EXPECT_EQ(neighbors_->counters().sent, 1u);
  pass(30);
  EXPECT_EQ(takeTimes().size(), 1u);
}

TEST_F(NeighborsTest, AnAnnouncementAtOnceThatHadNoMemoryIsMadeLater) {
  settle();
  takeTimes();
  onSend_ = [] { throw std::bad_alloc(); };
  EXPECT_THROW(neighbors_->secondaryAddressesIs({IpGenAddr("10.0.1.5")}), std::bad_alloc);
  onSend_ = nullptr;
  takeTimes();
  pass(0.2);
  EXPECT_EQ(takeTimes().size(), 1u);
  EXPECT_THAT(latest_.addresses(), ElementsAre(IpGenAddr("10.0.1.5")));
}

TEST_F(NeighborsTest, AHelloThatFailsCountsAsSent) {
  answer_ = Sent::failed;
  pass(6);
  EXPECT_EQ(takeTimes().size(), 1u);
  EXPECT_EQ(neighbors_->counters().sent, 1u);
  EXPECT_FALSE(neighbors_->helloDueBefore(IpGenAddr("10.0.0.2")));
}

TEST_F(NeighborsTest, AChangeOfWhatIsAnnouncedIsSentAtOnceOnceAHelloWasSent) {
  neighbors_->secondaryAddressesIs({IpGenAddr("10.0.1.5")});
  EXPECT_THAT(take(), IsEmpty());
  pass(6);
  EXPECT_THAT(latest_.addresses(), ElementsAre(IpGenAddr("10.0.1.5")));
  take();

  neighbors_->secondaryAddressesIs({});
  EXPECT_THAT(take(), ElementsAre("hello"));
  EXPECT_THAT(latest_.addresses(), IsEmpty());
  neighbors_->secondaryAddressesIs({});
  EXPECT_THAT(take(), IsEmpty());

  HelloSettings settings;
  settings.drPriority = 7;
  neighbors_->settingsIs(settings);
  EXPECT_THAT(take(), ElementsAre("hello"));
  EXPECT_EQ(latest_.drPriority(), 7u);
  settings.maxNeighbors = 3;
  neighbors_->settingsIs(settings);
  EXPECT_THAT(take(), IsEmpty());

  answer_ = Sent::later;
  settings.lanPruneDelay.overrideInterval = 5000;
  neighbors_->settingsIs(settings);
  EXPECT_THAT(take(), ElementsAre("hello", "delay 0.5 override 5 no suppression"));
  answer_ = Sent::done;
  pass(0.1);
  EXPECT_THAT(take(), ElementsAre("hello"));
}

TEST_F(NeighborsTest, AShorterPeriodTakesEffectAtOnce) {
  settle();
  takeTimes();
  HelloSettings settings;
  settings.period = 2;
  neighbors_->settingsIs(settings);
  pass(5);
  EXPECT_THAT(takeTimes(), ElementsAre(1006, 1008, 1010));
}

TEST_F(NeighborsTest, SettingsThatCannotBeAreRefusedByName) {
  HelloSettings settings;
  settings.period = 0;
  EXPECT_THAT([&] { neighbors_->settingsIs(settings); },
              ThrowsMessage<Vel::RangeException>("Hello_Period of 0.000000 s"));
  settings = {.triggeredDelay = -1};
  EXPECT_THAT([&] { start(settings); },
              ThrowsMessage<Vel::RangeException>("Triggered_Hello_Delay of -1.000000 s"));
  settings = {.holdTime = U16{0}};
  EXPECT_THAT([&] { start(settings); }, ThrowsMessage<Vel::RangeException>("Hello_Holdtime of 0 s"));
  settings = {};
  settings.lanPruneDelay.propagationDelay = 40'000;
  EXPECT_THAT([&] { start(settings); }, ThrowsMessage<Vel::RangeException>("propagation delay of 40000 ms"));
  EXPECT_EQ(neighbors_->settings(), HelloSettings());
  EXPECT_EQ(announcedHoldTime({.period = 1e9}), 65'534);
}

TEST_F(NeighborsTest, TheEndSendsAHelloWithHoldTimeZeroAndThenTheNeighborsEnd) {
  settle();
  hear("10.0.0.2", helloOf());
  hear("10.0.0.3", helloOf());
  take();
  neighbors_->end();
  EXPECT_THAT(take(), ElementsAre("goodbye", "routes: down 10.0.0.2", "link down 10.0.0.2",
                                  "routes: down 10.0.0.3", "link down 10.0.0.3"));
  EXPECT_EQ(latest_.holdTime(), U16{0});
  EXPECT_EQ(latest_.generationId(), neighbors_->generationId());
  neighbors_->end();
  hear("10.0.0.2", helloOf());
  pass(100);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(neighbors_->count(), 0u);
}

// --- Before a Join/Prune -------------------------------------------------------------------------

TEST_F(NeighborsTest, AHelloComesBeforeTheFirstJoinPruneOnALink) {
  EXPECT_TRUE(neighbors_->helloDueBefore(IpGenAddr("10.0.0.5")));
  EXPECT_EQ(neighbors_->sendHelloBefore(IpGenAddr("10.0.0.5")), Sent::done);
  EXPECT_THAT(take(), ElementsAre("hello"));
  EXPECT_FALSE(neighbors_->helloDueBefore(IpGenAddr("10.0.0.5")));
  EXPECT_EQ(neighbors_->sendHelloBefore(IpGenAddr("10.0.0.5")), Sent::done);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(NeighborsTest, AHelloComesBeforeTheJoinPruneToANeighborThatIsNewOrHasRestarted) {
  settle();
  IpGenAddr const neighbor("10.0.0.2"), other("10.0.0.3");
  hear("10.0.0.3", helloOf());
  pass(6);
  hear("10.0.0.2", helloOf());
  take();
  EXPECT_FALSE(neighbors_->helloDueBefore(other));
  EXPECT_TRUE(neighbors_->helloDueBefore(neighbor));
  EXPECT_EQ(neighbors_->sendHelloBefore(neighbor), Sent::done);
  EXPECT_THAT(take(), ElementsAre("hello"));
  EXPECT_FALSE(neighbors_->helloDueBefore(neighbor));
  pass(5);
  EXPECT_THAT(take(), IsEmpty()) << "the answer that was pending is through";
  hear("10.0.0.2", helloOf());
  EXPECT_FALSE(neighbors_->helloDueBefore(neighbor));
  hear("10.0.0.2", helloOf(105, 2));
  EXPECT_TRUE(neighbors_->helloDueBefore(neighbor));
  answer_ = Sent::later;
  EXPECT_EQ(neighbors_->sendHelloBefore(neighbor), Sent::later);
  EXPECT_TRUE(neighbors_->helloDueBefore(neighbor));
}

// --- Neighbors -----------------------------------------------------------------------------------

TEST_F(NeighborsTest, ANeighborIsUpWithItsFirstHelloAndExpiresWithItsHoldTime) {
  settle();
  hear("10.0.0.2", helloOf(40));
  EXPECT_THAT(take(), ElementsAre("delay 0.5 override 2.5", "routes: up 10.0.0.2", "up 10.0.0.2"));
  EXPECT_TRUE(neighbors_->isUp(IpGenAddr("10.0.0.2")));
  EXPECT_EQ(neighbors_->count(), 1u);
  pass(30);
  hear("10.0.0.2", helloOf(40));
  isLogged_ = false;
  take();
  pass(39.9);
  EXPECT_THAT(take(), IsEmpty());
  pass(0.1);
  EXPECT_THAT(take(), ElementsAre("routes: down 10.0.0.2", "expired 10.0.0.2", alone));
  EXPECT_EQ(neighbors_->count(), 0u);
}

TEST_F(NeighborsTest, WithoutAHoldTimeANeighborExpiresAfterThatOfTheRfc) {
  settle();
  isLogged_ = false;
  Wire::Hello hello = helloOf();
  hello.holdTimeIs(std::nullopt);
  hear("10.0.0.2", hello);
  EXPECT_DOUBLE_EQ(neighbors_->snapshot().at(0).expires, now_ + 105);
  take();
  pass(104.9);
  EXPECT_THAT(take(), IsEmpty());
  pass(0.2);
  EXPECT_THAT(take(), ElementsAre("routes: down 10.0.0.2", "expired 10.0.0.2", alone));
}

TEST_F(NeighborsTest, AHoldTimeOf65535NeverExpiresAndAShorterOneTakesEffect) {
  settle();
  isLogged_ = false;
  hear("10.0.0.2", helloOf(65'535));
  take();
  pass(200'000);
  EXPECT_THAT(take(), IsEmpty());
  hear("10.0.0.2", helloOf(10));
  pass(10);
  EXPECT_THAT(take(), ElementsAre("routes: down 10.0.0.2", "expired 10.0.0.2", alone));
}

TEST_F(NeighborsTest, AHelloWithHoldTimeZeroEndsTheNeighborAndThatOfAStrangerDoesNothing) {
  settle();
  hear("10.0.0.2", helloOf());
  take();
  EXPECT_TRUE(hear("10.0.0.2", helloOf(0)));
  EXPECT_THAT(take(), ElementsAre("routes: down 10.0.0.2", "goodbye 10.0.0.2", alone));
  EXPECT_TRUE(hear("10.0.0.3", helloOf(0)));
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(neighbors_->count(), 0u);
}

TEST_F(NeighborsTest, AnotherGenerationIdIsARestartAndDiscardsTheOldOptions) {
  settle();
  auto hello = helloOf(105, 1);
  hello.addressAdd(IpGenAddr("10.0.1.2"));
  hear("10.0.0.2", hello);
  take();
  Wire::Hello bare;
  bare.generationIdIs(2);
  hear("10.0.0.2", bare);
  EXPECT_THAT(take(),
              ElementsAre("routes: restarted 10.0.0.2", "routes: addresses 10.0.0.2", "restarted 10.0.0.2"));
  auto const info = neighbors_->snapshot().at(0);
  EXPECT_EQ(info.options, LanOptions());
  EXPECT_THAT(info.addresses, IsEmpty());
  EXPECT_EQ(info.restarts, 1u);
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), std::nullopt);
}

TEST_F(NeighborsTest, AGenerationIdThatWasNotThereBeforeIsNoRestart) {
  settle();
  hear("10.0.0.2", helloOf(105, std::nullopt));
  take();
  hear("10.0.0.2", helloOf(105, 3));
  hear("10.0.0.2", helloOf(105, std::nullopt));
  hear("10.0.0.2", helloOf(105, 4));
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(neighbors_->snapshot().at(0).restarts, 0u);
}

TEST_F(NeighborsTest, TheOptionsOfTheLatestHelloHoldAlsoWithTheSameGenerationId) {
  settle();
  hear("10.0.0.2", helloOf());
  take();
  auto hello = helloOf();
  hello.lanPruneDelayIs(
      Wire::LanPruneDelay{.tracking = true, .propagationDelay = 900, .overrideInterval = 100});
  hear("10.0.0.2", hello);
  EXPECT_THAT(take(), ElementsAre("delay 0.9 override 2.5 no suppression", "changed 10.0.0.2"));
  hello.lanPruneDelayIs(std::nullopt);
  hear("10.0.0.2", hello);
  EXPECT_THAT(take(), ElementsAre("delay 0.5 override 2.5", "changed 10.0.0.2"));
}

TEST_F(NeighborsTest, AListedAddressLeadsToItsNeighborUntilTheListLacksIt) {
  settle();
  auto hello = helloOf();
  hello.addressAdd(IpGenAddr("10.0.1.2"));
  hello.addressAdd(IpGenAddr("10.0.2.2"));
  hello.addressAdd(IpGenAddr("10.0.1.2"));
  hello.addressAdd(IpGenAddr("10.0.0.2"));
  hello.addressAdd(IpGenAddr("2001:db8::2"));
  hear("10.0.0.2", hello);
  IpGenAddr const neighbor("10.0.0.2");
  EXPECT_EQ(neighbors_->neighborOf(neighbor), neighbor);
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), neighbor);
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.2.2")), neighbor);
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("2001:db8::2")), std::nullopt);
  EXPECT_THAT(neighbors_->snapshot().at(0).addresses,
              ElementsAre(IpGenAddr("10.0.1.2"), IpGenAddr("10.0.2.2")));

  auto shorter = helloOf();
  shorter.addressAdd(IpGenAddr("10.0.2.2"));
  hear("10.0.0.2", shorter);
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), std::nullopt);
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.2.2")), neighbor);
  hear("10.0.0.2", helloOf());
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.2.2")), std::nullopt);
  hear("10.0.0.2", hello);
  hear("10.0.0.2", helloOf(0));
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), std::nullopt);
}

TEST_F(NeighborsTest, OfAnAddressThatTwoNeighborsListTheLatestCountsAndThatIsTold) {
  settle();
  auto hello = helloOf();
  hello.addressAdd(IpGenAddr("10.0.1.2"));
  hear("10.0.0.2", hello);
  take();
  hear("10.0.0.3", hello);
  EXPECT_THAT(take(),
              ElementsAre("routes: up 10.0.0.3", "address conflict 10.0.0.3 10.0.1.2", "up 10.0.0.3"));
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), IpGenAddr("10.0.0.3"));
  hear("10.0.0.2", hello);
  EXPECT_THAT(take(), ElementsAre("routes: addresses 10.0.0.2", "address conflict 10.0.0.2 10.0.1.2"));
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), IpGenAddr("10.0.0.2"));
  hear("10.0.0.3", helloOf(0));
  EXPECT_EQ(neighbors_->neighborOf(IpGenAddr("10.0.1.2")), IpGenAddr("10.0.0.2"));
}

TEST_F(NeighborsTest, AnAddressListHasALimit) {
  start({.maxAddresses = 2});
  auto hello = helloOf();
  for (int n = 1; n < 6; ++n) hello.addressAdd(IpGenAddr("10.0.1." + std::to_string(n)));
  hear("10.0.0.2", hello);
  EXPECT_EQ(neighbors_->snapshot().at(0).addresses.size(), 2u);
  EXPECT_EQ(neighbors_->counters().addressesLeftOut, 3u);
}

// --- The LAN -------------------------------------------------------------------------------------

TEST_F(NeighborsTest, TheDesignatedRouterHasTheHighestPriorityAndThenTheHighestAddress) {
  settle();
  EXPECT_EQ(neighbors_->designatedRouter(), own_);
  auto const withPriority = [](std::optional<U32> priority) {
    auto hello = helloOf();
    hello.drPriorityIs(priority);
    return hello;
  };
  auto const after = [&](std::string_view neighbor, Wire::Hello const& hello) {
    hear(neighbor, hello);
    return toText(neighbors_->designatedRouter());
  };
  EXPECT_EQ(after("10.0.0.9", withPriority(0)), "10.0.0.5");
  EXPECT_EQ(after("10.0.0.9", withPriority(1)), "10.0.0.9");
  EXPECT_EQ(after("10.0.0.2", withPriority(2)), "10.0.0.2");
  EXPECT_EQ(after("10.0.0.3", withPriority(std::nullopt)), "10.0.0.9");
  EXPECT_EQ(after("10.0.0.10", withPriority(std::nullopt)), "10.0.0.10");
  EXPECT_EQ(after("10.0.0.10", withPriority(0)), "10.0.0.10");
  EXPECT_EQ(after("10.0.0.3", withPriority(0)), "10.0.0.2");
  EXPECT_EQ(after("10.0.0.2", helloOf(0)), "10.0.0.9");
  take();
  HelloSettings settings;
  settings.drPriority = 8;
  neighbors_->settingsIs(settings);
  EXPECT_THAT(take(), ElementsAre("hello", "designated router 10.0.0.5 10.0.0.9"));
}

TEST_F(NeighborsTest, TheEffectiveDelaysAreTheLargestOrTheDefaultsIfANeighborSendsNone) {
  HelloSettings settings;
  settings.lanPruneDelay = {.tracking = false, .propagationDelay = 600, .overrideInterval = 2000};
  start(settings);
  settle();
  LanValues const& values = neighbors_->values();
  EXPECT_DOUBLE_EQ(values.propagationDelay(), 0.6);
  EXPECT_DOUBLE_EQ(values.overrideInterval(), 2.0);
  auto hello = helloOf();
  hello.lanPruneDelayIs(Wire::LanPruneDelay{false, 100, 9000});
  hear("10.0.0.2", hello);
  hello.lanPruneDelayIs(Wire::LanPruneDelay{false, 1500, 0});
  hear("10.0.0.3", hello);
  EXPECT_DOUBLE_EQ(values.propagationDelay(), 1.5);
  EXPECT_DOUBLE_EQ(values.overrideInterval(), 9.0);
  hello.lanPruneDelayIs(std::nullopt);
  hear("10.0.0.4", hello);
  EXPECT_DOUBLE_EQ(values.propagationDelay(), 0.5);
  EXPECT_DOUBLE_EQ(values.overrideInterval(), 2.5);
  hear("10.0.0.4", helloOf(0));
  hear("10.0.0.2", helloOf(0));
  EXPECT_DOUBLE_EQ(values.propagationDelay(), 1.5);
  EXPECT_DOUBLE_EQ(values.overrideInterval(), 2.0);
}

TEST_F(NeighborsTest, JoinsMayBeSuppressedUnlessAllNeighborsSetTheTrackingBitWhateverTheOwnOneIs) {
  for (bool const own : {false, true}) {
    HelloSettings settings;
    settings.lanPruneDelay.tracking = own;
    start(settings);
    auto tracking = helloOf(), none = helloOf();
    tracking.lanPruneDelayIs(Wire::LanPruneDelay{.tracking = true});
    none.lanPruneDelayIs(std::nullopt);
    hear("10.0.0.2", tracking);
    hear("10.0.0.3", tracking);
    EXPECT_FALSE(neighbors_->values().suppressionAllowed());
    hear("10.0.0.3", helloOf());
    EXPECT_TRUE(neighbors_->values().suppressionAllowed());
    hear("10.0.0.3", tracking);
    EXPECT_FALSE(neighbors_->values().suppressionAllowed());
    hear("10.0.0.3", none);
    EXPECT_TRUE(neighbors_->values().suppressionAllowed());
    hear("10.0.0.3", helloOf(0));
    EXPECT_FALSE(neighbors_->values().suppressionAllowed());
  }
}

// --- Bounds --------------------------------------------------------------------------------------

TEST_F(NeighborsTest, NeighborsBeyondTheLimitAreRefusedAndCountedAndTenEventsASecondTell) {
  start({.maxNeighbors = 5});
  for (int n = 0; n < 1000; ++n)
    EXPECT_EQ(hear("10.0." + std::to_string(1 + n / 200) + "." + std::to_string(1 + n % 200), helloOf()),
              n < 5);
  EXPECT_EQ(neighbors_->count(), 5u);
  EXPECT_EQ(neighbors_->counters().neighborsRefused, 995u);
  auto const isRefusal = [](std::string const& line) { return line.starts_with("too many"); };
  auto lines = take();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isRefusal), 10);
  pass(1);
  take();
  hear("10.0.9.9", helloOf());
  EXPECT_THAT(take(), ElementsAre("too many neighbors 10.0.9.9 (985 left out)"));
  // Room is used again.
  hear("10.0.1.1", helloOf(0));
  EXPECT_TRUE(hear("10.0.9.9", helloOf()));
}

TEST_F(NeighborsTest, ANeighborThatChangesWithEveryHelloCostsABoundedAmount) {
  settle();
  isLogged_ = false;
  hear("10.0.0.2", helloOf(105, 0));
  int const seconds = 60;
  take();
  takeTimes();
  for (U32 n = 1; n <= 1000 * seconds; ++n) {
    auto hello = helloOf(105, n);
    if (n % 2) hello.drPriorityIs(std::nullopt);
    hear("10.0.0.2", hello);
    pass(0.001);
  }
  auto const lines = take();
  auto const count = [&](std::string_view start) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](auto const& line) { return line.starts_with(start); });
  };
  EXPECT_LE(count("routes: restarted"), 3 + seconds / 30);
  EXPECT_GE(count("routes: restarted"), 3 + seconds / 30 - 1);
  EXPECT_LE(count("restarted"), 10 * (seconds + 1));
  EXPECT_LE(count("designated router"), 10 * (seconds + 1));
  EXPECT_EQ(neighbors_->snapshot().at(0).restarts, 1000u * seconds);
  // No more Hellos than its changes at random times within Triggered_Hello_Delay ask for: 2.5 s on average.
  EXPECT_LE(takeTimes().size(), 60u);
  EXPECT_EQ(wheel_->armedCount(), 2u) << "a timer for Hellos and one for the neighbor";
}

TEST_F(NeighborsTest, ARestartThatWasNotToldAtOnceIsToldLater) {
  settle();
  isLogged_ = false;
  for (U32 id = 0; id < 10; ++id) hear("10.0.0.2", helloOf(105, id));
  auto const isTold = [](std::string const& line) { return line == "routes: restarted 10.0.0.2"; };
  auto lines = take();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isTold), 3);
  pass(29);
  EXPECT_THAT(take(), IsEmpty());
  pass(1);
  EXPECT_THAT(take(), ElementsAre("routes: restarted 10.0.0.2"));
  pass(60);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(NeighborsTest, ANeighborThatSaysGoodbyeAndHelloInTurnEndsThreeTimesAtOnceAndThenOnceInAHelloPeriod) {
  settle();
  isLogged_ = false;
  int const seconds = 60;
  for (int n = 0; n < 100 * seconds; ++n) {
    hear("10.0.0.2", helloOf());
    hear("10.0.0.2", helloOf(0));
    pass(0.01);
  }
  hear("10.0.0.2", helloOf());
  auto const lines = take();
  auto const count = [&](std::string_view start) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](auto const& line) { return line.starts_with(start); });
  };
  EXPECT_LE(count("routes: down"), 3 + seconds / 30);
  EXPECT_GE(count("routes: down"), 3);
  EXPECT_LE(count("routes: up"), 1 + 3 + seconds / 30);
  EXPECT_LE(count("routes: restarted"), (1 + 3 + seconds / 30) * (3 + 1));
  EXPECT_EQ(count("up"), count("goodbye") + 1) << "and the last one says that it is there";
  EXPECT_TRUE(neighbors_->isUp(IpGenAddr("10.0.0.2")));
}

TEST_F(NeighborsTest, ANeighborFromWhichFewRoutesAreWantedEndsAndRestartsWithEachOfItsHellos) {
  routes_ = 100;
  settle();
  for (U32 turn = 0; turn < 50; ++turn) {
    pass(0.02);
    hear("10.0.0.2", helloOf(105, 2 * turn));
    hear("10.0.0.2", helloOf(105, 2 * turn + 1));
    hear("10.0.0.2", helloOf(0));
  }
  auto const lines = take();
  for (auto const* const line : {"routes: up 10.0.0.2", "routes: restarted 10.0.0.2", "routes: down 10.0.0.2",
                                 "up 10.0.0.2", "goodbye 10.0.0.2"})
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 50) << line;
}

TEST_F(NeighborsTest, AnEndThatIsPutOffCountsWhenItHasATurnUnlessAHelloComesWhichIsARestart) {
  settle();
  isLogged_ = false;
  for (int n = 0; n < 3; ++n) {
    hear("10.0.0.2", helloOf());
    hear("10.0.0.2", helloOf(0));
  }
  hear("10.0.0.2", helloOf());
  take();
  hear("10.0.0.2", helloOf(0));
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_TRUE(neighbors_->isUp(IpGenAddr("10.0.0.2")));
  hear("10.0.0.2", helloOf());
  EXPECT_THAT(take(), ElementsAre("routes: restarted 10.0.0.2", "restarted 10.0.0.2"));
  EXPECT_EQ(neighbors_->snapshot().at(0).restarts, 1u);
  pass(29);
  hear("10.0.0.2", helloOf(0));
  EXPECT_THAT(take(), IsEmpty());
  pass(1);
  EXPECT_THAT(take(), ElementsAre("routes: down 10.0.0.2", "goodbye 10.0.0.2", alone));
}

TEST_F(NeighborsTest, EndsOfVeryManyNeighborsAreRememberedWithinTheLimitAndHaveABoundBeyondIt) {
  start({.maxNeighbors = 20});
  settle();
  isLogged_ = false;
  U32 ends = 0;
  for (int n = 0; n < 20'000; ++n) {
    auto const neighbor = "10.1." + std::to_string(n / 250 % 250) + "." + std::to_string(1 + n % 250);
    hear(neighbor, helloOf());
    hear(neighbor, helloOf(0));
    pass(0.003);
    for (auto const& line : take()) ends += line.starts_with("routes: down");
  }
  EXPECT_GE(ends, 20u);
  EXPECT_LE(ends, 3 * 2 * 20u) << "in two Hello_Periods";
}

TEST_F(NeighborsTest, ANeighborOfWhoseComingNobodyWasToldForWantOfMemoryIsToldOfWithItsNextHello) {
  settle();
  isLogged_ = false;
  hasNoMemory_ = true;
  EXPECT_THROW(hear("10.0.0.2", helloOf()), std::bad_alloc);
  take();
  hear("10.0.0.2", helloOf());
  EXPECT_THAT(take(), ElementsAre("routes: up 10.0.0.2", "up 10.0.0.2"));
  hear("10.0.0.2", helloOf());
  EXPECT_THAT(take(), IsEmpty());
  hasNoMemory_ = true;
  EXPECT_THROW(hear("10.0.0.3", helloOf()), std::bad_alloc);
  take();
  hear("10.0.0.3", helloOf(0));
  EXPECT_THAT(take(), IsEmpty()) << "who was not told of it is not told of its end";
}

TEST_F(NeighborsTest, OfChangedAddressListsThreeAreToldAtOnceAndThenOneInAHelloPeriod) {
  settle();
  isLogged_ = false;
  hear("10.0.0.2", helloOf());
  take();
  int const seconds = 60;
  for (int n = 0; n < 100 * seconds; ++n) {
    auto listing = helloOf();
    if (n % 2 == 0) listing.addressAdd(IpGenAddr("10.0.1.2"));
    hear("10.0.0.2", listing);
    pass(0.01);
  }
  auto const lines = take();
  auto const told = std::count(lines.begin(), lines.end(), "routes: addresses 10.0.0.2");
  EXPECT_LE(told, 3 + seconds / 30);
  EXPECT_GE(told, 3 + seconds / 30 - 1);
}

TEST_F(NeighborsTest, MoreAddressesThanAHelloCanListAreRefusedAndChangeNothing) {
  std::vector<IpGenAddr> addresses;
  for (U32 n = 0; n < 10'912; ++n) addresses.push_back(IpGenAddr::ipv4(0x0a100000u + n));
  EXPECT_NO_THROW(neighbors_->secondaryAddressesIs(addresses));
  addresses.push_back(IpGenAddr("10.99.0.1"));
  EXPECT_THAT([&] { neighbors_->secondaryAddressesIs(addresses); },
              ThrowsMessage<Vel::RangeException>(
                  "a Hello with 10913 secondary addresses does not fit an IP datagram"));
  pass(6);
  EXPECT_EQ(latest_.addresses().size(), 10'912u);
  EXPECT_THROW(start({}, addresses), Vel::RangeException);
}

// --- Callbacks -----------------------------------------------------------------------------------

TEST_F(NeighborsTest, EveryCallbackMayDestroyTheNeighbors) {
  // Each round destroys it at another callback, until a round has none left.
  for (int at = 0;; ++at) {
    int callbacks = 0;
    auto const destroyAtTurn = [&] {
      if (callbacks++ == at) neighbors_.reset();
    };
    start({.maxNeighbors = 2});
    onSend_ = onEvent_ = destroyAtTurn;
    auto tracking = helloOf();
    tracking.lanPruneDelayIs(Wire::LanPruneDelay{true, 900, 9000});
    tracking.addressAdd(IpGenAddr("10.0.1.2"));
    auto const step = [&](auto const& act) {
      if (neighbors_) act();
    };
    step([&] { hear("10.0.0.2", tracking); });
    step([&] { hear("10.0.0.3", tracking); });
    step([&] { hear("10.0.0.4", tracking); });
    step([&] { pass(6); });
    step([&] { hear("10.0.0.2", helloOf(105, 2)); });
    step([&] { (void)neighbors_->sendHelloBefore(IpGenAddr("10.0.0.2")); });
    step([&] { neighbors_->secondaryAddressesIs({IpGenAddr("10.0.1.5")}); });
    step([&] { neighbors_->settingsIs({.drPriority = 9}); });
    step([&] { hear("10.0.0.2", helloOf(0)); });
    step([&] { hear("10.0.0.2", helloOf(1000)); });
    step([&] { pass(110); });
    step([&] { neighbors_->end(); });
    onSend_ = onEvent_ = nullptr;
    if (neighbors_) {
      EXPECT_GT(at, 15);
      break;
    }
    EXPECT_EQ(wheel_->armedCount(), 0u);
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
