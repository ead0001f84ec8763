// SPDX-License-Identifier: Apache-2.0
// What upstream routes cost when there are very many of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <vector>

#include "pim/speaker/Speaker.h"
#include "tests/Thorough.h"
#include "tests/pim/speaker/UpstreamScene.h"

namespace Routing::Pim::Speaker::Test {
namespace {

U32 const veryMany = thorough() ? 1'000'000 : 50'000;
constexpr U32 few = 1000;
// Larger sets do not fit the processor's caches.
constexpr double largestRatio = 3;

/// Processor time of a call, in seconds.
template <class Call>
double timeOf(Call const& call) {
  std::clock_t const begin = std::clock();
  call();
  return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

RouteKey numbered(U32 number) {
  return {IpGenAddr::ipv4(0x0a090000u + number % 5), IpGenAddr::ipv4(0xef010000u + number / 5)};
}

class UpstreamCostTest : public UpstreamScene {
 protected:
  void add(U32 from, U32 end, std::string_view neighbor) {
    for (U32 n = from; n < end; ++n) upstream->joinIs(numbered(n), at(neighbor));
  }
};

INSTANTIATE_TEST_SUITE_P(Of, UpstreamCostTest, testing::Values(AddressFamily::ipv4));

TEST_P(UpstreamCostTest, AChangeOfARouteCostsTheSameBesideVeryManyOthers) {
  constexpr U32 batch = 1000, first = 0x800000;
  auto const changes = [&] {
    double least = 1e9;
    for (int round = 0; round < 5; ++round) {
      least = std::min(least, timeOf([&] {
                         for (U32 n = 0; n < batch; ++n) {
                           RouteKey const key = numbered(first + 7919 * n % 100'003);
                           upstream->joinIs(key, at("N1"));
                           upstream->pruneIs(key);
                           upstream->pruneDel(key);
                           upstream->joinIs(key, at("N2"));
                           upstream->joinDel(key);
                         }
                       }));
    }
    return least;
  };
  add(0, few, "N1");
  double const besideFew = changes();
  add(few, veryMany, "N1");
  EXPECT_EQ(upstream->count(), veryMany);
  double const besideMany = changes();
  RecordProperty("ratio", std::to_string(besideMany / besideFew));
  EXPECT_LT(besideMany, largestRatio * besideFew);
}

TEST_P(UpstreamCostTest, ToMoveTheRoutesOfANeighborCostsTheSameBesideVeryManyOfAnother) {
  neighborUp("N3");
  auto const moves = [&] {
    double least = 1e9;
    for (int round = 0; round < 5; ++round) {
      least = std::min(least, timeOf([&] {
                         EXPECT_EQ(upstream->moveAll(at("N2"), at("N3")), few);
                         EXPECT_EQ(upstream->moveAll(at("N3"), at("N2")), few);
                       }));
    }
    return least;
  };
  for (U32 n = 0; n < few; ++n) upstream->joinIs(numbered(0x800000 + n), at("N2"));
  double const alone = moves();
  add(0, veryMany, "N1");
  double const besideMany = moves();
  RecordProperty("ratio", std::to_string(besideMany / alone));
  EXPECT_LT(besideMany, largestRatio * alone);
}

/// A speaker of which is known when each of its routes was sent last.
class SpeakerRefreshTest : public testing::Test, public Sink {
 protected:
  Sent send(Outgoing const& packet) override {
    if (Wire::isPimType(packet.bytes, Wire::PimType::hello)) return Sent::done;
    auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
    for (auto const& group : std::get<Wire::JoinPrune>(decoded).groups()) {
      for (auto const& join : group.joins()) {
        Seconds& latest =
            sent[(group.group().ipv4() - 0xef010000u) * 5 + (join.address.ipv4() - 0x0a090000u)];
        if (latest >= 0) longest = std::max(longest, now - latest);
        latest = now;
      }
    }
    return Sent::done;
  }
  void pass(Seconds seconds) {
    Seconds const end = now + seconds;
    while (wheel->timeMin() <= end) {
      now = std::max(now, wheel->timeMin());
      wheel->expire();
    }
    now = end;
  }
  void hello(U32 n, U16 holdTime = 65'535) {
    Wire::Hello hello;
    hello.holdTimeIs(holdTime);
    hello.generationIdIs(n);
    if (n % 2) hello.drPriorityIs(n);
    if (n % 3) hello.lanPruneDelayIs(Wire::LanPruneDelay{n % 2 == 0, 500, static_cast<U16>(2500 + n % 500)});
    if (n % 5) hello.addressAdd(IpGenAddr("10.0.7.2"));
    IpGenAddr const source("10.0.0.2"), destination = Wire::allPimRouters(source.af());
    speaker->receive({.intf = "eth0", .source = source, .destination = destination, .ttl = 1},
                     Wire::encodeHello(hello, source, destination));
  }
  /// Processor time of a second in which a neighbor with routes changes as often.
  double busySecond(bool saysGoodbye) {
    return timeOf([&] {
      for (int n = 0; n < hellos; ++n) {
        if (saysGoodbye) hello(number, 0);
        hello(++number);
        pass(1.0 / hellos);
      }
    });
  }
  void settle(U32 count) {
    sent.assign(count, -1);
    speaker = std::make_unique<Speaker>(wheel, *this);
    speaker->interfaceIs("eth0", {"10.0.0.1/24"}, {.joinPruneInterval = interval});
    pass(6);
    hello(number);
    for (U32 n = 0; n < count; ++n)
      speaker->upstream().joinIs(numbered(n), {Dova::IntfId("eth0"), IpGenAddr("10.0.0.2")});
    pass(5);
  }

  void testHellos(bool areAfterGoodbyes) {
    auto const cheapest = [](Seconds seconds, auto const& second) {
      double least = 1e9;
      for (int n = 0; n < seconds; ++n) least = std::min(least, second());
      return least;
    };
    // Some of these seconds have no turn of the neighbor in them.
    auto const busy = [&] { return busySecond(areAfterGoodbyes); };
    settle(few);
    double const besideFew = cheapest(thorough() ? 5 : 2, busy);
    settle(routes);
    longest = 0;
    double const besideMany = cheapest((thorough() ? 2.5 : 1.5) * interval, busy);
    EXPECT_LE(longest, 1.5 * interval);
    for (Seconds const time : sent) ASSERT_GE(time, now - 1.5 * interval);
    // What the refresh takes by itself.
    double const quiet = cheapest(interval, [&] { return timeOf([&] { pass(1); }); });
    double const ratio = (besideMany - quiet) / besideFew;
    RecordProperty("ratio", std::to_string(ratio));
    RecordProperty("longest", std::to_string(longest));
    EXPECT_LT(ratio, largestRatio);
  }

  U32 const routes = thorough() ? veryMany : veryMany / 10;
  int const hellos = thorough() ? 1000 : 250;
  Seconds interval = thorough() ? 10 : 4;
  Seconds now = 1000, longest = 0;
  U32 number = 1;
  std::vector<Seconds> sent;
  Vel::Ptr<Zanth::TimerWheel> const wheel = Vel::create<Zanth::TimerWheel>([this] { return now; });
  std::unique_ptr<Speaker> speaker;
};

TEST_F(SpeakerRefreshTest, HellosThatChangeEverythingDelayNoRefreshAndCostTheSameBesideVeryManyRoutes) {
  testHellos(false);
}

TEST_F(SpeakerRefreshTest, HellosAfterGoodbyesDelayNoRefreshAndCostTheSameBesideVeryManyRoutes) {
  testHellos(true);
}

TEST_F(SpeakerRefreshTest, ManyRoutesThatComeAtOnceAreRefreshedFromThenOn) {
  settle(routes);
  pass(2 * interval);
  EXPECT_LE(longest, 1.1 * interval);
  for (Seconds const time : sent) ASSERT_GE(time, now - 1.1 * interval);
}

TEST_F(SpeakerRefreshTest, ASliceOfRoutesIsRefreshedAnIntervalLater) {
  interval = 60;
  settle(few);
  auto const first = sent;
  pass(interval - 10);
  EXPECT_EQ(sent, first);
}

}  // namespace
}  // namespace Routing::Pim::Speaker::Test
