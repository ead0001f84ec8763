// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneNeighborSm.h"

#include "pim/joinprune/private/JoinPruneNeighborLink.h"
#include "pim/joinprune/private/JoinPruneTrace.h"
#include "runtime/vel/private/Assert.h"

namespace Routing::Pim {

#define JOIN_PRUNE_TRACE_ONLY(handler)                        \
  void JoinPruneNeighborSm::VelPeriodicGroupData::handler() { \
    if (!joinPruneNeighborSm()) return;                       \
    JOIN_PRUNE_BLOCK_TIMER();                                 \
    JOIN_PRUNE_TRACE(Level::activity, this, "()");            \
  }
JOIN_PRUNE_TRACE_ONLY(handleJoinedSource)
JOIN_PRUNE_TRACE_ONLY(handlePrunedSource)
JOIN_PRUNE_TRACE_ONLY(handleJoinedRptSource)
JOIN_PRUNE_TRACE_ONLY(handlePrunedRptSource)
#undef JOIN_PRUNE_TRACE_ONLY

Vel::Ptr<IO::MessageInfo> JoinPruneNeighborSm::txMessageInfoIs() {
  return notifierOf(pimPamManager_)->txMessageInfoIs();
}

// --- Life ----------------------------------------------------------------------------------------

JoinPruneNeighborSm::JoinPruneNeighborSm(JoinPruneNeighborInputs const& inputs)
    : parentSm_(inputs.parentSm),
      neighborAddr_(inputs.neighborAddr),
      neighbor_(inputs.neighbor),
      intf_(inputs.intf),
      overrideInterval_(inputs.overrideInterval),
      txMessage_(inputs.txMessage),
      timerWheel_(reactorOn<VelTimerWheel>(inputs.timerWheel, this)),
      pimPamManager_(reactorOn<VelPimPamManager>(inputs.pimPamManager, this)) {
  triggered_.dataReactorIs(reactorOn<VelTriggeredGroup>(inputs.triggeredGroup, this));
  override_.dataReactorIs(reactorOn<VelOverrideGroup>(inputs.overrideGroup, this));
  periodic_.dataReactorIs(reactorOn<VelPeriodicGroup>(inputs.periodicGroup, this));
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneNeighborLink::construct(JoinPruneNeighborInputs const& inputs) {
  Vel::requireDuration("overrideInterval", inputs.overrideInterval);
  return Vel::Ptr<JoinPruneNeighborSm>::owning(new JoinPruneNeighborSm(inputs));
}

void JoinPruneNeighborLink::start(JoinPruneNeighborSm& sm) { sm.velStart(); }

void JoinPruneNeighborLink::retire(JoinPruneNeighborSm& sm, U32 references) {
  sm.velRetire(sm.references() > references);
}

Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmFactory(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
    Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
    Vel::Ptr<Zanth::TimerWheel> timerWheel, Seconds const& overrideInterval,
    Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage) {
  auto const sm = JoinPruneNeighborLink::construct({parentSm, neighborAddr, neighbor, intf, triggeredGroup,
                                                    overrideGroup, periodicGroup, timerWheel,
                                                    overrideInterval, pimPamManager, txMessage});
  JoinPruneNeighborLink::start(*sm);
  return sm;
}

void JoinPruneNeighborSm::velStart() {
  Vel::MemoryHold const memory(this);
  forEachSender([](JoinPruneSender& sender) { sender.reconcile(); });
  handleInitialized();
}

void JoinPruneNeighborSm::handleInitialized() {
  JOIN_PRUNE_BLOCK_TIMER();
  if (!start()) return;
  Vel::MemoryHold const memory(this);
  Vel::Ptr<Packet::JoinPruneData> const periodic = periodic_.data();
  if (periodic) periodic->periodicIs(true);
  Vel::Ptr<Zanth::TimerWheel> const wheel = notifierOf(timerWheel_);
  triggeredTimerIs(wheel);
  overrideTimerIs(wheel);
  doUpdateTriggeredTimer();
  doUpdateOverrideTimer();
  joinPrunePeriodicTimerSmIs(wheel, this, loopQuantum_, periodic, intf_, notifierOf(pimPamManager_),
                             txMessage_);
  if (periodic) periodic_.countAtStart(*periodic);
  // A callback may have changed the data, so the data are read again. From here on
  // the sources are counted one by one.
  periodic_.countIsComplete();
  periodic_.count();
  if (retired()) return;
  JOIN_PRUNE_TRACE(Level::event, this,
                   "(), total number of periodic joins and prunes is " << numPeriodicRoutes());
  if (!retired()) initializedIs(true);
}

void JoinPruneNeighborSm::velRetire(bool held) {
  held = retire() && held;
  if (timerWheel_) unhook(*timerWheel_);
  if (pimPamManager_) unhook(*pimPamManager_);
  forEachSender([held](JoinPruneSender& sender) { sender.retire(held); });
  if (periodic_.timerSm()) periodic_.timerSm()->handleRetired();
  parentSm_ = nullptr;
}

JoinPruneNeighborSm::~JoinPruneNeighborSm() = default;

void JoinPruneNeighborSm::doTeardown() { velRetire(false); }

void JoinPruneNeighborSm::velVisitReactors(ReactorVisitor const& visit) {
  if (auto const reactor = timerWheel_) visit(*reactor);
  if (auto const reactor = pimPamManager_) visit(*reactor);
  forEachSender([&visit](JoinPruneSender& sender) { sender.visitReactors(visit); });
}

void JoinPruneNeighborSm::hasNotificationActiveIs(bool active) {
  Vel::MemoryHold const memory(this);
  Machine::hasNotificationActiveIs(active);
  if (auto const periodic = periodic_.timerSm()) periodic->hasNotificationActiveIs(active);
  if (active) bringTimersUpToDate();
}

void JoinPruneNeighborSm::velDoZombieReactors(bool zombie) {
  Vel::MemoryHold const memory(this);
  Machine::velDoZombieReactors(zombie);
  if (auto const periodic = periodic_.timerSm()) periodic->velDoZombieReactors(zombie);
  if (!zombie) bringTimersUpToDate();
}

// What became due while it could not be called is due now.
void JoinPruneNeighborSm::bringTimersUpToDate() {
  if (triggered_.timer() && triggered_.timer()->missed()) triggered_.armIn(0);
  if (override_.timer() && override_.timer()->missed()) override_.armIn(0);
}

Vel::Ptr<JoinPrunePeriodicTimerSm> JoinPruneNeighborSm::joinPrunePeriodicTimerSmIs(
    Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm, Seconds const& loopQuantum,
    Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Intf const> const& intf,
    Vel::Ptr<IO::PamManager> const& pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> const& txMessage) {
  if (periodic_.timerSm() || retired()) return periodic_.timerSm();
  Vel::MemoryHold const memory(this);
  auto const made = newJoinPrunePeriodicTimerSm(timerWheel, parentSm, loopQuantum, periodicGroup, intf,
                                                pimPamManager, txMessage);
  velDeliver<NotifieeConst, joinPrunePeriodicTimerSmId>(
      [](NotifieeConst& r) { r.onJoinPrunePeriodicTimerSm(); });
  return made;
}

Vel::Ptr<JoinPrunePeriodicTimerSm> JoinPruneNeighborSm::newJoinPrunePeriodicTimerSm(
    Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm, Seconds const& loopQuantum,
    Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Intf const> const& intf,
    Vel::Ptr<IO::PamManager> const& pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> const& txMessage) {
  if (retired()) return nullptr;
  if (periodic_.timerSm()) Vel::throwPresent("newJoinPrunePeriodicTimerSm", fwkType(), "one");
  auto const made = joinPrunePeriodicTimerSmFactory(timerWheel, parentSm, loopQuantum, periodicGroup, intf,
                                                    pimPamManager, txMessage);
  made->hasNotificationActiveIs(hasNotificationActive());
  periodic_.timerSmIs(made);
  return made;
}

void JoinPruneNeighborSm::joinPrunePeriodicTimerSmDel() {
  if (retired()) return;
  auto const removed = periodic_.timerSmIs(nullptr);
  if (!removed) return;
  removed->handleRetired();
  velDeliver<NotifieeConst, joinPrunePeriodicTimerSmId>(
      [](NotifieeConst& r) { r.onJoinPrunePeriodicTimerSm(); });
}

// --- For the senders -----------------------------------------------------------------------------

Vel::Ptr<JoinPruneGroupReactor> JoinPruneNeighborSm::makeGroupReactor(
    JoinPruneSenderKind kind, Vel::Ptr<Packet::JoinPruneGroupData> const& groupData) {
  switch (kind) {
    case JoinPruneSenderKind::triggered:
      return Vel::Ptr<JoinPruneGroupReactor>::owning(new VelTriggeredGroupData(groupData, this));
    case JoinPruneSenderKind::override:
      return Vel::Ptr<JoinPruneGroupReactor>::owning(new VelOverrideGroupData(groupData, this));
    case JoinPruneSenderKind::periodic:
      break;
  }
  return Vel::Ptr<JoinPruneGroupReactor>::owning(new VelPeriodicGroupData(groupData, this));
}

Vel::Ptr<JoinPruneTimer> JoinPruneNeighborSm::makeTimer(JoinPruneSenderKind kind,
                                                        Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  if (kind == JoinPruneSenderKind::triggered) return Vel::create<VelTriggeredTimer>(wheel, this);
  return Vel::create<VelOverrideTimer>(wheel, this);
}

void JoinPruneNeighborSm::notifyGroupData(JoinPruneSenderKind kind, Dova::IpGenAddr const& group) {
  switch (kind) {
    case JoinPruneSenderKind::triggered:
      return triggeredGroupDataNotify(group);
    case JoinPruneSenderKind::override:
      return overrideGroupDataNotify(group);
    case JoinPruneSenderKind::periodic:
      return periodicGroupDataNotify(group);
  }
}

void JoinPruneNeighborSm::notifyTimer(JoinPruneSenderKind kind) {
  if (kind == JoinPruneSenderKind::triggered)
    velDeliver<NotifieeConst, triggeredTimerId>([](NotifieeConst& r) { r.onTriggeredTimer(); });
  else
    velDeliver<NotifieeConst, overrideTimerId>([](NotifieeConst& r) { r.onOverrideTimer(); });
}

void JoinPruneNeighborSm::forwardGroup(JoinPruneSenderKind kind, Dova::IpGenAddr const& group) {
  switch (kind) {
    case JoinPruneSenderKind::triggered:
      return vel_handleTriggeredGroup_joinPruneGroupData(group);
    case JoinPruneSenderKind::override:
      return vel_handleOverrideGroup_joinPruneGroupData(group);
    case JoinPruneSenderKind::periodic:
      return vel_handlePeriodicGroup_joinPruneGroupData(group);
  }
}

#define JOIN_PRUNE_FORWARD(Foo)                                                            \
  void JoinPruneNeighborSm::vel_handle##Foo##_joinPruneGroupData(Dova::IpGenAddr const&) { \
    handle##Foo(neighborAddr_);                                                            \
  }                                                                                        \
  void JoinPruneNeighborSm::vel_handle##Foo##_joinPruneGroupData(                          \
      Vel::Ptr<Packet::JoinPruneGroupData> const& groupData) {                             \
    vel_handle##Foo##_joinPruneGroupData(groupData->group());                              \
  }
JOIN_PRUNE_FORWARD(TriggeredGroup)
JOIN_PRUNE_FORWARD(OverrideGroup)
JOIN_PRUNE_FORWARD(PeriodicGroup)
#undef JOIN_PRUNE_FORWARD

// --- The periodic data ---------------------------------------------------------------------------

void JoinPruneNeighborSm::handlePeriodicGroup(Dova::IpGenAddr const& group) {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::activity, this, '(' << group << ')');
  if (retired()) return;
  Vel::Ptr<Packet::JoinPruneData> const groups = periodic_.data();
  if (Vel::Ptr<Packet::JoinPruneGroupData> const found =
          groups ? groups->joinPruneGroupData(group) : nullptr) {
    numPeriodicRoutesInc(found->routes());
    return;
  }
  JOIN_PRUNE_TRACE(Level::activity, this, '(' << group << "): Deleted");
  if (retired() || (groups && groups->joinPruneGroupDataCount() != 0)) return;
  if (periodic_.isCounted() && numPeriodicRoutes() != 0) {
    // A group was removed before its sources: what this machine counts is no longer what there is.
    JOIN_PRUNE_TRACE(Level::error, this, '(' << group << "), Num routes: " << numPeriodicRoutes());
    VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
  }
  if (parentSm_) JoinPruneNeighborLink::maybeDeleteNeighbor(*parentSm_, neighborAddr_);
}

void JoinPruneNeighborSm::handlePeriodicGroup() {
  JOIN_PRUNE_BLOCK_TIMER();
  JOIN_PRUNE_TRACE(Level::activity, this, "()");
}

U32 JoinPruneNeighborSm::numPeriodicRoutesInc(U32 n) {
  if (retired()) return numPeriodicRoutes();
  U32 const value = numPeriodicRoutes() + n;
  numPeriodicRoutesIs(value);
  return value;
}

void JoinPruneNeighborSm::tellOfCount() {
  Vel::MemoryHold const memory(this);
  vel_handleNumPeriodicRoutes();
  velDeliver<NotifieeConst, numPeriodicRoutesId>([](NotifieeConst& r) { r.onNumPeriodicRoutes(); });
}

void JoinPruneNeighborSm::vel_handleNumPeriodicRoutes() {
  Vel::MemoryHold const memory(this);
  if (Vel::Ptr<JoinPrunePeriodicTimerSm> const periodic = periodic_.timerSm())
    periodic->doUpdatePeriodicTimer();
  if (!retired()) validateNumPeriodicRoutes();
}

void JoinPruneNeighborSm::validateNumPeriodicRoutes() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::entry, this, '(' << numPeriodicRoutes() << ')');
  if (!initialized_ || retired()) return;
  if (parentSm_ && !JoinPruneNeighborLink::checksRouteCounts(*parentSm_)) return;
  U32 sum = 0;
  if (Vel::Ptr<Packet::JoinPruneData> const groups = periodic_.data())
    for (auto i = groups->joinPruneGroupDataIterator(); i; ++i) sum += i->routes();
  if (sum == numPeriodicRoutes()) return;
  JOIN_PRUNE_TRACE(Level::error, this, ", expected: " << sum << ", got: " << numPeriodicRoutes());
  VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
}

// --- Text ----------------------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm const* sm) {
  if (!sm) return os << "null";
  os << "JoinPruneNeighborSm(";
  if (sm->intf()) os << sm->intf()->intfId();
  return os << "::" << sm->neighborAddr() << ")::@" << static_cast<void const*>(sm) << "::";
}

std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelTriggeredGroupData const* reactor) {
  return writeGroupForm(os, reactor, JoinPruneSenderKind::triggered);
}
std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelOverrideGroupData const* reactor) {
  return writeGroupForm(os, reactor, JoinPruneSenderKind::override);
}
std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelPeriodicGroupData const* reactor) {
  return writeGroupForm(os, reactor, JoinPruneSenderKind::periodic);
}

Vel::AttributeTable const& JoinPruneNeighborSm::attributeTable() const {
  using Self = JoinPruneNeighborSm;
#define ROW_OF_SENDER(foo, value)                                                                            \
  Vel::AttributeRow {                                                                                        \
#foo, foo##Id, [](Vel::Entity const& e) { return Vel::textOf(static_cast<Self const&>(e).value); },      \
                                                                                                     nullptr \
  }
  static Vel::AttributeTable const table{VEL_ROW_FIXED(parentSm),
                                         VEL_ROW_FIXED(neighborAddr),
                                         VEL_ROW_FIXED(neighbor),
                                         VEL_ROW_FIXED(intf),
                                         ROW_OF_SENDER(triggeredGroup, triggeredGroup()),
                                         ROW_OF_SENDER(overrideGroup, overrideGroup()),
                                         ROW_OF_SENDER(periodicGroup, periodicGroup()),
                                         VEL_ROW_FIXED(timerWheel),
                                         VEL_ROW_FIXED(overrideInterval),
                                         VEL_ROW_FIXED(pimPamManager),
                                         VEL_ROW_FIXED(txMessage),
                                         ROW_OF_SENDER(triggeredTimer, triggeredTimer()),
                                         ROW_OF_SENDER(overrideTimer, overrideTimer()),
                                         VEL_ROW(loopQuantum),
                                         VEL_ROW(triggeredInterval),
                                         ROW_OF_SENDER(joinPrunePeriodicTimerSm, joinPrunePeriodicTimerSm()),
                                         ROW_OF_SENDER(triggeredGroupData, triggered_.groups()),
                                         ROW_OF_SENDER(overrideGroupData, override_.groups()),
                                         ROW_OF_SENDER(numPeriodicRoutes, numPeriodicRoutes()),
                                         ROW_OF_SENDER(periodicGroupData, periodic_.groups()),
                                         VEL_ROW(initialized)};
#undef ROW_OF_SENDER
  return table;
}

}  // namespace Routing::Pim
