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
  velValueIs<NotifieeConst, periodicParamsId>(periodicParams_, params,
                                              [](NotifieeConst& r) { r.onPeriodicParams(); });
}

Vel::Ptr<PeriodicTimerSm::VelPeriodicTimer> PeriodicTimerSm::newPeriodicTimer(
    Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  PeriodicTimerSm::periodicTimerDel();  // somebody may hold the old one, which must not call back
  periodicTimer_ = Vel::create<VelPeriodicTimer>(this);
  periodicTimer_->notifierIs(wheel);
  periodicTimer_->hasNotificationActiveIs(hasNotificationActive());
  return periodicTimer_;
}

void PeriodicTimerSm::periodicTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  if (periodicTimer_ ? periodicTimer_->notifier() == wheel : !wheel) return;
  periodicTimerDel();
  if (wheel) newPeriodicTimer(wheel);
}

void PeriodicTimerSm::periodicTimerDel() {
  Vel::Ptr<VelPeriodicTimer> const timer = std::exchange(periodicTimer_, nullptr);
  if (!timer) return;
  timer->timeMinIs(Vel::never);
  timer->velDoZombieReactors(true);
  timer->periodicTimerSmIs(nullptr);
}

void PeriodicTimerSm::doUpdatePeriodicTimer() {
  Vel::MemoryHold const memory(this);
  if (retired()) return;
  U32 const seconds = interval();
  if (retired()) return;
  U32 const routes = numberOfMessages();
  PeriodicParams const params = slice(seconds, routes);
  periodicParamsIs(params);
  if (!periodicTimer_ || sending_ || periodicTimer_->armed()) return;
  Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_;
  left_ = wholeSlice;
  if (routes == 0) return;
  Seconds const now = timer->notifier()->now();
  Seconds const next = deadline_ + params.interval;
  deadline_ = next > now ? next : now + params.interval;
  timer->timeMinIs(deadline_);
}

void PeriodicTimerSm::doReschedulePeriodicTimer() {
  Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_;
  if (!timer) return;
  U64 const bound = routesLeftInSlice();
  left_ = bound > done_ ? bound - done_ : 0;
  timer->timeMinIs(timer->notifier()->now() + rescheduleDelay);
}

void PeriodicTimerSm::VelPeriodicTimer::onTime() {
  if (periodicTimerSm_) periodicTimerSm_->handleTimer();
}

void PeriodicTimerSm::handleTimer() {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<VelPeriodicTimer> const timer = periodicTimer_;
  try {
    {
      Sending const sending(*this);
      doResetHoldTime();
    }
    if (timer->periodicTimerSm() == this) handlePeriodicTimerExpiry();
  } catch (...) {
    // The refresh must not end with the first failure, whatever it was.
    if (timer->periodicTimerSm() == this && !timer->armed()) doReschedulePeriodicTimer();
    throw;
  }
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
