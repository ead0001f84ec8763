// SPDX-License-Identifier: Apache-2.0
// The machines take short cuts while no reactor watches and nothing is traced. Both ways have one outcome.
#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {
namespace {

using Dova::IpGenAddr;

/// Watches the record of a receive direction, a neighbor machine or a periodic machine, and does nothing.
template <class Base>
class Watch final : public Base {};

/// A world in which random operations are done, quietly or with everything watched and traced.
class RandomWorld : private World {
 public:
  RandomWorld(unsigned seed, bool loud) : random_(seed), loud_(loud) {
    if (loud_) log_.emplace();
    srand48(static_cast<long>(seed));
    if (seed % 2 == 0) fillMoreThanASlice();
    start();
    for (auto const* const address : neighbors) neighbor(address, eth0_);
    if (loud_) {
      joinWatch_->notifierIs(rxJoin);
      pruneWatch_->notifierIs(rxPrune);
    }
  }

  /// What can be seen of the world after each operation.
  Lines perform(int operations) {
    Lines seen;
    while (operations-- > 0) {
      watchMachines();
      seen.push_back(performOne());
      look(seen);
    }
    return seen;
  }

 private:
  static constexpr char const* neighbors[] = {"10.0.0.2", "10.0.0.3"};

  // What is there at the start sets the time of the first refresh, by the first group that is counted.
  void fillMoreThanASlice() {
    auto const data = periodicStatus()->upJoinPruneIs(addr(neighbors[0]));
    for (auto const* const big : {"239.2.0.1", "239.2.0.2"})
      for (U32 n = 0; n < 600; ++n)
        data->joinPruneGroupDataIs(addr(big))->joinedSourceIs(IpGenAddr::ipv4(0x0a100000 + n));
  }

  U32 below(U32 n) { return static_cast<U32>(random_() % n); }
  IpGenAddr source() { return IpGenAddr::ipv4(0x0a090001 + below(4)); }
  IpGenAddr group() { return IpGenAddr::ipv4(0xef010101 + below(4)); }

  Vel::Ptr<Packet::JoinPruneData> dataSet(char const* neighbor, U32 which) {
    return which == 0 ? triggered(neighbor) : which == 1 ? override_(neighbor) : periodic(neighbor);
  }

  void watchMachines() {
    if (!loud_) return;
    for (auto const* const address : neighbors) {
      auto const neighborMachine = sm(address);
      if (!neighborMachine) continue;
      auto& watches = watches_[neighborMachine.get()];
      if (watches.first) continue;
      watches.first = Vel::create<Watch<JoinPruneNeighborSm::NotifieeConst>>();
      watches.first->notifierIs(neighborMachine);
      watches.second = Vel::create<Watch<PeriodicTimerSm::NotifieeConst>>();
      watches.second->notifierIs(neighborMachine->joinPrunePeriodicTimerSm());
    }
  }

  std::string performOne() {
    auto const* const target = neighbors[below(std::size(neighbors))];
    auto const data = dataSet(target, below(3));
    switch (U32 const what = below(100)) {
      case 0:
      case 1:
        watches_.clear();
        machine = nullptr;
        start();
        return "restart";
      case 2:
        if (data) data->joinPruneGroupDataNotifyImmediate();
        return "notify";
      case 3:
        if (data) data->joinPruneGroupDataIs(group());
        return "an empty group";
      case 4:
      case 5:
        return repoint(target);
      case 6:
      case 7:
      case 8:
      case 9:
        runUntil(time + below(40) * 0.1);
        return "time";
      case 10:
        runUntil(time + 60);
        return "a minute";
      default:
        if (what < 30) return receive();
        if (!data) return "no data";
        if (what < 70) {
          auto const kind = entryKinds[below(static_cast<U32>(entryKinds.size()))];
          Packet::addEntry(*data->joinPruneGroupDataIs(group()), kind, source());
          return "add " + std::string(Pim::text(kind));
        }
        return remove(*data);
    }
  }

  // The triggered data becomes another set, with which there is nothing to compare if it was empty.
  std::string repoint(char const* target) {
    auto const neighborMachine = sm(target);
    if (!neighborMachine) return "no machine";
    auto const data = Vel::create<Packet::JoinPruneData>(addr(target));
    for (U32 groups = below(4); groups > 0; --groups) {
      auto const made = data->joinPruneGroupDataIs(group());
      if (below(2) == 0) made->joinedSourceIs(source());
    }
    neighborMachine->triggeredGroup()->notifierIs(data);
    return "another set";
  }

  std::string remove(Packet::JoinPruneData& data) {
    auto const found = data.joinPruneGroupData(group());
    if (!found) return "nothing to remove";
    auto const kind = entryKinds[below(static_cast<U32>(entryKinds.size()))];
    Packet::removeEntry(*found, kind, source());
    return "remove " + std::string(Pim::text(kind));
  }

  std::string receive() {
    auto const data = Vel::create<Packet::JoinPruneData>(addr("10.0.0.1"));
    data->holdTimeIs(static_cast<U16>(100 + below(3)));
    for (U32 groups = below(4); groups > 0; --groups) {
      auto const made = data->joinPruneGroupDataIs(group());
      bool const joinsAlone = below(2) == 0;
      for (U32 entries = below(4); entries > 0; --entries)
        Packet::addEntry(*made, joinsAlone ? EntryKind::sourceJoin : entryKinds[below(6)], source());
    }
    auto const message = Vel::create<Packet::JoinPruneMessage>();
    message->joinPruneDataIs(data);
    channel->joinPruneMessageIs(message);
    channel->intfIdIs(eth0_->intfId());
    channel->countInc(1);
    return "receive";
  }

  void look(Lines& seen) {
    std::ostringstream os;
    os.precision(12);
    os << "earliest " << wheel->timeMin() << ", armed " << wheel->armedCount() << ", messages "
       << manager->messages << "; join " << rxJoin.get() << ' ' << rxJoin->wcSource() << ' '
       << rxJoin->rxCount() << "; prune " << rxPrune.get() << ' ' << rxPrune->wcSource() << ' '
       << rxPrune->rxCount();
    for (auto const& line : std::exchange(manager->sent, {})) os << "\n  sent " << line;
    for (auto const* const address : neighbors) look(os, address);
    seen.push_back(os.str());
  }

  void look(std::ostream& os, char const* address) {
    auto const neighborMachine = sm(address);
    if (!neighborMachine) return;
    auto const periodicMachine = neighborMachine->joinPrunePeriodicTimerSm();
    os << "\n  " << address << ": routes " << neighborMachine->numPeriodicRoutes() << ", triggered "
       << neighborMachine->triggeredTimer()->timeMin() << ", override "
       << neighborMachine->overrideTimer()->timeMin() << ", periodic "
       << periodicMachine->periodicTimer()->timeMin() << " of " << periodicMachine->periodicParams().routes
       << " routes every " << periodicMachine->periodicParams().interval;
    for (auto i = neighborMachine->triggeredGroupDataIterator(); i; ++i) os << " t" << i.key();
    for (auto i = neighborMachine->overrideGroupDataIterator(); i; ++i) os << " o" << i.key();
    for (auto i = neighborMachine->periodicGroupDataIterator(); i; ++i)
      os << " p" << i.key() << i->wcSourceSet();
    for (U32 which = 0; which < 3; ++which) {
      auto const data = dataSet(address, which);
      if (!data) continue;
      os << " hold " << data->holdTime();
      for (auto i = data->joinPruneGroupDataIterator(); i; ++i) {
        os << ' ' << i.key() << ' ' << i->routes();
        if (i->routes() > 20) continue;
        Packet::forEachEntry(*i, [&](EntryKind kind, IpGenAddr const& entry) {
          os << ' ' << Pim::text(kind) << ' ' << entry;
        });
      }
    }
  }

  std::mt19937 random_;
  bool const loud_;
  std::optional<TraceLog> log_;
  Vel::Ptr<Intf> const eth0_ = intf("eth0", "10.0.0.1/24");
  Vel::Ptr<Watch<JoinPruneMessageInfo::NotifieeConst>> const joinWatch_ =
      Vel::create<Watch<JoinPruneMessageInfo::NotifieeConst>>();
  Vel::Ptr<Watch<JoinPruneMessageInfo::NotifieeConst>> const pruneWatch_ =
      Vel::create<Watch<JoinPruneMessageInfo::NotifieeConst>>();
  std::map<JoinPruneNeighborSm const*, std::pair<Vel::Ptr<Watch<JoinPruneNeighborSm::NotifieeConst>>,
                                                 Vel::Ptr<Watch<PeriodicTimerSm::NotifieeConst>>>>
      watches_;
};

TEST(QuietTest, WhatIsWatchedAndTracedEndsAsWhatNobodyWatches) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    Lines const quiet = RandomWorld(seed, false).perform(100);
    Lines const loud = RandomWorld(seed, true).perform(100);
    ASSERT_EQ(quiet.size(), loud.size());
    for (std::size_t i = 0; i < quiet.size(); ++i)
      ASSERT_EQ(quiet[i], loud[i]) << "seed " << seed << ", operation " << i / 2;
  }
}

}  // namespace
}  // namespace Routing::Pim
