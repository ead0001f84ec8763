// SPDX-License-Identifier: Apache-2.0
// What very many downstream routes cost.
#include <memory>

#include "pim/speaker/DownstreamRoutes.h"
#include "tests/Thorough.h"
#include "tests/memory/CountedHeap.h"
#include "tests/pim/speaker/RouteWords.h"

namespace Routing::Pim::Speaker {
namespace {

/// Counts, and holds each expiry against the clock.
class Counter final : public DownstreamObserver, public PruneEchoes {
 public:
  void downstreamChanged(DownstreamEvent const& event) override {
    if (event.change == DownstreamChange::expired) ++expired;
  }
  void pruneEchoIs(Link&, Route const&, IpGenAddr const&) override {}

  std::size_t expired = 0;
};

// A tenth of the interfaces, except where there is time for all.
U32 const links = thorough() ? 1000 : 100;
constexpr U32 routesOfLink = 1000;
constexpr std::size_t bytesOfRoute = 300;

/// A million routes, a thousand on each interface, each on a group of its own.
class DownstreamMemoryTest : public testing::TestWithParam<RouteKind> {
 protected:
  DownstreamMemoryTest() {
    all.reserve(links);
    for (U32 i = 0; i < links; ++i) {
      interfaces.push_back(
          std::make_unique<Speaker::Test::TestLink>(AddressFamily::ipv4, wheel, "eth" + std::to_string(i)));
      interfaces.back()->neighbors = {neighbor};
    }
    for (U32 n = 0; n < routesOfLink; ++n) {
      if (n % 250 == 0) messages.emplace_back(IpGenAddr("10.0.0.100"), U16{210});
      messages.back().groupAdd(IpGenAddr::ipv4(0xe8000000 + n));
      messages.back().entryAdd(entryKindOf(GetParam(), GetParam() != RouteKind::sourceRpt),
                               IpGenAddr("10.9.0.1"));
    }
  }
  /// One interface after another, each a moment later.
  void receiveAt(Seconds begin) {
    time = begin;
    for (auto const& routes : all) {
      for (auto const& message : messages) routes->joinPruneReceived({neighbor, true, message});
      time += moment;
    }
  }

  static constexpr Seconds moment = 1.0 / 64;
  Seconds time = 0;
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([this] { return time; });
  IpGenAddr const neighbor{"10.0.0.1"};
  std::vector<Wire::JoinPrune> messages;
  Counter counter;
  std::vector<std::unique_ptr<Speaker::Test::TestLink>> interfaces;
  std::vector<std::unique_ptr<DownstreamRoutes>> all;
};

INSTANTIATE_TEST_SUITE_P(Kinds, DownstreamMemoryTest,
                         testing::Values(RouteKind::source, RouteKind::wildcard, RouteKind::sourceRpt));

TEST_P(DownstreamMemoryTest, AMillionRoutesOnAThousandInterfacesTakeNoMoreThan300BytesEachAndExpireInTime) {
  std::size_t const before = CountedHeap::liveBytes;
  for (auto const& link : interfaces)
    all.push_back(std::make_unique<DownstreamRoutes>(*link, counter, counter));
  receiveAt(0);
  std::size_t const bytes = CountedHeap::liveBytes - before;
  RecordProperty("bytes", std::to_string(bytes / (links * routesOfLink)));
  EXPECT_LE(bytes, bytesOfRoute * links * routesOfLink);
  EXPECT_EQ(CountedHeap::requestsOf([this] { receiveAt(60); }), 0u);

  // As long as they were refreshed, the timers of the first time expire for nothing.
  for (U32 step = 0; step < 2 * links; ++step) {
    time = wheel->timeMin();
    ASSERT_EQ(time, (step < links ? 210 : 270) + step % links * moment);
    ASSERT_EQ(counter.expired, step < links ? 0 : (step - links) * std::size_t{routesOfLink});
    wheel->expire();
  }
  EXPECT_EQ(counter.expired, std::size_t{links} * routesOfLink);
}

}  // namespace
}  // namespace Routing::Pim::Speaker
