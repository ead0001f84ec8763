#include "pim/joinprune/JoinPruneMessageSm.h"

#include <cmath>
#include <exception>

#include "pim/joinprune/JoinPruneTrace.h"
#include "pim/joinprune/NestedReactor.h"
#include "pim/model/packet/GroupEntries.h"
#include "runtime/vel/Assert.h"

namespace Routing::Pim {

namespace {

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
  if (joinPruneStatus) joinPruneStatus->velMachineIs(sm.get());
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
  JOIN_PRUNE_TRACE(8, this, "()");
  handleNeighbor();
  // What is left of neighbors that vanished while there was no machine.
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) {
    for (auto i = periodic->upJoinPruneIterator(); i; ++i) {
      Dova::IpGenAddr const address = i.key();
      JoinPruneNeighborSm const* const sm = joinPruneNeighborSm_.find(address);
      if (listedNeighbor(address) || (sm && !sm->neighbor())) continue;
      JOIN_PRUNE_TRACE(2, this, "(), Deleting any pending joins and prunes for deleted neighbor " << address);
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
  for (auto i = joinPruneNeighborSmIterator(); i; ++i) i->velRetire();
  for (auto i = pimIntfIterator(); i; ++i) removePimIntf(i.key());
  for (auto i = joinPruneNeighborSmIterator(); i; ++i) removeJoinPruneNeighborSm(i.key());
  if (pimPamManager_) unhook(*pimPamManager_);
  if (timerWheel_) unhook(*timerWheel_);
  if (joinPruneStatus_ && joinPruneStatus_->velMachine() == this) joinPruneStatus_->velMachineIs(nullptr);
}

// doTeardown() has normally emptied everything; if it failed half-way, nothing may point back here.
JoinPruneMessageSm::~JoinPruneMessageSm() {
  for (auto i = pimIntfIterator(); i; ++i) i->joinPruneMessageSmIs(nullptr);
  for (auto i = joinPruneNeighborSmIterator(); i; ++i) i->velRetire();
  auto const forget = [](auto const&... reactors) {
    ((reactors ? reactors->joinPruneMessageSmIs(nullptr) : void()), ...);
  };
  forget(pimStatus_, rxMessageInfo_, pimPamManager_, timerWheel_, catchUpTimer_);
}

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

// What a neighbor machine is made with. Making each set calls out, and whoever is called may take the target
// away or make it himself; so each step asks whether it is still wanted.
struct JoinPruneMessageSm::Target {
  Vel::Ptr<Packet::JoinPruneData> triggered;
  Vel::Ptr<Packet::JoinPruneData> override;
  Vel::Ptr<Packet::JoinPruneData> periodic;
};

Vel::Ptr<Packet::JoinPruneStatus> JoinPruneMessageSm::periodicStatus() const {
  return joinPruneStatus_ ? joinPruneStatus_->periodicGroupStatus() : nullptr;
}

// False if the target was not wanted any more on the way.
template <class Wanted>
bool JoinPruneMessageSm::openTarget(Target& target, Dova::IpGenAddr const& address, Wanted const& wanted) {
  if (!joinPruneStatus_ || !wanted()) return wanted();
  // Somebody may remove a set while another is made; what is there already is found without calling out, so
  // that the second round mostly is the last. Who removes them for ever gets no machine.
  for (int round = 0; round < 4; ++round) {
    target.triggered = joinPruneStatus_->triggeredGroupIs(address);
    if (!wanted()) return false;
    target.override = joinPruneStatus_->overrideGroupIs(address);
    if (!wanted()) return false;
    Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus();
    target.periodic = periodic ? periodic->upJoinPruneIs(address) : nullptr;
    if (!wanted()) return false;
    if (joinPruneStatus_->triggeredGroup(address) == target.triggered &&
        joinPruneStatus_->overrideGroup(address) == target.override && periodicStatus() == periodic &&
        (!periodic || periodic->upJoinPrune(address) == target.periodic))
      return true;
  }
  return false;
}

// Whoever restarts the machine from inside one of its callbacks has the new one before the old one goes.
bool JoinPruneMessageSm::succeeded() const {
  void const* const latest = joinPruneStatus_ ? joinPruneStatus_->velMachine() : nullptr;
  return latest && latest != this;
}

// Removes a target's machine and data sets, as long as nobody takes the target up again meanwhile.
template <class Wanted>
void JoinPruneMessageSm::closeTarget(Dova::IpGenAddr const& address, Wanted const& wanted) {
  auto const stays = [&] { return wanted() || succeeded(); };
  removeJoinPruneNeighborSm(address);
  if (stays()) return;
  if (joinPruneStatus_) joinPruneStatus_->triggeredGroupDel(address);
  if (stays()) return;
  if (joinPruneStatus_) joinPruneStatus_->overrideGroupDel(address);
  if (stays()) return;
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) periodic->upJoinPruneDel(address);
}

// Displaces the machine that is there, if there is one. No callback runs between its removal and the
// insertion of the new one, so nothing can take the place meanwhile.
void JoinPruneMessageSm::startTarget(Target const& target, Dova::IpGenAddr const& address,
                                     Vel::Ptr<Neighbor const> const& neighbor,
                                     Vel::Ptr<Intf const> const& intf) {
  auto const sm = JoinPruneNeighborSm::velConstruct(this, address, neighbor, intf, target.triggered,
                                                    target.override, target.periodic, notifierOf(timerWheel_),
                                                    intf ? intf->usedOverrideIntervalInSeconds() : 0,
                                                    notifierOf(pimPamManager_), txMessage_);
  Vel::Ptr<JoinPruneNeighborSm> const displaced(joinPruneNeighborSm_.find(address));
  if (displaced) {
    joinPruneNeighborSm_.replace(sm);
    displaced->velRetire();
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
  auto const sm = JoinPruneNeighborSm::velConstruct(parentSm, neighborAddr, neighbor, intf, triggeredGroup,
                                                    overrideGroup, periodicGroup, timerWheel,
                                                    overrideInterval, pimPamManager, txMessage);
  joinPruneNeighborSm_.insert(where, sm);
  startMachine(*sm);
  return sm;
}

// A machine is in its place before it is started, so that what its start calls can find it and take it away.
void JoinPruneMessageSm::startMachine(JoinPruneNeighborSm& sm) {
  try {
    sm.velStart();
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
    removed->velRetire();
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
  for (auto const& sm : joinPruneNeighborSm_.elements())
    if (joinPruneNeighborSm_.find(sm->neighborAddr()) == sm.get()) joinPruneNeighborSmDel(sm->neighborAddr());
}

// --- Neighbors -----------------------------------------------------------------------------------

Vel::Ptr<Neighbor const> JoinPruneMessageSm::listedNeighbor(Dova::IpGenAddr const& address) const {
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  return status ? status->pimNeighbor(address) : nullptr;
}

void JoinPruneMessageSm::handleNeighbor() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(2, this, "()");
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  if (!status) return;
  for (auto i = status->pimNeighborIterator(); i && !retired(); ++i) handleNeighbor(i.key());
}

void JoinPruneMessageSm::handleNeighbor(Dova::IpGenAddr const& changed) {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  Dova::IpGenAddr const address = changed;
  if (retired()) return;
  JOIN_PRUNE_TRACE(8, this, '(' << address << ')');
  if (retired()) return;
  Vel::Ptr<Neighbor const> const neighbor = listedNeighbor(address);
  if (!neighbor) {
    JOIN_PRUNE_TRACE(2, this, '(' << address << "), Neighbor down");
    if (!retired()) doMaybeDeleteNeighbor(address);
    return;
  }
  JOIN_PRUNE_TRACE(2, this, '(' << address << "), Neighbor up");
  if (retired() || listedNeighbor(address) != neighbor) return;
  if (joinPruneNeighborSm(address)) {
    JOIN_PRUNE_TRACE(
        2, this,
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
  JOIN_PRUNE_TRACE(8, this, '(' << address << ')');
  if (retired() || listedNeighbor(address)) return;
  Vel::Ptr<JoinPruneNeighborSm> const sm = joinPruneNeighborSm(address);
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
    JOIN_PRUNE_TRACE(2, this, '(' << address << "), deleting neighbor");
    if (!unneeded()) return;
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

// --- Interfaces ----------------------------------------------------------------------------------

JoinPruneMessageSm::VelPimStatus::VelPimStatus(Vel::Ptr<Status const> const& status, JoinPruneMessageSm* sm)
    : Owned(sm) {
  Owned::notifierIs(status);
}

void JoinPruneMessageSm::VelPimStatus::notifierIs(Vel::Ptr<Status const> const& status) {
  if (status == notifier()) return;
  Vel::MemoryHold const memory(this);
  Owned::notifierIs(status);
  onPimIntfvelImmediate();
}

void JoinPruneMessageSm::VelPimStatus::onPimIntfvelImmediate() {
  if (joinPruneMessageSm() && !isZombie()) joinPruneMessageSm()->syncPimIntf();
}

void JoinPruneMessageSm::VelPimStatus::onPimIntf(Dova::IntfId intfId) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm || isZombie()) return;
  Vel::MemoryHold const machineMemory(sm);
  sm->catchUp();
  Vel::Ptr<Status const> const status = notifier();
  if (Vel::Ptr<Intf const> const intf = status ? status->pimIntf(intfId) : nullptr)
    sm->pimIntfIs(intf);
  else
    sm->pimIntfDel(intfId);
}

void JoinPruneMessageSm::VelPimStatus::onPimNeighbor(Dova::IpGenAddr address) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm || isZombie()) return;
  Vel::MemoryHold const machineMemory(sm);
  sm->catchUp();
  sm->handleNeighbor(address);
}

// Adds what Status has and deletes what it has no more.
void JoinPruneMessageSm::syncPimIntf() {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  if (status)
    for (auto i = status->pimIntfIterator(); i && !retired(); ++i) pimIntfIs(i.ptr());
  for (auto i = pimIntfIterator(); i && !retired(); ++i)
    if (!status || !status->pimIntf(i.key())) pimIntfDel(i);
}

Vel::Ptr<JoinPruneMessageSm::VelPimIntf> JoinPruneMessageSm::pimIntfIs(Vel::Ptr<Intf const> const& intf) {
  if (!intf) Vel::throwNullParameter("_pimIntf", "Routing::Pim::JoinPruneMessageSm::pimIntf");
  if (retired()) return nullptr;
  Vel::MemoryHold const memory(this);
  Vel::Ptr<VelPimIntf> reactor(pimIntf_.find(intf->intfId()));
  if (reactor) {
    if (reactor->notifier() == intf) return reactor;
    reactor->notifierIs(intf);
  } else {
    try {
      reactor = Vel::create<VelPimIntf>(intf, this);
      reactor->hasNotificationActiveIs(hasNotificationActive());
      // In its place before it calls out, so that no second one is made.
      pimIntf_.insert(reactor);
      reactor->handleNew();
    } catch (...) {
      fallBehind();
      // A reactor without its machine would never make one.
      if (reactor && pimIntf_.find(reactor->velKey()) == reactor.get()) removePimIntf(reactor->velKey());
      throw;
    }
  }
  if (pimIntf_.find(reactor->velKey()) == reactor.get()) pimIntfNotify(reactor->velKey());
  return reactor;
}

Vel::Ptr<JoinPruneMessageSm::VelPimIntf> JoinPruneMessageSm::pimIntfDel(Dova::IntfId const& intfId) {
  return retired() ? nullptr : removePimIntf(intfId);
}

// Also while this machine is being retired.
Vel::Ptr<JoinPruneMessageSm::VelPimIntf> JoinPruneMessageSm::removePimIntf(Dova::IntfId const& intfId) {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<VelPimIntf> const removed = pimIntf_.remove(intfId);
  if (!removed) return nullptr;
  unhook(*removed);
  pimIntfNotify(removed->velKey());
  return removed;
}

Vel::Ptr<JoinPruneMessageSm::VelPimIntf> JoinPruneMessageSm::pimIntfDel(PimIntfIterator const& i) {
  return pimIntfDel(i.key());
}

void JoinPruneMessageSm::pimIntfDelAll() {
  Vel::MemoryHold const memory(this);
  for (auto const& reactor : pimIntf_.elements())
    if (pimIntf_.find(reactor->velKey()) == reactor.get()) pimIntfDel(reactor->velKey());
}

JoinPruneMessageSm::VelPimIntf::VelPimIntf(Vel::Ptr<Intf const> const& intf, JoinPruneMessageSm* sm)
    : Owned(sm), intfId_(intf->intfId()) {
  Owned::notifierIs(intf);
}

void JoinPruneMessageSm::VelPimIntf::notifierIs(Vel::Ptr<Intf const> const& intf) {
  if (intf == notifier()) return;
  if (intf && !(intf->intfId() == intfId_))
    throw Vel::InvalidArgumentException("the reactor of interface " + intfId_.name() +
                                        " cannot watch interface " + intf->intfId().name());
  Vel::MemoryHold const memory(this);
  Owned::notifierIs(intf);
  handleDel();
  if (notifier() == intf) handleNew();
}

bool JoinPruneMessageSm::VelPimIntf::live() const {
  return joinPruneMessageSm() && !isZombie() && notifier() && !joinPruneMessageSm()->retired();
}

void JoinPruneMessageSm::VelPimIntf::onUsedAddressWithMask() {
  if (!live()) return;
  Vel::MemoryHold const memory(this);
  joinPruneMessageSm()->catchUp();
  handleUsedAddress();
}

void JoinPruneMessageSm::VelPimIntf::velDoZombieReactors(bool zombie) {
  if (zombie == isZombie()) return;
  Vel::MemoryHold const memory(this);
  Owned::velDoZombieReactors(zombie);
  if (joinPruneMessageSm()) joinPruneMessageSm()->vel_handlePimIntf(this);
}

void JoinPruneMessageSm::vel_handlePimIntf(VelPimIntf* reactor) { reactor->handleDel(); }

void JoinPruneMessageSm::VelPimIntf::handleNew() {
  JOIN_PRUNE_BLOCK_TIMER();
  if (!live()) return;
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(joinPruneMessageSm());
  JOIN_PRUNE_TRACE_BARE(8, '(' << intfId_ << ')');
  if (!live()) return;
  JOIN_PRUNE_TRACE_BARE(2, '(' << intfId_ << "), Intf up");
  if (!live()) return;
  Dova::IpGenAddr const address = notifier()->usedAddressWithMask().ipGenAddr();
  // Before the machine is made: what is called meanwhile can take it away again.
  addressIs(address);
  taken_ = true;
  auto const wanted = [&] { return live() && address_ == address; };
  if (joinPruneMessageSm()->joinPruneNeighborSm(address)) {
    JOIN_PRUNE_TRACE_BARE(2, ", Deleting existing SM for " << address);
    if (!wanted()) return;
    deleteJoinPruneSm(address);
  }
  if (wanted()) createJoinPruneSm(address);
}

void JoinPruneMessageSm::VelPimIntf::handleDel() {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm) return;
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(sm);
  Dova::IpGenAddr const address = address_;
  Vel::Ptr<JoinPruneNeighborSm> const present = sm->joinPruneNeighborSm(address);
  JOIN_PRUNE_TRACE_BARE(2, '(' << intfId_ << "), Intf down");
  if (!taken_) return;  // the machine under the unspecified address is that of another interface
  // A machine that was made since the line was written belongs to another interface or neighbor, or to this
  // one anew.
  Vel::Ptr<JoinPruneNeighborSm> const now = sm->joinPruneNeighborSm(address);
  if (!now || now == present) deleteJoinPruneSm(address);
}

void JoinPruneMessageSm::VelPimIntf::handleUsedAddress() {
  if (!live()) return;
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE_BARE(2, '(' << intfId_ << "), Address changed");
  if (!live()) return;
  Dova::IpGenAddr const previous = address_;
  Dova::IpGenAddr const address = notifier()->usedAddressWithMask().ipGenAddr();
  if (previous == address) return;
  JOIN_PRUNE_TRACE_BARE(
      4, '(' << intfId_ << "), Previous address: " << previous << ", New address: " << address);
  // A change of the address inside a callback has been handled when the callback returns.
  auto const unhandled = [&] { return live() && address_ == previous; };
  if (!unhandled()) return;
  handleDel();
  if (unhandled()) handleNew();
}

void JoinPruneMessageSm::VelPimIntf::createJoinPruneSm(Dova::IpGenAddr const& wantedAddress) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm) return;
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(sm);
  Vel::Ptr<Intf const> const intf = notifier();
  Dova::IpGenAddr const address = wantedAddress;
  Dova::IpGenAddr const ownAddress = address_;
  // Only the own address is caught up with: who asks for another is told of the failure here.
  bool const own = address == ownAddress;
  if (own) unfinished_ = true;
  try {
    Target target;
    if (sm->openTarget(target, address,
                       [&] { return live() && notifier() == intf && address_ == ownAddress; })) {
      // A neighbor with this address may have come up meanwhile, or this very interface anew.
      Vel::Ptr<JoinPruneNeighborSm> const present = sm->joinPruneNeighborSm(address);
      if (!present || present->neighbor() || present->intf() != intf)
        sm->startTarget(target, address, nullptr, intf);
    }
    if (own && address_ == ownAddress) unfinished_ = false;
  } catch (...) {
    sm->fallBehind();
    throw;
  }
}

void JoinPruneMessageSm::VelPimIntf::deleteJoinPruneSm(Dova::IpGenAddr const& oldAddress) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm) return;
  Vel::MemoryHold const machineMemory(sm);
  Dova::IpGenAddr const address = oldAddress;
  sm->closeTarget(address, [&] { return sm->joinPruneNeighborSm(address) != nullptr; });
}

// --- Receiving -----------------------------------------------------------------------------------

JoinPruneMessageSm::VelRxMessageInfo::VelRxMessageInfo(Vel::Ptr<IO::MessageInfo> const& channel,
                                                       JoinPruneMessageSm* sm)
    : Owned(sm) {
  Owned::notifierIs(channel);
}

void JoinPruneMessageSm::VelRxMessageInfo::notifierIs(Vel::Ptr<IO::MessageInfo> const& channel) {
  if (channel == notifier()) return;
  Vel::MemoryHold const memory(this);
  Owned::notifierIs(channel);
  if (channel && hasNotificationActive()) onCount();
}

void JoinPruneMessageSm::VelRxMessageInfo::onCount() {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm || isZombie()) return;
  Vel::MemoryHold const machineMemory(sm);
  sm->catchUp();
  if (!sm->retired()) sm->handleRxMessage();
}

namespace {

// One of the two records, while a message is taken apart.
struct RxRecord {
  Vel::Ptr<JoinPruneMessageInfo> const info;
  char const* const name;
  bool headerDone = false;  // for the group at hand
};

// How a kind is written behind "Join" or "Prune".
std::string_view shortForm(EntryKind kind) {
  return isWildcard(kind) ? ", WC" : flagsOf(kind) & EntryFlags::rpt ? ", RPT" : "";
}

}  // namespace

void JoinPruneMessageSm::handleRxMessage() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(8, this, "()");
  if (retired()) return;
  Vel::Ptr<IO::MessageInfo> const channel = notifierOf(rxMessageInfo_);
  Vel::Ptr<Packet::JoinPruneMessage> const message = channel ? channel->joinPruneMessage() : nullptr;
  Vel::Ptr<Packet::JoinPruneData> const data = message ? message->joinPruneData() : nullptr;
  if (!data) return;

  RxRecord join{rxJoin_, "Join"}, prune{rxPrune_, "Prune"};

  // Each write notifies, so the order is what observers rely on. They may drop this machine in between.
  auto const writeEntry = [&](EntryKind kind, Dova::IpGenAddr const& source, Dova::IpGenAddr const& group,
                              Dova::IpGenAddr const* wcSource) {
    if (retired()) return;
    RxRecord& record = isJoin(kind) ? join : prune;
    JoinPruneMessageInfo* const info = record.info.get();
    if (info) {
      if (!std::exchange(record.headerDone, true)) {
        info->upstreamNeighborIs(data->upstreamNeighbor());
        if (retired()) return;
        info->holdTimeIs(static_cast<double>(data->holdTime()));
        if (retired()) return;
      }
      info->velRouteIs(source, group);
      if (retired()) return;
      info->sourceFlagsIs(Packet::SourceFlags(kind));
      if (retired()) return;
      if (wcSource) info->wcSourceIs(*wcSource);
      if (retired()) return;
    }
    JOIN_PRUNE_TRACE_AS(7, this, "handleRxMessage", "(), " << record.name << shortForm(kind) << info);
    if (info && !retired()) info->rxCountInc(1);
  };
  // Most groups have sources of one kind, so the others are asked for their number first.
  auto const writeSources = [&](auto sources, Packet::JoinPruneGroupData const& groupData,
                                Dova::IpGenAddr const& group) {
    if (sources.count(groupData) == 0) return;
    for (auto source = sources.iterator(groupData); source && !retired(); ++source)
      writeEntry(sources.kind, source.key(), group, nullptr);
  };

  // Where nobody hears of the single entries, those of the usual kind of group are written at once.
  auto const writeUnheard = [&](RxRecord& record, Packet::JoinPruneGroupData const& groupData) {
    if (!record.info || !record.info->velUnheard() || !joinPruneIsQuiet()) return false;
    auto const* const sources = groupData.velJoinsAlone();
    if (!sources) return false;
    record.info->velJoinsAre(data->upstreamNeighbor(), data->holdTime(), groupData.group(), *sources);
    return record.headerDone = true;
  };

  // What a filter or RP hash that throws was asked about is not recorded; the rest of the message is.
  std::exception_ptr firstError;
  auto const answered = [&firstError](auto const& ask) {
    try {
      ask();
      return true;
    } catch (...) {
      if (!firstError) firstError = std::current_exception();
      return false;
    }
  };

  for (auto i = data->joinPruneGroupDataIterator(); i && !retired(); ++i) {
    Packet::JoinPruneGroupData const& groupData = *i;
    Dova::IpGenAddr const group = groupData.group();
    join.headerDone = prune.headerDone = false;
    if (!writeUnheard(join, groupData))
      writeSources(Packet::GroupSources<EntryKind::sourceJoin>(), groupData, group);
    writeSources(Packet::GroupSources<EntryKind::sourcePrune>(), groupData, group);
    if (retired()) break;
    // Kept: asked only now, so the (S,G) entries of a denied group are recorded.
    bool denied = false;
    if (joinPruneFilter_ && !answered([&] { denied = joinPruneFilter_->deny(group); })) denied = true;
    if (denied) continue;
    if (Vel::Ptr<Packet::WcSourceData> const wildcard = retired() ? nullptr : groupData.wcSourceData()) {
      Dova::IpGenAddr const wcAddress = wildcard->address();
      Dova::IpGenAddr const anySource = Dova::IpGenAddr::zero(wcAddress.af());
      if (!wildcard->join()) {
        // Kept: the RP of a prune is not checked.
        writeEntry(EntryKind::wildcardPrune, anySource, group, &wcAddress);
      } else {
        Dova::IpGenAddr rp;
        bool known = true;
        if (rpHashComputeStatus_) {
          known = answered([&] { rp = rpHashComputeStatus_->rpHashCompute(group, wcAddress); });
          if (known) VEL_ASSERT(JOIN_PRUNE_SOURCE, rp.af() != Dova::ipunknown());
        }
        if (known && rpHashComputeStatus_ && rp == wcAddress)
          writeEntry(EntryKind::wildcardJoin, anySource, group, &wcAddress);
        else if (known && !retired())
          JOIN_PRUNE_TRACE(
              2, this,
              "(), RP (" << rp << ") does not match received RP (" << wcAddress << ") for group " << group);
      }
    }
    writeSources(Packet::GroupSources<EntryKind::sourceRptJoin>(), groupData, group);
    writeSources(Packet::GroupSources<EntryKind::sourceRptPrune>(), groupData, group);
  }
  if (firstError) std::rethrow_exception(firstError);
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
