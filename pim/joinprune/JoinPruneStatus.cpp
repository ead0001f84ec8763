// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneStatus.h"

namespace Routing::Pim {

Vel::Ptr<JoinPruneStatus> joinPruneStatusFactory() { return Vel::valid(Vel::create<JoinPruneStatus>()); }

void JoinPruneStatus::doTeardown() {
  triggeredGroupDelAll();
  overrideGroupDelAll();
}

Vel::Ptr<JoinPruneMessageInfo> JoinPruneStatus::rxPrune(RouteIntfKey const& key) const {
  VelRxPrune const* const entry = rxPrune_.find(key);
  return entry ? entry->ptr() : nullptr;
}

void JoinPruneStatus::rxPruneIs(RouteIntfKey const& key, Vel::Ptr<JoinPruneMessageInfo> const& ptr) {
  if (!ptr) {
    rxPruneDel(key);
    return;
  }
  Vel::Ptr<JoinPruneMessageInfo> displaced;
  if (VelRxPrune* const entry = rxPrune_.find(key)) {
    if (entry->ptr_ == ptr) return;
    displaced = std::exchange(entry->ptr_, ptr);
  } else {
    newRxPrune(key, ptr);
  }
  rxPruneNotify(key);
}

void JoinPruneStatus::newRxPrune(RouteIntfKey const& key, Vel::Ptr<JoinPruneMessageInfo> const& ptr) {
  if (!ptr) Vel::throwNullParameter("_rxPrune", "Routing::Pim::JoinPruneStatus::rxPrune");
  auto const where = Vel::vacancy(rxPrune_, key, __func__, *this);
  rxPrune_.insert(where, Vel::create<VelRxPrune>(key, ptr));
}

Vel::Ptr<JoinPruneMessageInfo> JoinPruneStatus::rxPruneDel(RouteIntfKey const& key) {
  Vel::Ptr<VelRxPrune> const removed = rxPrune_.remove(key);
  if (!removed) return nullptr;
  rxPruneNotify(removed->velKey());
  return removed->ptr();
}

void JoinPruneStatus::rxPruneDelAll() {
  Vel::MemoryHold const memory(this);
  for (auto const& entry : rxPrune_.elements())
    if (rxPrune_.find(entry->velKey()) == entry.get()) rxPruneDel(entry->velKey());
}

Vel::AttributeTable const& JoinPruneStatus::attributeTable() const {
  using Self = JoinPruneStatus;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(triggeredGroup), VEL_ROW_FIXED(overrideGroup),
                                         VEL_ROW_FIXED(periodicGroupStatus), VEL_ROW_FIXED(rxPrune)};
  return table;
}

}  // namespace Routing::Pim
