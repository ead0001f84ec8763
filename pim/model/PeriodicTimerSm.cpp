// SPDX-License-Identifier: Apache-2.0
#include "pim/model/PeriodicTimerSm.h"

namespace Routing::Pim {

namespace {

constexpr U64 routesPerSlice = 1000;
constexpr U64 slicesPerSecond = 10;  // at the most
constexpr Seconds rescheduleDelay = 0.1;

PeriodicTimerSm::PeriodicParams slice(U32 interval, U32 routes) {
  if (routes <= routesPerSlice) return {static_cast<Seconds>(interval), routes};
  U64 const slices =
      std::min((routes + routesPerSlice - 1) / routesPerSlice, std::max<U64>(interval * slicesPerSecond, 1));
  return {static_cast<Seconds>(interval) / static_cast<Seconds>(slices),
          static_cast<U32>((routes + slices - 1) / slices)};
}

}  // namespace

PeriodicTimerSm::PeriodicTimerSm(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  if (wheel) newPeriodicTimer(wheel);
}

// Not left to doTeardown() alone: a derived constructor may have thrown.
PeriodicTimerSm::~PeriodicTimerSm() { PeriodicTimerSm::periodicTimerDel(); }

void PeriodicTimerSm::doTeardown() {
  retire();
  periodicTimerDel();
}

void PeriodicTimerSm::handleInitialized() {}

void PeriodicTimerSm::velVisitReactors(ReactorVisitor const& visit) {
  if (Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_) visit(*timer);
}

void PeriodicTimerSm::periodicParamsIs(PeriodicParams const& params) {
  Vel::requireDuration("the interval of periodicParams", params.interval);
  velValueIs<NotifieeConst, periodicParamsId>(periodicParams_, params,
                                              [](NotifieeConst& r) { r.onPeriodicParams(); });
}

// What a derived machine does not show need not be kept.
void PeriodicTimerSm::intervalIs(U32) {}
void PeriodicTimerSm::holdTimeIs(U16) {}
void PeriodicTimerSm::numberOfMessagesIs(U32) {}
void PeriodicTimerSm::initializedIs(bool) {}

void PeriodicTimerSm::hasNotificationActiveIs(bool active) {
  Vel::MemoryHold const memory(this);
  Machine::hasNotificationActiveIs(active);
  bringTimerUpToDate();
}

void PeriodicTimerSm::velDoZombieReactors(bool zombie) {
  Vel::MemoryHold const memory(this);
  Machine::velDoZombieReactors(zombie);
  bringTimerUpToDate();
}

// The wheel drops an expiry of a timer that is switched off. What was missed is made up for, and nothing
// else.
void PeriodicTimerSm::bringTimerUpToDate() {
  Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_;
  if (!timer || !timer->hasNotificationActive() || timer->isZombie() || !timer->notifier()) return;
  if (timer->armed()) return followClock(*timer);
  if (!timer->missed()) return;
  if (periodicParams_.routes == 0) return timer->timeMinIs(Vel::never);
  Seconds const now = timer->notifier()->now();
  if (periodicTimer_ == timer) moveToClock(*timer, now, now);
}

Vel::Ptr<PeriodicTimerSm::VelPeriodicTimer> PeriodicTimerSm::newPeriodicTimer(
    Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  if (retired()) return periodicTimer_;
  Vel::Ptr<VelPeriodicTimer> const old = periodicTimer_;
  auto const made = Vel::create<VelPeriodicTimer>(this);
  made->notifierIs(wheel);
  made->hasNotificationActiveIs(hasNotificationActive());
  periodicTimer_ = made;
  if (!old) return made;
  made->velDoZombieReactors(old->isZombie());
  Seconds const time = old->missed() ? -Vel::never : old->timeMin();
  // A deadline on another clock says nothing.
  if (old->notifier() != wheel) deadline_ = -Vel::never;
  // Somebody may hold the old one, which must not call back.
  letGo(old);
  if (time == Vel::never) return made;
  Vel::MemoryHold const memory(this);
  Seconds const now = wheel->now();
  if (periodicTimer_ == made) moveToClock(*made, time, now);
  return made;
}

void PeriodicTimerSm::periodicTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  if (retired() || (periodicTimer_ ? periodicTimer_->notifier() == wheel : !wheel)) return;
  if (!wheel) return periodicTimerDel();
  Vel::MemoryHold const memory(this);
  bool const first = !periodicTimer_;
  newPeriodicTimer(wheel);
  if (first && periodicParams_.routes != 0) doUpdatePeriodicTimer();
}

void PeriodicTimerSm::periodicTimerDel() {
  deadline_ = -Vel::never;
  if (auto const timer = std::exchange(periodicTimer_, nullptr)) letGo(timer);
}

void PeriodicTimerSm::letGo(Vel::Ptr<VelPeriodicTimer> const& timer) {
  timer->timeMinIs(Vel::never);
  timer->velDoZombieReactors(true);
  timer->periodicTimerSmIs(nullptr);
}

// `now` is what the timer's clock reads, and `interval` what is waited for.
void PeriodicTimerSm::arm(VelPeriodicTimer& timer, Seconds time, Seconds now, Seconds interval) {
  armedAt_ = now;
  armedInterval_ = interval;
  timer.timeMinIs(time);
}

// The time is one of another clock, or of this one before it was set back: it may be far away.
void PeriodicTimerSm::moveToClock(VelPeriodicTimer& timer, Seconds time, Seconds now) {
  deadline_ = std::clamp(time, now, now + armedInterval_);
  arm(timer, deadline_, now, armedInterval_);
}

// A running timer is not moved while its clock moves forward.
void PeriodicTimerSm::followClock(VelPeriodicTimer& timer) {
  Vel::Ptr<Zanth::TimerWheel> const wheel = timer.notifier();
  if (!wheel) return;
  Seconds const now = wheel->now();
  if (now < armedAt_ && periodicTimer_ == &timer) moveToClock(timer, timer.timeMin(), now);
}

void PeriodicTimerSm::doUpdatePeriodicTimer() {
  Vel::MemoryHold const memory(this);
  if (retired()) return;
  U32 const seconds = interval();
  if (retired()) return;
  U32 const routes = numberOfMessages();
  if (retired()) return;
  PeriodicParams const params = slice(seconds, routes);
  periodicParamsIs(params);
  Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_;
  if (!timer || sending_) return;
  if (timer->armed()) return followClock(*timer);
  if (routes == 0) timer->timeMinIs(Vel::never);  // what was missed is not due any more
  if (timer->missed()) return bringTimerUpToDate();
  left_ = wholeSlice;
  if (routes == 0) return;
  Seconds const now = timer->notifier()->now();
  if (periodicTimer_ != timer) return;
  Seconds const latest = now + params.interval;
  Seconds const next = deadline_ + params.interval;
  if (next > now)
    deadline_ = std::min(next, latest);  // the clock may have been set back
  else
    deadline_ = expiring_ && deadline_ != -Vel::never ? now : latest;
  arm(*timer, deadline_, now, params.interval);
}

void PeriodicTimerSm::doReschedulePeriodicTimer() {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_;
  if (!timer) return;
  U64 const bound = routesLeftInSlice();
  left_ = bound > done_ ? bound - done_ : 0;
  Seconds const now = timer->notifier()->now();
  if (periodicTimer_ == timer) arm(*timer, now + rescheduleDelay, now, rescheduleDelay);
}

void PeriodicTimerSm::VelPeriodicTimer::onTime() {
  if (periodicTimerSm_) periodicTimerSm_->handleTimer();
}

void PeriodicTimerSm::handleTimer() {
  Vel::MemoryHold const memory(this);
  expiring_ = true;
  try {
    {
      Sending const sending(*this);
      doResetHoldTime();
    }
    // The timer may be another one by now; without one the machine has let go.
    if (periodicTimer_) handlePeriodicTimerExpiry();
  } catch (...) {
    expiring_ = false;
    // The refresh must not end with the first failure, whatever it was.
    if (periodicTimer_ && !periodicTimer_->armed()) doReschedulePeriodicTimer();
    throw;
  }
  expiring_ = false;
}

Vel::AttributeTable const& PeriodicTimerSm::baseAttributes() {
  using Self = PeriodicTimerSm;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(periodicParams)};
  return table;
}

Vel::AttributeTable const& PeriodicTimerSm::attributeTable() const { return baseAttributes(); }

std::ostream& operator<<(std::ostream& os, PeriodicTimerSm::PeriodicParams const& params) {
  return os << "Interval: " << params.interval << ", Routes/Interval: " << params.routes;
}

std::ostream& operator<<(std::ostream& os, PeriodicTimerSm::PeriodicParams const* params) {
  return params ? os << *params : os << "null";
}

}  // namespace Routing::Pim
