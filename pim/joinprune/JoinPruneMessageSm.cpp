// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneMessageSm.h"

#include <cmath>

#include "pim/joinprune/private/JoinPruneMessageTarget.h"
#include "pim/joinprune/private/JoinPruneNeighborLink.h"
#include "pim/joinprune/private/JoinPruneTrace.h"
#include "pim/joinprune/private/RecordAccess.h"

namespace Routing::Pim {

namespace {

using StatusAccess = EngineAccess<JoinPruneStatus>;

// After a failure for want of memory, in seconds.
constexpr Seconds catchUpDelay = 0.1;

}  // namespace

// --- Life ----------------------------------------------------------------------------------------

JoinPruneMessageSm::JoinPruneMessageSm(
    Vel::Ptr<JoinPruneStatus> const& joinPruneStatus, Vel::Ptr<JoinPruneFilter const> const& joinPruneFilter,
    Vel::Ptr<Status const> const& pimStatus, Vel::Ptr<RpHashComputeStatus> const& rpHashComputeStatus,
    Vel::Ptr<JoinPruneMessageInfo> const& rxJoin, Vel::Ptr<JoinPruneMessageInfo> const& rxPrune,
    Vel::Ptr<IO::MessageInfo> const& rxMessageInfo, Vel::Ptr<IO::PamManager> const& pimPamManager,
    Vel::Ptr<Zanth::TimerWheel> const& timerWheel)
    : joinPruneStatus_(joinPruneStatus),
      joinPruneFilter_(joinPruneFilter),
      rpHashComputeStatus_(rpHashComputeStatus),
      rxJoin_(rxJoin),
      rxPrune_(rxPrune),
      pimStatus_(reactorOn<VelPimStatus>(pimStatus, this)),
      rxMessageInfo_(reactorOn<VelRxMessageInfo>(rxMessageInfo, this)),
      pimPamManager_(reactorOn<VelPimPamManager>(pimPamManager, this)),
      timerWheel_(reactorOn<VelTimerWheel>(timerWheel, this)),
      catchUpTimer_(reactorOn<VelCatchUpTimer>(timerWheel, this)) {}

Vel::Ptr<JoinPruneMessageSm> joinPruneMessageSmFactory(
    Vel::Ptr<JoinPruneStatus> joinPruneStatus, Vel::Ptr<JoinPruneFilter const> joinPruneFilter,
    Vel::Ptr<Status const> pimStatus, Vel::Ptr<RpHashComputeStatus> rpHashComputeStatus,
    Vel::Ptr<JoinPruneMessageInfo> rxJoin, Vel::Ptr<JoinPruneMessageInfo> rxPrune,
    Vel::Ptr<IO::MessageInfo> rxMessageInfo, Vel::Ptr<IO::PamManager> pimPamManager,
    Vel::Ptr<Zanth::TimerWheel> timerWheel) {
  auto const sm = Vel::Ptr<JoinPruneMessageSm>::owning(
      new JoinPruneMessageSm(joinPruneStatus, joinPruneFilter, pimStatus, rpHashComputeStatus, rxJoin,
                             rxPrune, rxMessageInfo, pimPamManager, timerWheel));
  if (joinPruneStatus) StatusAccess::machineIs(*joinPruneStatus, sm.get());
  // Before the interfaces: their machines are given the message too.
  sm->txMessageIs();
  if (pimStatus) sm->syncPimIntf();
  sm->handleInitialized();
  return sm;
}

// Runs inside the factory, which has a reference to the machine: no callback can end it.
void JoinPruneMessageSm::handleInitialized() {
  JOIN_PRUNE_BLOCK_TIMER();
  if (!start()) return;
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::entry, this, "()");
  handleNeighbor();
  // What is left of neighbors that vanished while there was no machine.
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) {
    for (auto i = periodic->upJoinPruneIterator(); i; ++i) {
      Dova::IpGenAddr const address = i.key();
      JoinPruneNeighborSm const* const sm = joinPruneNeighborSm_.find(address);
      if (listedNeighbor(address) || (sm && !sm->neighbor())) continue;
      JOIN_PRUNE_TRACE(Level::event, this,
                       "(), Deleting any pending joins and prunes for deleted neighbor " << address);
      handleNeighbor(address);
    }
  }
  initializedIs(true);
}

void JoinPruneMessageSm::doTeardown() {
  // First it turns deaf, so that nothing can make it take up anything new from here on.
  retire();
  if (pimStatus_) unhook(*pimStatus_);
  if (rxMessageInfo_) unhook(*rxMessageInfo_);
  if (catchUpTimer_) {
    catchUpTimer_->timeMinIs(Vel::never);
    unhook(*catchUpTimer_);
  }
  // By iterators, which need no memory: what is short must not keep anything live.
  for (auto i = joinPruneNeighborSmIterator(); i; ++i) JoinPruneNeighborLink::retire(*i, 2);
  for (auto i = pimIntfIterator(); i; ++i) removePimIntf(i.key());
  for (auto i = joinPruneNeighborSmIterator(); i; ++i) removeJoinPruneNeighborSm(i.key());
  if (pimPamManager_) unhook(*pimPamManager_);
  if (timerWheel_) unhook(*timerWheel_);
  if (joinPruneStatus_ && StatusAccess::machine(*joinPruneStatus_) == this)
    StatusAccess::machineIs(*joinPruneStatus_, nullptr);
}

JoinPruneMessageSm::~JoinPruneMessageSm() = default;

void JoinPruneMessageSm::velVisitReactors(ReactorVisitor const& visit) {
  auto const visitAll = [&visit](auto const... reactors) { ((reactors ? visit(*reactors) : void()), ...); };
  visitAll(pimStatus_, rxMessageInfo_, pimPamManager_, timerWheel_, catchUpTimer_);
  for (auto i = pimIntfIterator(); i; ++i) visit(*i);
}

Vel::Ptr<Packet::JoinPruneMessage> JoinPruneMessageSm::txMessageIs() {
  return txMessage_ ? txMessage_ : newTxMessage();
}

Vel::Ptr<Packet::JoinPruneMessage> JoinPruneMessageSm::newTxMessage() {
  if (retired()) return txMessage_;
  auto const made = Vel::create<Packet::JoinPruneMessage>();
  txMessage_ = made;
  velDeliver<NotifieeConst, txMessageId>([](NotifieeConst& r) { r.onTxMessage(); });
  return made;
}

// --- Targets -------------------------------------------------------------------------------------

Vel::Ptr<Packet::JoinPruneStatus> JoinPruneMessageSm::periodicStatus() const {
  return joinPruneStatus_ ? joinPruneStatus_->periodicGroupStatus() : nullptr;
}

// A callback that restarts the machine has the new one before the old one is removed.
bool JoinPruneMessageSm::succeeded() const {
  void const* const latest = joinPruneStatus_ ? StatusAccess::machine(*joinPruneStatus_) : nullptr;
  return latest && latest != this;
}

// Displaces the machine that is there, if there is one. No callback runs between its removal and the
// insertion of the new one, so nothing can take the place meanwhile.
void JoinPruneMessageSm::startTarget(Target const& target, Dova::IpGenAddr const& address,
                                     Vel::Ptr<Neighbor const> const& neighbor,
                                     Vel::Ptr<Intf const> const& intf) {
  auto const sm = JoinPruneNeighborLink::construct({this, address, neighbor, intf, target.triggered,
                                                    target.override, target.periodic, notifierOf(timerWheel_),
                                                    intf ? intf->usedOverrideIntervalInSeconds() : 0,
                                                    notifierOf(pimPamManager_), txMessage_});
  Vel::Ptr<JoinPruneNeighborSm> const displaced(joinPruneNeighborSm_.find(address));
  if (displaced) {
    joinPruneNeighborSm_.replace(sm);
    JoinPruneNeighborLink::retire(*displaced);
  } else {
    joinPruneNeighborSm_.insert(sm);
  }
  startMachine(*sm);
  if (joinPruneNeighborSm_.find(address) == sm.get()) joinPruneNeighborSmNotify(address);
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::joinPruneNeighborSmIs(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
    Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
    Vel::Ptr<Zanth::TimerWheel> timerWheel, double const& overrideInterval,
    Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage) {
  if (Vel::Ptr<JoinPruneNeighborSm> const present = joinPruneNeighborSm(neighborAddr)) {
    using Vel::requireSameParameter;
    requireSameParameter<void const*>("_parentSm", parentSm, present->parentSm());
    requireSameParameter("_neighbor", neighbor, present->neighbor());
    requireSameParameter("_intf", intf, present->intf());
    requireSameParameter("_triggeredGroup", triggeredGroup, notifierOf(present->triggeredGroup()));
    requireSameParameter("_overrideGroup", overrideGroup, notifierOf(present->overrideGroup()));
    requireSameParameter("_periodicGroup", periodicGroup, notifierOf(present->periodicGroup()));
    requireSameParameter("_timerWheel", timerWheel, notifierOf(present->timerWheel()));
    requireSameParameter("_overrideInterval", overrideInterval, present->overrideInterval());
    requireSameParameter("_pimPamManager", pimPamManager, notifierOf(present->pimPamManager()));
    requireSameParameter("_txMessage", txMessage, present->txMessage());
    return present;
  }
  Vel::MemoryHold const memory(this);
  auto const sm =
      newJoinPruneNeighborSm(parentSm, neighborAddr, neighbor, intf, triggeredGroup, overrideGroup,
                             periodicGroup, timerWheel, overrideInterval, pimPamManager, txMessage);
  if (sm && joinPruneNeighborSm_.find(sm->neighborAddr()) == sm.get())
    joinPruneNeighborSmNotify(sm->neighborAddr());
  return sm;
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::newJoinPruneNeighborSm(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
    Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
    Vel::Ptr<Zanth::TimerWheel> timerWheel, double const& overrideInterval,
    Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage) {
  auto const where = Vel::vacancy(joinPruneNeighborSm_, neighborAddr, __func__, *this);
  if (retired()) return nullptr;
  Vel::MemoryHold const memory(this);
  auto const sm = JoinPruneNeighborLink::construct({parentSm, neighborAddr, neighbor, intf, triggeredGroup,
                                                    overrideGroup, periodicGroup, timerWheel,
                                                    overrideInterval, pimPamManager, txMessage});
  joinPruneNeighborSm_.insert(where, sm);
  startMachine(*sm);
  return sm;
}

// A machine is in its place before it is started, so that what its start calls can find it and take it away.
void JoinPruneMessageSm::startMachine(JoinPruneNeighborSm& sm) {
  try {
    JoinPruneNeighborLink::start(sm);
  } catch (...) {
    // Half a machine is worse than none.
    if (joinPruneNeighborSm_.find(sm.neighborAddr()) == &sm) removeJoinPruneNeighborSm(sm.neighborAddr());
    throw;
  }
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::joinPruneNeighborSmDel(
    Dova::IpGenAddr const& neighborAddr) {
  return retired() ? nullptr : removeJoinPruneNeighborSm(neighborAddr);
}

// Also while this machine is being retired.
Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::removeJoinPruneNeighborSm(
    Dova::IpGenAddr const& neighborAddr) {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<JoinPruneNeighborSm> const removed = joinPruneNeighborSm_.remove(neighborAddr);
  if (removed) {
    JoinPruneNeighborLink::retire(*removed);
    joinPruneNeighborSmNotify(removed->neighborAddr());
  }
  return removed;
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::joinPruneNeighborSmDel(
    JoinPruneNeighborSmIterator const& i) {
  return joinPruneNeighborSmDel(i.key());
}

void JoinPruneMessageSm::joinPruneNeighborSmDelAll() {
  Vel::MemoryHold const memory(this);
  for (auto& sm : joinPruneNeighborSm_.elements()) {
    Dova::IpGenAddr const address = sm->neighborAddr();
    bool const isThere = joinPruneNeighborSm_.find(address) == sm.get();
    sm = nullptr;  // the machine ends without making its reactors if it has no other holder
    if (isThere) joinPruneNeighborSmDel(address);
  }
}

void JoinPruneNeighborLink::maybeDeleteNeighbor(JoinPruneMessageSm& owner,
                                                Dova::IpGenAddr const& neighborAddr) {
  owner.doMaybeDeleteNeighbor(neighborAddr);
}

bool JoinPruneNeighborLink::checksRouteCounts(JoinPruneMessageSm const& owner) {
  return owner.diagUpJoinCount();
}

// --- Neighbors -----------------------------------------------------------------------------------

Vel::Ptr<Neighbor const> JoinPruneMessageSm::listedNeighbor(Dova::IpGenAddr const& address) const {
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  return status ? status->pimNeighbor(address) : nullptr;
}

void JoinPruneMessageSm::handleNeighbor() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::event, this, "()");
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  if (!status) return;
  for (auto i = status->pimNeighborIterator(); i && !retired(); ++i) handleNeighbor(i.key());
}

void JoinPruneMessageSm::handleNeighbor(Dova::IpGenAddr const& changed) {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  Dova::IpGenAddr const address = changed;
  if (retired()) return;
  JOIN_PRUNE_TRACE(Level::entry, this, '(' << address << ')');
  if (retired()) return;
  Vel::Ptr<Neighbor const> const neighbor = listedNeighbor(address);
  if (!neighbor) {
    JOIN_PRUNE_TRACE(Level::event, this, '(' << address << "), Neighbor down");
    if (!retired()) doMaybeDeleteNeighbor(address);
    return;
  }
  JOIN_PRUNE_TRACE(Level::event, this, '(' << address << "), Neighbor up");
  if (retired() || listedNeighbor(address) != neighbor) return;
  if (joinPruneNeighborSm(address)) {
    JOIN_PRUNE_TRACE(
        Level::event, this,
        ", Not creating SM for neighbor "
            << address
            << " because one already exists.  This could be due to the interface having the same "
               "interface.");
    return;
  }
  try {
    Target target;
    if (openTarget(target, address, [&] {
          return !retired() && listedNeighbor(address) == neighbor && !joinPruneNeighborSm(address);
        }))
      startTarget(target, address, neighbor, neighbor->intf());
  } catch (...) {
    fallBehind();
    throw;
  }
}

void JoinPruneMessageSm::doMaybeDeleteNeighbor(Dova::IpGenAddr const& vanished) {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  Dova::IpGenAddr const address = vanished;  // the caller's may end with what is deleted here
  JOIN_PRUNE_TRACE(Level::entry, this, '(' << address << ')');
  Vel::Ptr<JoinPruneNeighborSm> sm = joinPruneNeighborSm(address);
  if (sm && !sm->neighbor()) return;  // an interface's own address: its machine is removed with the interface
  try {
    Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus();
    // Deliberately kept while there is something to send: the prunes towards a neighbor that may only be
    // flapping.
    auto const unneeded = [&] {
      return !retired() && !listedNeighbor(address) && joinPruneNeighborSm(address) == sm &&
             (!periodic || periodic->upJoinPruneIs(address)->joinPruneGroupDataCount() == 0);
    };
    // The first time it may make the data set, which calls out.
    if (!unneeded() || !unneeded()) return;
    JOIN_PRUNE_TRACE(Level::event, this, '(' << address << "), deleting neighbor");
    if (!unneeded()) return;
    sm = nullptr;  // the machine ends without making its reactors if it has no other holder
    closeTarget(address, [&] {
      return retired() || listedNeighbor(address) || joinPruneNeighborSm(address) != nullptr;
    });
  } catch (...) {
    fallBehind();
    throw;
  }
}

// --- Want of memory ------------------------------------------------------------------------------

// A target was not made or not removed. It is tried again after a moment, and earlier when an interface, a
// neighbor or a message is heard of.
void JoinPruneMessageSm::fallBehind() noexcept {
  if (retired()) return;
  behind_ = true;
  if (!catchUpTimer_ || catchUpTimer_->armed()) return;
  Vel::MemoryHold const memory(this);
  try {
    Vel::Ptr<Zanth::TimerWheel> const wheel = catchUpTimer_->notifier();
    Seconds const due = wheel ? wheel->now() + catchUpDelay : Vel::never;
    if (!retired()) catchUpTimer_->timeMinIs(due);
  } catch (...) {
    // A clock that fails arms no timer.
  }
}

// What fails again is tried again; the first failure has been reported.
void JoinPruneMessageSm::catchUp() noexcept {
  if (!behind_ || retired()) return;
  Vel::MemoryHold const memory(this);
  try {
    // No machine can be made while the clock gives no time.
    Vel::Ptr<Zanth::TimerWheel> const wheel = notifierOf(timerWheel_);
    if (wheel && std::isnan(wheel->now())) return;
    behind_ = false;  // before what may fail again
    if (pimStatus_) syncPimIntf();
    for (auto i = pimIntfIterator(); i && !retired(); ++i)
      if (i->unfinished()) i->handleNew();
    if (Vel::Ptr<Status const> const status = notifierOf(pimStatus_))
      for (auto i = status->pimNeighborIterator(); i && !retired(); ++i)
        if (!joinPruneNeighborSm(i.key())) handleNeighbor(i.key());
    for (auto i = joinPruneNeighborSmIterator(); i && !retired(); ++i)
      if (i->neighbor() && !listedNeighbor(i.key())) doMaybeDeleteNeighbor(i.key());
  } catch (...) {
    fallBehind();
  }
}

void JoinPruneMessageSm::VelCatchUpTimer::onTime() {
  if (joinPruneMessageSm()) joinPruneMessageSm()->catchUp();
}

// --- Text ----------------------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& os, JoinPruneMessageSm const*) { return os << "JoinPruneMessageSm::"; }

Vel::AttributeTable const& JoinPruneMessageSm::attributeTable() const {
  using Self = JoinPruneMessageSm;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(joinPruneStatus), VEL_ROW_FIXED(joinPruneFilter),
                                         VEL_ROW_FIXED(pimStatus),       VEL_ROW_FIXED(rpHashComputeStatus),
                                         VEL_ROW_FIXED(rxJoin),          VEL_ROW_FIXED(rxPrune),
                                         VEL_ROW_FIXED(rxMessageInfo),   VEL_ROW_FIXED(txMessage),
                                         VEL_ROW_FIXED(pimPamManager),   VEL_ROW_FIXED(timerWheel),
                                         VEL_ROW(diagUpJoinCount),       VEL_ROW_FIXED(joinPruneNeighborSm),
                                         VEL_ROW_FIXED(pimIntf),         VEL_ROW(initialized)};
  return table;
}

}  // namespace Routing::Pim
