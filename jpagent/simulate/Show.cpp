// SPDX-License-Identifier: Apache-2.0
// What is shown of machines and of what is pending.
#include <algorithm>
#include <set>

#include "jpagent/simulate/Inside.h"
#include "jpagent/simulate/RouteData.h"

namespace Routing::Pim::Jpagent {

void Simulation::on(ShowCommand const& command) {
  std::set<IpGenAddr> targets;
  auto const collect = [&targets](auto i) {
    for (; i; ++i) targets.insert(i.key());
  };
  if (machine_) collect(machine_->joinPruneNeighborSmIterator());
  collect(status_->triggeredGroupIterator());
  collect(status_->overrideGroupIterator());
  collect(status_->periodicGroupStatus()->upJoinPruneIterator());
  if (targets.empty()) line("show no targets");
  for (auto const& address : targets) command.sets ? showEntries(address) : showTarget(address);
}

void Simulation::showTarget(IpGenAddr const& address) {
  auto const data = dataOf(address);
  auto const sm = machine_ ? machine_->joinPruneNeighborSm(address) : nullptr;
  std::string text = sm ? fmt::format("show {} on {}, {}", toText(address), sm->intf()->intfId().name(),
                                      sm->neighbor() ? "neighbor" : "interface")
                        : fmt::format("show {} without a machine", toText(address));
  for (std::size_t i = 0; i < data.size(); ++i) {
    text += fmt::format("; {} ", sendKindNames[i]);
    text += data[i] ? counted(data[i]->joinPruneGroupDataCount(), "group") : "gone";
    if (!sm) continue;
    U32 const watched[] = {sm->triggeredGroupDataCount(), sm->overrideGroupDataCount(),
                           sm->periodicGroupDataCount()};
    if (data[i] && watched[i] != data[i]->joinPruneGroupDataCount())
      text += fmt::format(" ({} watched)", watched[i]);
    if (static_cast<SendKind>(i) == SendKind::periodic)
      text += fmt::format(", {}", counted(sm->numPeriodicRoutes(), "route"));
    Seconds const time = timersOf(*sm)[i];
    if (time == Vel::never) continue;
    text += fmt::format(", at {}", secondsText(time));
    if (static_cast<SendKind>(i) != SendKind::periodic) continue;
    auto const slice = sm->joinPrunePeriodicTimerSm()->periodicParams();
    text += fmt::format(", then {} every {}", slice.routes, secondsText(slice.interval));
  }
  line(text);
}

void Simulation::showEntries(IpGenAddr const& address) {
  auto const data = dataOf(address);
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (!data[i]) continue;
    auto const entries = entriesOf(*data[i]);
    // What has lines pays for itself.
    lookedAt_ += 1 + data[i]->joinPruneGroupDataCount() -
                 std::min<std::size_t>(data[i]->joinPruneGroupDataCount(), entries.size());
    for (auto const& entry : entries)
      line(fmt::format("show {} {} {}", toText(address), sendKindNames[i], toText(entry)));
    std::set<IpGenAddr> empty;
    for (auto const& group : data[i]->joinPruneGroupDataIterator())
      if (group.empty()) empty.insert(group.group());
    for (auto const& group : empty)
      line(fmt::format("show {} {} group {} without entries", toText(address), sendKindNames[i],
                       toText(group)));
  }
}

}  // namespace Routing::Pim::Jpagent
