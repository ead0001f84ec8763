// SPDX-License-Identifier: Apache-2.0
// A speaker whose interfaces are changed, removed or taken down from inside its own callbacks, and the
// speaker itself destroyed there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <set>

#include "pim/joinprune/JoinPruneMessageInfo.h"
#include "pim/speaker/private/SpeakerLink.h"
#include "runtime/vel/Exception.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Speaker {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Lines = std::vector<std::string>;

constexpr std::array traceHandles = {"Pim::JoinPrune", "Pim::Agent"};

Wire::Hello plainHello(U16 holdTime = 105) {
  Wire::Hello hello;
  hello.holdTimeIs(holdTime);
  hello.lanPruneDelayIs(Wire::LanPruneDelay{});
  hello.drPriorityIs(0);
  hello.generationIdIs(1);
  return hello;
}

class SpeakerMidFlightTest : public testing::Test, public Sink, public SpeakerObserver, public LinkObserver {
 protected:
  ~SpeakerMidFlightTest() override { traceNothing(); }

  void start(SpeakerSettings settings = {}) {
    settings.observer = this;
    speaker = std::make_unique<Speaker>(wheel, *this, std::move(settings));
  }
  /// An interface whose first Hello is sent, with two neighbors that were answered.
  void settle() {
    speaker->interfaceIs("eth0", {"10.0.0.1/24"});
    speaker->linkObserverAdd("eth0", AddressFamily::ipv4, *this);
    pass(6);
    hello("10.0.0.2");
    hello("10.0.0.3");
    pass(6);
    lines.clear();
  }
  void pass(Seconds seconds) {
    Seconds const end = now + seconds;
    while (wheel->timeMin() <= end) {
      now = std::max(now, wheel->timeMin());
      wheel->expire();
    }
    now = end;
  }

  void hello(std::string_view from, Wire::Hello const& content = plainHello()) {
    IpGenAddr const source(from), destination = Wire::allPimRouters(source.af());
    speaker->receive({.intf = "eth0", .source = source, .destination = destination, .ttl = 1},
                     Wire::encodeHello(content, source, destination));
  }
  /// Joins (S,G) for each of some groups.
  void join(std::string_view from, std::string_view to, std::vector<std::string> const& groups) {
    Wire::JoinPrune message(IpGenAddr(to), 210);
    for (auto const& group : groups) {
      message.groupAdd(IpGenAddr(group));
      message.entryAdd(EntryKind::sourceJoin, IpGenAddr("10.9.0.1"));
    }
    IpGenAddr const source(from), destination = Wire::allPimRouters(source.af());
    speaker->receive({.intf = "eth0", .source = source, .destination = destination, .ttl = 1},
                     Wire::encodeJoinPrune(message, source, destination));
  }
  void want(std::vector<std::string> const& groups) {
    for (auto const& group : groups)
      speaker->upstream().joinIs({IpGenAddr("10.9.0.1"), IpGenAddr(group)},
                                 {Dova::IntfId("eth0"), IpGenAddr("10.0.0.2")});
  }
  void takeAddressesAway() { speaker->interfaceIs("eth0", {}); }

  /// Calls at the n-th trace line from now on, once.
  void atLine(int n, std::function<void()> const& act) {
    for (auto const* name : traceHandles)
      for (U32 level = 1; level <= 8; ++level) Vel::TraceHandle::find(name).levelIs(level, true);
    isReached = false;
    Vel::traceSinkIs([this, n, act, count = 0](Vel::TraceLine const&) mutable {
      if (++count != n) return;
      isReached = true;
      act();
    });
  }
  static void traceNothing() {
    Vel::traceSinkIs({});
    for (auto const* name : traceHandles) Vel::TraceHandle::find(name).levelsDel();
  }

  Sent send(Outgoing const& packet) override {
    bool const isHello = Wire::isPimType(packet.bytes, Wire::PimType::hello);
    std::string line = toText(packet.source) + (isHello ? " hello" : " join/prune");
    if (isHello) {
      auto const decoded = Wire::decodeHello(packet.bytes, packet.source, packet.destination);
      if (std::get<Wire::Hello>(decoded).holdTime() == 0) line = toText(packet.source) + " goodbye";
    }
    lines.push_back(line);
    if (onSend) onSend(line);
    return Sent::done;
  }
  void neighborChanged(NeighborEvent const& event) override {
    if (onNeighbor) onNeighbor(event);
  }
  void helloReceived(Dova::IntfId const& intf, IpGenAddr const&, Wire::Hello const&) override {
    if (onHello) onHello(intf);
  }
  void joinPruneReceived(Dova::IntfId const& intf, ReceivedJoinPrune const&) override {
    if (onJoinPrune) onJoinPrune(intf);
  }
  // While the link is down, it has nothing to tell.
  void neighborUp(IpGenAddr const&) override { isUp = true; }
  void neighborDown(IpGenAddr const&) override { EXPECT_TRUE(isUp); }
  void neighborRestarted(IpGenAddr const&) override { EXPECT_TRUE(isUp); }
  void joinPruneReceived(ReceivedJoinPrune const&) override { EXPECT_TRUE(isUp); }
  void linkDown() override { isUp = false; }

  Seconds now = 1000;
  Vel::Ptr<Zanth::TimerWheel> const wheel = Vel::create<Zanth::TimerWheel>([this] { return now; });
  Lines lines;
  bool isUp = false, isReached = false;
  std::function<void(std::string const&)> onSend;
  std::function<void(NeighborEvent const&)> onNeighbor;
  std::function<void(Dova::IntfId const&)> onHello, onJoinPrune;
  std::unique_ptr<Speaker> speaker;
};

// --- The link is down before the callback returns ---------------------------------------------------

TEST_F(SpeakerMidFlightTest, AJoinPruneWhoseObserverTakesTheAddressesAwayIsTakenByNoRoute) {
  start();
  settle();
  onJoinPrune = [&](Dova::IntfId const&) { takeAddressesAway(); };
  join("10.0.0.2", "10.0.0.1", {"239.1.1.1"});
  EXPECT_THAT(speaker->downstream(), IsEmpty());
  EXPECT_FALSE(isUp);
}

TEST_F(SpeakerMidFlightTest, AJoinPruneIsTakenByNoRouteWhenAWatcherOfTheRecordsTakesTheAddressesAway) {
  class Watcher final : public JoinPruneMessageInfo::NotifieeConst {
   public:
    std::function<void()> act;

   private:
    void onRxCount() override { act(); }
  };
  start();
  settle();
  auto const watcher = Vel::create<Watcher>();
  watcher->notifierIs(speaker->records("eth0", AddressFamily::ipv4).first);
  int told = 0;
  watcher->act = [&] {
    ++told;
    takeAddressesAway();
  };
  join("10.0.0.2", "10.0.0.1", {"239.1.1.1", "239.1.1.2"});
  EXPECT_GE(told, 1);
  EXPECT_THAT(speaker->downstream(), IsEmpty());
}

TEST_F(SpeakerMidFlightTest, AnObserverOfMessagesMayRemoveTheInterfaceAndStillReadItsName) {
  for (bool const ofHellos : {true, false}) {
    start();
    settle();
    std::string name;
    auto const remove = [&](Dova::IntfId const& intf) {
      speaker->interfaceDel("eth0");
      name = intf.name();
    };
    (ofHellos ? onHello : onJoinPrune) = remove;
    hello("10.0.0.2");
    if (!ofHellos) join("10.0.0.2", "10.0.0.1", {"239.1.1.1"});
    EXPECT_EQ(name, "eth0");
    EXPECT_FALSE(speaker->hasInterface("eth0"));
    onHello = onJoinPrune = nullptr;
  }
}

TEST_F(SpeakerMidFlightTest, AnyEventOfANeighborMayTakeTheAddressesAway) {
  std::set<NeighborEvent::Kind> kinds;
  for (auto const kind :
       {NeighborEvent::Kind::up, NeighborEvent::Kind::designatedRouter, NeighborEvent::Kind::restarted,
        NeighborEvent::Kind::changed, NeighborEvent::Kind::goodbye, NeighborEvent::Kind::addressConflict}) {
    start();
    settle();
    onNeighbor = [&](NeighborEvent const& event) {
      if (event.kind != kind) return;
      kinds.insert(kind);
      takeAddressesAway();
    };
    auto high = plainHello();
    high.drPriorityIs(9);
    high.addressAdd(IpGenAddr("10.0.7.1"));
    hello("10.0.0.4", high);
    hello("10.0.0.3", high);
    high.generationIdIs(2);
    hello("10.0.0.3", high);
    hello("10.0.0.3", plainHello(0));
    EXPECT_FALSE(isUp);
    EXPECT_EQ(speaker->link("eth0", AddressFamily::ipv4)->neighborCount(), 0u);
    EXPECT_THAT(speaker->downstream(), IsEmpty());
    onNeighbor = nullptr;
  }
  EXPECT_EQ(kinds.size(), 6u);
}

TEST_F(SpeakerMidFlightTest, AnyTraceLineMayTakeTheAddressesAwayOrReplaceThem) {
  for (bool const areReplaced : {false, true}) {
    int n = 0;
    do {
      start();
      settle();
      want({"239.1.1.1"});
      atLine(++n, [&] {
        if (areReplaced)
          speaker->interfaceIs("eth0", {"10.0.0.99/24"});
        else
          takeAddressesAway();
      });
      auto slow = plainHello();
      slow.lanPruneDelayIs(Wire::LanPruneDelay{.overrideInterval = 9000});
      hello("10.0.0.4", slow);
      join("10.0.0.2", "10.0.0.1", {"239.1.1.1"});
      hello("10.0.0.2", plainHello(0));
      hello("10.0.0.2");
      pass(1);
      traceNothing();
      if (!isReached) break;
      auto const* const link = speaker->link("eth0", AddressFamily::ipv4);
      EXPECT_EQ(link->primaryAddress(), areReplaced ? IpGenAddr("10.0.0.99") : IpGenAddr());
      if (!areReplaced) {
        EXPECT_THAT(speaker->downstream(), IsEmpty()) << "at line " << n;
      }
      EXPECT_EQ(speaker->upstream().count(), 1u);
    } while (!HasFailure());
    EXPECT_GT(n, 20);
  }
}

TEST_F(SpeakerMidFlightTest, AnyTraceLineMayDestroyTheSpeaker) {
  int n = 0;
  do {
    start();
    settle();
    want({"239.1.1.1"});
    atLine(++n, [&] { speaker.reset(); });
    auto slow = plainHello();
    slow.lanPruneDelayIs(Wire::LanPruneDelay{.overrideInterval = 9000});
    auto const step = [&](auto const& act) {
      if (speaker) act();
    };
    step([&] { hello("10.0.0.4", slow); });
    step([&] { join("10.0.0.2", "10.0.0.1", {"239.1.1.1"}); });
    step([&] { hello("10.0.0.2", plainHello(0)); });
    step([&] { hello("10.0.0.2"); });
    pass(1);
    traceNothing();
    EXPECT_EQ(speaker == nullptr, isReached);
  } while (isReached && !HasFailure());
  EXPECT_GT(n, 20);
}

TEST_F(SpeakerMidFlightTest, AJoinPruneIsNotSentFromAnAddressThatItsHelloHasTakenAway) {
  start();
  settle();
  hello("10.0.0.4");
  onSend = [&](std::string const& line) {
    onSend = nullptr;
    EXPECT_EQ(line, "10.0.0.1 hello");
    speaker->interfaceIs("eth0", {"10.0.0.99/24"});
  };
  speaker->upstream().joinIs({IpGenAddr("10.9.0.1"), IpGenAddr("239.1.1.1")},
                             {Dova::IntfId("eth0"), IpGenAddr("10.0.0.4")});
  pass(1);
  EXPECT_THAT(lines, Not(Contains(HasSubstr("join/prune"))));
  EXPECT_THAT(lines, Contains("10.0.0.1 goodbye"));
}

// --- A message that is being composed --------------------------------------------------------------

class CallingFilter final : public JoinPruneFilter {
 public:
  bool deny(IpGenAddr const&) const override {
    if (act) act();
    return false;
  }
  std::function<void()> act;
};

TEST_F(SpeakerMidFlightTest, TheFilterMayDestroyTheSpeakerWhileJoinsAreSuppressed) {
  std::vector<std::string> const groups = {"239.1.1.1", "239.1.1.2", "239.1.1.3"};
  auto const filter = Vel::create<CallingFilter>();
  int n = 0;
  do {
    filter->act = nullptr;
    start({.filter = filter});
    settle();
    want(groups);
    pass(55);
    join("10.0.0.3", "10.0.0.2", groups);
    ASSERT_EQ(speaker->upstream().routes().front().sending, Sending::suppressed);
    ++n;
    filter->act = [this, count = 0, n]() mutable {
      if (++count == n) speaker.reset();
    };
    pass(10);
  } while (!speaker);
  EXPECT_GT(n, 3);
}

TEST_F(SpeakerMidFlightTest, ATraceLineMayDestroyTheSpeakerWhileJoinsAreSuppressed) {
  int n = 0;
  do {
    start();
    settle();
    // Some that no message can have, which are traced, among others.
    auto const periodic = speaker->link("eth0", AddressFamily::ipv4)->periodic(IpGenAddr("10.0.0.2"));
    for (int group = 1; group < 20; ++group) {
      std::string const address = "239.1.1." + std::to_string(group);
      want({address});
      periodic->joinPruneGroupDataIs(IpGenAddr(address))->joinedSourceIs(IpGenAddr("224.0.0.9"));
    }
    pass(55);
    join("10.0.0.3", "10.0.0.2", {"239.1.1.1"});
    atLine(++n, [&] { speaker.reset(); });
    pass(10);
    traceNothing();
  } while (!speaker);
  EXPECT_GT(n, 3);
}

// --- Changes of an interface -----------------------------------------------------------------------

TEST_F(SpeakerMidFlightTest, OfTwoChangesTheOneFromInsideTheOtherCountsInBothFamilies) {
  struct Case {
    std::function<void()> act;
    IpGenAddr ipv4, ipv6;
  };
  auto const newer = [&] { speaker->interfaceIs("eth0", {"10.0.0.3/24", "fe80::3/64"}); };
  std::vector<Case> const cases = {
      {newer, IpGenAddr("10.0.0.3"), IpGenAddr("fe80::3")},
      {[&] {
         speaker->interfaceDel("eth0");
         newer();
       },
       IpGenAddr("10.0.0.3"), IpGenAddr("fe80::3")},
      {[&] { speaker->interfaceIs("eth0", {"10.0.0.3/24"}); }, IpGenAddr("10.0.0.3"), IpGenAddr()},
  };
  for (auto const& one : cases) {
    start();
    speaker->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
    onSend = [&](std::string const& line) {
      onSend = nullptr;
      EXPECT_EQ(line, "10.0.0.1 goodbye");
      one.act();
    };
    speaker->interfaceIs("eth0", {"10.0.0.2/24", "fe80::2/64"});
    ASSERT_TRUE(speaker->hasInterface("eth0"));
    EXPECT_EQ(speaker->link("eth0", AddressFamily::ipv4)->primaryAddress(), one.ipv4);
    EXPECT_EQ(speaker->link("eth0", AddressFamily::ipv6)->primaryAddress(), one.ipv6);
  }
}

TEST_F(SpeakerMidFlightTest, AnInterfaceThatIsRemovedFromInsideItsChangeStaysRemoved) {
  start();
  speaker->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
  onSend = [&](std::string const&) {
    onSend = nullptr;
    speaker->interfaceDel("eth0");
  };
  speaker->interfaceIs("eth0", {"10.0.0.2/24", "fe80::2/64"});
  EXPECT_FALSE(speaker->hasInterface("eth0"));
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(SpeakerMidFlightTest, AnInterfaceWithMoreAddressesThanAHelloCanListIsRefusedAndNothingChanges) {
  start();
  settle();
  std::vector<Dova::IpGenPrefix> addresses = {*Dova::IpGenPrefix::fromText("10.0.0.9/24")};
  for (U32 n = 0; n < 10'913; ++n) addresses.emplace_back(IpGenAddr::ipv4(0x0a100000u + n), 24);
  EXPECT_THAT([&] { speaker->interfaceIs("eth0", addresses); },
              testing::ThrowsMessage<Vel::RangeException>(
                  "a Hello with 10913 secondary addresses does not fit an IP datagram"));
  EXPECT_THAT(lines, IsEmpty());
  EXPECT_EQ(speaker->link("eth0", AddressFamily::ipv4)->primaryAddress(), IpGenAddr("10.0.0.1"));
  EXPECT_THROW(speaker->interfaceIs("eth1", addresses), Vel::RangeException);
  EXPECT_FALSE(speaker->hasInterface("eth1"));
  speaker->interfaceIs("eth0", {"10.0.0.9/24"});
  EXPECT_EQ(speaker->link("eth0", AddressFamily::ipv4)->primaryAddress(), IpGenAddr("10.0.0.9"));
}

TEST_F(SpeakerMidFlightTest, AnotherMaskLengthSaysNoGoodbyeAndReachesTheEngine) {
  start();
  settle();
  auto const intf = static_cast<SpeakerLink*>(speaker->link("eth0", AddressFamily::ipv4))->engineIntf();
  EXPECT_EQ(intf->usedAddressWithMask(), *Dova::IpGenPrefix::fromText("10.0.0.1/24"));
  speaker->interfaceIs("eth0", {"10.0.0.1/16"});
  EXPECT_THAT(lines, IsEmpty());
  EXPECT_TRUE(speaker->link("eth0", AddressFamily::ipv4)->neighborUp(IpGenAddr("10.0.0.2")));
  EXPECT_EQ(intf->usedAddressWithMask(), *Dova::IpGenPrefix::fromText("10.0.0.1/16"));
}

}  // namespace
}  // namespace Routing::Pim::Speaker
