// SPDX-License-Identifier: Apache-2.0
// A speaker that is short of memory: no request that fails leaves anything half done that is not completed
// later.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

#include "pim/speaker/LanValues.h"
#include "pim/speaker/Speaker.h"
#include "runtime/vel/Trace.h"
#include "tests/Thorough.h"
#include "tests/memory/CountedHeap.h"

namespace Routing::Pim::Speaker {
namespace {

using CountedHeap::Famine;
using CountedHeap::Relief;
using testing::Contains;

using Lines = std::vector<std::string>;
using Entries = std::set<std::string>;

constexpr std::size_t untilEnd = ~std::size_t{0} / 2;

IpGenAddr const source1("10.9.0.1"), source2("10.9.0.2"), rp("10.8.0.1");
IpGenAddr const group1("239.1.1.1"), group2("239.1.1.2");

class SpeakerFamineTest : public testing::Test, public Sink {
 protected:
  SpeakerFamineTest() {
    Vel::traceSinkIs([](Vel::TraceLine const&) {});
  }
  ~SpeakerFamineTest() override { Vel::traceSinkIs({}); }

  void start() {
    speaker = std::make_unique<Speaker>(wheel, *this);
    lines.clear();
  }
  /// An interface whose first Hello is sent, and neighbors that were answered.
  void settle(std::initializer_list<char const*> neighbors) {
    speaker->interfaceIs("eth0", {"10.0.0.1/24"});
    pass(6);
    for (auto const* neighbor : neighbors) hello(neighbor);
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
  static Wire::Hello helloOf(U32 generationId = 1, U16 holdTime = 65'535) {
    Wire::Hello hello;
    hello.holdTimeIs(holdTime);
    hello.lanPruneDelayIs(Wire::LanPruneDelay{});
    hello.drPriorityIs(1);
    hello.generationIdIs(generationId);
    return hello;
  }
  void receive(std::string_view from, std::vector<U8> const& bytes) {
    IpGenAddr const source(from);
    speaker->receive(
        {.intf = "eth0", .source = source, .destination = Wire::allPimRouters(source.af()), .ttl = 1}, bytes);
  }
  void hello(std::string_view from, Wire::Hello const& hello = helloOf()) {
    IpGenAddr const source(from);
    receive(from, Wire::encodeHello(hello, source, Wire::allPimRouters(source.af())));
  }
  void hear(std::string_view from, Wire::JoinPrune const& message) {
    IpGenAddr const source(from);
    receive(from, Wire::encodeJoinPrune(message, source, Wire::allPimRouters(source.af())));
  }
  static UpstreamNeighbor at(std::string_view neighbor) {
    return {Dova::IntfId("eth0"), IpGenAddr(neighbor)};
  }
  Link& link() { return *speaker->link("eth0", AddressFamily::ipv4); }

  /// Does something while requests fail. How many did.
  template <class Act>
  static std::size_t inFamine(std::size_t n, std::size_t length, Act const& act) {
    Famine const famine(n, length);
    try {
      act();
    } catch (std::bad_alloc const&) {
    }
    return famine.failures();
  }
  /// For each request of it: a new scene, in which that request fails, or that and all that follow.
  template <class Prepare, class Act, class Check>
  void forEachRequest(Prepare const& prepare, Act const& act, Check const& check) {
    for (std::size_t const length : {std::size_t{1}, untilEnd}) {
      std::size_t failures = 1;
      for (std::size_t n = 1; failures != 0; ++n) {
        SCOPED_TRACE(testing::Message() << "request " << n << ", as many as " << length);
        start();
        prepare();
        failures = inFamine(n, length, act);
        check();
        if (HasFailure()) return;
        speaker.reset();
        ASSERT_EQ(wheel->armedCount(), 0u);
      }
    }
  }

  static Entries entriesOf(Vel::Ptr<Packet::JoinPruneData> const& data) {
    Entries entries;
    if (!data) return entries;
    for (auto const& group : data->joinPruneGroupDataIterator()) {
      auto const add = [&](char const* verb, RouteKind kind, auto sources) {
        for (; sources; ++sources) entries.insert(verb + toText(Route{kind, sources.key(), group.group()}));
      };
      if (auto const wildcard = group.wcSourceData())
        entries.insert((wildcard->join() ? "join " : "prune ") + toText(Route::wildcard(group.group())));
      add("join ", RouteKind::source, group.joinedSourceIterator());
      add("prune ", RouteKind::source, group.prunedSourceIterator());
      add("join ", RouteKind::sourceRpt, group.joinedRptSourceIterator());
      add("prune ", RouteKind::sourceRpt, group.prunedRptSourceIterator());
    }
    return entries;
  }
  /// What is refreshed is what is wanted.
  void expectConsistent() {
    for (auto const* neighbor : {"10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
      Entries wanted;
      for (auto const& route : speaker->upstream().routes())
        if (link().neighborUp(IpGenAddr(neighbor)) && route.upstream == at(neighbor))
          wanted.insert((route.route.kind == RouteKind::sourceRpt ? "prune " : "join ") +
                        toText(route.route));
      EXPECT_EQ(entriesOf(link().periodic(IpGenAddr(neighbor))), wanted) << neighbor;
    }
  }

  Sent send(Outgoing const& packet) override {
    Relief const relief;
    bool const isHello = Wire::isPimType(packet.bytes, Wire::PimType::hello);
    std::string line = toText(packet.source) + (isHello ? " hello" : " join/prune");
    if (isHello) {
      auto const decoded = Wire::decodeHello(packet.bytes, packet.source, packet.destination);
      for (auto const& address : std::get<Wire::Hello>(decoded).addresses()) line += " " + toText(address);
    }
    lines.push_back(line);
    return Sent::done;
  }

  Seconds now = 1000;
  Vel::Ptr<Zanth::TimerWheel> const wheel = Vel::create<Zanth::TimerWheel>([this] { return now; });
  Lines lines;
  std::unique_ptr<Speaker> speaker;
};

TEST_F(SpeakerFamineTest, AnInterfaceThatCouldNotBeMadeIsMadeByTheSameCall) {
  auto const make = [&] { speaker->interfaceIs("eth0", {"10.0.0.1/24", "fe80::1/64"}); };
  forEachRequest([] {}, make,
                 [&] {
                   speaker->upstream().joinIs({source1, group1}, at("10.0.0.2"));
                   make();
                   pass(6);
                   EXPECT_THAT(lines, Contains("10.0.0.1 hello"));
                   EXPECT_THAT(lines, Contains("fe80::1 hello"));
                   hello("10.0.0.2");
                   pass(1);
                   EXPECT_THAT(lines, Contains("10.0.0.1 join/prune"));
                 });
}

TEST_F(SpeakerFamineTest, AChangeOfAnInterfaceThatCouldNotBeMadeIsMadeByTheSameCall) {
  struct Case {
    std::vector<Dova::IpGenPrefix> addresses;
    InterfaceSettings settings;
    std::string hello;
  };
  auto const prefix = [](char const* text) { return *Dova::IpGenPrefix::fromText(text); };
  InterfaceSettings other;
  other.mtu = 9000;
  other.hello.drPriority = 7;
  for (Case const& one :
       {Case{{prefix("10.0.0.1/24"), prefix("10.0.5.1/24")}, other, "10.0.0.1 hello 10.0.5.1"},
        Case{{prefix("10.0.0.9/24")}, {}, "10.0.0.9 hello"},
        Case{{prefix("10.0.0.1/16")}, other, "10.0.0.1 hello"}}) {
    auto const change = [&] { speaker->interfaceIs("eth0", one.addresses, one.settings); };
    forEachRequest([&] { settle({"10.0.0.2"}); }, change,
                   [&] {
                     change();
                     pass(6);
                     EXPECT_THAT(lines, Contains(one.hello));
                     EXPECT_EQ(link().primaryAddress(), one.addresses[0].ipGenAddr());
                     hello("10.0.0.2");
                     EXPECT_TRUE(link().neighborUp(IpGenAddr("10.0.0.2")));
                   });
  }
}

TEST_F(SpeakerFamineTest, AnInterfaceThatCouldNotBeRemovedIsRemovedByTheSameCall) {
  forEachRequest(
      [&] {
        settle({"10.0.0.2", "10.0.0.3"});
      },
      [&] { speaker->interfaceDel("eth0"); },
      [&] {
        speaker->interfaceDel("eth0");
        EXPECT_FALSE(speaker->hasInterface("eth0"));
      });
}

TEST_F(SpeakerFamineTest, ANewNeighborIsThereWithItsRoutesAfterItsNextHello) {
  auto listing = helloOf();
  listing.addressAdd(IpGenAddr("10.0.7.2"));
  forEachRequest(
      [&] {
        settle({"10.0.0.3"});
        speaker->upstream().joinIs({source1, group1}, at("10.0.0.2"));
        speaker->upstream().joinIs({source2, group1}, at("10.0.7.2"));
        speaker->upstream().joinIs(anySource(group1), at("10.0.0.2"), rp);
        speaker->upstream().pruneIs({source2, group1});
      },
      [&] { hello("10.0.0.2", listing); },
      [&] {
        hello("10.0.0.2", listing);
        pass(2);
        EXPECT_TRUE(link().neighborUp(IpGenAddr("10.0.0.2")));
        EXPECT_EQ(link().neighborOf(IpGenAddr("10.0.7.2")), IpGenAddr("10.0.0.2"));
        EXPECT_EQ(entriesOf(link().periodic(IpGenAddr("10.0.0.2"))).size(), 4u);
        EXPECT_EQ(speaker->neighbors().size(), 2u);
        hello("10.0.0.2", helloOf(1, 0));
        hello("10.0.0.3", helloOf(1, 0));
        EXPECT_EQ(link().neighborCount(), 0u);
      });
}

TEST_F(SpeakerFamineTest, AWishOnAnInterfaceThatIsNotThereIsStoredWhollyOrNotAtAll) {
  UpstreamNeighbor const elsewhere{Dova::IntfId("eth7"), IpGenAddr("10.0.0.2")};
  forEachRequest([] {},
                 [&] {
                   speaker->upstream().joinIs({source1, group1}, elsewhere);
                 },
                 [&] {
                   UpstreamRoutes& upstream = speaker->upstream();
                   EXPECT_EQ(upstream.targets().size(), upstream.count());
                   EXPECT_EQ(upstream.routes().size(), upstream.count());
                   upstream.joinIs({source1, group1}, elsewhere);
                   EXPECT_EQ(upstream.joinedTowards(elsewhere), 1u);
                   EXPECT_TRUE(upstream.joinDel({source1, group1}));
                   EXPECT_EQ(upstream.targets().size(), 0u);
                 });
}

TEST_F(SpeakerFamineTest, ARouteThatCouldNotBeWrittenIsWrittenWhenAllMoveToAnotherAddressOfItsNeighbor) {
  auto listing = helloOf();
  listing.addressAdd(IpGenAddr("10.0.7.2"));
  forEachRequest(
      [&] {
        settle({"10.0.0.3"});
        hello("10.0.0.2", listing);
        pass(6);
      },
      [&] {
        speaker->upstream().joinIs({source1, group1}, at("10.0.0.2"));
      },
      [&] {
        bool const isWanted = speaker->upstream().count() != 0;
        EXPECT_EQ(speaker->upstream().moveAll(at("10.0.0.2"), at("10.0.7.2")), isWanted ? 1u : 0u);
        EXPECT_EQ(entriesOf(link().periodic(IpGenAddr("10.0.0.2"))).size(), isWanted ? 1u : 0u);
      });
}

TEST_F(SpeakerFamineTest, AnIntervalThatCouldNotBeMadeShorterIsMadeSoByTheSameCall) {
  InterfaceSettings often;
  often.joinPruneInterval = 5;
  auto const change = [&] { speaker->interfaceIs("eth0", {"10.0.0.1/24"}, often); };
  forEachRequest(
      [&] {
        settle({"10.0.0.2"});
        speaker->upstream().joinIs({source1, group1}, at("10.0.0.2"));
        pass(1);
      },
      change,
      [&] {
        change();
        EXPECT_LE(speaker->nextRefresh(at("10.0.0.2")), now + 5);
      });
}

TEST_F(SpeakerFamineTest, AnotherOverrideIntervalThatCouldNotBeToldIsToldByTheSameCall) {
  InterfaceSettings slow;
  slow.hello.lanPruneDelay.overrideInterval = 9000;
  auto const change = [&] { speaker->interfaceIs("eth0", {"10.0.0.1/24", "10.0.5.1/24"}, slow); };
  forEachRequest([&] { settle({"10.0.0.2"}); }, change,
                 [&] {
                   change();
                   EXPECT_EQ(link().overrideInterval(), 9);
                   EXPECT_EQ(speaker->counters().overrideIntervalChanges, 1u) << "of the engine";
                 });
}

TEST_F(SpeakerFamineTest, WhatIsRefreshedIsWhatIsWantedWhicheverRequestsHaveFailed) {
  std::mt19937 random(7761);
  std::size_t failures = 0;
  for (int life = 0; life < (thorough() ? 40 : 4); ++life) {
    start();
    settle({"10.0.0.2", "10.0.0.3"});
    for (int i = 0; i < 250; ++i) {
      auto const below = [&](U32 end) { return static_cast<U32>(random() % end); };
      U32 const step = below(9);
      std::string const neighbor = "10.0.0." + std::to_string(2 + below(3));
      RouteKey const key(below(2) ? source1 : source2, below(2) ? group1 : group2);
      bool const other = below(2) != 0;
      UpstreamRoutes& upstream = speaker->upstream();
      std::size_t const before = upstream.routes().size();
      auto const act = [&] {
        switch (step) {
          case 0:
            return upstream.joinIs(other ? key : anySource(key.group()), at(neighbor),
                                   other ? IpGenAddr() : rp);
          case 1:
            return static_cast<void>(upstream.joinDel(other ? key : anySource(key.group())));
          case 2:
            return static_cast<void>(upstream.pruneIs(key));
          case 3:
            return static_cast<void>(upstream.pruneDel(key));
          case 4:
            return static_cast<void>(upstream.moveAll(at(neighbor), at("10.0.0.3")));
          case 5:
            return hello(neighbor, helloOf(1, other ? 0 : 65'535));
          case 6:
            return hello(neighbor, helloOf(static_cast<U32>(i)));
          case 7: {
            Wire::JoinPrune message(IpGenAddr(neighbor), 210);
            message.groupAdd(key.group());
            message.entryAdd(other ? EntryKind::wildcardPrune : EntryKind::sourceJoin,
                             other ? rp : key.source());
            return hear("10.0.0.3", message);
          }
          default:
            pass(3);
        }
      };
      bool threw = true;
      {
        Famine const famine(1 + below(12), other ? 1 : 1 + below(20));
        try {
          act();
          threw = false;
        } catch (std::bad_alloc const&) {
        }
        failures += famine.failures();
      }
      if (threw && step <= 3) {
        EXPECT_EQ(upstream.routes().size(), before) << "what throws changes nothing";
      }
      // One that came or restarted without memory for it comes with its next Hello.
      for (auto const& there : speaker->neighbors())
        if (there.info.expires == Vel::never)
          hello(toText(there.info.address), helloOf(there.info.generationId.value_or(1)));
      pass(3);
      expectConsistent();
      if (HasFailure()) FAIL() << "life " << life << ", step " << i << " of kind " << step;
    }
  }
  EXPECT_GT(failures, 200u);
}

// Of a link that ends while every request of memory fails.
class EndingInFamine : public NeighborsOwner {
 public:
  Sent sendHello(Wire::Hello const& hello) override {
    if (hello.holdTime() == 0) famine.emplace(1, untilEnd);
    return Sent::done;
  }
  void onLanValues() override {}
  void onNeighborUp(IpGenAddr const&) override {}
  void onNeighborDown(IpGenAddr const& neighbor) override { ended[ends++ % ended.size()] = neighbor; }
  void onNeighborRestarted(IpGenAddr const&) override {}
  U32 routesTowards(IpGenAddr const&) const override { return 0; }
  void onNeighborEvent(NeighborEvent const&) override {}

  std::optional<Famine> famine;
  std::array<IpGenAddr, 3> ended;
  std::size_t ends = 0;
};

TEST(NeighborsFamineTest, AllNeighborsEndInTheOrderOfTheirAddressesThoughNoRequestOfMemorySucceeds) {
  EndingInFamine owner;
  Random random(7761);
  auto const wheel = Vel::create<Zanth::TimerWheel>([] { return 1000.0; });
  Neighbors neighbors(owner, Dova::IntfId("eth0"), IpGenAddr("10.0.0.1"), {}, {}, wheel, random);
  Wire::Hello hello;
  hello.generationIdIs(1);
  for (auto const* neighbor : {"10.0.0.9", "10.0.0.2", "10.0.0.4"})
    neighbors.receive(IpGenAddr(neighbor), hello);
  neighbors.end();
  std::size_t const failures = owner.famine->failures();
  owner.famine.reset();
  EXPECT_EQ(failures, 0u);
  EXPECT_EQ(owner.ends, 3u);
  EXPECT_EQ(owner.ended, (std::array{IpGenAddr("10.0.0.2"), IpGenAddr("10.0.0.4"), IpGenAddr("10.0.0.9")}));
  EXPECT_EQ(neighbors.count(), 0u);
}

TEST_F(SpeakerFamineTest, AFloodOfHellosFromDifferentSendersTakesNoMoreMemoryThanTheMostNeighborsDo) {
  start();
  InterfaceSettings settings;
  settings.hello.maxNeighbors = 100;
  speaker->interfaceIs("eth0", {"10.0.0.1/8"}, settings);
  auto const flood = [&](U32 from, U32 end) {
    for (U32 i = from; i < end; ++i) {
      auto const sender = IpGenAddr::ipv4(0x0a010000u + i);
      auto const packet = Wire::encodeHello(helloOf(i), sender, Wire::allPimRouters(AddressFamily::ipv4));
      speaker->receive({.intf = "eth0",
                        .source = sender,
                        .destination = Wire::allPimRouters(AddressFamily::ipv4),
                        .ttl = 1},
                       packet);
    }
  };
  flood(1, 200);
  std::size_t const before = CountedHeap::liveBytes;
  U32 const senders = thorough() ? 1'000'000 : 20'000;
  flood(200, senders);
  EXPECT_LE(CountedHeap::liveBytes, before + 1'000);
  EXPECT_EQ(link().neighborCount(), 100u);
  EXPECT_EQ(speaker->counters().of(Verdict::tooManyNeighbors), senders - 101);
}

TEST(LanValuesFamineTest, ANeighborIsAddedWhollyOrNotAtAll) {
  LanOptions const options{Wire::LanPruneDelay{.propagationDelay = 900, .overrideInterval = 9000}, 7};
  std::size_t failures = 1;
  for (std::size_t n = 1; failures != 0; ++n) {
    LanValues values(IpGenAddr("10.0.0.1"), {Wire::LanPruneDelay{}, 1});
    {
      Famine const famine(n);
      try {
        values.add(IpGenAddr("10.0.0.2"), options);
      } catch (std::bad_alloc const&) {
      }
      failures = famine.failures();
    }
    if (failures == 0) break;
    EXPECT_EQ(values.designatedRouter(), IpGenAddr("10.0.0.1"));
    EXPECT_DOUBLE_EQ(values.propagationDelay(), 0.5);
    EXPECT_DOUBLE_EQ(values.overrideInterval(), 2.5);
    EXPECT_FALSE(values.suppressionAllowed());
    values.add(IpGenAddr("10.0.0.2"), options);
    EXPECT_EQ(values.designatedRouter(), IpGenAddr("10.0.0.2"));
    values.remove(IpGenAddr("10.0.0.2"), options);
    EXPECT_FALSE(values.suppressionAllowed());
    EXPECT_DOUBLE_EQ(values.propagationDelay(), 0.5);
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
