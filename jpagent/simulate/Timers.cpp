// SPDX-License-Identifier: Apache-2.0
// Machines that are made and removed, and their timers.
#include <algorithm>
#include <ostream>

#include "jpagent/common/RingMessages.h"
#include "jpagent/simulate/Inside.h"

namespace Routing::Pim::Jpagent {

namespace {

// The machine that has a timer, and what the timer sends; null for a timer that is none of a machine's three.
std::pair<JoinPruneNeighborSm const*, SendKind> ownerOf(Zanth::TimerWheel::Notifiee const& timer) {
  if (auto const* const triggered = dynamic_cast<JoinPruneNeighborSm::VelTriggeredTimer const*>(&timer))
    return {triggered->joinPruneNeighborSm(), SendKind::triggered};
  if (auto const* const override = dynamic_cast<JoinPruneNeighborSm::VelOverrideTimer const*>(&timer))
    return {override->joinPruneNeighborSm(), SendKind::override};
  auto const* const periodic = dynamic_cast<PeriodicTimerSm::VelPeriodicTimer const*>(&timer);
  auto const* const sm =
      periodic ? dynamic_cast<JoinPrunePeriodicTimerSm const*>(periodic->periodicTimerSm()) : nullptr;
  return {sm ? sm->parentSm() : nullptr, SendKind::periodic};
}

}  // namespace

std::array<Seconds, sendKindNames.size()> timersOf(JoinPruneNeighborSm const& sm) {
  auto const timeOf = [](auto const& timer) { return timer ? timer->timeMin() : Vel::never; };
  auto const periodic = sm.joinPrunePeriodicTimerSm();
  return {timeOf(sm.triggeredTimer()), timeOf(sm.overrideTimer()),
          periodic ? timeOf(periodic->periodicTimer()) : Vel::never};
}

void Simulation::machineChanged(IpGenAddr const& address) {
  auto const owner = machineWatch_->notifier();
  auto const sm = owner ? owner->joinPruneNeighborSm(address) : nullptr;
  auto const known = targets_.find(address);
  touched_.insert(address);
  if (known != targets_.end() && !sm) {
    // The object's address may be another one's soon.
    ringGone(address);
    names_.erase(pointerText(known->second.machine));
    names_.erase(pointerText(known->second.periodicTimerSm));
    forget(address, known->second);
    targets_.erase(known);
    line(fmt::format("machine {} gone", toText(address)));
  } else if (sm && (known == targets_.end() || known->second.machine != sm.get())) {
    auto const periodic = sm->joinPrunePeriodicTimerSm();
    auto const intf = sm->intf()->intfId().name();
    if (known != targets_.end()) {
      ringGone(address);
      forget(address, known->second);
    }
    targets_[address] = {sm.get(), periodic.get(), intf, {Vel::never, Vel::never, Vel::never}};
    machineAt_[pointerText(sm.get())] = address;
    machineAt_[pointerText(periodic.get())] = address;
    // It takes up all that is pending.
    for (auto const& data : dataOf(address))
      if (data) lookedAt_ += data->joinPruneGroupDataCount();
    line(fmt::format("machine {} made on {}, for the {}", toText(address), intf,
                     sm->neighbor() ? "neighbor" : "interface"));
  }
}

// A machine's timers go with it.
void Simulation::ringGone(IpGenAddr const& target) const {
  auto const& timers = targets_.at(target).timers;
  for (std::size_t i = 0; i < timers.size(); ++i)
    if (timers[i] != Vel::never)
      ringTimer(TimerEvent::disarmed, target, static_cast<SendKind>(i), Vel::never);
}

void Simulation::ringTimer(TimerEvent event, IpGenAddr const& target, SendKind sendKind, Seconds due) const {
  if (Scrivo::TraceFile::current() == nullptr) return;
  auto const known = targets_.find(target);
  std::string const intf = known == targets_.end() ? "" : known->second.intf;
  RingMessages::ofSendKind(sendKind, [&]<SendKind one>() {
    switch (event) {
      case TimerEvent::armed:
        return RingMessages::timer<TimerEvent::armed, one>(target, intf, secondsText(due));
      case TimerEvent::moved:
        return RingMessages::timer<TimerEvent::moved, one>(target, intf, secondsText(due));
      case TimerEvent::disarmed:
        return RingMessages::timer<TimerEvent::disarmed, one>(target, intf, {});
      case TimerEvent::fired:
        return RingMessages::timer<TimerEvent::fired, one>(target, intf, secondsText(due));
    }
  });
}

// What it was.
Seconds Simulation::timerIs(IpGenAddr const& address, Target& target, SendKind sendKind, Seconds time) {
  Seconds const was = std::exchange(target.timers[static_cast<std::size_t>(sendKind)], time);
  if (was != time) {
    armed_.erase({was, address, sendKind});
    if (time != Vel::never) armed_.emplace(time, address, sendKind);
  }
  return was;
}

// What is kept of a target beside targets_.
void Simulation::forget(IpGenAddr const& address, Target const& target) {
  for (auto const* const object : {target.machine, target.periodicTimerSm}) {
    auto pointer = pointerText(object);
    auto const known = machineAt_.find(pointer);
    if (known != machineAt_.end() && known->second == address) machineAt_.erase(known);
    passing_.push_back(std::move(pointer));
  }
  for (std::size_t i = 0; i < target.timers.size(); ++i)
    armed_.erase({target.timers[i], address, static_cast<SendKind>(i)});
}

void Simulation::tellTimers() {
  for (auto const& address : std::exchange(touched_, {})) {
    ++machinesLookedAt_;
    auto const known = targets_.find(address);
    auto const sm = machine_ ? machine_->joinPruneNeighborSm(address) : nullptr;
    if (known == targets_.end() || !sm) continue;
    auto const timers = timersOf(*sm);
    for (std::size_t i = 0; i < timers.size(); ++i) {
      auto const sendKind = static_cast<SendKind>(i);
      Seconds const was = timerIs(address, known->second, sendKind, timers[i]);
      if (was == timers[i]) continue;
      ringTimer(timers[i] == Vel::never ? TimerEvent::disarmed
                : was == Vel::never     ? TimerEvent::armed
                                        : TimerEvent::moved,
                address, sendKind, timers[i]);
      auto const change = timers[i] == Vel::never ? "disarmed"
                          : was == Vel::never
                              ? "armed for " + secondsText(timers[i])
                              : fmt::format("moved from {} to {}", secondsText(was), secondsText(timers[i]));
      line(fmt::format("timer {} {} {}", toText(address), sendKindNames[i], change));
    }
  }
}

bool Simulation::everyTimerIsTold() const {
  auto const all = machines();
  return std::all_of(all.begin(), all.end(), [this](auto const& machine) {
    auto const known = targets_.find(machine.first);
    return known == targets_.end() || known->second.timers == timersOf(*machine.second);
  });
}

void Simulation::expire() {
  while (!armed_.empty() && std::get<Seconds>(*armed_.begin()) <= now_) {
    auto const [time, address, sendKind] = *armed_.begin();
    due_.emplace(std::pair(address, sendKind), time);
    timerIs(address, targets_.at(address), sendKind, Vel::never);
    touched_.insert(address);
  }
  wheel_->expire();
  while (!due_.empty()) tellFiring(due_.begin()->first.first, due_.begin()->first.second);
  tellTimers();
  forgetNames();
}

void Simulation::timerFires(Zanth::TimerWheel::Notifiee const& timer) {
  auto const [sm, sendKind] = ownerOf(timer);
  if (sm) tellFiring(sm->neighborAddr(), sendKind);
}

void Simulation::tellFiring(IpGenAddr const& address, SendKind sendKind) {
  auto const fired = due_.extract({address, sendKind});
  if (!fired) return;
  Seconds const time = fired.mapped();
  ringTimer(TimerEvent::fired, address, sendKind, time);
  line(fmt::format("timer {} {} fires{}", toText(fired.key().first), text(sendKind),
                   time < now_ - hair ? ", due " + secondsText(time) : ""));
}

}  // namespace Routing::Pim::Jpagent
