// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPrunePeriodicTimerSm.h"

#include "pim/joinprune/JoinPruneNeighborSm.h"
#include "pim/joinprune/private/JoinPruneTrace.h"
#include "pim/joinprune/private/TransmitStep.h"
#include "runtime/vel/private/Assert.h"

namespace Routing::Pim {

namespace {

// Traces of this machine begin with its address.
void const* subject(JoinPrunePeriodicTimerSm const* sm) { return sm; }

}  // namespace

Vel::Ptr<JoinPrunePeriodicTimerSm const> JoinPrunePeriodicTimerSm::NotifieeConst::notifier() const {
  return Vel::dynamicCast<JoinPrunePeriodicTimerSm const>(PeriodicTimerSm::NotifieeConst::notifier());
}

Vel::Ptr<JoinPrunePeriodicTimerSm> JoinPrunePeriodicTimerSm::Notifiee::notifier() const {
  return Vel::Ptr<JoinPrunePeriodicTimerSm>(static_cast<JoinPrunePeriodicTimerSm*>(velNotifier()));
}

JoinPrunePeriodicTimerSm::JoinPrunePeriodicTimerSm(Vel::Ptr<Zanth::TimerWheel> const& timerWheel,
                                                   JoinPruneNeighborSm* parentSm, Seconds const& loopQuantum,
                                                   Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
                                                   Vel::Ptr<Intf const> const& intf,
                                                   Vel::Ptr<IO::PamManager> const& pimPamManager,
                                                   Vel::Ptr<Packet::JoinPruneMessage> const& txMessage)
    : PeriodicTimerSm(timerWheel),
      loopQuantum_(loopQuantum),
      periodicGroup_(periodicGroup),
      intf_(intf),
      pimPamManager_(pimPamManager),
      txMessage_(txMessage),
      parentSm_(parentSm) {}

Vel::Ptr<JoinPrunePeriodicTimerSm> joinPrunePeriodicTimerSmFactory(
    Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm, Seconds const& loopQuantum,
    Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Intf const> const& intf,
    Vel::Ptr<IO::PamManager> const& pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> const& txMessage) {
  Vel::requireDuration("loopQuantum", loopQuantum);
  auto const sm = Vel::Ptr<JoinPrunePeriodicTimerSm>::owning(new JoinPrunePeriodicTimerSm(
      timerWheel, parentSm, loopQuantum, periodicGroup, intf, pimPamManager, txMessage));
  sm->handleInitialized();
  return sm;
}

void JoinPrunePeriodicTimerSm::handleInitialized() {
  if (start()) initializedIs(true);
}

U32 JoinPrunePeriodicTimerSm::interval() const {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::entry, subject(this), "()");
  if (!intf_) {
    JOIN_PRUNE_TRACE(Level::error, subject(this), " null intf ");
    VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
  }
  U32 const interval = intf_->joinPruneInterval();
  VEL_ASSERT(JOIN_PRUNE_SOURCE, interval > 0);
  return interval;
}

U32 JoinPrunePeriodicTimerSm::numberOfMessages() const {
  JOIN_PRUNE_BLOCK_TIMER();
  // The trace may retire this machine and drop the parent.
  Vel::MemoryHold const memory(this);
  JoinPruneNeighborSm const* const parent = parentSm_;
  Vel::MemoryHold const parentMemory(parent);
  JOIN_PRUNE_TRACE(Level::entry, subject(this), "()");
  if (!parent) {
    JOIN_PRUNE_TRACE(Level::error, subject(this), "null parentSm ");
    VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
  }
  return parent->numPeriodicRoutes();
}

U16 JoinPrunePeriodicTimerSm::holdTime() const {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::entry, subject(this), "()");
  if (!intf_) {
    JOIN_PRUNE_TRACE(Level::error, subject(this), " null intf ");
    VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
  }
  return intf_->joinPruneHoldTime();
}

void JoinPrunePeriodicTimerSm::doResetHoldTime() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(Level::entry, subject(this), "()");
  if (!retired() && intf_ && periodicGroup_) periodicGroup_->holdTimeIs(intf_->joinPruneHoldTime());
}

void JoinPrunePeriodicTimerSm::handlePeriodicTimerExpiry() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  U64 count = 0;
  {
    Sending const sending(*this);
    JOIN_PRUNE_TRACE(Level::entry, subject(this), "()");
    if (!initialized_ || retired()) return;

    Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer();
    Vel::Ptr<Zanth::TimerWheel> const wheel = timer ? timer->notifier() : nullptr;
    auto const now = [&wheel] { return wheel ? wheel->now() : 0; };
    Seconds const deadline = now() + loopQuantum_;
    if (retired()) return;
    TransmitStep const transmit{pimPamManager_, txMessage_, periodicGroup_,
                                intf_ ? intf_->intfId() : Dova::IntfId()};
    transmit.prepare();
    if (retired()) return;

    while (count < routesLeftInSlice()) {
      TransmitStep::Report const report = transmit.send([this] { return !retired(); });
      if (retired()) return;
      U64 const step = report.sources + report.skipped();
      routesDoneInc(step);
      bool const suspended = step == 0 || now() >= deadline;
      if (retired()) return;
      if (suspended) {
        JOIN_PRUNE_TRACE(Level::activity, subject(this),
                         "(): Suspending TX after " << count << " groups, " << report.sources << " sources, "
                                                    << report.suppressedSources << " suppressed sources, "
                                                    << report.filteredSources << " filtered sources");
        break;
      }
      count += step;
    }
  }
  // Kept: the last step is not counted here, so a first step that meets the deadline ends the slice.
  if (count == 0 || count >= routesLeftInSlice()) {
    JOIN_PRUNE_TRACE(Level::activity, subject(this), "(): Finished TX");
    if (!retired()) doUpdatePeriodicTimer();
  } else {
    doReschedulePeriodicTimer();
  }
}

void JoinPrunePeriodicTimerSm::handleRetired() {
  retire();
  parentSm_ = nullptr;
  periodicTimerDel();
}

void JoinPrunePeriodicTimerSm::intervalIs(U32 interval) {
  velValueIs<NotifieeConst, intervalId>(interval_, interval, [](NotifieeConst& r) { r.onInterval(); });
}

void JoinPrunePeriodicTimerSm::holdTimeIs(U16 holdTime) {
  velValueIs<NotifieeConst, holdTimeId>(holdTime_, holdTime, [](NotifieeConst& r) { r.onHoldTime(); });
}

void JoinPrunePeriodicTimerSm::numberOfMessagesIs(U32 numberOfMessages) {
  velValueIs<NotifieeConst, numberOfMessagesId>(numberOfMessages_, numberOfMessages,
                                                [](NotifieeConst& r) { r.onNumberOfMessages(); });
}

void JoinPrunePeriodicTimerSm::initializedIs(bool initialized) {
  velValueIs<NotifieeConst, initializedId>(initialized_, initialized,
                                           [](NotifieeConst& r) { r.onInitialized(); });
}

Vel::AttributeTable const& JoinPrunePeriodicTimerSm::attributeTable() const {
  using Self = JoinPrunePeriodicTimerSm;
  static Vel::AttributeTable const table = [] {
    Vel::AttributeTable rows = baseAttributes();
    rows.insert(rows.end(),
                {VEL_ROW(interval), VEL_ROW(holdTime), VEL_ROW(numberOfMessages), VEL_ROW(initialized),
                 VEL_ROW_FIXED(parentSm), VEL_ROW_FIXED(loopQuantum), VEL_ROW_FIXED(periodicGroup),
                 VEL_ROW_FIXED(intf), VEL_ROW_FIXED(pimPamManager), VEL_ROW_FIXED(txMessage)});
    return rows;
  }();
  return table;
}

}  // namespace Routing::Pim
