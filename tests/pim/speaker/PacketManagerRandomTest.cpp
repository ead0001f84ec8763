// SPDX-License-Identifier: Apache-2.0
// A packet manager with random data, and with very much of it.
#include <random>

#include "runtime/scrivo/CycleCounter.h"
#include "tests/Thorough.h"
#include "tests/pim/speaker/PacketManagerScene.h"

namespace Routing::Pim::Speaker {
namespace {

// --- Cost

TEST_F(PacketManagerTest, AHundredThousandPendingGroupsCostTheSameForEachAsAHundred) {
  // Nanoseconds of processor time for an entry to be added, sent again and again, and sent once.
  auto const cost = [this](U32 groups) {
    std::array<double, 3> total = {};
    U32 const repeats = std::max(10'000 / groups, 1u);
    for (U32 repeat = 0; repeat < repeats; ++repeat) {
      auto const data = dataIs("10.0.0.2");
      auto const timed = [&](std::size_t what, auto const& work) {
        auto const start = Scrivo::clockNanoseconds(CLOCK_THREAD_CPUTIME_ID);
        work();
        total[what] +=
            static_cast<double>(Scrivo::clockNanoseconds(CLOCK_THREAD_CPUTIME_ID) - start) / groups / repeats;
      };
      timed(0, [&] {
        for (U32 n = 0; n < groups; ++n)
          data->joinPruneGroupDataIs(behind("239.0.0.0", n))->joinedSourceIs(IpGenAddr("10.9.0.1"));
      });
      data->periodicIs(true);
      timed(1, [&] {
        for (U32 done = 0; done < groups;) done += ask(data).sources;
      });
      data->periodicIs(false);
      timed(2, [&] { askForAll(data); });
      EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
      captured.take();
    }
    return total;
  };
  // The computer may be busy with something else: one good measurement of each is enough.
  auto few = cost(100), many = cost(100'000);
  auto const alike = [&](std::size_t i) { return many[i] < 8 * few[i]; };
  for (int attempt = 0; attempt < 2 && !(alike(0) && alike(1) && alike(2)); ++attempt) {
    auto const again = cost(100'000);
    for (std::size_t i = 0; i < many.size(); ++i) many[i] = std::min(many[i], again[i]);
  }
  for (std::size_t i = 0; i < few.size(); ++i)
    EXPECT_PRED1(alike, i) << std::array{"adding: ", "refreshing: ", "sending: "}[i] << few[i]
                           << " ns with 100, " << many[i] << " ns with 100,000";
}

// --- Random data

/// Keeps to itself what it adds, so that a test can say what it was.
class RandomData {
 public:
  RandomData(U32 seed, bool four) : random_(seed), four_(four) {}

  U32 below(U32 limit) { return static_cast<U32>(random_() % limit); }
  IpGenAddr group(U32 n) const { return behind(four_ ? "239.1.1.0" : "ff0e::", n); }
  IpGenAddr source(U32 n) const { return behind(four_ ? "10.9.0.1" : "2001:db8::1", n); }
  bool four() const { return four_; }

  void add(Data const& data, U32 groups, U32 sources) {
    add(data->joinPruneGroupDataIs(group(below(groups))), sources);
  }
  void add(Group const& to, U32 sources) {
    IpGenAddr const s = source(below(sources));
    switch (below(9)) {
      case 0:
        if (!to->wcSourceData()) to->wcSourceDataIs(wildcardOf(source(below(3)), below(3) != 0));
        break;
      case 1:
      case 2:
        to->joinedSourceIs(s);
        break;
      case 3:
      case 4:
        to->prunedSourceIs(s);
        break;
      case 5:
      case 6:
        to->joinedRptSourceIs(s);
        break;
      default:
        to->prunedRptSourceIs(s);
    }
    if (to->empty()) to->joinedSourceIs(s);
  }

 private:
  std::mt19937 random_;
  bool const four_;
};

TEST_F(PacketManagerTest, SendsEverythingThatIsPendingOnceWithoutBreakingARule) {
  for (U32 seed = 1; seed <= (thorough() ? 400u : 200u); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomData random(seed, seed % 2);
    char const* const intf = random.four() ? "eth0" : "eth6";
    auto const data = dataIs(random.four() ? "10.0.0.2" : "fe80::2");
    U32 const groups = 1 + random.below(40), sources = 1 + random.below(12);
    for (U32 n = 1 + random.below(300); n; --n) random.add(data, groups, sources);
    // With room for a (*,G) join and all prunes that a group can have.
    U32 const smallest = random.four() ? 34 + 12 + 8 * 13 : 66 + 24 + 20 * 13;
    U32 const mtu = smallest + random.below(600);
    mtuIs(intf, mtu);
    auto const pending = entriesOf(data);
    // What is sent beside a (*,G) join: the prunes that do not wait for a join.
    std::map<IpGenAddr, std::set<IpGenAddr>> along;
    for (auto i = data->joinPruneGroupDataIterator(); i; ++i) {
      if (!i->wcSourceData() || !i->wcSourceData()->join()) continue;
      auto& prunes = along[i.key()];
      for (auto s = i->prunedRptSourceIterator(); s; ++s)
        if (!i->joinedRptSource(s.key())) prunes.insert(s.key());
    }

    askForAll(data, intf);

    EXPECT_EQ(entriesOf(packets()), pending);
    EXPECT_EQ(data->joinPruneGroupDataCount(), 0u);
    for (auto const& packet : captured.take()) {
      expectRules(packet, mtu);
      for (auto const& group : packet.message.groups()) {
        if (group.joins().empty() || group.joins()[0].kind != EntryKind::wildcardJoin) continue;
        std::set<IpGenAddr> prunes;
        for (auto const& prune : group.prunes())
          if (prune.kind == EntryKind::sourceRptPrune) prunes.insert(prune.address);
        EXPECT_EQ(prunes, along[group.group()]) << group.group();
      }
    }
    if (HasFailure()) return;
  }
}

TEST_F(PacketManagerTest, NeverExceedsTheMtuWhateverItIs) {
  for (bool const four : {true, false}) {
    char const* const intf = four ? "eth0" : "eth6";
    for (U32 mtu = four ? 54 : 110; mtu < 300; ++mtu) {
      SCOPED_TRACE("mtu " + std::to_string(mtu));
      RandomData random(mtu, four);
      auto const data = dataIs(four ? "10.0.0.2" : "fe80::2");
      for (U32 n = 60; n; --n) random.add(data, 6, 20);
      mtuIs(intf, mtu);
      U32 const routes = static_cast<U32>(entriesOf(data).size());
      U64 accounted = 0;
      while (data->joinPruneGroupDataCount() != 0) {
        auto const report = ask(data, intf);
        accounted += report.sources + report.skipped();
        ASSERT_NE(report.sources + report.skipped(), 0u);
      }
      EXPECT_EQ(accounted, routes);
      for (auto const& packet : captured.take()) expectRules(packet, mtu);
    }
  }
}

TEST_F(PacketManagerTest, SendsEachPeriodicRouteThatStaysOnceARoundWhileOthersComeAndGo) {
  U32 const worlds = thorough() ? 30 : 3;
  for (U32 seed = 1; seed <= worlds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomData random(seed, seed % 2);
    char const* const intf = random.four() ? "eth0" : "eth6";
    mtuIs(intf, (random.four() ? 34 + 12 : 66 + 24) + 20 * (14 + random.below(10)));
    auto const data = dataIs(random.four() ? "10.0.0.2" : "fe80::2", true);
    // The first group of the walk stays, with a (*,G) entry: it is what a round begins with.
    for (U32 n = 0; n < 30; ++n) data->joinPruneGroupDataIs(random.group(n));
    IpGenAddr const first = data->joinPruneGroupDataIterator().key();
    for (U32 n = 0; n < 30; ++n)
      if (random.group(n) != first) data->joinPruneGroupDataDel(random.group(n));
    IpGenAddr const rp = random.source(20);
    data->joinPruneGroupData(first)->wcSourceDataIs(wildcardOf(rp, false));
    std::string const beginning = entry(EntryKind::wildcardPrune, rp, first);
    for (U32 n = 0; n < 150; ++n) random.add(data, 30, 12);

    // An entry that waits for the other of its kind is not sent; such pairs are none of this test's concern.
    auto const paired = [&](Packet::JoinPruneGroupData const& group, IpGenAddr const& s) {
      return (group.joinedSource(s) && group.prunedSource(s)) ||
             (group.joinedRptSource(s) && group.prunedRptSource(s));
    };
    auto const withoutPairs = [&] {
      for (auto i = data->joinPruneGroupDataIterator(); i; ++i)
        for (U32 n = 0; n < 12; ++n)
          if (paired(*i, random.source(n))) {
            i->prunedSourceDel(random.source(n));
            i->prunedRptSourceDel(random.source(n));
          }
    };
    withoutPairs();

    std::set<std::string> stayed;  // since the beginning of the round
    std::map<std::string, int> sent;
    auto const present = [&] {
      auto const all = entriesOf(data);
      return std::set<std::string>(all.begin(), all.end());
    };
    stayed = present();
    int rounds = 0;
    for (U32 messages = 0; messages < 150; ++messages) {
      ask(data, intf);
      auto const all = captured.take();
      ASSERT_THAT(all, SizeIs(1));
      expectRules(all[0], manager->mtu(all[0].intf));
      auto const entries = entriesOf(all[0].message);
      if (messages != 0 && std::count(entries.begin(), entries.end(), beginning)) {
        ++rounds;
        for (auto const& e : stayed) EXPECT_EQ(sent[e], 1) << e << " in round " << rounds;
        sent.clear();
        stayed = present();
      }
      for (auto const& e : entries) ++sent[e];
      if (HasFailure()) return;

      for (U32 changes = random.below(4); changes; --changes) {
        Group const group = data->joinPruneGroupData(random.group(random.below(30)));
        if (random.below(2) || !group) {
          random.add(data, 30, 12);
        } else if (group->group() == first || random.below(4)) {
          IpGenAddr const s = random.source(random.below(12));
          group->joinedSourceDel(s);
          group->prunedRptSourceDel(s);
        } else {
          data->joinPruneGroupDataDel(group->group());
        }
      }
      withoutPairs();
      // Every set that was present at some time, and is no longer, has not stayed.
      auto const now = present();
      std::erase_if(stayed, [&](std::string const& e) { return !now.contains(e); });
    }
    EXPECT_GT(rounds, 5);
  }
}

}  // namespace
}  // namespace Routing::Pim::Speaker
