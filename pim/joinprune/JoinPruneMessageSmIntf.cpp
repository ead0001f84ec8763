// SPDX-License-Identifier: Apache-2.0
// The interfaces and neighbors that the message machine hears of, and the machine of each interface's own
// address.
#include "pim/joinprune/private/JoinPruneMessageTarget.h"
#include "pim/joinprune/private/JoinPruneTrace.h"

namespace Routing::Pim {

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
  JOIN_PRUNE_TRACE_BARE(Level::entry, '(' << intfId_ << ')');
  if (!live()) return;
  JOIN_PRUNE_TRACE_BARE(Level::event, '(' << intfId_ << "), Intf up");
  if (!live()) return;
  Dova::IpGenAddr const address = notifier()->usedAddressWithMask().ipGenAddr();
  // Before the machine is made: what is called meanwhile can take it away again.
  addressIs(address);
  taken_ = true;
  auto const wanted = [&] { return live() && address_ == address; };
  if (joinPruneMessageSm()->joinPruneNeighborSm(address)) {
    JOIN_PRUNE_TRACE_BARE(Level::event, ", Deleting existing SM for " << address);
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
  JOIN_PRUNE_TRACE_BARE(Level::event, '(' << intfId_ << "), Intf down");
  if (!taken_) return;  // the machine under the unspecified address is that of another interface
  // A machine that was made since the line was written belongs to another interface or neighbor, or to this
  // one anew.
  Vel::Ptr<JoinPruneNeighborSm> const now = sm->joinPruneNeighborSm(address);
  if (!now || now == present) deleteJoinPruneSm(address);
}

void JoinPruneMessageSm::VelPimIntf::handleUsedAddress() {
  if (!live()) return;
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE_BARE(Level::event, '(' << intfId_ << "), Address changed");
  if (!live()) return;
  Dova::IpGenAddr const previous = address_;
  Dova::IpGenAddr const address = notifier()->usedAddressWithMask().ipGenAddr();
  if (previous == address) return;
  JOIN_PRUNE_TRACE_BARE(
      Level::detail, '(' << intfId_ << "), Previous address: " << previous << ", New address: " << address);
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

}  // namespace Routing::Pim
