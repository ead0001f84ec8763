// SPDX-License-Identifier: Apache-2.0
// How a sender's groups are watched, from their arrival in its data set to their end.
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

// Ends that a group is followed. Whether its (*,G) entry was counted.
bool release(Packet::JoinPruneGroupData& group) {
  group.velFollowerIs(nullptr);
  return std::exchange(EngineAccess<Packet::JoinPruneGroupData>::wcSourceSet(group), false);
}

}  // namespace

// --- The data set ----------------------------------------------------------------------------------

JoinPruneDataReactor::JoinPruneDataReactor(Vel::Ptr<Packet::JoinPruneData> const& data,
                                           JoinPruneSender* sender)
    : NestedReactor(sender) {
  NestedReactor::notifierIs(data);
}

JoinPruneNeighborSm* JoinPruneDataReactor::joinPruneNeighborSm() const { return machineOf(velOwner()); }
JoinPruneNeighborSm* JoinPruneGroupReactor::joinPruneNeighborSm() const {
  return velOwner() && velOwner()->concerns(*this) ? &velOwner()->machine() : nullptr;
}
JoinPruneNeighborSm* JoinPruneTimer::joinPruneNeighborSm() const { return machineOf(velOwner()); }

void JoinPruneDataReactor::notifierIs(Vel::Ptr<Packet::JoinPruneData> const& data) {
  if (data == notifier()) return;
  Vel::MemoryHold const memory(this);
  // Groups that are not in the other set are found here no more, unless they have a reactor of their own.
  if (velOwner()) velOwner()->groups();
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
    if (Vel::Ptr<Packet::JoinPruneGroupData> const groupData = data->joinPruneGroupData(group))
      sender->follow(*groupData);
    else
      sender->leave(group);
  }
  if (hasNotificationActive() && velOwner()) sm.forwardGroup(sender->kind(), group);
}

void JoinPruneDataReactor::onJoinPruneGroupDatavelImmediate() {
  JoinPruneSender* const sender = velOwner();
  if (!sender) return;
  JoinPruneNeighborSm& sm = sender->machine();
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(&sm);
  sender->reconcile();
  if (sender->kind() == JoinPruneSenderKind::periodic && hasNotificationActive() && velOwner())
    sm.handlePeriodicGroup();
}

// --- Its groups ------------------------------------------------------------------------------------

JoinPruneGroupReactor::JoinPruneGroupReactor(Vel::Ptr<Packet::JoinPruneGroupData> const& groupData,
                                             JoinPruneSender* sender)
    : NestedReactor(sender), group_(groupData ? groupData->group() : Dova::IpGenAddr()) {
  notifierIs(groupData);
}

bool& JoinPruneGroupReactor::wildcardCounted() {
  Vel::Ptr<Packet::JoinPruneGroupData> const group = notifier();
  return group->velFollower() == this ? EngineAccess<Packet::JoinPruneGroupData>::wcSourceSet(*group)
                                      : wcSourceSet_;
}

JoinPruneSender::JoinPruneSender(JoinPruneNeighborSm& sm, Kind kind) : sm_(sm), kind_(kind) {}

void JoinPruneSender::dataReactorIs(Vel::Ptr<JoinPruneDataReactor> const& reactor) {
  dataReactor_ = reactor;
  if (reactor) follower_ = sm_.makeGroupReactor(kind_, nullptr);
}

void JoinPruneSender::follow(GroupData& group) {
  using Access = EngineAccess<GroupData>;
  if (sm_.retired() || follows(group)) return;
  if (own(group.group())) {
    groupDataIs(&group);
    return;
  }
  GroupData* const former = leaving(group.group());  // whose place this one takes
  bool const wcSourceSet = former && release(*former);
  // Where the difference could be seen, the group has a reactor of its own at once. For want of memory a
  // group is missed only if another machine follows it.
  bool const apart = Access::watched(group) || follower_->isZombie() ||
                     follower_->hasNotificationActive() != sm_.hasNotificationActive();
  try {
    if (apart || !group.velFollowerIs(follower_)) newGroupData(&group)->wcSourceSet_ = wcSourceSet;
  } catch (std::bad_alloc const&) {
    if (!group.velFollowerIs(follower_)) throw;
  }
  if (follows(group)) Access::wcSourceSet(group) = wcSourceSet;
  sm_.notifyGroupData(kind_, group.group());
}

void JoinPruneSender::leave(Dova::IpGenAddr const& group) {
  GroupData* const former = sm_.retired() ? nullptr : leaving(group);
  if (!former) {
    groupDataDel(group);
    return;
  }
  release(*former);
  sm_.notifyGroupData(kind_, group);
}

// A group that is followed still, while others are told that it has left the data set; or null.
JoinPruneSender::GroupData* JoinPruneSender::leaving(Dova::IpGenAddr const& group) const {
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  GroupData* const found = all ? EngineAccess<Packet::JoinPruneData>::leaving(*all) : nullptr;
  return found && found->group() == group && follows(*found) ? found : nullptr;
}

bool JoinPruneSender::concerns(JoinPruneGroupReactor const& reactor) const {
  if (&reactor != follower_.get()) return true;
  Vel::Ptr<GroupData const> const group = reactor.notifier();
  if (!group || follows(*group)) return group != nullptr;
  // It may have a reactor of its own by now.
  JoinPruneGroupReactor const* const made = own(group->group());
  return made && made->notifier() == group;
}

// What the group would have had from the start, in the place of the follower.
JoinPruneGroupReactor* JoinPruneSender::makeOwn(GroupData& group) const {
  Vel::Ptr<JoinPruneGroupReactor> const reactor = sm_.makeGroupReactor(kind_, &group);
  own_.insert(reactor);
  reactor->velBecomeFirst();
  reactor->velOwnerIs(follower_->velOwner());
  reactor->velDoZombieReactors(follower_->isZombie());
  reactor->hasNotificationActiveIs(follower_->hasNotificationActive());
  reactor->wcSourceSet_ = release(group);
  return reactor.get();
}

JoinPruneGroupReactor* JoinPruneSender::find(Dova::IpGenAddr const& group) const {
  if (JoinPruneGroupReactor* const reactor = own(group)) return reactor;
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  GroupData* found = all ? EngineAccess<Packet::JoinPruneData>::group(*all, group) : nullptr;
  if (!found || !follows(*found)) found = leaving(group);
  return found ? makeOwn(*found) : nullptr;
}

JoinPruneSender::Groups const& JoinPruneSender::groups() const {
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  if (!all || groupCount() == own_.size()) return own_;
  for (Packet::GroupWalk group(*all); group; ++group)
    if (follows(*group)) makeOwn(*group);
  GroupData* const former = EngineAccess<Packet::JoinPruneData>::leaving(*all);
  if (former && follows(*former)) makeOwn(*former);
  return own_;
}

Vel::Ptr<JoinPruneGroupReactor> JoinPruneSender::newGroupData(Vel::Ptr<GroupData> const& groupData) {
  auto const& text = errorTexts[static_cast<std::size_t>(kind_)];
  if (!groupData) Vel::throwNullParameter(text.parameter, text.mutator);
  if (sm_.retired()) return nullptr;
  find(groupData->group());
  auto const where = Vel::vacancy(own_, groupData->group(), text.maker, sm_);
  Vel::Ptr<JoinPruneGroupReactor> const reactor = sm_.makeGroupReactor(kind_, groupData);
  own_.insert(where, reactor);
  if (!sm_.hasNotificationActive()) reactor->hasNotificationActiveIs(false);
  return reactor;
}

Vel::Ptr<JoinPruneGroupReactor> JoinPruneSender::groupDataIs(Vel::Ptr<GroupData> const& groupData) {
  auto const& text = errorTexts[static_cast<std::size_t>(kind_)];
  if (!groupData) Vel::throwNullParameter(text.parameter, text.mutator);
  if (sm_.retired()) return nullptr;
  Vel::MemoryHold const memory(&sm_);
  Vel::Ptr<JoinPruneGroupReactor> reactor(find(groupData->group()));
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
  if (!sm_.retired() && find(group)) removed = own_.remove(group);
  if (removed) {
    unhook(*removed);
    sm_.notifyGroupData(kind_, removed->velKey());
  }
  return removed;
}

void JoinPruneSender::groupDataDelAll() {
  Vel::MemoryHold const memory(&sm_);
  for (auto const& reactor : groups().elements())
    if (own(reactor->velKey()) == reactor.get()) groupDataDel(reactor->velKey());
}

void JoinPruneSender::reconcile() {
  Vel::MemoryHold const memory(&sm_);
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  if (!all || sm_.retired()) return;
  for (auto i = all->joinPruneGroupDataIterator(); i && !sm_.retired(); ++i) follow(*i);
  using Iterator = JoinPruneGroupReactorIterator<JoinPruneGroupReactor>;
  for (Iterator i(&sm_, own_); i && !sm_.retired(); ++i)
    if (!all->joinPruneGroupData(i.key())) groupDataDel(i.key());
}

void JoinPruneSender::retire(bool held) {
  try {
    // Whatever becomes of the groups, who holds the machine finds it as it was.
    if (held) groups();
  } catch (std::bad_alloc const&) {
  }
  using Iterator = JoinPruneGroupReactorIterator<JoinPruneGroupReactor>;
  for (Iterator i(&sm_, own_); i; ++i) unhook(*i);
  if (follower_) {
    unhook(*follower_);
    follower_->velFollowNoMore();
  }
  if (dataReactor_) unhook(*dataReactor_);
}

void JoinPruneSender::visitReactors(std::function<void(Vel::Reactor&)> const& visit) {
  if (auto const reactor = dataReactor_) visit(*reactor);
  if (auto const reactor = follower_) visit(*reactor);
  using Iterator = JoinPruneGroupReactorIterator<JoinPruneGroupReactor>;
  for (Iterator i(&sm_, own_); i; ++i) visit(*i);
}

}  // namespace Routing::Pim
