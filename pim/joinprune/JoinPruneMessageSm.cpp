#include "pim/joinprune/JoinPruneMessageSm.h"

#include "pim/joinprune/JoinPruneTrace.h"
#include "pim/joinprune/NestedReactor.h"
#include "runtime/vel/Assert.h"

namespace Routing::Pim {

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
      timerWheel_(reactorOn<VelTimerWheel>(timerWheel, this)) {}

Vel::Ptr<JoinPruneMessageSm> joinPruneMessageSmFactory(
    Vel::Ptr<JoinPruneStatus> joinPruneStatus, Vel::Ptr<JoinPruneFilter const> joinPruneFilter,
    Vel::Ptr<Status const> pimStatus, Vel::Ptr<RpHashComputeStatus> rpHashComputeStatus,
    Vel::Ptr<JoinPruneMessageInfo> rxJoin, Vel::Ptr<JoinPruneMessageInfo> rxPrune,
    Vel::Ptr<IO::MessageInfo> rxMessageInfo, Vel::Ptr<IO::PamManager> pimPamManager,
    Vel::Ptr<Zanth::TimerWheel> timerWheel) {
  auto const sm = Vel::valid(Vel::create<JoinPruneMessageSm>(joinPruneStatus, joinPruneFilter, pimStatus,
                                                             rpHashComputeStatus, rxJoin, rxPrune,
                                                             rxMessageInfo, pimPamManager, timerWheel));
  sm->velStart();
  return sm;
}

void JoinPruneMessageSm::velStart() {
  if (joinPruneStatus_) joinPruneStatus_->velMachineIs(this);
  // Before the interfaces: their machines are given the message too.
  txMessageIs();
  if (pimStatus_) syncPimIntf();
  handleInitialized();
}

void JoinPruneMessageSm::handleInitialized() {
  JOIN_PRUNE_BLOCK_TIMER();
  Hold const hold(this);
  JOIN_PRUNE_TRACE(8, this, "()");
  txMessageIs();
  handleNeighbor();
  // What is left of neighbors that vanished while there was no machine.
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) {
    for (auto i = periodic->upJoinPruneIterator(); i && !hold.gone(); ++i) {
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
  // First it turns deaf, so that nobody can make it take up anything new while it goes.
  retire();
  if (pimStatus_) unhook(*pimStatus_);
  if (rxMessageInfo_) unhook(*rxMessageInfo_);
  pimIntfDelAll();
  joinPruneNeighborSmDelAll();
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
  forget(pimStatus_, rxMessageInfo_, pimPamManager_, timerWheel_);
}

void JoinPruneMessageSm::velVisitReactors(ReactorVisitor const& visit) {
  auto const visitAll = [&visit](auto const... reactors) { ((reactors ? visit(*reactors) : void()), ...); };
  visitAll(pimStatus_, rxMessageInfo_, pimPamManager_, timerWheel_);
  for (auto i = pimIntfIterator(); i; ++i) visit(*i);
}

Vel::Ptr<Packet::JoinPruneMessage> JoinPruneMessageSm::txMessageIs() {
  return txMessage_ ? txMessage_ : newTxMessage();
}

Vel::Ptr<Packet::JoinPruneMessage> JoinPruneMessageSm::newTxMessage() {
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
  joinPruneNeighborSmDel(address);
  if (stays()) return;
  if (joinPruneStatus_) joinPruneStatus_->triggeredGroupDel(address);
  if (stays()) return;
  if (joinPruneStatus_) joinPruneStatus_->overrideGroupDel(address);
  if (stays()) return;
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) periodic->upJoinPruneDel(address);
}

void JoinPruneMessageSm::startTarget(Target const& target, Dova::IpGenAddr const& address,
                                     Vel::Ptr<Neighbor const> const& neighbor,
                                     Vel::Ptr<Intf const> const& intf) {
  joinPruneNeighborSmIs(this, address, neighbor, intf, target.triggered, target.override, target.periodic,
                        notifierOf(timerWheel_), intf ? intf->usedOverrideIntervalInSeconds() : 0,
                        notifierOf(pimPamManager_), txMessage_);
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
  Hold const hold(this);
  auto const sm =
      newJoinPruneNeighborSm(parentSm, neighborAddr, neighbor, intf, triggeredGroup, overrideGroup,
                             periodicGroup, timerWheel, overrideInterval, pimPamManager, txMessage);
  try {
    sm->velStart();
  } catch (...) {
    joinPruneNeighborSmDel(neighborAddr);  // half a machine is worse than none
    throw;
  }
  if (joinPruneNeighborSm_.find(neighborAddr) == sm.get()) joinPruneNeighborSmNotify(neighborAddr);
  return sm;
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::newJoinPruneNeighborSm(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
    Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
    Vel::Ptr<Zanth::TimerWheel> timerWheel, double const& overrideInterval,
    Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage) {
  auto const sm = Vel::valid(Vel::create<JoinPruneNeighborSm>(
      parentSm, neighborAddr, neighbor, intf, triggeredGroup, overrideGroup, periodicGroup, timerWheel,
      overrideInterval, pimPamManager, txMessage));
  joinPruneNeighborSm_.insert(sm);
  return sm;
}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneMessageSm::joinPruneNeighborSmDel(
    Dova::IpGenAddr const& neighborAddr) {
  Hold const hold(this);
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
  Hold const hold(this);
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
  Hold const hold(this);
  JOIN_PRUNE_TRACE(2, this, "()");
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  if (!status) return;
  for (auto i = status->pimNeighborIterator(); i && !hold.gone(); ++i) handleNeighbor(i.key());
}

void JoinPruneMessageSm::handleNeighbor(Dova::IpGenAddr const& changed) {
  JOIN_PRUNE_BLOCK_TIMER();
  Hold const hold(this);
  Dova::IpGenAddr const address = changed;
  if (hold.gone()) return;
  JOIN_PRUNE_TRACE(8, this, '(' << address << ')');
  Vel::Ptr<Neighbor const> const neighbor = listedNeighbor(address);
  if (!neighbor) {
    JOIN_PRUNE_TRACE(2, this, '(' << address << "), Neighbor down");
    doMaybeDeleteNeighbor(address);
    return;
  }
  JOIN_PRUNE_TRACE(2, this, '(' << address << "), Neighbor up");
  if (joinPruneNeighborSm(address)) {
    JOIN_PRUNE_TRACE(
        2, this,
        ", Not creating SM for neighbor "
            << address
            << " because one already exists.  This could be due to the interface having the same "
               "interface.");
    return;
  }
  Target target;
  if (openTarget(target, address, [&] {
        return !hold.gone() && listedNeighbor(address) == neighbor && !joinPruneNeighborSm(address);
      }))
    startTarget(target, address, neighbor, neighbor->intf());
}

void JoinPruneMessageSm::doMaybeDeleteNeighbor(Dova::IpGenAddr const& gone) {
  JOIN_PRUNE_BLOCK_TIMER();
  Hold const hold(this);
  Dova::IpGenAddr const address = gone;  // the caller's may go with what is deleted here
  JOIN_PRUNE_TRACE(8, this, '(' << address << ')');
  if (listedNeighbor(address)) return;
  Vel::Ptr<JoinPruneNeighborSm> const sm = joinPruneNeighborSm(address);
  if (sm && !sm->neighbor()) return;  // an interface's own address: its machine goes with the interface
  auto const wanted = [&] {
    return hold.gone() || listedNeighbor(address) || joinPruneNeighborSm(address) != nullptr;
  };
  if (Vel::Ptr<Packet::JoinPruneStatus> const periodic = periodicStatus()) {
    // Deliberately kept while there is something to send: the prunes towards a neighbor that may only be
    // flapping.
    if (periodic->upJoinPruneIs(address)->joinPruneGroupDataCount() != 0) return;
    if (hold.gone() || listedNeighbor(address) || joinPruneNeighborSm(address) != sm) return;
  }
  JOIN_PRUNE_TRACE(2, this, '(' << address << "), deleting neighbor");
  closeTarget(address, wanted);
}

// --- Interfaces ----------------------------------------------------------------------------------

JoinPruneMessageSm::VelPimStatus::VelPimStatus(Vel::Ptr<Status const> const& status, JoinPruneMessageSm* sm)
    : Owned(sm) {
  Owned::notifierIs(status);
}

void JoinPruneMessageSm::VelPimStatus::notifierIs(Vel::Ptr<Status const> const& status) {
  if (status == notifier()) return;
  Owned::notifierIs(status);
  onPimIntfvelImmediate();
}

void JoinPruneMessageSm::VelPimStatus::onPimIntfvelImmediate() {
  if (joinPruneMessageSm() && !isZombie()) joinPruneMessageSm()->syncPimIntf();
}

void JoinPruneMessageSm::VelPimStatus::onPimIntf(Dova::IntfId intfId) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm || isZombie()) return;
  Hold const hold(sm);
  if (hold.gone()) return;
  Vel::Ptr<Status const> const status = notifier();
  if (Vel::Ptr<Intf const> const intf = status ? status->pimIntf(intfId) : nullptr)
    sm->pimIntfIs(intf);
  else
    sm->pimIntfDel(intfId);
}

void JoinPruneMessageSm::VelPimStatus::onPimNeighbor(Dova::IpGenAddr address) {
  if (joinPruneMessageSm() && !isZombie()) joinPruneMessageSm()->handleNeighbor(address);
}

// Adds what Status has and deletes what it has no more.
void JoinPruneMessageSm::syncPimIntf() {
  Hold const hold(this);
  Vel::Ptr<Status const> const status = notifierOf(pimStatus_);
  if (status)
    for (auto i = status->pimIntfIterator(); i && !hold.gone(); ++i) pimIntfIs(i.ptr());
  for (auto i = pimIntfIterator(); i && !hold.gone(); ++i)
    if (!status || !status->pimIntf(i.key())) pimIntfDel(i);
}

Vel::Ptr<JoinPruneMessageSm::VelPimIntf> JoinPruneMessageSm::pimIntfIs(Vel::Ptr<Intf const> const& intf) {
  if (!intf) Vel::throwNullParameter("_pimIntf", "Routing::Pim::JoinPruneMessageSm::pimIntf");
  Hold const hold(this);
  Vel::Ptr<VelPimIntf> reactor(pimIntf_.find(intf->intfId()));
  if (reactor) {
    if (reactor->notifier() == intf) return reactor;
    reactor->notifierIs(intf);
  } else {
    reactor = Vel::create<VelPimIntf>(intf, this);
    reactor->hasNotificationActiveIs(hasNotificationActive());
    // In its place before it calls out, so that nobody makes a second one.
    pimIntf_.insert(reactor);
    try {
      reactor->handleNew();
    } catch (...) {
      pimIntfDel(reactor->velKey());  // a reactor without its machine would never make one
      throw;
    }
  }
  if (pimIntf_.find(reactor->velKey()) == reactor.get()) pimIntfNotify(reactor->velKey());
  return reactor;
}

Vel::Ptr<JoinPruneMessageSm::VelPimIntf> JoinPruneMessageSm::pimIntfDel(Dova::IntfId const& intfId) {
  Hold const hold(this);
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
  Hold const hold(this);
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
  Vel::Ptr<VelPimIntf> const keep(this);
  Owned::notifierIs(intf);
  handleDel();
  if (live()) handleNew();
}

bool JoinPruneMessageSm::VelPimIntf::live() const {
  return joinPruneMessageSm() && !isZombie() && notifier() && !Hold(joinPruneMessageSm()).gone();
}

void JoinPruneMessageSm::VelPimIntf::onUsedAddressWithMask() {
  if (live()) handleUsedAddress();
}

void JoinPruneMessageSm::VelPimIntf::velDoZombieReactors(bool zombie) {
  if (zombie == isZombie()) return;
  Vel::Ptr<VelPimIntf> const keep(this);
  Owned::velDoZombieReactors(zombie);
  if (joinPruneMessageSm()) joinPruneMessageSm()->vel_handlePimIntf(this);
}

void JoinPruneMessageSm::vel_handlePimIntf(VelPimIntf* reactor) { reactor->handleDel(); }

void JoinPruneMessageSm::VelPimIntf::handleNew() {
  JOIN_PRUNE_BLOCK_TIMER();
  if (!live()) return;
  Vel::Ptr<VelPimIntf> const keep(this);
  Hold const hold(joinPruneMessageSm());
  JOIN_PRUNE_TRACE_BARE(8, '(' << intfId_ << ')');
  JOIN_PRUNE_TRACE_BARE(2, '(' << intfId_ << "), Intf up");
  if (!live()) return;
  Dova::IpGenAddr const address = notifier()->usedAddressWithMask().ipGenAddr();
  // Before the machine is made: whoever is called meanwhile can take it away again.
  addressIs(address);
  if (joinPruneMessageSm()->joinPruneNeighborSm(address)) {
    JOIN_PRUNE_TRACE_BARE(2, ", Deleting existing SM for " << address);
    deleteJoinPruneSm(address);
  }
  if (live() && address_ == address) createJoinPruneSm(address);
}

void JoinPruneMessageSm::VelPimIntf::handleDel() {
  if (!joinPruneMessageSm()) return;
  JOIN_PRUNE_TRACE_BARE(2, '(' << intfId_ << "), Intf down");
  deleteJoinPruneSm(address_);
}

void JoinPruneMessageSm::VelPimIntf::handleUsedAddress() {
  if (!live()) return;
  Vel::Ptr<VelPimIntf> const keep(this);
  JOIN_PRUNE_TRACE_BARE(2, '(' << intfId_ << "), Address changed");
  if (!live()) return;
  Dova::IpGenAddr const address = notifier()->usedAddressWithMask().ipGenAddr();
  if (address_ == address) return;
  JOIN_PRUNE_TRACE_BARE(
      4, '(' << intfId_ << "), Previous address: " << address_ << ", New address: " << address);
  handleDel();
  if (live()) handleNew();
}

void JoinPruneMessageSm::VelPimIntf::createJoinPruneSm(Dova::IpGenAddr const& wantedAddress) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm) return;
  Hold const hold(sm);
  Vel::Ptr<Intf const> const intf = notifier();
  Dova::IpGenAddr const address = wantedAddress;
  Target target;
  if (!sm->openTarget(target, address,
                      [&] { return !hold.gone() && live() && notifier() == intf && address_ == address; }))
    return;
  // A neighbor with this address may have come up meanwhile, or this very interface anew.
  if (Vel::Ptr<JoinPruneNeighborSm> const present = sm->joinPruneNeighborSm(address)) {
    if (!present->neighbor() && present->intf() == intf) return;
    sm->joinPruneNeighborSmDel(address);
    if (hold.gone() || !live() || address_ != address) return;
  }
  sm->startTarget(target, address, nullptr, intf);
}

void JoinPruneMessageSm::VelPimIntf::deleteJoinPruneSm(Dova::IpGenAddr const& oldAddress) {
  JoinPruneMessageSm* const sm = joinPruneMessageSm();
  if (!sm) return;
  Hold const hold(sm);
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
  Owned::notifierIs(channel);
  if (channel && hasNotificationActive()) onCount();
}

void JoinPruneMessageSm::VelRxMessageInfo::onCount() {
  if (joinPruneMessageSm() && !isZombie()) joinPruneMessageSm()->handleRxMessage();
}

namespace {

// One of the two records, while a message is taken apart.
struct RxRecord {
  Vel::Ptr<JoinPruneMessageInfo> const info;
  char const* const name;
  bool headerDone = false;  // for the group at hand
};

}  // namespace

void JoinPruneMessageSm::handleRxMessage() {
  JOIN_PRUNE_BLOCK_TIMER();
  Hold const hold(this);
  JOIN_PRUNE_TRACE(8, this, "()");
  Vel::Ptr<IO::MessageInfo> const channel = notifierOf(rxMessageInfo_);
  Vel::Ptr<Packet::JoinPruneMessage> const message = channel ? channel->joinPruneMessage() : nullptr;
  Vel::Ptr<Packet::JoinPruneData> const data = message ? message->joinPruneData() : nullptr;
  if (!data) return;

  RxRecord join{rxJoin_, "Join"}, prune{rxPrune_, "Prune"};

  // Each write notifies, so the order is what observers rely on. They may drop this machine in between.
  auto const writeEntry = [&](RxRecord& record, Dova::IpGenAddr const& source, Dova::IpGenAddr const& group,
                              Packet::SourceFlags flags, char const* kind, Dova::IpGenAddr const* wcSource) {
    if (hold.gone()) return;
    JoinPruneMessageInfo* const info = record.info.get();
    if (info) {
      if (!std::exchange(record.headerDone, true)) {
        info->upstreamNeighborIs(data->upstreamNeighbor());
        info->holdTimeIs(static_cast<double>(data->holdTime()));
      }
      info->velRouteIs(source, group);
      info->sourceFlagsIs(flags);
      if (wcSource) info->wcSourceIs(*wcSource);
    }
    JOIN_PRUNE_TRACE_AS(7, this, "handleRxMessage", "(), " << record.name << kind << info);
    if (info) info->rxCountInc(1);
  };
  // Most groups have sources of one kind, so the others are asked for their number first.
  auto const writeSources = [&](RxRecord& record, U32 count, auto const& sourcesOf,
                                Dova::IpGenAddr const& group, Packet::SourceFlags flags, char const* kind) {
    if (count == 0) return;
    for (auto sources = sourcesOf(); sources && !hold.gone(); ++sources)
      writeEntry(record, sources.key(), group, flags, kind, nullptr);
  };

  // Where nobody hears of the single entries, those of the usual kind of group are written at once.
  auto const writeUnheard = [&](RxRecord& record, Packet::JoinPruneGroupData const& groupData) {
    if (!record.info || !record.info->velUnheard() || !joinPruneIsQuiet()) return false;
    auto const* const sources = groupData.velJoinsAlone();
    if (!sources) return false;
    record.info->velJoinsAre(data->upstreamNeighbor(), data->holdTime(), groupData.group(), *sources);
    return record.headerDone = true;
  };

  for (auto i = data->joinPruneGroupDataIterator(); i && !hold.gone(); ++i) {
    Packet::JoinPruneGroupData const& groupData = *i;
    Dova::IpGenAddr const group = groupData.group();
    join.headerDone = prune.headerDone = false;
    if (!writeUnheard(join, groupData))
      writeSources(
          join, groupData.joinedSourceCount(), [&] { return groupData.joinedSourceIterator(); }, group,
          Packet::sgFlags, "");
    writeSources(
        prune, groupData.prunedSourceCount(), [&] { return groupData.prunedSourceIterator(); }, group,
        Packet::sgFlags, "");
    if (hold.gone()) return;
    // Kept: asked only now, so the (S,G) entries of a denied group are recorded.
    if (joinPruneFilter_ && joinPruneFilter_->deny(group)) continue;
    if (Vel::Ptr<Packet::WcSourceData> const wildcard = hold.gone() ? nullptr : groupData.wcSourceData()) {
      Dova::IpGenAddr const wcAddress = wildcard->address();
      Dova::IpGenAddr const anySource = Dova::IpGenAddr::zero(wcAddress.af());
      if (!wildcard->join()) {
        // Kept: the RP of a prune is not checked.
        writeEntry(prune, anySource, group, Packet::wildcardFlags, ", WC", &wcAddress);
      } else {
        Dova::IpGenAddr rp;
        if (rpHashComputeStatus_) {
          rp = rpHashComputeStatus_->rpHashCompute(group, wcAddress);
          VEL_ASSERT(JOIN_PRUNE_SOURCE, rp.af() != Dova::ipunknown());
        }
        if (rp == wcAddress && rpHashComputeStatus_)
          writeEntry(join, anySource, group, Packet::wildcardFlags, ", WC", &wcAddress);
        else
          JOIN_PRUNE_TRACE(
              2, this,
              "(), RP (" << rp << ") does not match received RP (" << wcAddress << ") for group " << group);
      }
    }
    writeSources(
        join, groupData.joinedRptSourceCount(), [&] { return groupData.joinedRptSourceIterator(); }, group,
        Packet::sgRptFlags, ", RPT");
    writeSources(
        prune, groupData.prunedRptSourceCount(), [&] { return groupData.prunedRptSourceIterator(); }, group,
        Packet::sgRptFlags, ", RPT");
  }
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
