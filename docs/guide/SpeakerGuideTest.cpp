// SPDX-License-Identifier: Apache-2.0
// What docs/guide.md shows of an agent around a speaker: each piece between two marks is there as it is here,
// and the tests around it check what is said about it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "pim/speaker/Speaker.h"

namespace {

using namespace Routing::Pim::Speaker;
namespace Wire = Routing::Pim::Wire;
using testing::ElementsAre;
using testing::IsEmpty;

// Two routers on one LAN, and what each is told; a packet is delivered at once.
class SpeakerGuideTest : public testing::Test, public Sink, public SpeakerObserver {
 protected:
  Sent send(Outgoing const& packet) override {
    if (answer == Sent::done) other->receive({"eth0", packet.source, packet.destination, 1}, packet.bytes);
    return answer;
  }
  void neighborChanged(NeighborEvent const& event) override {
    log.push_back(toText(event.neighbor) + " " + std::string(text(event.kind)));
  }
  void downstreamChanged(DownstreamEvent const& event) override {
    log.push_back(toText(event.route) + " " + std::string(text(event.change)));
    if (onDownstream) onDownstream();
  }

  // The upstream router, whose packets the other one receives.
  struct Upstream final : Sink {
    explicit Upstream(SpeakerGuideTest& test) : test_(test) {}
    Sent send(Outgoing const& packet) override {
      if (test_.router) test_.router->receive({"eth0", packet.source, packet.destination, 1}, packet.bytes);
      return Sent::done;
    }
    SpeakerGuideTest& test_;
  };

  void start() {
    other = std::make_unique<Speaker>(wheel, upstreamSink, SpeakerSettings{.seed = 1, .observer = this});
    router = std::make_unique<Speaker>(wheel, *this, SpeakerSettings{.seed = 2});
    other->interfaceIs("eth0", {"10.0.0.1/24"});
    router->interfaceIs("eth0", {"10.0.0.2/24"});
  }
  void pass(Vel::Seconds seconds) {
    double const end = now + seconds;
    while (wheel->timeMin() <= end) {
      now = std::max(now, wheel->timeMin());
      wheel->expire();
    }
    now = end;
  }
  std::vector<std::string> take() { return std::exchange(log, {}); }

  double now = 0;
  Vel::Ptr<Zanth::TimerWheel> const wheel = Vel::create<Zanth::TimerWheel>([this] { return now; });
  Upstream upstreamSink{*this};
  std::unique_ptr<Speaker> other, router;
  Sent answer = Sent::done;
  std::vector<std::string> log;
  std::function<void()> onDownstream;
};

TEST_F(SpeakerGuideTest, AnInterfaceHasBothFamiliesAndItsSettings) {
  start();
  auto& speaker = *router;
  // [interfaces]
  speaker.interfaceIs("eth0", {"10.0.0.2/24", "10.0.1.2/24", "fe80::2/64"},
                      {.mtu = 9000, .joinPruneInterval = 30, .joinPruneHoldTime = 105});
  speaker.interfaceIs("tunnel0", {"10.8.0.1/30"}, {.mtu = 1400, .pointToPoint = true});
  speaker.interfaceDel("tunnel0");  // says goodbye there
  // [interfaces]
  EXPECT_TRUE(speaker.hasInterface("eth0"));
  EXPECT_FALSE(speaker.hasInterface("tunnel0"));
  pass(10);
  EXPECT_EQ(speaker.link("eth0", Routing::Pim::Wire::AddressFamily::ipv6)->primaryAddress(),
            IpGenAddr("fe80::2"));
  EXPECT_EQ(speaker.neighborNamed("10.0.0.1").second, IpGenAddr("10.0.0.1"));
  EXPECT_EQ(other->neighborNamed("10.0.1.2").second, IpGenAddr("10.0.0.2"));  // announced with the Hello
}

TEST_F(SpeakerGuideTest, WhatIsWantedIsSentWhenTheNeighborIsUpAndMovesWithIt) {
  start();
  auto& speaker = *router;
  // [upstream]
  UpstreamNeighbor const neighbor{"eth0", IpGenAddr("10.0.0.1")};
  IpGenAddr const source("10.9.0.1"), group("239.1.1.1"), rp("10.0.0.9");
  speaker.upstream().joinIs({source, group}, neighbor);        // (S,G)
  speaker.upstream().joinIs(anySource(group), neighbor, rp);   // (*,G)
  speaker.upstream().pruneIs({IpGenAddr("10.9.0.2"), group});  // (S,G,rpt), beside the (*,G)
  // [upstream]
  EXPECT_EQ(speaker.upstream().sending({RouteKind::source, source, group}), Sending::neighborDown);
  pass(10);
  EXPECT_EQ(speaker.upstream().sending({RouteKind::source, source, group}), Sending::sent);
  EXPECT_THAT(take(), testing::UnorderedElementsAre("10.0.0.2 up", "10.0.0.2 designated router",
                                                    "(10.9.0.1,239.1.1.1) joined", "(*,239.1.1.1) joined",
                                                    "(10.9.0.2,239.1.1.1,rpt) pruned"));
  // [changes]
  speaker.upstream().joinIs({source, group}, {"eth0", IpGenAddr("10.0.0.3")});  // routing has changed
  speaker.upstream().pruneDel({IpGenAddr("10.9.0.2"), group});
  speaker.upstream().joinDel(anySource(group));
  // [changes]
  pass(5);
  EXPECT_THAT(take(), testing::UnorderedElementsAre("(10.9.0.1,239.1.1.1) pruned", "(*,239.1.1.1) pruned"));
  pass(210);  // Without its (*,G), an (S,G,rpt) is not joined again: it expires.
  EXPECT_THAT(other->downstream(), IsEmpty());
  EXPECT_EQ(speaker.upstream().sending({RouteKind::source, source, group}), Sending::neighborDown);
}

TEST_F(SpeakerGuideTest, SnapshotsAreForPeople) {
  start();
  router->upstream().joinIs({IpGenAddr("10.9.0.1"), IpGenAddr("239.1.1.1")}, {"eth0", IpGenAddr("10.0.0.1")});
  pass(10);
  auto& speaker = *other;
  std::ostringstream out;
  // [snapshots]
  for (auto const& [intf, neighbor, isDesignatedRouter] : speaker.neighbors())
    out << neighbor.address << " on " << intf << (isDesignatedRouter ? ", the DR" : "") << '\n';
  for (auto const& [intf, downstream] : speaker.downstream())
    out << toText(downstream.route) << " on " << intf << ": " << text(downstream.state) << '\n';
  out << speaker.counters().of(Verdict::refused) << " packets refused\n";
  // [snapshots]
  EXPECT_EQ(out.str(), "10.0.0.2 on eth0, the DR\n(10.9.0.1,239.1.1.1) on eth0: joined\n0 packets refused\n");
}

TEST_F(SpeakerGuideTest, ACallbackMayChangeWhatTheSpeakerDoes) {
  start();
  pass(10);
  take();
  IpGenAddr const group("239.1.1.1"), source("10.9.0.1");
  // What another router asks for is asked of the next one.
  auto& speaker = *other;
  onDownstream = [&] {
    // [forward]
    auto const* const wanted = speaker.downstream("eth0", Wire::AddressFamily::ipv4);
    if (wanted && wanted->route({RouteKind::source, source, group}))
      speaker.upstream().joinIs({source, group}, {"eth1", IpGenAddr("10.1.0.1")});
    else
      speaker.upstream().joinDel({source, group});
    // [forward]
  };
  router->upstream().joinIs({source, group}, {"eth0", IpGenAddr("10.0.0.1")});
  pass(1);
  EXPECT_EQ(speaker.upstream().count(), 1u);
  router->upstream().joinDel({source, group});
  pass(1);
  EXPECT_EQ(speaker.upstream().count(), 0u);
  EXPECT_THAT(take(), ElementsAre("(10.9.0.1,239.1.1.1) joined", "(10.9.0.1,239.1.1.1) pruned"));
}

TEST_F(SpeakerGuideTest, LimitsAreSettingsOfAnInterface) {
  start();
  auto& speaker = *other;
  // [limits]
  speaker.interfaceIs("eth0", {"10.0.0.1/24"},
                      {.hello = {.maxNeighbors = 50}, .downstream = {.routes = 1, .routesOfNeighbor = 1000}});
  // [limits]
  UpstreamNeighbor const neighbor{"eth0", IpGenAddr("10.0.0.1")};
  for (auto const* group : {"239.1.1.1", "239.1.1.2"})
    router->upstream().joinIs({IpGenAddr("10.9.0.1"), IpGenAddr(group)}, neighbor);
  pass(10);
  EXPECT_EQ(speaker.downstream().size(), 1u);
  EXPECT_EQ(speaker.downstream("eth0", Wire::AddressFamily::ipv4)->counters().overLimit, 1u);
}

TEST_F(SpeakerGuideTest, ABusySocketLosesNothing) {
  start();
  router->upstream().joinIs({IpGenAddr("10.9.0.1"), IpGenAddr("239.1.1.1")}, {"eth0", IpGenAddr("10.0.0.1")});
  answer = Sent::later;
  pass(10);
  EXPECT_THAT(other->downstream(), IsEmpty());
  answer = Sent::done;
  pass(1);
  EXPECT_EQ(other->downstream().size(), 1u);
}

}  // namespace
