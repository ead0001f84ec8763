#include "pim/speaker/MessageComposer.h"

namespace Routing::Pim::Speaker::Detail {

void Composer::takeOut() {
  for (Leaving const& leaving : leaving_) {
    GroupData& group = *leaving.group;
    // A record that has been replaced meanwhile is another entry.
    if (leaving.wildcard && group.wcSourceData() == leaving.wildcard) group.wcSourceDataDel();
    for (auto const& [stage, source] : leaving.sources) remove(group, stage, source);
    if (group.empty() && data_->joinPruneGroupData(group.group()) == leaving.group)
      data_->joinPruneGroupDataDel(group.group());
  }
}

bool Composer::addWildcard() {
  Vel::Ptr<Packet::WcSourceData> const wildcard = group_->wcSourceData();
  if (!wildcard) return true;
  if (passedOver_ >= PacketManager::maxPassedOver) return false;
  RouteKey const route(IpGenAddr::zero(family_), here_.group);
  if (denied()) {
    passOverFiltered();
    leaveWildcard(wildcard);
    return true;
  }
  if (auto const fault = faultOf(wildcard->address())) {
    passOverFaulty(route, Wire::SourceKind::wildcard, wildcard->join(), *fault);
    return true;
  }
  if (wildcard->join() && wasHeard(route)) {
    // Its prunes are not refreshed without it.
    report_.suppressedSources += group_->prunedRptSourceCount();
    passOverSuppressed();
    here_.stage = Stage::prunedRptSources;
    return true;
  }
  // A join and its prunes go into the next message rather than being parted. An empty one has room for as
  // many as are asked for.
  if (!fits(1 + (wildcard->join() ? prunesAlong() : 0))) return false;
  if (suppressed(route, Wire::SourceKind::wildcard, wildcard->join())) {
    passOverSuppressed();
    leaveWildcard(wildcard);
    return true;  // The prunes go for themselves.
  }
  openGroup();
  if (wildcard->join())
    message_.joinAdd(Wire::SourceKind::wildcard, wildcard->address());
  else
    message_.pruneAdd(Wire::SourceKind::wildcard, wildcard->address());
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
    if (isOwn ? !faultOf(source) && !waits(Stage::prunedRptSources, source) : goesAlong(prunes)) ++count;
  }
  return std::min(count, capacity_);
}

void Composer::takePrunesAlong() {
  U32 leftOut = 0;
  for (PrunesBeside prunes = prunesBeside(); prunes; ++prunes) {
    IpGenAddr const source = prunes.key();
    bool const isOwn = group_->prunedRptSource(source);
    if (isOwn ? passOver(Stage::prunedRptSources, source) : !goesAlong(prunes)) continue;
    if (leftOut == 0 && fits(1)) {
      isOwn ? take(Stage::prunedRptSources, source) : addPrune(source);
      continue;
    }
    ++leftOut;
    if (!isOwn) continue;
    passOverSuppressed();
    leave(Stage::prunedRptSources, source);
  }
  prunesLeftOut_ += leftOut;
  if (leftOut != 0) {
    AGENT_TRACE(*this << "no room beside the (*,G) join of " << here_.group << " for " << leftOut
                      << " (S,G,rpt) prunes, left out");
  }
  here_.stage = Stage::prunedRptSources;  // Done, too.
}

bool Composer::passOver(Stage stage, IpGenAddr const& source) {
  if (denied()) {
    passOverFiltered();
    leave(stage, source);
    return true;
  }
  if (auto const fault = faultOf(source)) {
    passOverFaulty(RouteKey(source, here_.group), kindOf(stage), isJoin(stage), *fault);
    return true;
  }
  if (waits(stage, source)) {
    ++passedOver_;
    if (keepsData_) ++report_.suppressedSources;
    AGENT_TRACE(*this << RouteKey(source, here_.group) << ' ' << text(kindOf(stage))
                      << " prune waits for the join of the same");
    return true;
  }
  if (taken_.contains({kindOf(stage), source})) {
    ++passedOver_;
    if (keepsData_) ++report_.suppressedSources;
    AGENT_TRACE(*this << RouteKey(source, here_.group) << ' ' << text(kindOf(stage))
                      << " changed while the message was made, goes later");
    return true;
  }
  return false;
}

}  // namespace Routing::Pim::Speaker::Detail
