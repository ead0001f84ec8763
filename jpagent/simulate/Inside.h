// SPDX-License-Identifier: Apache-2.0
// What the files of the simulation share: its parts, and how they write.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "jpagent/common/PrefixTable.h"
#include "jpagent/simulate/Simulation.h"

namespace Routing::Pim::Jpagent {

/// Sums of doubles may miss the end of a wait by this much.
inline constexpr Seconds hair = 1e-9;

/// A command that cannot be performed.
template <class... Arguments>
[[noreturn]] void refuse(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
  throw std::range_error(fmt::format(format, std::forward<Arguments>(arguments)...));
}

inline std::string secondsText(Seconds seconds) { return fmt::format("{:.3f}", seconds); }

inline std::string pointerText(void const* pointer) { return fmt::format("{}", pointer); }

/// "1 route", "2 routes".
inline std::string counted(std::size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

/// The levels of the traces that a conversation shows: bit n is level n.
void traceLevelsAre(U32 levels);

/// The times of a machine's timers, in the order of `SendKind`.
std::array<Seconds, sendKindNames.size()> timersOf(JoinPruneNeighborSm const& sm);

// --- The inputs that are the simulation's own, and what tells of the outputs.

class Simulation::Rps final : public RpHashComputeStatus {
 public:
  IpGenAddr rpHashCompute(IpGenAddr const& group, IpGenAddr const& rp) override {
    return table.rp(group, rp);
  }
  RpTable table;
};

class Simulation::Groups final : public JoinPruneFilter {
 public:
  bool deny(IpGenAddr const& group) const override { return named_.longest(group) != nullptr; }
  void add(IpGenPrefix const& groups) { named_[groups].insert(groups.ipGenAddr()); }
  /// False if it was not added in these words, host bits included.
  bool remove(IpGenPrefix const& groups) {
    auto* const forms = named_.find(groups);
    if (!forms || forms->erase(groups.ipGenAddr()) == 0) return false;
    if (forms->empty()) named_.erase(groups);
    return true;
  }

 private:
  PrefixTable<std::set<IpGenAddr>> named_;  // with the addresses by which they were named
};

// Does not keep the message machine alive, so that `drop` drops it.
class Simulation::MachineWatch final : public JoinPruneMessageSm::NotifieeConst {
 public:
  explicit MachineWatch(Simulation& simulation) : simulation_(simulation) { isNondestructingIs(true); }
  void onJoinPruneNeighborSm(IpGenAddr address) override { simulation_.machineChanged(address); }

 private:
  Simulation& simulation_;
};

// Hears of each timer before it is called.
class Simulation::ExpiryWatch final : public Zanth::TimerExpiry::NotifieeConst {
 public:
  explicit ExpiryWatch(Simulation& simulation) : simulation_(simulation) {}
  void onTimer() override { simulation_.timerFires(*notifier()->timer()); }

 private:
  Simulation& simulation_;
};

class Simulation::RecordWatch final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  RecordWatch(Simulation& simulation, bool join) : simulation_(simulation), join_(join) {}
  void onRxCount() override { simulation_.recorded(*notifier(), join_); }

 private:
  Simulation& simulation_;
  bool const join_;
};

}  // namespace Routing::Pim::Jpagent
