// SPDX-License-Identifier: Apache-2.0
// What a speaker tells its observer and its user: what neighbors said last, what was left out, why sending
// failed, and when the next refresh is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "pim/speaker/Speaker.h"
#include "pim/wire/Hello.h"

namespace Routing::Pim::Speaker {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SpeakerTellsTest : public testing::Test, public Sink, public SpeakerObserver {
 protected:
  SpeakerTellsTest() {
    speaker_ = std::make_unique<Speaker>(wheel_, *this, SpeakerSettings{.seed = 1, .observer = this});
    interface("eth0");
    pass(1);
  }

  void interface(std::string_view name, InterfaceSettings settings = {}) {
    settings.hello.triggeredDelay = 0;
    speaker_->interfaceIs(name, {name == "eth0" ? "10.0.0.1/24" : "10.0.1.1/24"}, settings);
  }
  void pass(Seconds seconds) {
    Seconds const end = now_ + seconds;
    while (speaker_->timeMin() <= end) {
      now_ = std::max(now_, speaker_->timeMin());
      speaker_->expire();
    }
    now_ = end;
  }
  void hello(std::optional<U16> holdTime, std::optional<U32> generationId, std::optional<U32> drPriority,
             std::string_view from = "10.0.0.2") {
    Wire::Hello hello;
    if (holdTime) hello.holdTimeIs(*holdTime);
    if (generationId) hello.generationIdIs(*generationId);
    if (drPriority) hello.drPriorityIs(*drPriority);
    IpGenAddr const source(from), destination = Wire::allPimRouters(source.af());
    speaker_->receive({.intf = "eth0", .source = source, .destination = destination, .ttl = 1},
                      Wire::encodeHello(hello, source, destination));
  }
  void receive(std::string_view intf, unsigned ttl, std::vector<U8> const& bytes = {0x20, 0, 0, 0}) {
    speaker_->receive({.intf = intf,
                       .source = IpGenAddr("10.0.0.2"),
                       .destination = Wire::allPimRouters(AddressFamily::ipv4),
                       .ttl = ttl},
                      bytes);
  }
  void join(int route = 1) {
    speaker_->upstream().joinIs({IpGenAddr("10.9.0.1"), fromNumber(route)}, upstream_);
  }
  static IpGenAddr fromNumber(int route) {
    std::array<U8, 4> const bytes = {239, 1, static_cast<U8>(route >> 8), static_cast<U8>(route)};
    return IpGenAddr::fromBytes(bytes);
  }
  std::vector<std::string> take() { return std::exchange(told_, {}); }

  Sent send(Outgoing const& packet) override {
    if (onSend_) return onSend_();
    if (!Wire::isPimType(packet.bytes, Wire::PimType::hello)) joinPruneTimes_.push_back(now_);
    return Sent::done;
  }
  std::string_view failure() const override { return failure_; }

  void neighborChanged(NeighborEvent const& event) override {
    auto const number = [](std::optional<U32> const& value) {
      return value ? std::to_string(*value) : "none";
    };
    told_.push_back(std::string(text(event.kind)) + " hold " + std::to_string(event.said.holdTime) +
                    " generation " + number(event.said.generationId) + " priority " +
                    number(event.said.drPriority));
  }
  void packetUndelivered(UndeliveredPacket const& packet) override {
    told_.push_back(std::string(packet.packet.intf) + ": " + std::string(text(packet.verdict)) +
                    (packet.refusal ? ", " + std::string(Wire::text(packet.refusal->reason)) : "") +
                    (packet.leftOut ? " after " + std::to_string(packet.leftOut) : ""));
  }
  void sendingFailed(FailedPacket const& failed) override {
    told_.push_back(failed.packet.intf.name() + " " + toText(failed.packet.source) + ": " +
                    std::string(failed.reason) +
                    (failed.leftOut ? " after " + std::to_string(failed.leftOut) : ""));
    if (onFailure_) onFailure_();
  }

  Seconds now_ = 1000;
  Vel::Ptr<Zanth::TimerWheel> const wheel_ = Vel::create<Zanth::TimerWheel>([this] { return now_; });
  UpstreamNeighbor const upstream_{Dova::IntfId("eth0"), IpGenAddr("10.0.0.2")};
  std::vector<std::string> told_;
  std::vector<Seconds> joinPruneTimes_;
  std::function<Sent()> onSend_;
  std::function<void()> onFailure_;
  std::string failure_;
  std::unique_ptr<Speaker> speaker_;
};

TEST_F(SpeakerTellsTest, AnEventOfANeighborHasWhatItSaidLast) {
  hello(90, 7, 3);
  EXPECT_THAT(take(), testing::Contains("up hold 90 generation 7 priority 3"));
  hello(80, 8, 3);
  EXPECT_THAT(take(), ElementsAre("restarted hold 80 generation 8 priority 3"));
  hello({}, 8, {});
  EXPECT_THAT(take(), testing::Contains("changed hold 105 generation 8 priority none"));
  hello(0, 9, 9);
  EXPECT_THAT(take(), testing::Contains("goodbye hold 105 generation 8 priority none"));
  hello(5, {}, 1);
  take();
  pass(6);
  EXPECT_THAT(take(), testing::Contains("expired hold 5 generation none priority 1"));
  hello(90, 7, 3);
  take();
  speaker_->interfaceDel("eth0");
  EXPECT_THAT(take(), ElementsAre("link down hold 90 generation 7 priority 3"));
}

TEST_F(SpeakerTellsTest, TheDesignatedRouterIsThatOfTheInterfaceAndFamily) {
  hello(90, 7, 3);
  EXPECT_EQ(speaker_->designatedRouter("eth0", AddressFamily::ipv4), IpGenAddr("10.0.0.2"));
  EXPECT_EQ(speaker_->designatedRouter("eth0", AddressFamily::ipv6), IpGenAddr());
  EXPECT_EQ(speaker_->designatedRouter("eth1", AddressFamily::ipv4), IpGenAddr());
}

TEST_F(SpeakerTellsTest, TenUndeliveredPacketsInASecondAreToldOfEachInterfaceAndReason) {
  interface("eth1");
  pass(1);
  take();
  for (int i = 0; i < 15; ++i) receive("eth0", 1);
  EXPECT_EQ(take().size(), 10u);
  for (int i = 0; i < 15; ++i) receive("eth1", 1);
  EXPECT_EQ(take().size(), 10u);
  for (int i = 0; i < 15; ++i) receive("eth0", 2);
  EXPECT_EQ(take().size(), 10u);
  for (int i = 0; i < 15; ++i) receive("eth0", 1, {0x23});
  EXPECT_EQ(take().size(), 10u);
  for (int i = 0; i < 15; ++i) receive("eth" + std::to_string(i + 5), 1);
  EXPECT_EQ(take().size(), 10u);
  pass(1);
  take();
  receive("eth0", 1);
  receive("eth0", 2);
  EXPECT_THAT(take(), ElementsAre("eth0: refused, bad checksum after 5",
                                  "eth0: refused, TTL or hop limit not 1 after 5"));
}

TEST_F(SpeakerTellsTest, APacketThatFailsIsToldAndCountedByItsReason) {
  onSend_ = [this] {
    failure_ = "Message too long";
    return Sent::failed;
  };
  hello(90, 7, 3);
  pass(1);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: Message too long"));
  onSend_ = []() -> Sent { throw std::runtime_error("no such device"); };
  speaker_->interfaceDel("eth0");
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: no such device"));
  EXPECT_THAT(speaker_->counters().failures,
              ElementsAre(testing::Pair("Message too long", 1), testing::Pair("no such device", 1)));
  EXPECT_EQ(speaker_->counters().sendingFailed, 2u);
}

TEST_F(SpeakerTellsTest, ReasonsWithoutEndAreCountedByTheFirstThirtyTwoAndToldTenTimesInASecond) {
  hello(65535, 7, 3);
  pass(1);
  take();
  int number = 0;
  onSend_ = [&] {
    failure_ = "reason " + std::to_string(++number);
    return Sent::failed;
  };
  for (int i = 0; i < 40; ++i) {
    InterfaceSettings settings;
    settings.hello.drPriority = static_cast<U32>(10 + i);
    interface("eth0", settings);
  }
  std::size_t told = 0;
  for (auto const& line : take()) told += line.find("reason") != line.npos ? 1 : 0;
  EXPECT_EQ(told, 10u);
  EXPECT_EQ(speaker_->counters().failures.size(), 32u);
  EXPECT_EQ(speaker_->counters().sendingFailed, 40u);
}

TEST_F(SpeakerTellsTest, WhoIsToldOfAFailureMayDestroyTheSpeaker) {
  hello(65535, 7, 3);
  join();
  onSend_ = [] { return Sent::failed; };
  onFailure_ = [this] { speaker_ = nullptr; };
  now_ = speaker_->timeMin();
  speaker_->expire();
  EXPECT_EQ(speaker_, nullptr);
}

TEST_F(SpeakerTellsTest, AShorterIntervalIsTakenOverByTheRefreshThatIsUnderWay) {
  hello(65535, 7, 3);
  EXPECT_EQ(speaker_->nextRefresh(upstream_), Vel::never);
  join();
  pass(10);
  Seconds const next = speaker_->nextRefresh(upstream_);
  EXPECT_GT(next, now_ + 40);
  InterfaceSettings settings;
  settings.joinPruneInterval = 100;
  interface("eth0", settings);
  EXPECT_EQ(speaker_->nextRefresh(upstream_), next);
  settings.joinPruneInterval = 7;
  interface("eth0", settings);
  EXPECT_EQ(speaker_->nextRefresh(upstream_), now_ + 7);
  settings.hello.period = 31;
  interface("eth0", settings);
  EXPECT_EQ(speaker_->nextRefresh(upstream_), now_ + 7);
  Seconds const changed = now_;
  joinPruneTimes_.clear();
  pass(22);
  EXPECT_THAT(joinPruneTimes_, ElementsAre(changed + 7, changed + 14, changed + 21));
  EXPECT_EQ(speaker_->nextRefresh({Dova::IntfId("eth0"), IpGenAddr("10.0.0.3")}), Vel::never);
  EXPECT_EQ(speaker_->nextRefresh({Dova::IntfId("eth1"), IpGenAddr("10.0.0.2")}), Vel::never);
}

TEST_F(SpeakerTellsTest, AnIntervalMayHaveAFraction) {
  hello(65535, 7, 3);
  join();
  pass(10);
  for (Seconds const interval : {2.5, 0.5, 61.25}) {
    InterfaceSettings settings;
    settings.joinPruneInterval = interval;
    interface("eth0", settings);
    Seconds const changed = now_;
    joinPruneTimes_.clear();
    pass(4.1 * interval);
    ASSERT_GE(joinPruneTimes_.size(), 4u) << interval;
    for (int i = 0; i < 4; ++i) {
      // The first one, of a longer interval than before, was due already.
      EXPECT_LE(joinPruneTimes_[i], changed + (i + 1) * interval + 0.01) << interval;
      if (i > 0) {
        EXPECT_NEAR(joinPruneTimes_[i] - joinPruneTimes_[i - 1], interval, 0.01) << interval;
      }
    }
  }
  // That of a route that is joined while it holds.
  speaker_->upstream().joinDel({IpGenAddr("10.9.0.1"), IpGenAddr("239.1.1.1")});
  pass(200);
  join(7);
  pass(0.1);
  EXPECT_LE(speaker_->nextRefresh(upstream_), now_ - 0.1 + 61.25 + 0.01);
}

TEST_F(SpeakerTellsTest, AShorterIntervalIsThatOfEachSliceOfManyRoutes) {
  hello(65535, 7, 3);
  for (int i = 0; i < 5000; ++i) join(i);
  pass(100);
  InterfaceSettings settings;
  settings.joinPruneInterval = 2;
  interface("eth0", settings);
  EXPECT_LE(speaker_->nextRefresh(upstream_), now_ + 2);
  joinPruneTimes_.clear();
  pass(12);
  // A refresh of 5,000 routes is 5 slices of several packets, 0.4 s apart.
  Seconds latest = now_ - 12;
  for (Seconds const time : joinPruneTimes_) {
    EXPECT_LE(time - latest, 2.001);
    latest = time;
  }
  EXPECT_GE(latest, now_ - 0.5);
}

}  // namespace
}  // namespace Routing::Pim::Speaker
