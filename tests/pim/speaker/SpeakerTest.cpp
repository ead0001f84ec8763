// SPDX-License-Identifier: Apache-2.0
// A speaker as its user sees it: interfaces, packets and time in, packets and events out.
#include "pim/speaker/Speaker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "pim/joinprune/JoinPruneStatus.h"
#include "pim/wire/Hello.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Speaker {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::ThrowsMessage;

using Lines = std::vector<std::string>;

IpGenAddr const routers = Wire::allPimRouters(AddressFamily::ipv4);
IpGenAddr const routers6 = Wire::allPimRouters(AddressFamily::ipv6);
IpGenAddr const usualGroup("239.1.1.1");

/// "10.0.0.2 (10.9.0.1,239.1.1.1) join": what a Join/Prune says, with (S,G) entries alone.
std::string describe(Wire::JoinPrune const& message) {
  std::ostringstream text;
  text << "to " << message.upstreamNeighbor();
  for (auto const& set : message.groups()) {
    for (auto const& join : set.joins()) text << " join " << join.address << ' ' << set.group();
    for (auto const& prune : set.prunes()) text << " prune " << prune.address << ' ' << set.group();
  }
  return text.str();
}

class SpeakerTest : public testing::Test, public Sink, public SpeakerObserver, public LinkObserver {
 protected:
  SpeakerTest() { start(); }

  void start(SpeakerSettings settings = {}) {
    settings.observer = this;
    speaker_ = std::make_unique<Speaker>(wheel_, *this, std::move(settings));
  }

  void passTo(Seconds time) {
    while (speaker_ && speaker_->timeMin() <= time) {
      now_ = std::max(now_, speaker_->timeMin());
      speaker_->expire();
    }
    now_ = time;
  }
  void pass(Seconds seconds) { passTo(now_ + seconds); }

  // An interface whose first Hello is through, with an empty log.
  void settle(InterfaceSettings const& settings = {}) {
    speaker_->interfaceIs("eth0", {"10.0.0.1/24"}, settings);
    speaker_->linkObserverAdd("eth0", AddressFamily::ipv4, *this);
    pass(6);
    take();
  }

  Verdict hello(std::string_view from, Wire::Hello const& hello, std::string_view intf = "eth0") {
    IpGenAddr const source(from), destination = Wire::allPimRouters(source.af());
    return speaker_->receive({.intf = intf, .source = source, .destination = destination, .ttl = 1},
                             Wire::encodeHello(hello, source, destination));
  }
  Verdict joinPrune(std::string_view from, Wire::JoinPrune const& message, std::string_view intf = "eth0") {
    IpGenAddr const source(from), destination = Wire::allPimRouters(source.af());
    return speaker_->receive({.intf = intf, .source = source, .destination = destination, .ttl = 1},
                             Wire::encodeJoinPrune(message, source, destination));
  }
  Verdict join(std::string_view from, std::string_view to, std::string_view intf = "eth0") {
    Wire::JoinPrune message(IpGenAddr(to), 210);
    message.groupAdd(IpGenAddr(to).isIpv4() ? usualGroup : IpGenAddr("ff0e::1"));
    message.entryAdd(EntryKind::sourceJoin, IpGenAddr(IpGenAddr(to).isIpv4() ? "10.9.0.1" : "2001:db8:9::1"));
    return joinPrune(from, message, intf);
  }
  static Wire::Hello plainHello(U32 generationId = 1, U16 holdTime = 105) {
    Wire::Hello hello;
    hello.holdTimeIs(holdTime);
    hello.lanPruneDelayIs(Wire::LanPruneDelay{});
    hello.drPriorityIs(0);
    hello.generationIdIs(generationId);
    return hello;
  }
  static Wire::Hello withOverrideInterval(U16 milliseconds) {
    auto hello = plainHello();
    hello.lanPruneDelayIs(Wire::LanPruneDelay{.tracking = false, .overrideInterval = milliseconds});
    return hello;
  }

  Link& link(std::string_view intf = "eth0", AddressFamily family = AddressFamily::ipv4) {
    return *speaker_->link(intf, family);
  }
  void joinIs(Packet::JoinPruneData& data, std::string_view source = "10.9.0.1") {
    data.joinPruneGroupDataIs(usualGroup)->joinedSourceIs(IpGenAddr(source));
  }

  Lines take() { return std::exchange(log_, {}); }
  void log(std::string line) {
    log_.push_back(std::move(line));
    if (onCallback_) onCallback_();
  }

  Sent send(Outgoing const& packet) override {
    EXPECT_EQ(packet.destination, Wire::allPimRouters(packet.source.af()));
    std::string line = packet.intf.name() + " " + toText(packet.source) + ": ";
    if (Wire::isPimType(packet.bytes, Wire::PimType::hello)) {
      auto const decoded = Wire::decodeHello(packet.bytes, packet.source, packet.destination);
      latest_ = std::get<Wire::Hello>(decoded);
      line += latest_.holdTime() == 0 ? "goodbye" : "hello";
      for (auto const& address : latest_.addresses()) line += " " + toText(address);
    } else {
      auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
      line += describe(std::get<Wire::JoinPrune>(decoded));
    }
    if (answer_ == Sent::later) line += ", later";
    auto const answer = answer_;
    log(line);
    if (throws_) throw std::runtime_error("no sink");
    return answer;
  }
  void neighborChanged(NeighborEvent const& event) override {
    log(event.intf.name() + " " + std::string(text(event.kind)) + " " + toText(event.neighbor));
  }
  void packetUndelivered(UndeliveredPacket const& packet) override {
    undelivered_ = std::string(text(packet.verdict));
    if (packet.refusal) undelivered_ += ": " + toText(*packet.refusal);
    leftOut_ = packet.leftOut;
    if (onCallback_) onCallback_();
  }
  void neighborUp(IpGenAddr const& neighbor) override {
    EXPECT_NE(link().triggered(neighbor), nullptr);
    EXPECT_NE(link().overriding(neighbor), nullptr);
    EXPECT_NE(link().periodic(neighbor), nullptr);
    log("link: up " + toText(neighbor));
  }
  void neighborDown(IpGenAddr const& neighbor) override { log("link: down " + toText(neighbor)); }
  void neighborRestarted(IpGenAddr const& neighbor) override { log("link: restarted " + toText(neighbor)); }
  void linkDown() override { log("link: down, " + toText(link().primaryAddress())); }
  using SpeakerObserver::joinPruneReceived;
  void joinPruneReceived(ReceivedJoinPrune const& received) override {
    log((received.isForUs ? "received from " : "heard from ") + toText(received.sender) + " " +
        describe(received.message));
  }

  Seconds now_ = 1000;
  Vel::Ptr<Zanth::TimerWheel> const wheel_ = Vel::create<Zanth::TimerWheel>([this] { return now_; });
  Lines log_;
  std::string undelivered_;
  U64 leftOut_ = 0;
  Wire::Hello latest_;
  Sent answer_ = Sent::done;
  bool throws_ = false;
  std::function<void()> onCallback_;
  std::unique_ptr<Speaker> speaker_;
};

// --- Interfaces ----------------------------------------------------------------------------------

TEST_F(SpeakerTest, AnInterfaceSaysHelloInEachFamilyFromItsPrimaryAddressAndListsTheOthers) {
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "2001:db8::1/64", "fe80::1/64", "10.0.1.1/24", "fe80::9"});
  pass(6);
  EXPECT_THAT(take(), testing::UnorderedElementsAre("eth0 10.0.0.1: hello 10.0.1.1",
                                                    "eth0 fe80::1: hello 2001:db8::1 fe80::9"));
  EXPECT_EQ(speaker_->counters().hellosSent, 2u);
}

TEST_F(SpeakerTest, AFamilyWithoutAPrimaryAddressIsNotServed) {
  speaker_->interfaceIs("eth0", {"2001:db8::1/64"});
  pass(100);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(hello("fe80::2", plainHello()), Verdict::noLink);
  EXPECT_EQ(hello("10.0.0.2", plainHello()), Verdict::noLink);
  EXPECT_EQ(link().primaryAddress(), IpGenAddr());
}

TEST_F(SpeakerTest, AnotherPrimaryAddressSaysGoodbyeFromTheOldOneAndAllThatWasThereEnds) {
  settle();
  hello("10.0.0.2", plainHello());
  take();
  U32 const id = *latest_.generationId();
  speaker_->interfaceIs("eth0", {"10.0.0.9/24", "10.0.0.1/24"});
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: goodbye", "link: down 10.0.0.2", "eth0 link down 10.0.0.2",
                                  "link: down, 10.0.0.1"));
  EXPECT_EQ(link().neighborCount(), 0u);
  pass(6);
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.9: hello 10.0.0.1"));
  EXPECT_NE(latest_.generationId(), id);
  hello("10.0.0.2", plainHello());
  EXPECT_THAT(take(), ElementsAre("link: up 10.0.0.2", "eth0 up 10.0.0.2"));
}

TEST_F(SpeakerTest, OtherSecondaryAddressesAreAnnouncedAtOnceAndNoNeighborEnds) {
  settle();
  hello("10.0.0.2", plainHello());
  take();
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "10.0.5.1/24"});
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: hello 10.0.5.1"));
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "10.0.5.1/24"});
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_TRUE(link().neighborUp(IpGenAddr("10.0.0.2")));
}

TEST_F(SpeakerTest, AnInterfaceThatIsRemovedSaysGoodbyeInEachFamily) {
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
  speaker_->interfaceIs("eth1", {"10.1.0.1/24"});
  EXPECT_TRUE(speaker_->interfaceDel("eth0"));
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: goodbye", "eth0 fe80::1: goodbye"));
  EXPECT_FALSE(speaker_->interfaceDel("eth0"));
  EXPECT_EQ(speaker_->link("eth0", AddressFamily::ipv4), nullptr);
  speaker_->shutDown();
  EXPECT_THAT(take(), ElementsAre("eth1 10.1.0.1: goodbye"));
  EXPECT_EQ(speaker_->timeMin(), Vel::never);
}

TEST_F(SpeakerTest, AnInterfaceThatCannotBeIsRefusedByItsFieldAndNothingChanges) {
  settle();
  auto const refusal = [&](std::string_view text, std::string_view name,
                           std::initializer_list<std::string_view> addresses,
                           InterfaceSettings const& settings = {}) {
    EXPECT_THAT([&] { speaker_->interfaceIs(name, addresses, settings); },
                ThrowsMessage<Vel::RangeException>(std::string(text)));
  };
  refusal("an interface without a name", "", {"10.0.0.1/24"});
  refusal("eth0: \"10.0.0\" is not an address", "eth0", {"10.0.0.7/24", "10.0.0"});
  refusal("eth0: address 224.0.0.1/32 is not unicast", "eth0", {"10.0.0.7/24", "224.0.0.1"});
  refusal("eth0: address 0.0.0.0/0 is not unicast", "eth0", {"0.0.0.0/0"});
  refusal("eth0: Join/Prune interval of 0 s", "eth0", {"10.0.0.7/24"}, {.joinPruneInterval = 0});
  refusal("Hello_Period of 0.000000 s", "eth0", {"10.0.0.7/24"}, {.hello = {.period = 0}});
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(link().primaryAddress(), IpGenAddr("10.0.0.1"));
}

// --- Receiving -----------------------------------------------------------------------------------

TEST_F(SpeakerTest, APacketThatBreaksARuleIsRefusedWithItsReasonAndCounted) {
  settle();
  speaker_->interfaceIs("eth6", {"fe80::1/64"});
  take();
  auto const bytes = Wire::encodeHello(plainHello(), IpGenAddr("10.0.0.2"), routers);
  auto const verdict = [&](Incoming const& packet, std::span<U8 const> message) {
    undelivered_.clear();
    now_ += 0.2;  // Else only ten a second are told.
    speaker_->receive(packet, message);
    return undelivered_;
  };
  auto const from = [](std::string_view source, std::string_view destination, unsigned ttl = 1,
                       std::string_view intf = "eth0") {
    return Incoming{
        .intf = intf, .source = IpGenAddr(source), .destination = IpGenAddr(destination), .ttl = ttl};
  };
  EXPECT_EQ(verdict(from("10.0.0.2", "224.0.0.13", 1, "eth7"), bytes), "unknown interface");
  EXPECT_EQ(verdict(from("10.0.0.1", "224.0.0.13"), bytes), "own packet");
  EXPECT_EQ(verdict(from("10.0.0.2", "224.0.0.13", 64), bytes), "refused: TTL or hop limit not 1 (64)");
  EXPECT_EQ(verdict(from("10.0.0.2", "10.0.0.1"), bytes),
            "refused: destination not ALL-PIM-ROUTERS (10.0.0.1)");
  EXPECT_EQ(verdict(from("10.0.0.2", "ff02::d"), bytes),
            "refused: address families differ (10.0.0.2 to ff02::d)");
  for (auto const* source : {"0.0.0.0", "224.0.0.5", "255.255.255.255", "::"}) {
    EXPECT_EQ(verdict(from(source, "224.0.0.13"), bytes),
              "refused: sender not unicast (" + std::string(source) + ")");
  }
  EXPECT_EQ(verdict(from("2001:db8::2", "ff02::d", 1, "eth6"), bytes),
            "refused: sender not link-local (2001:db8::2)");
  EXPECT_EQ(verdict(from("fe80::2", "ff02::d"), bytes), "no primary address of the family");
  EXPECT_EQ(verdict({.intf = "eth0", .source = {}, .destination = routers, .ttl = 1}, bytes),
            "refused: sender not unicast (unknown)");

  auto wrong = bytes;
  wrong[3] ^= 1;
  EXPECT_THAT(verdict(from("10.0.0.2", "224.0.0.13"), wrong), HasSubstr("refused: bad checksum"));
  EXPECT_EQ(verdict(from("10.0.0.2", "224.0.0.13"), {}), "refused: truncated (in the PIM header)");
  wrong[0] = 0x25;
  EXPECT_EQ(verdict(from("10.0.0.2", "224.0.0.13"), wrong), "another type");
  wrong[0] = 0x10;
  EXPECT_THAT(verdict(from("10.0.0.2", "224.0.0.13"), wrong),
              HasSubstr("refused: not a PIM version 2 Hello"));

  EXPECT_EQ(speaker_->counters().of(Verdict::refused), 12u);
  EXPECT_EQ(speaker_->counters().of(Wire::Reason::senderNotUnicast), 5u);
  EXPECT_EQ(speaker_->counters().of(Wire::Reason::badChecksum), 1u);
  EXPECT_EQ(speaker_->counters().of(Verdict::ownPacket), 1u);
  EXPECT_EQ(speaker_->counters().of(Verdict::hello), 0u);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(SpeakerTest, APacketWithItsIpv4HeaderIsReceivedAsTheHeaderSays) {
  settle();
  auto const hello = Wire::encodeHello(plainHello(), IpGenAddr("10.0.0.2"), routers);
  auto const received = [&](std::vector<U8> const& packet, std::string_view intf = "eth0") {
    now_ += 0.2;  // Else only ten a second are told.
    undelivered_ = "delivered";
    speaker_->receiveIpv4(intf, packet);
    return undelivered_;
  };
  // Four bytes of options, and of padding behind the packet.
  std::vector<U8> packet = {0x46, 0xc0, 0, static_cast<U8>(24 + hello.size()),
                            0,    1,    0, 0,
                            1,    103,  0, 0,
                            10,   0,    0, 2,
                            224,  0,    0, 13,
                            0x94, 4,    0, 0};
  packet.insert(packet.end(), hello.begin(), hello.end());
  packet.insert(packet.end(), 4, 0xaa);
  auto const with = [&](std::size_t offset, U8 value) {
    auto changed = packet;
    changed[offset] = value;
    return changed;
  };
  EXPECT_EQ(received(with(8, 2)), "refused: TTL or hop limit not 1 (2)");
  EXPECT_EQ(received(with(19, 5)), "refused: destination not ALL-PIM-ROUTERS (224.0.0.5)");
  EXPECT_EQ(received(with(15, 1)), "own packet");
  EXPECT_EQ(received(packet, "eth1"), "unknown interface");
  EXPECT_EQ(received({}, "eth1"), "unknown interface");
  EXPECT_EQ(received({packet.begin(), packet.begin() + 19}), "refused: truncated (in the IP header)");
  EXPECT_EQ(received(with(0, 0x66)), "refused: bad IP header (version 6)");
  auto const total = std::to_string(24 + hello.size());
  EXPECT_EQ(received(with(0, 0x44)), "refused: bad IP header (header of 16 bytes, packet of " + total + ")");
  EXPECT_EQ(received(with(3, 23)), "refused: bad IP header (header of 24 bytes, packet of 23)");
  EXPECT_EQ(received({packet.begin(), packet.end() - 5}),
            "refused: truncated (" + std::to_string(23 + hello.size()) + " of " + total + " bytes)");
  EXPECT_EQ(received(with(6, 0x20)), "refused: fragment");
  EXPECT_EQ(received(with(7, 1)), "refused: fragment");
  EXPECT_EQ(received(with(6, 0x40)), "delivered");  // do not fragment
  EXPECT_EQ(speaker_->counters().of(Verdict::hello), 1u);
  EXPECT_EQ(speaker_->counters().of(Wire::Reason::fragment), 2u);
  EXPECT_EQ(speaker_->counters().of(Verdict::refused), 9u);
  EXPECT_TRUE(link().neighborUp(IpGenAddr("10.0.0.2")));
}

TEST_F(SpeakerTest, ALoopSleepsUntilTheNextTimerInWholeMillisecondsAndAtMostAMinute) {
  EXPECT_EQ(speaker_->pollTimeout(), 60'000);  // no timer
  speaker_->interfaceIs("eth0", {"10.0.0.1/24"}, {.hello = {.period = 90, .triggeredDelay = 0}});
  EXPECT_EQ(speaker_->pollTimeout(), 0);
  speaker_->expire();
  Seconds const due = speaker_->timeMin();
  now_ = due - 75;
  EXPECT_EQ(speaker_->pollTimeout(), 60'000);
  now_ = due - 0.0101;
  EXPECT_EQ(speaker_->pollTimeout(), 11);
  now_ = due + 1;
  EXPECT_EQ(speaker_->pollTimeout(), 0);
}

TEST_F(SpeakerTest, TenUndeliveredPacketsOfAKindAreToldInASecondAndTheOthersCounted) {
  settle();
  int told = 0;
  onCallback_ = [&] { ++told; };
  for (int n = 0; n < 500; ++n) join("10.0.0.2", "10.0.0.1");
  EXPECT_EQ(told, 10);
  EXPECT_EQ(speaker_->counters().of(Verdict::stranger), 500u);
  now_ += 1;
  join("10.0.0.2", "10.0.0.1");
  EXPECT_EQ(told, 11);
  EXPECT_EQ(leftOut_, 490u);
}

TEST_F(SpeakerTest, AnAddressThatIsGivenTwiceIsAnnouncedOnceAndThePrimaryOneNever) {
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "10.0.1.1/24", "10.0.0.1/32", "10.0.1.1/24"});
  pass(6);
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: hello 10.0.1.1"));
}

TEST_F(SpeakerTest, AnInterfaceThatIsMadeAgainByItsOwnGoodbyeIsThere) {
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
  bool isAgain = false;
  onCallback_ = [&] {
    if (!std::exchange(isAgain, true)) speaker_->interfaceIs("eth0", {"10.0.0.78/24", "fe80::78/64"});
  };
  speaker_->interfaceDel("eth0");
  ASSERT_TRUE(speaker_->hasInterface("eth0"));
  EXPECT_EQ(link().primaryAddress(), IpGenAddr("10.0.0.78"));
  EXPECT_EQ(link("eth0", AddressFamily::ipv6).primaryAddress(), IpGenAddr("fe80::78"));
}

TEST_F(SpeakerTest, AJoinPruneFromAStrangerIsNotDeliveredAndOneFromANeighborIs) {
  settle();
  EXPECT_EQ(join("10.0.0.2", "10.0.0.1"), Verdict::stranger);
  EXPECT_THAT(take(), IsEmpty());
  EXPECT_EQ(speaker_->counters().of(Verdict::stranger), 1u);
  EXPECT_EQ(hello("10.0.0.2", plainHello()), Verdict::hello);
  take();
  EXPECT_EQ(join("10.0.0.2", "10.0.0.1"), Verdict::joinPrune);
  EXPECT_EQ(join("10.0.0.2", "10.0.0.3"), Verdict::heard);
  EXPECT_EQ(join("10.0.0.2", "0.0.0.0"), Verdict::heard);
  EXPECT_THAT(take(), ElementsAre("received from 10.0.0.2 to 10.0.0.1 join 10.9.0.1 239.1.1.1",
                                  "heard from 10.0.0.2 to 10.0.0.3 join 10.9.0.1 239.1.1.1",
                                  "heard from 10.0.0.2 to 0.0.0.0 join 10.9.0.1 239.1.1.1"));
  hello("10.0.0.2", plainHello(1, 0));
  EXPECT_EQ(join("10.0.0.2", "10.0.0.1"), Verdict::stranger);
}

TEST_F(SpeakerTest, OnAPointToPointLinkTheUnspecifiedAddressIsThisRouter) {
  settle({.pointToPoint = true});
  hello("10.0.0.2", plainHello());
  EXPECT_EQ(join("10.0.0.2", "0.0.0.0"), Verdict::joinPrune);
}

TEST_F(SpeakerTest, ANeighborBeyondTheLimitIsCounted) {
  settle({.hello = {.maxNeighbors = 1}});
  EXPECT_EQ(hello("10.0.0.2", plainHello()), Verdict::hello);
  EXPECT_EQ(hello("10.0.0.3", plainHello()), Verdict::tooManyNeighbors);
  EXPECT_EQ(speaker_->counters().of(Verdict::tooManyNeighbors), 1u);
}

TEST_F(SpeakerTest, TheEngineHasTheDataSetsOfNeighborsAndOfTheOwnAddress) {
  settle();
  hello("10.0.0.2", plainHello());
  EXPECT_NE(link().periodic(IpGenAddr("10.0.0.2")), nullptr);
  EXPECT_NE(link().triggered(IpGenAddr("10.0.0.1")), nullptr) << "for a PruneEcho";
  EXPECT_EQ(link().triggered(IpGenAddr("10.0.0.3")), nullptr);
}

class RecordWatcher final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  Lines seen;

 private:
  void onRxCount() override {
    std::ostringstream line;
    line << notifier()->riKey() << " to " << notifier()->upstreamNeighbor();
    seen.push_back(line.str());
  }
};

Wire::JoinPrune wildcardJoin(std::string_view of, std::string_view rp) {
  Wire::JoinPrune message(IpGenAddr("10.0.0.1"), 210);
  message.groupAdd(IpGenAddr(of));
  message.entryAdd(EntryKind::wildcardJoin, IpGenAddr(rp));
  return message;
}

TEST_F(SpeakerTest, TheEnginesRecordsHaveWhatIsReceivedWhileTheyAreWatched) {
  EXPECT_EQ(speaker_->records("eth0", AddressFamily::ipv4).first, nullptr);
  settle();
  hello("10.0.0.2", plainHello());
  auto const watcher = Vel::create<RecordWatcher>();
  join("10.0.0.2", "10.0.0.1");
  watcher->notifierIs(speaker_->records("eth0", AddressFamily::ipv4).first);
  EXPECT_EQ(watcher->notifier()->rxCount(), 0u);
  join("10.0.0.2", "10.0.0.3");
  EXPECT_THAT(watcher->seen, ElementsAre("(10.9.0.1,239.1.1.1) to 10.0.0.3"));
}

TEST_F(SpeakerTest, TheRpOfAGroupIsWhatTheUserSaysAndOtherwiseThatOfTheMessage) {
  start({.rp = [](IpGenAddr const& asked) -> std::optional<IpGenAddr> {
    if (asked == usualGroup) return IpGenAddr("10.255.0.1");
    if (asked == IpGenAddr("239.1.1.2")) return IpGenAddr("fe80::5");
    return std::nullopt;
  }});
  settle();
  hello("10.0.0.2", plainHello());
  EXPECT_EQ(link().rp(usualGroup), IpGenAddr("10.255.0.1"));
  EXPECT_EQ(link().rp(IpGenAddr("239.1.1.2")), std::nullopt) << "of another family";
  auto const watcher = Vel::create<RecordWatcher>();
  watcher->notifierIs(speaker_->records("eth0", AddressFamily::ipv4).first);
  for (auto const* of : {"239.1.1.1", "239.1.1.2", "239.1.1.3"})
    joinPrune("10.0.0.2", wildcardJoin(of, "10.255.0.9"));
  joinPrune("10.0.0.2", wildcardJoin("239.1.1.1", "10.255.0.1"));
  EXPECT_THAT(watcher->seen, ElementsAre("(*,239.1.1.2) to 10.0.0.1", "(*,239.1.1.3) to 10.0.0.1",
                                         "(*,239.1.1.1) to 10.0.0.1"));
}

TEST_F(SpeakerTest, AGroupThatTheFilterDeniesIsDeniedByTheLinkAlsoIfTheFilterThrows) {
  class Filter final : public JoinPruneFilter {
   public:
    bool deny(IpGenAddr const& asked) const override {
      if (asked == IpGenAddr("239.1.1.3")) throw std::runtime_error("no policy");
      return asked == usualGroup;
    }
  };
  start({.filter = Vel::create<Filter>()});
  settle();
  EXPECT_TRUE(link().isDenied(usualGroup));
  EXPECT_FALSE(link().isDenied(IpGenAddr("239.1.1.2")));
  EXPECT_TRUE(link().isDenied(IpGenAddr("239.1.1.3")));
}

// --- Sending -------------------------------------------------------------------------------------

TEST_F(SpeakerTest, TheFirstJoinPruneOnALinkAndToANewNeighborComesAfterAHello) {
  speaker_->interfaceIs("eth0", {"10.0.0.1/24"}, {.hello = {.triggeredDelay = 1000}});
  hello("10.0.0.2", plainHello());
  take();
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.2);
  EXPECT_THAT(take(),
              ElementsAre("eth0 10.0.0.1: hello", "eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1"));
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.2);
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1"));
  hello("10.0.0.2", plainHello(2));
  take();
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.2);
  EXPECT_THAT(take(),
              ElementsAre("eth0 10.0.0.1: hello", "eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1"));
  EXPECT_EQ(speaker_->counters().joinPrunesSent, 3u);
}

TEST_F(SpeakerTest, WhatTheSinkWantsLaterStaysPending) {
  settle();
  hello("10.0.0.2", plainHello());
  pass(6);
  take();
  answer_ = Sent::later;
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.15);
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1, later"));
  EXPECT_EQ(link().triggered(IpGenAddr("10.0.0.2"))->joinPruneGroupDataCount(), 1u);
  answer_ = Sent::done;
  pass(0.2);
  EXPECT_THAT(take(), ElementsAre("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1"));
  EXPECT_EQ(link().triggered(IpGenAddr("10.0.0.2"))->joinPruneGroupDataCount(), 0u);
  EXPECT_EQ(speaker_->counters().sentLater, 1u);
}

TEST_F(SpeakerTest, AJoinPruneWaitsForItsHello) {
  settle();
  hello("10.0.0.2", plainHello());
  take();
  answer_ = Sent::later;
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.15);
  EXPECT_THAT(take(), testing::Each(HasSubstr("hello, later")));
  EXPECT_EQ(link().triggered(IpGenAddr("10.0.0.2"))->joinPruneGroupDataCount(), 1u);
}

TEST_F(SpeakerTest, WhatFailsOrThrowsCountsAsSent) {
  settle();
  hello("10.0.0.2", plainHello());
  pass(6);
  take();
  answer_ = Sent::failed;
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.5);
  EXPECT_EQ(take().size(), 1u);
  answer_ = Sent::done;
  throws_ = true;
  joinIs(*link().triggered(IpGenAddr("10.0.0.2")));
  pass(0.5);
  EXPECT_EQ(take().size(), 1u);
  EXPECT_EQ(speaker_->counters().sendingFailed, 2u);
  EXPECT_EQ(link().triggered(IpGenAddr("10.0.0.2"))->joinPruneGroupDataCount(), 0u);
}

// --- The engine's override interval --------------------------------------------------------------

TEST_F(SpeakerTest, ALargerOverrideIntervalReachesTheEngineAtOnceAndASmallerOneOnceInAHelloPeriod) {
  settle();
  auto const changes = [&] { return speaker_->counters().overrideIntervalChanges; };
  hello("10.0.0.2", withOverrideInterval(3000));
  EXPECT_EQ(changes(), 1u);
  hello("10.0.0.2", withOverrideInterval(2600));
  EXPECT_EQ(changes(), 1u);
  hello("10.0.0.2", withOverrideInterval(4000));
  EXPECT_EQ(changes(), 2u);
  hello("10.0.0.2", withOverrideInterval(2600));
  EXPECT_DOUBLE_EQ(link().overrideInterval(), 2.6);
  pass(29);
  EXPECT_EQ(changes(), 2u);
  pass(2);
  EXPECT_EQ(changes(), 3u);
  pass(60);
  EXPECT_EQ(changes(), 3u);
}

TEST_F(SpeakerTest, AChangedOverrideIntervalLosesNothingAndPutsNothingOff) {
  settle();
  hello("10.0.0.2", withOverrideInterval(2500));
  pass(6);
  take();
  IpGenAddr const neighbor("10.0.0.2");
  joinIs(*link().periodic(neighbor), "10.9.0.1");
  Seconds const refresh = now_ + 60;
  pass(50);
  hello("10.0.0.2", withOverrideInterval(2500));
  joinIs(*link().triggered(neighbor), "10.9.0.2");
  joinIs(*link().overriding(neighbor), "10.9.0.3");
  take();
  pass(0.05);
  hello("10.0.0.2", withOverrideInterval(60'000));
  EXPECT_EQ(speaker_->counters().overrideIntervalChanges, 1u);
  pass(0.06);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.2 239.1.1.1"));
  pass(2.5);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.3 239.1.1.1"));
  passTo(refresh - 0.2);
  EXPECT_THAT(take(), testing::Not(testing::Contains(HasSubstr("10.9.0.1"))));
  passTo(refresh + 0.2);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1"));
}

TEST_F(SpeakerTest, ANeighborThatReturnsWhileItsMachineIsKeptHasTheOverrideIntervalOfNow) {
  settle({.hello = {.lanPruneDelay = {.tracking = false, .propagationDelay = 0, .overrideInterval = 0}}});
  IpGenAddr const neighbor("10.0.0.2");
  hello("10.0.0.2", withOverrideInterval(60'000));
  joinIs(*link().periodic(neighbor));
  pass(40);
  hello("10.0.0.2", plainHello(1, 0));
  ASSERT_NE(link().periodic(neighbor), nullptr);
  hello("10.0.0.2", withOverrideInterval(100));
  take();
  joinIs(*link().overriding(neighbor), "10.9.0.3");
  pass(0.2);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.3 239.1.1.1"));
}

TEST_F(SpeakerTest, ANeighborThatChangesWithEveryHelloDelaysNoRefreshAndCostsABoundedAmount) {
  settle({.joinPruneInterval = 10, .hello = {.period = 5}});
  hello("10.0.0.2", plainHello());
  joinIs(*link().periodic(IpGenAddr("10.0.0.2")));
  Seconds const start = now_;
  std::vector<Seconds> refreshes;
  for (U32 n = 0; n < 21'000; ++n) {
    auto changed = plainHello(n);
    changed.lanPruneDelayIs(Wire::LanPruneDelay{false, 500, static_cast<U16>(2500 + n)});
    hello("10.0.0.2", changed);
    pass(0.001);
    for (auto const& line : take())
      if (line.find("join") != std::string::npos) refreshes.push_back(now_ - start);
  }
  ASSERT_EQ(refreshes.size(), 2u);
  EXPECT_NEAR(refreshes[0], 10, 0.01);
  EXPECT_NEAR(refreshes[1], 20, 0.01);
  // In 21 s: one when a Hello_Period of 5 s begins, and three that are larger within it.
  EXPECT_LE(speaker_->counters().overrideIntervalChanges, 4u * 5);
  // One in a period, one before a refresh, and an answer within 5 s of the last Hello, 2.5 s on average.
  EXPECT_LE(speaker_->counters().hellosSent, 30u);
}

// --- Looking at it -------------------------------------------------------------------------------

TEST_F(SpeakerTest, ANeighborIsNamedByItsAddressAndByItsInterfaceWhereThatIsNotEnough) {
  speaker_->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
  speaker_->interfaceIs("eth1", {"10.1.0.1/24", "fe80::1/64"});
  auto listing = plainHello();
  listing.addressAdd(IpGenAddr("2001:db8::2"));
  hello("fe80::2", listing, "eth0");
  hello("fe80::2", plainHello(), "eth1");
  hello("10.1.0.2", plainHello(), "eth1");
  auto const named = [&](std::string_view name) {
    try {
      auto const [intf, address] = speaker_->neighborNamed(name);
      return toText(address) + "%" + intf.name();
    } catch (Vel::RangeException const& error) {
      return std::string(error.what());
    }
  };
  EXPECT_EQ(named("10.1.0.2"), "10.1.0.2%eth1");
  EXPECT_EQ(named("10.1.0.2%eth1"), "10.1.0.2%eth1");
  EXPECT_EQ(named("10.1.0.2%eth0"), "no neighbor 10.1.0.2%eth0");
  EXPECT_EQ(named("fe80::2%eth1"), "fe80::2%eth1");
  EXPECT_EQ(named("fe80::2"), "neighbor fe80::2 is on eth0 and eth1");
  EXPECT_EQ(named("2001:db8::2"), "fe80::2%eth0");
  EXPECT_EQ(named("fe80::3%eth1"), "no neighbor fe80::3%eth1");
  EXPECT_EQ(named("eth0"), "\"eth0\" is not an address");
  EXPECT_EQ(named("unknown"), "\"unknown\" is not an address");
}

TEST_F(SpeakerTest, ARouteTowardsAnAddressThatANeighborListsLaterIsJoinedThen) {
  settle();
  auto listing = plainHello();
  hello("10.0.0.2", listing);
  speaker_->upstream().joinIs({IpGenAddr("10.9.0.1"), usualGroup},
                              {Dova::IntfId("eth0"), IpGenAddr("10.0.7.2")});
  pass(6);
  EXPECT_THAT(take(), Not(testing::Contains(HasSubstr("join"))));
  listing.addressAdd(IpGenAddr("10.0.7.2"));
  hello("10.0.0.2", listing);
  EXPECT_EQ(speaker_->upstream().routes().front().sending, Sending::sent);
  pass(1);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: to 10.0.0.2 join 10.9.0.1 239.1.1.1").Times(1));
}

TEST_F(SpeakerTest, ARouteTowardsAnAddressOfTwoNeighborsIsJoinedAtTheOtherWhenTheFirstHasEnded) {
  settle();
  auto listing = plainHello();
  listing.addressAdd(IpGenAddr("10.0.7.2"));
  hello("10.0.0.3", listing);
  hello("10.0.0.2", listing);
  speaker_->upstream().joinIs({IpGenAddr("10.9.0.1"), usualGroup},
                              {Dova::IntfId("eth0"), IpGenAddr("10.0.7.2")});
  pass(6);
  hello("10.0.0.2", plainHello(1, 0));
  EXPECT_EQ(speaker_->upstream().routes().front().sending, Sending::neighborDown);
  take();
  hello("10.0.0.3", listing);  // with the same list as before
  pass(1);
  EXPECT_THAT(take(), testing::Contains("eth0 10.0.0.1: to 10.0.0.3 join 10.9.0.1 239.1.1.1").Times(1));
}

TEST_F(SpeakerTest, ASnapshotOfTheNeighborsHasWhatTheyAnnounced) {
  settle();
  auto announced = plainHello(7, 40);
  announced.drPriorityIs(5);
  announced.addressAdd(IpGenAddr("10.0.1.2"));
  hello("10.0.0.2", announced);
  auto const neighbors = speaker_->neighbors();
  ASSERT_EQ(neighbors.size(), 1u);
  auto const& [intf, info, isDesignatedRouter] = neighbors[0];
  EXPECT_EQ(intf.name(), "eth0");
  EXPECT_EQ(info.address, IpGenAddr("10.0.0.2"));
  EXPECT_THAT(info.addresses, ElementsAre(IpGenAddr("10.0.1.2")));
  EXPECT_DOUBLE_EQ(info.expires, now_ + 40);
  EXPECT_EQ(info.holdTime, 40);
  EXPECT_EQ(info.generationId, 7u);
  EXPECT_EQ(info.options.drPriority, 5u);
  EXPECT_TRUE(isDesignatedRouter);
}

TEST_F(SpeakerTest, TheSameSeedAndInputsGiveTheSamePackets) {
  auto const run = [&](U64 seed) {
    now_ = 1000;
    start({.seed = seed});
    speaker_->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
    Lines lines;
    for (int second = 0; second < 100; ++second) {
      pass(1);
      if (second == 20) hello("10.0.0.2", plainHello());
      for (auto const& line : take()) lines.push_back(std::to_string(second) + " " + line);
      if (!lines.empty()) lines.back() += " " + toText(latest_);
    }
    return lines;
  };
  auto const first = run(1);
  EXPECT_EQ(run(1), first);
  EXPECT_NE(run(2), first);
}

// --- Callbacks -----------------------------------------------------------------------------------

// Each round does something else at another callback of one conversation, until no callback is left.
template <class Conversation, class Act>
int atEachCallback(SpeakerTest&, Conversation const& conversation, Act const& act) {
  for (int at = 0;; ++at) {
    int callbacks = 0;
    bool acted = false;
    conversation([&] {
      if (callbacks++ != at) return;
      acted = true;
      act();
    });
    if (!acted) return at;
  }
}

class CallbackTest : public SpeakerTest {
 protected:
  void converse(std::function<void()> onCallback) {
    now_ = 1000;
    start();
    onCallback_ = std::move(onCallback);
    auto const step = [&](auto const& act) {
      if (speaker_ && speaker_->link("eth0", AddressFamily::ipv4)) act();
    };
    speaker_->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"});
    step([&] { speaker_->linkObserverAdd("eth0", AddressFamily::ipv4, *this); });
    step([&] { hello("10.0.0.2", plainHello()); });
    step([&] {
      if (auto data = link().triggered(IpGenAddr("10.0.0.2"))) joinIs(*data);
    });
    step([&] {
      if (auto data = link().periodic(IpGenAddr("10.0.0.2"))) joinIs(*data);
    });
    step([&] { pass(0.2); });
    step([&] { hello("10.0.0.3", withOverrideInterval(9000)); });
    step([&] { pass(6); });
    step([&] { join("10.0.0.2", "10.0.0.1"); });
    step([&] { join("10.0.0.7", "10.0.0.1"); });
    step([&] { hello("10.0.0.2", plainHello(2)); });
    step([&] { pass(70); });
    step([&] { hello("10.0.0.3", plainHello(1, 0)); });
    step([&] { speaker_->interfaceIs("eth0", {"10.0.0.9/24", "10.0.0.1/24"}); });
    step([&] { pass(6); });
    step([&] { speaker_->interfaceIs("eth0", {"10.0.0.9/24"}); });
    step([&] { hello("10.0.0.4", plainHello()); });
    step([&] { pass(200); });
    step([&] { speaker_->shutDown(); });
    onCallback_ = nullptr;
  }
};

TEST_F(CallbackTest, EveryCallbackMayDestroyTheSpeaker) {
  int const callbacks = atEachCallback(
      *this,
      [&](auto const& act) {
        converse(act);
        EXPECT_EQ(wheel_->armedCount(), 0u);
      },
      [&] { speaker_.reset(); });
  EXPECT_GT(callbacks, 30);
}

TEST_F(CallbackTest, EveryCallbackMayRemoveTheInterface) {
  int const callbacks = atEachCallback(
      *this, [&](auto const& act) { converse(act); }, [&] { speaker_->interfaceDel("eth0"); });
  EXPECT_GT(callbacks, 30);
  EXPECT_EQ(wheel_->armedCount(), 0u);
}

TEST_F(CallbackTest, EveryCallbackMayGiveTheInterfaceAnotherAddress) {
  int const callbacks = atEachCallback(
      *this, [&](auto const& act) { converse(act); },
      [&] { speaker_->interfaceIs("eth0", {"10.0.0.77/24"}); });
  EXPECT_GT(callbacks, 30);
  EXPECT_EQ(wheel_->armedCount(), 0u);
}

TEST_F(CallbackTest, EveryCallbackMayRemoveTheInterfaceAndMakeItAgain) {
  int const callbacks = atEachCallback(
      *this, [&](auto const& act) { converse(act); },
      [&] {
        speaker_->interfaceDel("eth0");
        speaker_->interfaceIs("eth0", {"10.0.0.78/24"});
      });
  EXPECT_GT(callbacks, 30);
  EXPECT_TRUE(speaker_ != nullptr);
}

}  // namespace
}  // namespace Routing::Pim::Speaker
