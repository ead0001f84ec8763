// SPDX-License-Identifier: Apache-2.0
// The reactors of a sender's groups: how they come and go with the groups of its data set.
#include "pim/joinprune/JoinPruneNeighborSm.h"
#include "pim/joinprune/JoinPruneSender.h"
#include "pim/model/packet/private/GroupWalk.h"
#include "pim/model/private/ModelAccess.h"

namespace Routing::Pim {

namespace {

// How the machine's operations on group data are named in errors, in the order of JoinPruneSenderKind.
constexpr struct {
  char const* parameter;
  char const* mutator;
  std::string_view maker;
} errorTexts[] = {
    {"_triggeredGroupData", "Routing::Pim::JoinPruneNeighborSm::triggeredGroupData", "newTriggeredGroupData"},
    {"_overrideGroupData", "Routing::Pim::JoinPruneNeighborSm::overrideGroupData", "newOverrideGroupData"},
    {"_periodicGroupData", "Routing::Pim::JoinPruneNeighborSm::periodicGroupData", "newPeriodicGroupData"}};

JoinPruneNeighborSm* machineOf(JoinPruneSender const* sender) {
  return sender ? &sender->machine() : nullptr;
}

}  // namespace

// --- The data set ----------------------------------------------------------------------------------

JoinPruneDataReactor::JoinPruneDataReactor(Vel::Ptr<Packet::JoinPruneData> const& data,
                                           JoinPruneSender* sender)
    : NestedReactor(sender) {
  NestedReactor::notifierIs(data);
}

JoinPruneNeighborSm* JoinPruneDataReactor::joinPruneNeighborSm() const { return machineOf(velOwner()); }
JoinPruneNeighborSm* JoinPruneGroupReactor::joinPruneNeighborSm() const { return machineOf(velOwner()); }
JoinPruneNeighborSm* JoinPruneTimer::joinPruneNeighborSm() const { return machineOf(velOwner()); }

void JoinPruneDataReactor::notifierIs(Vel::Ptr<Packet::JoinPruneData> const& data) {
  if (data == notifier()) return;
  Vel::MemoryHold const memory(this);
  NestedReactor::notifierIs(data);
  onJoinPruneGroupDatavelImmediate();
}

void JoinPruneDataReactor::onJoinPruneGroupData(Dova::IpGenAddr group) {
  JoinPruneSender* const sender = velOwner();
  if (!sender) return;
  JoinPruneNeighborSm& sm = sender->machine();
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(&sm);
  if (Vel::Ptr<Packet::JoinPruneData> const data = notifier()) {
    try {
      if (Vel::Ptr<Packet::JoinPruneGroupData> const groupData = data->joinPruneGroupData(group))
        sender->groupDataIs(groupData);
      else
        sender->groupDataDel(group);
    } catch (...) {
      sm.fallBehind();
      throw;
    }
  }
  if (hasNotificationActive() && velOwner()) sm.forwardGroup(sender->kind(), group);
}

void JoinPruneDataReactor::onJoinPruneGroupDatavelImmediate() {
  JoinPruneSender* const sender = velOwner();
  if (!sender) return;
  JoinPruneNeighborSm& sm = sender->machine();
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(&sm);
  try {
    sender->reconcile();
  } catch (...) {
    sm.fallBehind();
    throw;
  }
  if (sender->kind() == JoinPruneSenderKind::periodic && hasNotificationActive() && velOwner())
    sm.handlePeriodicGroup();
}

// --- Its groups ------------------------------------------------------------------------------------

JoinPruneGroupReactor::JoinPruneGroupReactor(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData,
                                             JoinPruneSender* sender)
    : NestedReactor(sender), group_(groupData->group()) {
  notifierIs(groupData);
}

JoinPruneSender::JoinPruneSender(JoinPruneNeighborSm& sm, Kind kind) : sm_(sm), kind_(kind) {}

Vel::Ptr<JoinPruneGroupReactor> JoinPruneSender::newGroupData(Vel::Ptr<GroupData> const& groupData) {
  auto const& text = errorTexts[static_cast<std::size_t>(kind_)];
  if (!groupData) Vel::throwNullParameter(text.parameter, text.mutator);
  if (sm_.retired()) return nullptr;
  auto const where = Vel::vacancy(groups_, groupData->group(), text.maker, sm_);
  Vel::Ptr<JoinPruneGroupReactor> const reactor = sm_.makeGroupReactor(kind_, groupData);
  groups_.insert(where, reactor);
  if (!sm_.hasNotificationActive()) reactor->hasNotificationActiveIs(false);
  return reactor;
}

Vel::Ptr<JoinPruneGroupReactor> JoinPruneSender::groupDataIs(Vel::Ptr<GroupData> const& groupData) {
  auto const& text = errorTexts[static_cast<std::size_t>(kind_)];
  if (!groupData) Vel::throwNullParameter(text.parameter, text.mutator);
  if (sm_.retired()) return nullptr;
  Vel::MemoryHold const memory(&sm_);
  Vel::Ptr<JoinPruneGroupReactor> reactor(groups_.find(groupData->group()));
  if (reactor && reactor->notifier() == groupData) return reactor;
  if (reactor) {
    reactor->notifierIs(groupData);
    reactor->hasNotificationActiveIs(sm_.hasNotificationActive());
  } else {
    reactor = newGroupData(groupData);
  }
  sm_.notifyGroupData(kind_, groupData->group());
  return reactor;
}

Vel::Ptr<JoinPruneGroupReactor> JoinPruneSender::groupDataDel(Dova::IpGenAddr const& group) {
  Vel::Ptr<JoinPruneGroupReactor> removed;
  if (!sm_.retired()) removed = groups_.remove(group);
  if (removed) {
    unhook(*removed);
    sm_.notifyGroupData(kind_, removed->velKey());
  }
  return removed;
}

void JoinPruneSender::groupDataDelAll() {
  Vel::MemoryHold const memory(&sm_);
  for (auto const& reactor : groups_.elements())
    if (groups_.find(reactor->velKey()) == reactor.get()) groupDataDel(reactor->velKey());
}

void JoinPruneSender::reconcile() {
  Vel::MemoryHold const memory(&sm_);
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  if (!all || sm_.retired()) return;
  if (groups_.size() == 0 && !sm_.velWatched()) {
    // At the start there is nothing to compare with, and no reactor is called.
    groups_.reserve(all->joinPruneGroupDataCount());
    for (Packet::GroupWalk walk(*all); walk; ++walk) newGroupData(&*walk);
    return;
  }
  for (auto i = all->joinPruneGroupDataIterator(); i && !sm_.retired(); ++i) groupDataIs(i.ptr());
  using Iterator = JoinPruneGroupReactorIterator<JoinPruneGroupReactor>;
  for (Iterator i(&sm_, groups_); i && !sm_.retired(); ++i)
    if (!all->joinPruneGroupData(i.key())) groupDataDel(i.key());
}

void JoinPruneSender::retireUnfollowedGroups() {
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  if (!all) return;
  for (auto i = all->joinPruneGroupDataIterator(); i && !sm_.retired(); ++i)
    if (i->empty() && EngineAccess<GroupData>::wasFilled(*i) && !groups_.find(i.key()))
      all->joinPruneGroupDataDel(i.key());
}

void JoinPruneSender::retire() {
  using Iterator = JoinPruneGroupReactorIterator<JoinPruneGroupReactor>;
  for (Iterator i(&sm_, groups_); i; ++i) unhook(*i);
  if (dataReactor_) unhook(*dataReactor_);
}

void JoinPruneSender::visitReactors(std::function<void(Vel::Reactor&)> const& visit) {
  if (auto const reactor = dataReactor_) visit(*reactor);
  using Iterator = JoinPruneGroupReactorIterator<JoinPruneGroupReactor>;
  for (Iterator i(&sm_, groups_); i; ++i) visit(*i);
}

}  // namespace Routing::Pim
