// SPDX-License-Identifier: Apache-2.0
// The benchmarks' plain engine does the library's work: on the same random input it sends the same entries at
// the same times, in as many packets, and records the same received entries.
#include "bench/plain/Engine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/model/packet/GroupEntries.h"
#include "pim/speaker/PacketManager.h"
#include "pim/speaker/PacketSinks.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim {
namespace {

using Dova::AddressFamily;
using Dova::IpGenAddr;
using Plain::Way;
using Vel::Seconds;

// --- What both are given --------------------------------------------------------------------------

struct Shape {
  char const* name;
  AddressFamily family = AddressFamily::ipv4;
  U32 mtu = 1500;
  U32 interval = 60;
  U32 groups = 60, sources = 12;  // to choose from
  bool filters = false, suppresses = false;
  bool fails = false;  // The link is down one second in four.
};

std::ostream& operator<<(std::ostream& os, Shape const& shape) { return os << shape.name; }

struct Addresses {
  explicit Addresses(AddressFamily family) : isIpv4(family == AddressFamily::ipv4) {}
  IpGenAddr numbered(U8 first, U32 number) const {
    std::array<U8, 16> bytes{first, 2};
    U8* const end = bytes.data() + (isIpv4 ? 4 : 16);
    for (int i = 1; i <= 3; ++i, number >>= 8) end[-i] = static_cast<U8>(number);
    return IpGenAddr::fromBytes({bytes.data(), isIpv4 ? 4u : 16u});
  }
  IpGenAddr own() const { return isIpv4 ? IpGenAddr("10.0.0.1") : IpGenAddr("fe80::1"); }
  IpGenAddr neighbor(U32 i) const {
    return isIpv4 ? IpGenAddr::ipv4(0x0a000002u + i) : IpGenAddr("fe80::" + std::to_string(i + 2));
  }
  IpGenAddr group(U32 i) const { return numbered(isIpv4 ? 225 : 0xff, i); }
  IpGenAddr source(U32 i) const { return numbered(isIpv4 ? 10 : 0x20, 0x90000 + i); }

  bool const isIpv4;
};

// The answers of the hooks depend on what is asked about and on nothing else.
bool deniesGroup(IpGenAddr const& group) { return group.bytes().back() % 7 == 3; }
bool suppressesEntry(IpGenAddr const& neighbor, IpGenAddr const& source, IpGenAddr const& group,
                     EntryKind kind) {
  U32 const sum = neighbor.bytes().back() + 3u * source.bytes().back() + 5u * group.bytes().back();
  return (sum + 7 * indexOf(kind)) % 5 == 1;
}
bool isDown(Seconds time) { return std::fmod(time, 4) < 1; }

// --- What comes out -------------------------------------------------------------------------------

using Sent = std::tuple<IpGenAddr, EntryKind, IpGenAddr, IpGenAddr, U16>;

struct Expiry {
  Seconds time;
  std::vector<Sent> entries;
  std::size_t packets = 0;
};

class Log {
 public:
  void add(Seconds time, std::span<U8 const> bytes, IpGenAddr const& source, std::size_t room) {
    EXPECT_LE(bytes.size(), room);
    auto const decoded = Wire::decodeJoinPrune(bytes, source, Wire::allPimRouters(source.af()));
    auto const* const message = std::get_if<Wire::JoinPrune>(&decoded);
    ASSERT_TRUE(message);
    if (all.empty() || all.back().time != time) all.push_back({time, {}});
    ++all.back().packets;
    for (auto const& set : message->groups())
      for (auto const& entry : set.sources())
        all.back().entries.emplace_back(message->upstreamNeighbor(), entry.kind, set.group(), entry.address,
                                        message->holdTime());
  }
  std::size_t packets() const {
    std::size_t sum = 0;
    for (Expiry const& expiry : all) sum += expiry.packets;
    return sum;
  }

  std::vector<Expiry> all;
};

// --- The two --------------------------------------------------------------------------------------

class Filter final : public JoinPruneFilter {
 public:
  bool deny(IpGenAddr const& group) const override { return deniesGroup(group); }
};

// A clock, and what was sent.
class Side {
 public:
  explicit Side(Shape const& shape) : addresses_(shape.family), shape_(shape) {}
  virtual ~Side() = default;

  virtual void add(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group,
                   IpGenAddr const& source) = 0;
  virtual void remove(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group,
                      IpGenAddr const& source) = 0;
  // Late: all that is due by then comes at the end.
  void advance(Seconds end, bool late = false) {
    if (late) time_ = end;
    while (nextDeadline() <= end) {
      time_ = std::max(time_, nextDeadline());
      expire();
    }
    time_ = end;
  }

  Log log;

 protected:
  virtual Seconds nextDeadline() const = 0;
  virtual void expire() = 0;
  // False while the link fails.
  bool send(std::span<U8 const> bytes, IpGenAddr const& source) {
    if (shape_.fails && isDown(time_)) return false;
    log.add(time_, bytes, source, shape_.mtu - (addresses_.isIpv4 ? 20 : 40));
    return true;
  }

  Addresses const addresses_;
  Shape const shape_;
  Seconds time_ = 0;
};

class Library final : public Side {
 public:
  Library(Shape const& shape, U32 neighbors) : Side(shape) {
    auto const pim = Vel::create<Status>();
    auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
    eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(addresses_.own(), addresses_.isIpv4 ? 24 : 64));
    eth0->joinPruneIntervalIs(shape.interval);
    eth0->joinPruneHoldTimeIs(static_cast<U16>(shape.interval * 7 / 2));
    pim->pimIntfIs(eth0);
    for (U32 i = 0; i < neighbors; ++i) pim->pimNeighborIs(addresses_.neighbor(i), eth0);
    status_->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    Speaker::Suppression suppression;
    if (shape.suppresses)
      suppression = [](auto const&, auto const& neighbor, RouteKey const& route, EntryKind kind) {
        return suppressesEntry(neighbor, route.source(), route.group(), kind);
      };
    auto const filter = shape.filters ? Vel::create<Filter>() : nullptr;
    manager_ = Vel::create<Speaker::PacketManager>(sink_, pim, filter, suppression);
    manager_->mtuIs(Dova::IntfId("eth0"), shape.mtu);
    manager_->dataSetsAre(status_);
    manager_->start();
    machine_ = joinPruneMessageSmFactory(status_, nullptr, pim, nullptr, nullptr, nullptr, nullptr, manager_,
                                         wheel_);
  }

  void add(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group, IpGenAddr const& source) override {
    auto const found = data(neighbor, way)->joinPruneGroupDataIs(group);
    if (!Packet::hasEntry(*found, kind, source)) Packet::addEntry(*found, kind, source);
  }
  void remove(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group,
              IpGenAddr const& source) override {
    if (auto const found = data(neighbor, way)->joinPruneGroupData(group))
      Packet::removeEntry(*found, kind, source);
  }

 private:
  Seconds nextDeadline() const override { return wheel_->timeMin(); }
  void expire() override { wheel_->expire(); }
  Vel::Ptr<Packet::JoinPruneData> data(U32 neighbor, Way way) const {
    IpGenAddr const address = addresses_.neighbor(neighbor);
    return way == Way::triggered ? status_->triggeredGroup(address)
                                 : status_->periodicGroupStatus()->upJoinPrune(address);
  }

  Speaker::ForwardedPackets sink_{[this](Speaker::OutgoingPacket const& packet) {
    if (!send(packet.bytes, packet.source)) throw std::runtime_error("the link is down");
  }};
  Vel::Ptr<Zanth::TimerWheel> wheel_ = Vel::create<Zanth::TimerWheel>([this] { return time_; });
  Vel::Ptr<JoinPruneStatus> status_ = joinPruneStatusFactory();
  Vel::Ptr<Speaker::PacketManager> manager_;
  Vel::Ptr<JoinPruneMessageSm> machine_;
};

class PlainOne final : public Side {
 public:
  PlainOne(Shape const& shape, U32 neighbors) : Side(shape) {
    Plain::Hooks hooks;
    hooks.now = [this] { return time_; };
    hooks.send = [this](std::span<U8 const> bytes) { return send(bytes, addresses_.own()); };
    if (shape.filters) hooks.deny = deniesGroup;
    if (shape.suppresses) hooks.suppress = suppressesEntry;
    engine_ =
        std::make_unique<Plain::Engine>(Plain::Settings{.address = addresses_.own(),
                                                        .mtu = shape.mtu,
                                                        .interval = shape.interval,
                                                        .holdTime = static_cast<U16>(shape.interval * 7 / 2)},
                                        hooks);
    for (U32 i = 0; i < neighbors; ++i) neighbors_.push_back(&engine_->neighborIs(addresses_.neighbor(i)));
  }

  void add(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group, IpGenAddr const& source) override {
    engine_->add(*neighbors_[neighbor], way, kind, group, source);
  }
  void remove(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group,
              IpGenAddr const& source) override {
    engine_->remove(*neighbors_[neighbor], way, kind, group, source);
  }

 private:
  Seconds nextDeadline() const override { return engine_->nextDeadline(); }
  void expire() override { engine_->expire(); }

  std::unique_ptr<Plain::Engine> engine_;
  std::vector<Plain::Engine::Neighbor*> neighbors_;
};

// Both, given the same.
class Both {
 public:
  explicit Both(Shape const& shape, U32 neighbors = 3) : ours(shape, neighbors), plain(shape, neighbors) {}

  void add(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group, IpGenAddr const& source) {
    ours.add(neighbor, way, kind, group, source);
    plain.add(neighbor, way, kind, group, source);
  }
  void remove(U32 neighbor, Way way, EntryKind kind, IpGenAddr const& group, IpGenAddr const& source) {
    ours.remove(neighbor, way, kind, group, source);
    plain.remove(neighbor, way, kind, group, source);
  }
  void advance(Seconds end, bool late = false) {
    ours.advance(end, late);
    plain.advance(end, late);
  }

  // The same entries at each expiry.
  void compareExpiries() {
    ASSERT_EQ(ours.log.all.size(), plain.log.all.size());
    for (std::size_t i = 0; i < ours.log.all.size(); ++i) {
      Expiry &mine = ours.log.all[i], &other = plain.log.all[i];
      ASSERT_NEAR(mine.time, other.time, 1e-6);
      std::sort(mine.entries.begin(), mine.entries.end());
      std::sort(other.entries.begin(), other.entries.end());
      ASSERT_EQ(mine.entries, other.entries) << "at " << mine.time;
    }
  }
  // Each has its own order of groups, and so other gaps at the messages' ends.
  void comparePackets() const {
    double const packets = static_cast<double>(ours.log.packets());
    EXPECT_NEAR(static_cast<double>(plain.log.packets()), packets, 0.02 * packets);
  }

  Library ours;
  PlainOne plain;
};

// --- Sending --------------------------------------------------------------------------------------

class PlainEngine : public testing::TestWithParam<Shape> {};

TEST_P(PlainEngine, SendsWhatTheLibrarySendsAtEachExpiryInAsManyPackets) {
  Shape const& shape = GetParam();
  Addresses const addresses(shape.family);
  Both both(shape);
  std::mt19937 random(1);
  auto const below = [&random](U32 end) { return static_cast<U32>(random() % end); };
  Seconds time = 0;
  std::map<EntryKind, U32> sentKinds;
  for (int round = 0; round < 120; ++round) {
    for (U32 left = below(60); left != 0; --left) {
      U32 const neighbor = below(3);
      auto const kind = entryKinds[below(6)];
      IpGenAddr const group = addresses.group(below(shape.groups));
      IpGenAddr const source = addresses.source(below(isWildcard(kind) ? 2 : shape.sources));
      Way const way = below(2) == 0 ? Way::triggered : Way::periodic;
      Way const other = way == Way::triggered ? Way::periodic : Way::triggered;
      switch (below(4)) {
        case 0:
          both.remove(neighbor, way, kind, group, source);
          break;
        case 1:  // to the other way
          both.remove(neighbor, way, kind, group, source);
          both.add(neighbor, other, kind, group, source);
          break;
        default:
          both.add(neighbor, way, kind, group, source);
      }
    }
    time += below(3) == 0 ? below(40) + 0.03 : 0.01 * below(12);
    both.advance(time, below(4) == 0);
  }
  both.compareExpiries();
  both.comparePackets();
  for (Expiry const& expiry : both.ours.log.all)
    for (Sent const& sent : expiry.entries) ++sentKinds[std::get<EntryKind>(sent)];
  for (EntryKind const kind : entryKinds) EXPECT_GT(sentKinds[kind], 100u) << text(kind);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PlainEngine,
    testing::Values(Shape{.name = "Usual"},
                    Shape{.name = "Ipv6", .family = AddressFamily::ipv6, .interval = 20},
                    Shape{.name = "SmallMtu", .mtu = 200},
                    Shape{.name = "GroupsLargerThanMessages", .mtu = 120, .groups = 8, .sources = 40},
                    Shape{.name = "Filtered", .filters = true},
                    Shape{.name = "Suppressed", .suppresses = true},
                    Shape{.name = "FilteredAndSuppressedInSmallMessages",
                          .family = AddressFamily::ipv6,
                          .mtu = 300,
                          .filters = true,
                          .suppresses = true},
                    Shape{.name = "LinkThatFails", .fails = true}),
    [](auto const& tested) { return tested.param.name; });

TEST(PlainEngineSlices, RefreshManyRoutesWithTheLibrarysPace) {
  Shape const shape{.name = "", .interval = 10};
  Addresses const addresses(shape.family);
  Both both(shape, 1);
  for (U32 i = 0; i < 5'300; ++i)
    both.add(0, Way::periodic, EntryKind::sourceJoin, addresses.group(i), addresses.source(i % 3));
  both.advance(45);
  auto const &ours = both.ours.log.all, &theirs = both.plain.log.all;
  ASSERT_GT(ours.size(), 5u);
  // Each has its own order of groups, so a slice is of other routes, but of as many.
  ASSERT_EQ(ours.size(), theirs.size());
  std::multiset<Sent> oursSent, theirsSent;
  for (std::size_t i = 0; i < ours.size(); ++i) {
    EXPECT_NEAR(ours[i].time, theirs[i].time, 1e-6);
    EXPECT_EQ(ours[i].entries.size(), theirs[i].entries.size());
    EXPECT_EQ(ours[i].packets, theirs[i].packets);
    oursSent.insert(ours[i].entries.begin(), ours[i].entries.end());
    theirsSent.insert(theirs[i].entries.begin(), theirs[i].entries.end());
    if (oursSent.size() % 5'300 == 0) {
      EXPECT_EQ(oursSent, theirsSent) << "after whole rounds";
    }
  }
  EXPECT_GT(oursSent.size(), 3 * 5'300u);
}

TEST(PlainEngineGroups, AreWalkedOnceIfTheyStayWhileOthersComeAndGo) {
  Addresses const addresses(AddressFamily::ipv4);
  Plain::Groups groups;
  // Groups of one source, and others of 50, in which the walk pauses.
  auto const routeOf = [&](U32 i) {
    return i < 1'000 ? std::pair(addresses.group(i), addresses.source(0))
                     : std::pair(addresses.group(i / 50 * 50), addresses.source(i % 50));
  };
  // A third of the routes, in half of the groups of 50.
  auto const isStanding = [](U32 i) { return i % 3 == 0 && (i < 1'000 || i / 50 % 2 == 0); };
  auto const add = [&](U32 i) { groups.add(EntryKind::sourceJoin, routeOf(i).first, routeOf(i).second); };
  std::mt19937 random(1);
  std::set<std::pair<IpGenAddr, IpGenAddr>> standing;
  for (U32 i = 0; i < 2'000; ++i) {
    add(i);
    if (isStanding(i)) standing.insert(routeOf(i));
  }
  U32 atMost = 0;
  for (int walk = 0; walk < 40; ++walk) {
    std::multiset<std::pair<IpGenAddr, IpGenAddr>> met;
    do {
      auto& cursor = groups.cursor;
      for (U32 left = 1 + static_cast<U32>(random() % 30); left != 0 && cursor.group < groups.size();
           --left) {
        Plain::Group& group = groups[cursor.group];
        met.emplace(group.address, group.entries.begin()[cursor.entry].address);
        if (++cursor.entry == group.entries.size()) cursor = {cursor.group + 1, 0};
      }
      if (cursor.group == groups.size()) cursor = {};
      // The very first group stays, so that no other place is that of the front.
      for (U32 left = static_cast<U32>(random() % 100); left != 0; --left) {
        U32 const route = static_cast<U32>(random() % 2'000);
        if (isStanding(route)) continue;
        if (random() % 2 == 0)
          add(route);
        else
          groups.remove(EntryKind::sourceJoin, routeOf(route).first, routeOf(route).second);
      }
    } while (groups.cursor.group != 0 || groups.cursor.entry != 0);
    for (auto const& route : standing) ASSERT_EQ(met.count(route), 1u) << route.first << " in walk " << walk;
    atMost = std::max(atMost, static_cast<U32>(met.size()));
  }
  EXPECT_GT(atMost, standing.size());
}

TEST(PlainEngineBursts, SendsManyTriggeredRoutesAtOnceLikeTheLibrary) {
  Shape const shape{.name = ""};
  Addresses const addresses(shape.family);
  Both both(shape, 1);
  for (U32 i = 0; i < 12'000; ++i)
    both.add(0, Way::triggered, entryKinds[i % 6], addresses.group(i / 2), addresses.source(i % 11));
  both.advance(1);
  both.compareExpiries();
  both.comparePackets();
  ASSERT_EQ(both.plain.log.all.size(), 1u);
  // A group's (*,G) prune has taken the place of its join.
  EXPECT_EQ(both.plain.log.all[0].entries.size(), 12'000u - 12'000u / 6);
}

// --- Receiving ------------------------------------------------------------------------------------

using Heard = std::tuple<bool, IpGenAddr, double, IpGenAddr, IpGenAddr, IpGenAddr, U8, U32>;

class Watching final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  Watching(std::vector<Heard>& heard, bool join) : heard_(heard), join_(join) {}
  void onRxCount() override {
    auto const record = notifier();
    heard_.emplace_back(join_, record->upstreamNeighbor(), record->holdTime(), record->riKey().source(),
                        record->riKey().group(), record->wcSource(), record->sourceFlags().value(),
                        record->rxCount());
  }

 private:
  std::vector<Heard>& heard_;
  bool const join_;
};

class Listening final : public Plain::Observer {
 public:
  void onEntry(EntryKind kind, Plain::Record const& record) override {
    heard.emplace_back(isJoin(kind), record.upstreamNeighbor, record.holdTime, record.source, record.group,
                       record.rp, record.flags, record.count);
  }
  std::vector<Heard> heard;
};

// Disagrees with some of the RPs that messages name.
IpGenAddr rpOf(IpGenAddr const& group, IpGenAddr const& rp) {
  return group.bytes().back() % 3 == 0 ? IpGenAddr("10.9.9.9") : rp;
}
class Hash final : public RpHashComputeStatus {
 public:
  IpGenAddr rpHashCompute(IpGenAddr const& group, IpGenAddr const& rp) override { return rpOf(group, rp); }
};

TEST(PlainEngineReceiver, RecordsTheEntriesThatTheLibraryRecords) {
  Addresses const addresses(AddressFamily::ipv4);
  std::vector<Heard> heard;
  auto const join = joinPruneMessageInfoFactory(), prune = joinPruneMessageInfoFactory();
  auto const joins = Vel::create<Watching>(heard, true), prunes = Vel::create<Watching>(heard, false);
  joins->notifierIs(join);
  prunes->notifierIs(prune);
  auto const channel = Vel::create<IO::MessageInfo>();
  auto const machine = joinPruneMessageSmFactory(nullptr, Vel::create<Filter>(), nullptr, Vel::create<Hash>(),
                                                 join, prune, channel, nullptr, nullptr);
  Plain::Hooks hooks;
  hooks.deny = deniesGroup;
  hooks.rpOf = rpOf;
  Plain::Engine plain({}, hooks);
  Listening listening;
  plain.observerIs(listening);

  std::mt19937 random(1);
  for (int message = 0; message < 200; ++message) {
    auto const data = Vel::create<Packet::JoinPruneData>(addresses.neighbor(0));
    data->holdTimeIs(static_cast<U16>(random() % 1000));
    for (U32 i = 0; i < 40; ++i) {
      auto const kind = entryKinds[random() % 6];
      Packet::addEntry(*data->joinPruneGroupDataIs(addresses.group(static_cast<U32>(random() % 12))), kind,
                       addresses.source(static_cast<U32>(random() % 5)));
    }
    Plain::Received received{data->upstreamNeighbor(), data->holdTime(), {}, {}};
    for (auto group = data->joinPruneGroupDataIterator(); group; ++group) {
      U32 const first = static_cast<U32>(received.entries.size());
      Packet::forEachEntry(*group, [&](EntryKind kind, IpGenAddr const& address) {
        received.entries.push_back({address, kind});
      });
      received.groups.push_back({group->group(), first, static_cast<U32>(received.entries.size()) - first});
    }
    auto const structured = Vel::create<Packet::JoinPruneMessage>();
    structured->joinPruneDataIs(data);
    channel->joinPruneMessageIs(structured);
    channel->countInc(1);
    plain.receive(received);
  }
  EXPECT_GT(heard.size(), 4'000u);
  EXPECT_EQ(heard, listening.heard);
}

}  // namespace
}  // namespace Routing::Pim
