// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/private/MessageComposer.h"

namespace Routing::Pim::Speaker::Detail {

void Composer::takeOut() {
  for (Leaving const& leaving : leaving_) {
    GroupData& group = *leaving.group;
    // A record that has been replaced meanwhile is another entry.
    if (leaving.wildcard && group.wcSourceData() == leaving.wildcard) group.wcSourceDataDel();
    for (auto const& [kind, source] : leaving.sources) Packet::removeEntry(group, kind, source);
    if (group.empty() && data_->joinPruneGroupData(group.group()) == leaving.group)
      data_->joinPruneGroupDataDel(group.group());
  }
}

bool Composer::addWildcard() {
  Vel::Ptr<Packet::WcSourceData> const wildcard = group_->wcSourceData();
  if (!wildcard) return true;
  if (passedOver_ >= PacketManager::maxPassedOver) return false;
  RouteKey const route(IpGenAddr::zero(family_), here_.group);
  EntryKind const kind = kindOf(*wildcard);
  if (denied()) {
    passOverFiltered();
    leaveWildcard(wildcard);
    return true;
  }
  if (auto const fault = faultOf(wildcard->address())) {
    passOverFaulty(route, kind, *fault);
    return true;
  }
  if (wildcard->join() && wasHeard(route)) {
    // Its prunes are not refreshed without it.
    report_.suppressedSources += group_->prunedRptSourceCount();
    passOverSuppressed();
    here_.stage = rptPruneStage;
    return true;
  }
  // A join and its prunes go into the next message rather than being parted. An empty one has room for as
  // many as are asked for.
  if (!fits(1 + (wildcard->join() ? prunesAlong() : 0))) return false;
  if (suppressed(route, kind)) {
    passOverSuppressed();
    leaveWildcard(wildcard);
    return true;  // The prunes go for themselves.
  }
  openGroup();
  message_.entryAdd(kind, wildcard->address());
  count();
  leaveWildcard(wildcard);
  if (wildcard->join()) takePrunesAlong();
  return true;
}

std::size_t Composer::prunesAlong() const {
  std::size_t count = 0;
  for (PrunesBeside prunes = prunesBeside(); prunes && count <= capacity_; ++prunes) {
    IpGenAddr const& source = prunes.key();
    bool const isOwn = group_->prunedRptSource(source);
    if (isOwn ? !faultOf(source) && !waits(EntryKind::sourceRptPrune, source) : goesAlong(prunes)) ++count;
  }
  return std::min(count, capacity_);
}

void Composer::takePrunesAlong() {
  U32 leftOut = 0;
  for (PrunesBeside prunes = prunesBeside(); prunes; ++prunes) {
    IpGenAddr const source = prunes.key();
    bool const isOwn = group_->prunedRptSource(source);
    if (isOwn ? passOver(EntryKind::sourceRptPrune, source) : !goesAlong(prunes)) continue;
    if (leftOut == 0 && fits(1)) {
      isOwn ? take(EntryKind::sourceRptPrune, source) : addPrune(source);
      continue;
    }
    ++leftOut;
    if (!isOwn) continue;
    passOverSuppressed();
    leave(EntryKind::sourceRptPrune, source);
  }
  prunesLeftOut_ += leftOut;
  if (leftOut != 0) {
    AGENT_TRACE(*this << "no room beside the (*,G) join of " << here_.group << " for " << leftOut
                      << " (S,G,rpt) prunes, left out");
  }
  here_.stage = rptPruneStage;  // Done, too.
}

bool Composer::passOver(EntryKind kind, IpGenAddr const& source) {
  if (denied()) {
    passOverFiltered();
    leave(kind, source);
    return true;
  }
  if (auto const fault = faultOf(source)) {
    passOverFaulty(RouteKey(source, here_.group), kind, *fault);
    return true;
  }
  if (waits(kind, source)) {
    ++passedOver_;
    if (keepsData_) ++report_.suppressedSources;
    AGENT_TRACE(*this << RouteKey(source, here_.group) << ' ' << text(kind)
                      << " waits for the join of the same");
    return true;
  }
  if (taken_.contains({joinOf(kind), source})) {
    ++passedOver_;
    if (keepsData_) ++report_.suppressedSources;
    AGENT_TRACE(*this << RouteKey(source, here_.group) << ' ' << routeText(kind)
                      << " changed while the message was made, goes later");
    return true;
  }
  return false;
}

}  // namespace Routing::Pim::Speaker::Detail
