// SPDX-License-Identifier: Apache-2.0
// What the library takes from the heap, and where it takes nothing.
#include <gtest/gtest.h>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "runtime/vel/Trace.h"
#include "tests/memory/CountedHeap.h"
#include "tests/runtime/vel/Lamp.h"

namespace Routing::Pim {
namespace {

using CountedHeap::liveBytes;
using CountedHeap::requestsOf;
using Vel::address;

Dova::IpGenAddr groupAddress(U32 n) { return Dova::IpGenAddr::ipv4(0xe8000000 + n); }

// Counts what it hears, without the heap.
class Listener final : public Vel::Lamp::NotifieeConst {
 public:
  void onBrightness() override { ++calls; }
  void onGuest(Dova::IpGenAddr) override { ++calls; }
  void onBulb(Dova::IpGenAddr) override { ++calls; }
  void onSpare() override { ++calls; }
  int calls = 0;
};

TEST(DeliveryTest, UpToSixteenReactorsAreCalledWithoutTheHeap) {
  for (int const count : {1, 2, 16}) {
    SCOPED_TRACE(count);
    auto const lamp = Vel::create<Vel::Lamp>();
    auto const spare = Vel::create<Vel::Bulb>(address(1));
    std::vector<Vel::Ptr<Listener>> listeners;
    for (int i = 0; i < count; ++i) {
      listeners.push_back(Vel::create<Listener>());
      listeners.back()->notifierIs(lamp);
    }
    EXPECT_EQ(requestsOf([&] { lamp->brightnessIs(7); }), 0u);
    EXPECT_EQ(requestsOf([&] { lamp->spareIs(spare); }), 0u);
    EXPECT_EQ(requestsOf([&] { lamp->guestNotify(address(1)); }), 0u);
    EXPECT_EQ(requestsOf([&] { lamp->bulbNotifyImmediate(); }), 0u);
    for (auto const& listener : listeners) EXPECT_EQ(listener->calls, 3);
  }
}

TEST(DeliveryTest, MoreThanSixteenNeedOneAllocation) {
  auto const lamp = Vel::create<Vel::Lamp>();
  std::vector<Vel::Ptr<Listener>> listeners;
  for (int i = 0; i < 17; ++i) {
    listeners.push_back(Vel::create<Listener>());
    listeners.back()->notifierIs(lamp);
  }
  EXPECT_EQ(requestsOf([&] { lamp->brightnessIs(7); }), 1u);
}

TEST(DeliveryTest, WhereThereIsNoMemoryForTheSnapshotEverybodyIsCalledAllTheSameAndInOrder) {
  class Noting final : public Vel::Lamp::NotifieeConst {
   public:
    Noting(std::vector<int>& h, int n) : heard(h), number(n) { heard.reserve(1000); }
    void onBrightness() override {
      heard.push_back(number);
      // A snapshot does not change: a reactor removed meanwhile is still called, an added one is not.
      if (auto const all = std::exchange(others, nullptr)) {
        late->notifierIs(notifier());
        for (auto const& other : *all) other->notifierIs(nullptr);
      }
    }
    std::vector<int>& heard;
    int const number;
    std::vector<Vel::Ptr<Noting>> const* others = nullptr;
    Vel::Ptr<Noting> late;
  };
  for (int const count : {17, 63, 64, 65, 128, 129, 500}) {
    SCOPED_TRACE(count);
    auto const lamp = Vel::create<Vel::Lamp>();
    std::vector<int> heard, all;
    std::vector<Vel::Ptr<Noting>> listeners;
    for (int i = 0; i < count; ++i) {
      listeners.push_back(Vel::create<Noting>(heard, i));
      listeners.back()->notifierIs(lamp);
      all.push_back(i);
    }
    auto const first = listeners[0];
    first->late = Vel::create<Noting>(heard, -1);
    first->others = &listeners;
    std::size_t failures = 0;
    {
      CountedHeap::Famine const famine(1, 100);
      lamp->brightnessIs(7);
      failures = famine.failures();
    }
    EXPECT_EQ(failures, 1u);
    EXPECT_EQ(heard, all);
    for (auto const& listener : listeners) EXPECT_EQ(listener->references(), listener == first ? 2u : 1u);
    EXPECT_TRUE(first->late->isRegisteredNotifiee());
    first->late = nullptr;
    EXPECT_EQ(lamp->references(), 1u);
  }
}

TEST(DeliveryTest, AnEqualValueAndAValueThatNobodyWatchesNeedNothing) {
  auto const lamp = Vel::create<Vel::Lamp>();
  EXPECT_EQ(requestsOf([&] { lamp->brightnessIs(7); }), 0u);
  EXPECT_EQ(requestsOf([&] { lamp->brightnessIs(7); }), 0u);
}

TEST(WalkTest, AWalkCopiesNoKeys) {
  auto const lamp = Vel::create<Vel::Lamp>();
  for (U32 n = 0; n < 1000; ++n)
    lamp->guestIs(address(n)), lamp->seatIs(address(n)), lamp->bulbIs(address(n));
  U32 visited = 0;
  EXPECT_EQ(requestsOf([&] {
              for (auto i = lamp->guestIterator(); i; ++i) ++visited;
              for (auto i = lamp->seatIterator(); i; ++i) ++visited;
              for (auto i = lamp->bulbIterator(); i; ++i) ++visited;
            }),
            0u);
  EXPECT_EQ(visited, 3000u);
}

TEST(MemoryTest, ALargeSetTakesAtMostFortyEightBytesASource) {
  Vel::HashSet<Dova::IpGenAddr> sources;
  std::size_t const before = liveBytes;
  constexpr U32 count = 200'000;
  double worst = 0;
  for (U32 n = 0; n < count; ++n) {
    sources.insert(address(n));
    if (n >= 1000) worst = std::max(worst, static_cast<double>(liveBytes - before) / (n + 1));
  }
  EXPECT_LE(worst, 48);
  EXPECT_GE(worst, 20);  // the address itself
  // And gives it back: no more than a small table is left.
  for (U32 n = 0; n < count; ++n) sources.remove(address(n));
  EXPECT_EQ(sources.size(), 0u);
  EXPECT_LE(liveBytes - before, 1024u);
}

// Four bytes of mark and sixteen of address a place; eight marks more where there are buckets.
TEST(MemoryTest, ASetGrowsFromNothingToEightPlacesAndThenDoublesWhenSevenEighthsAreTaken) {
  auto const bytesWith = [](std::size_t buckets) {
    std::size_t const places = buckets + std::min<std::size_t>(64, 8 + buckets / 8);
    return places * 20 + 8 * 4;
  };
  struct Step {
    U32 upTo;
    std::size_t bytes;
  };
  Step const growing[] = {{1, 0},
                          {2, 2 * 20},
                          {4, 4 * 20},
                          {8, 8 * 20},
                          {14, bytesWith(16)},
                          {28, bytesWith(32)},
                          {56, bytesWith(64)},
                          {112, bytesWith(128)},
                          {224, bytesWith(256)},
                          {448, bytesWith(512)},
                          {896, bytesWith(1024)},
                          {1000, bytesWith(2048)}};
  Vel::HashSet<Dova::IpGenAddr> sources;
  std::size_t const before = liveBytes;
  U32 count = 0;
  for (Step const& step : growing)
    while (count < step.upTo) {
      sources.insert(address(count++));
      ASSERT_EQ(liveBytes - before, step.bytes) << count;
    }
  // And back, when a tenth is left and the number is a power of two.
  Step const shrinking[] = {
      {128, bytesWith(2048)}, {32, bytesWith(512)}, {8, bytesWith(128)}, {2, bytesWith(32)}, {0, 8 * 20}};
  for (Step const& step : shrinking)
    while (count > step.upTo) {
      ASSERT_EQ(liveBytes - before, step.bytes) << count;
      sources.remove(address(--count));
    }
  EXPECT_EQ(liveBytes - before, 8u * 20);
}

TEST(MemoryTest, TheOneThatLiesInsideASetGoesWithIt) {
  struct Text {
    std::string text;
    U32 hash() const { return Vel::hashText(text); }
    bool operator==(Text const&) const = default;
    bool operator<(Text const& other) const { return text < other.text; }
  };
  std::size_t const before = liveBytes;
  {
    Vel::HashSet<Text> set;
    set.insert({std::string(100, 'x')});
    EXPECT_GE(liveBytes - before, 100u);
  }
  EXPECT_EQ(liveBytes, before);
}

TEST(MemoryTest, FourOfFortyNeedNoBuckets) {
  Vel::HashSet<Dova::IpGenAddr> sources;
  std::size_t const before = liveBytes;
  for (U32 n = 0; n < 40; ++n) sources.insert(address(n));
  for (U32 n = 40; n > 4; --n) sources.remove(address(n - 1));
  EXPECT_EQ(liveBytes - before, 8u * 20);
}

TEST(MemoryTest, DeletingAllOfACollectionTakesOneListOfThem) {
  auto const lamp = Vel::create<Vel::Lamp>();
  for (U32 n = 0; n < 8; ++n) lamp->bulbIs(address(n));  // no more, so that the table itself stays as it is
  EXPECT_EQ(requestsOf([&] { lamp->bulbDelAll(); }), 1u);
  EXPECT_EQ(lamp->bulbCount(), 0u);
}

TEST(MemoryTest, AnEmptyCollectionTakesNothing) {
  EXPECT_EQ(
      requestsOf([] {
        Vel::HashSet<Dova::IpGenAddr> const hashed;
        Vel::OrderedSet<Dova::IpGenAddr> const ordered;
        Vel::EntityMap<Dova::IpGenAddr, Vel::Bulb> const map;
        EXPECT_FALSE(hashed.contains(address(1)) || ordered.contains(address(1)) || map.find(address(1)));
      }),
      0u);
}

TEST(MemoryTest, TheFirstOfACollectionTakesNothingHoweverOftenItComesAndGoes) {
  auto const bulb = Vel::create<Vel::Bulb>(address(1));
  EXPECT_EQ(requestsOf([&] {
              Vel::HashSet<Dova::IpGenAddr> set;
              Vel::EntityMap<Dova::IpGenAddr, Vel::Bulb> map;
              for (int i = 0; i < 10; ++i) {
                EXPECT_TRUE(set.insert(address(1)) && set.contains(address(1)) && !set.contains(address(2)));
                map.insert(bulb);
                EXPECT_TRUE(map.find(address(1)) == bulb.get() && !map.find(address(2)));
                EXPECT_TRUE(set.remove(address(1)) && map.remove(address(1)) == bulb);
              }
            }),
            0u);
}

TEST(MemoryTest, AnOrderedSetThatIsThinnedOutGivesItsMemoryBack) {
  Vel::OrderedSet<Dova::IpGenAddr> set;
  std::size_t const empty = CountedHeap::liveBytes;
  for (Vel::U32 n = 0; n < 32'000; ++n) set.insert(address(n));
  std::size_t const full = CountedHeap::liveBytes - empty;
  EXPECT_EQ(requestsOf([&] {
              for (Vel::U32 n = 0; n < 32'000; ++n)
                if (n % 32 != 0) set.remove(address(n));
            }),
            0u);
  EXPECT_EQ(set.size(), 1000u);
  EXPECT_LT(CountedHeap::liveBytes - empty, full / 8);
}

// Texts of one size, too long for the object itself: the set has to copy the key as well.
TEST(MemoryTest, AnOrderedSetThatGetsNoMemoryIsWhatItWas) {
  struct Text {
    std::string text;
    bool operator==(Text const&) const = default;
    auto operator<=>(Text const&) const = default;
  };
  auto const key = [](int n) {
    return Text{"a text that needs the heap, number " + std::to_string(1000 + n)};
  };
  int failures = 0;
  Vel::OrderedSet<Text> set;
  for (int n = 0; n < 300; ++n) {
    Text const added = key(n * 7 % 300), before = key(n == 0 ? 1 : 0);
    Vel::OrderedSet<Text>::Cursor walk;
    bool const walking = walk.first(set);
    for (std::size_t request = 1;; ++request) {
      bool thrown = false;
      {
        CountedHeap::Famine const famine(request);
        try {
          EXPECT_TRUE(set.insert(added));
        } catch (std::bad_alloc const&) {
          thrown = true;
        }
      }
      if (!thrown) break;
      ++failures;
      ASSERT_EQ(set.size(), static_cast<Vel::U32>(n));
      ASSERT_FALSE(set.contains(added));
      ASSERT_EQ(set.contains(before), n != 0);
      // A walk that has begun continues over all that is there.
      if (!walking || n % 16 != 0) continue;
      Vel::OrderedSet<Text>::Cursor i = walk;
      int visited = 1;
      while (i.next(set)) ++visited;
      ASSERT_EQ(visited, n);
    }
  }
  EXPECT_EQ(set.size(), 300u);
  EXPECT_GT(failures, 300);
  std::vector<Text> all;
  for (int n = 0; n < 300; ++n) all.push_back(key(n));
  CountedHeap::Famine const famine(1, 1000);
  bool removed = true;
  for (Text const& text : all) removed = removed && set.remove(text);
  EXPECT_TRUE(removed);
  EXPECT_EQ(famine.failures(), 0u);
  EXPECT_EQ(set.size(), 0u);
}

// The library with one interface, whose machine follows its periodic and triggered data. No trace is on.
class MachineTest : public testing::Test {
 protected:
  MachineTest() {
    intf->usedAddressWithMaskIs(Dova::IpGenPrefix(address(1), 24));
    status->pimIntfIs(intf);
    joinPruneStatus->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    sm = joinPruneMessageSmFactory(joinPruneStatus, nullptr, status, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, wheel);
    periodic = joinPruneStatus->periodicGroupStatus()->upJoinPrune(address(1));
    triggered = joinPruneStatus->triggeredGroup(address(1));
  }

  Vel::Ptr<Intf> intf = Vel::create<Intf>(Dova::IntfId("eth0"));
  Vel::Ptr<Status> status = Vel::create<Status>();
  Vel::Ptr<JoinPruneStatus> joinPruneStatus = joinPruneStatusFactory();
  Vel::Ptr<Zanth::TimerWheel> wheel = Vel::create<Zanth::TimerWheel>([] { return 1000.0; });
  Vel::Ptr<JoinPruneMessageSm> sm;
  Vel::Ptr<Packet::JoinPruneData> periodic, triggered;
};

TEST_F(MachineTest, AGroupWithOneSourceTakesAtMostTwoHundredAndFortyBytes) {
  ASSERT_TRUE(periodic);
  constexpr U32 count = 100'000;
  std::size_t const before = liveBytes;
  for (U32 n = 0; n < count; ++n) periodic->joinPruneGroupDataIs(groupAddress(n))->joinedSourceIs(address(n));
  auto const machine = sm->joinPruneNeighborSm(address(1));
  ASSERT_TRUE(machine);
  ASSERT_EQ(machine->numPeriodicRoutes(), count);
  ASSERT_EQ(machine->periodicGroupDataCount(), count);
  double const bytesPerGroup = static_cast<double>(liveBytes - before) / count;
  RecordProperty("bytesPerGroup", std::to_string(bytesPerGroup));
  EXPECT_LE(bytesPerGroup, 240);
  EXPECT_GE(bytesPerGroup, sizeof(Packet::JoinPruneGroupData));
}

TEST_F(MachineTest, FollowingASourceTakesNothingWhileTracingIsOff) {
  using GroupData = Packet::JoinPruneGroupData;
  bool (GroupData::*const adds[])(Dova::IpGenAddr) = {&GroupData::joinedSourceIs, &GroupData::prunedSourceIs,
                                                      &GroupData::joinedRptSourceIs,
                                                      &GroupData::prunedRptSourceIs};
  ASSERT_TRUE(periodic && triggered);
  for (auto const& data : {periodic, triggered}) {
    SCOPED_TRACE(data == periodic ? "periodic" : "triggered");
    // The same group twice: one is watched by the machine, one is not watched.
    auto const watched = data->joinPruneGroupDataIs(groupAddress(1));
    auto const unwatched = Vel::create<Packet::JoinPruneGroupData>(groupAddress(1));
    std::size_t some = 0;
    for (U32 n = 1; n <= 100; ++n) {
      for (auto const add : adds) {
        std::size_t const alone = requestsOf([&] { ((*unwatched).*add)(address(n)); });
        EXPECT_EQ(requestsOf([&] { ((*watched).*add)(address(n)); }), alone) << "source " << n;
        some += alone;
      }
    }
    EXPECT_GT(some, 0u);  // the counter counts
    EXPECT_EQ(watched->routes(), 400u);
  }
}

TEST_F(MachineTest, RemovingASourceTakesNothingWhileTracingIsOff) {
  ASSERT_TRUE(periodic);
  auto const watched = periodic->joinPruneGroupDataIs(groupAddress(1));
  for (U32 n = 1; n <= 6; ++n) watched->joinedSourceIs(address(n));
  for (U32 n = 1; n <= 5; ++n) EXPECT_EQ(requestsOf([&] { watched->joinedSourceDel(address(n)); }), 0u);
}

TEST_F(MachineTest, TracesThatAreOnAreWhatIsLeftOut) {
  ASSERT_TRUE(periodic);
  auto& handle = Vel::TraceHandle::find("Pim::JoinPrune");
  auto const watched = periodic->joinPruneGroupDataIs(groupAddress(1));
  for (U32 n = 1; n <= 4; ++n) watched->joinedSourceIs(address(n));
  std::size_t const off = requestsOf([&] { watched->joinedSourceDel(address(1)); });
  Vel::traceSinkIs([](Vel::TraceLine const&) {});
  handle.levelIs(7, true);
  std::size_t const on = requestsOf([&] { watched->joinedSourceDel(address(2)); });
  handle.levelsDel();
  Vel::traceSinkIs(nullptr);
  EXPECT_EQ(off, 0u);
  EXPECT_GT(on, 0u);
}

TEST_F(MachineTest, WhatATableOfRoutesTookIsGivenBackWhenItIsDrained) {
  ASSERT_TRUE(periodic);
  // A first round leaves what stays anyway: the small tables, the timer's list.
  auto const round = [&](U32 count) {
    for (U32 n = 0; n < count; ++n)
      periodic->joinPruneGroupDataIs(groupAddress(n))->joinedSourceIs(address(n));
    for (U32 n = 0; n < count; ++n)
      periodic->joinPruneGroupData(groupAddress(n))->joinedSourceDel(address(n));
  };
  round(10);
  std::size_t const before = liveBytes;
  round(10'000);
  EXPECT_EQ(periodic->joinPruneGroupDataCount(), 0u);
  EXPECT_LE(liveBytes, before + 1024);
}

}  // namespace
}  // namespace Routing::Pim
