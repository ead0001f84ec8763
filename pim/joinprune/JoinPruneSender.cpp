// SPDX-License-Identifier: Apache-2.0
#include "pim/joinprune/JoinPruneSender.h"

#include <cstdlib>

#include "pim/joinprune/JoinPruneNeighborSm.h"
#include "pim/joinprune/private/JoinPruneTrace.h"
#include "pim/joinprune/private/TransmitStep.h"
#include "pim/model/packet/GroupEntries.h"
#include "pim/model/packet/private/GroupWalk.h"
#include "pim/model/private/ModelAccess.h"
#include "runtime/vel/private/Assert.h"

namespace Routing::Pim {

// --- Texts ---------------------------------------------------------------------------------------

namespace {

// A function as traces and block timers name it.
struct TracedFunction {
  char const* name;
  char const* signature;
  Scrivo::CallSite timer;
};

// A ring message that begins with a text of its own.
struct RingMessage {
  char const* beginning;
  Scrivo::CallSite site;
};

}  // namespace

// How a sender and its reactors are named in traces and ring messages.
struct JoinPruneSenderTexts {
  char const* name;
  TracedFunction handleSource[entryKinds.size()];  // by kind; both kinds of (*,G) have one handler
  TracedFunction handleGroup, updateTimer, handleTimerExpiry;
  RingMessage sending, suspending, finished;
};

namespace {

#define TRACED_FUNCTION(class, name, parameters)                                                            \
  {                                                                                                         \
    name, "void Routing::Pim::JoinPruneNeighborSm::" class name parameters, { JOIN_PRUNE_SOURCE, __LINE__ } \
  }
#define SOURCE_HANDLER(Way, name) TRACED_FUNCTION("Vel" Way "GroupData::", name, "(const Dova::IpGenAddr&)")
#define WILDCARD_HANDLER(Way) TRACED_FUNCTION("Vel" Way "GroupData::", "handleWcSource", "()")
#define RING_MESSAGE(text)                                                            \
  {                                                                                   \
    "JoinPruneNeighborSm: " text " joins/prunes to ", { JOIN_PRUNE_SOURCE, __LINE__ } \
  }
#define SENDER_TEXTS(Way, way)                                                               \
  {                                                                                          \
    Way,                                                                                     \
        {SOURCE_HANDLER(Way, "handleJoinedSource"),                                          \
         SOURCE_HANDLER(Way, "handlePrunedSource"),                                          \
         WILDCARD_HANDLER(Way),                                                              \
         WILDCARD_HANDLER(Way),                                                              \
         SOURCE_HANDLER(Way, "handleJoinedRptSource"),                                       \
         SOURCE_HANDLER(Way, "handlePrunedRptSource")},                                      \
        TRACED_FUNCTION("", "handle" Way "Group", "(const Dova::IpGenAddr&)"),               \
        TRACED_FUNCTION("", "doUpdate" Way "Timer", "()"),                                   \
        TRACED_FUNCTION("", "handle" Way "TimerExpiry", "()"), RING_MESSAGE("Sending " way), \
        RING_MESSAGE("Suspending sending " way), RING_MESSAGE("Finished sending " way)       \
  }

// In the order of JoinPruneSenderKind.
constinit JoinPruneSenderTexts senderTexts[] = {SENDER_TEXTS("Triggered", "triggered"),
                                                SENDER_TEXTS("Override", "override"),
                                                SENDER_TEXTS("Periodic", "periodic")};

#undef SENDER_TEXTS
#undef RING_MESSAGE
#undef WILDCARD_HANDLER
#undef SOURCE_HANDLER
#undef TRACED_FUNCTION

// What the trace lines about a group begin with.
struct GroupForm {
  JoinPruneGroupReactor const& reactor;
  char const* name;
};

std::ostream& operator<<(std::ostream& os, GroupForm const& form) {
  Vel::Ptr<Packet::JoinPruneGroupData> const groupData = form.reactor.notifier();
  return os << form.reactor.joinPruneNeighborSm() << form.name << '('
            << (groupData ? groupData->group() : Dova::IpGenAddr()) << ")::";
}

// What a handler of a source keeps while it calls out.
struct Handling {
  Handling(JoinPruneNeighborSm& machine, JoinPruneGroupReactor const& reactor, JoinPruneSenderTexts& texts,
           EntryKind kind)
      : function(texts.handleSource[indexOf(kind)]),
        blockTimer(function.timer, function.signature),
        memory(&reactor),
        machineMemory(&machine),
        groupData(reactor.notifier()),
        subject{reactor, texts.name} {}

  TracedFunction& function;
  Scrivo::BlockTimer const blockTimer;
  Vel::MemoryHold const memory, machineMemory;
  Vel::Ptr<Packet::JoinPruneGroupData> const groupData;  // Null: there is nothing to do.
  GroupForm const subject;
};

}  // namespace

JoinPruneSenderTexts& JoinPruneSender::texts() const { return senderTexts[static_cast<std::size_t>(kind_)]; }

std::ostream& writeGroupForm(std::ostream& os, JoinPruneGroupReactor const* reactor,
                             JoinPruneSenderKind kind) {
  if (!reactor) return os << "null";
  return os << GroupForm{*reactor, senderTexts[static_cast<std::size_t>(kind)].name};
}

// --- From the callback of a source to the armed timer -----------------------------------------------

void JoinPruneGroupReactor::onJoinedSource(Dova::IpGenAddr source) {
  if (velOwner()) velOwner()->handleSource(*this, EntryKind::sourceJoin, source);
}

void JoinPruneGroupReactor::onPrunedSource(Dova::IpGenAddr source) {
  if (velOwner()) velOwner()->handleSource(*this, EntryKind::sourcePrune, source);
}

void JoinPruneGroupReactor::onJoinedRptSource(Dova::IpGenAddr source) {
  if (velOwner()) velOwner()->handleSource(*this, EntryKind::sourceRptJoin, source);
}

void JoinPruneGroupReactor::onPrunedRptSource(Dova::IpGenAddr source) {
  if (velOwner()) velOwner()->handleSource(*this, EntryKind::sourceRptPrune, source);
}

void JoinPruneGroupReactor::onWcSourceData() {
  if (velOwner()) velOwner()->handleWildcard(*this);
}

void JoinPruneTimedSender::handleSource(JoinPruneGroupReactor& reactor, EntryKind kind,
                                        Dova::IpGenAddr const& source) {
  Handling const handling(machine(), reactor, texts(), kind);
  if (!handling.groupData) return;
  JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name, '(' << source << ')');
  if (machine().retired()) return;
  if (Packet::hasEntry(*handling.groupData, kind, source)) {
    updateTimer();
    return;
  }
  JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name, '(' << source << "), Sent");
  // Kept: the triggered join handlers retire a group without a line.
  retireGroup(reactor, handling.function.name, !isJoin(kind) || this->kind() != Kind::triggered);
}

void JoinPruneTimedSender::handleWildcard(JoinPruneGroupReactor& reactor) {
  Handling const handling(machine(), reactor, texts(), EntryKind::wildcardJoin);
  if (!handling.groupData) return;
  if (handling.groupData->wcSourceData()) {
    updateTimer();
    return;
  }
  JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name, "(*,G), Sent");
  retireGroup(reactor, handling.function.name, true);
}

void JoinPruneTimedSender::updateTimer() {
  JoinPruneNeighborSm& sm = machine();
  if (!timer_ || sm.retired()) return;
  TracedFunction& function = texts().updateTimer;
  Scrivo::BlockTimer const blockTimer(function.timer, function.signature);
  if (timer_->armed()) {
    JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name, "(): Timer running");
    return;  // the trace line may have destroyed this
  }
  Vel::MemoryHold const memory(&sm);
  Vel::Ptr<JoinPruneTimer> const timer = timer_;
  Vel::Ptr<Packet::JoinPruneData> const pending = data();
  if (!pending || pending->joinPruneGroupDataCount() == 0) {
    // Before the trace line: its sink may add what arms the timer.
    timer->timeMinIs(Vel::never);
    JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name, "(): Disarming timer");
    return;
  }
  U16 const holdTime = sm.intf() ? sm.intf()->joinPruneHoldTime() : pending->holdTime();
  JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name,
                      "(): Arming timer, setting holdtime to " << holdTime);
  if (sm.retired()) return;
  pending->holdTimeIs(holdTime);
  if (sm.retired() || timer->armed() || timer_ != timer) return;
  armIn(delay());
}

// The clock is somebody's code, so all may be different afterwards.
void JoinPruneTimedSender::armIn(Seconds delay) {
  Vel::MemoryHold const memory(&machine());
  Vel::Ptr<JoinPruneTimer> const timer = timer_;
  if (machine().retired() || !timer) return;
  Seconds const due = now() + delay;
  if (!machine().retired() && !timer->armed() && timer_ == timer) timer->timeMinIs(due);
}

Seconds JoinPruneTimedSender::delay() const {
  return kind() == Kind::triggered ? machine().triggeredInterval()
                                   : randomDelay(machine().overrideInterval());
}

Seconds randomDelay(Seconds interval) {
  double r = drand48();
  VEL_ASSERT(JOIN_PRUNE_SOURCE, r <= 1.0);
  if (r < 0.1) r += 0.1;  // Kept: once, no clamp.
  return r * interval;
}

// On the clock of the timer, which need not be that of the machine's own wheel.
Seconds JoinPruneTimedSender::now() const {
  Vel::Ptr<Zanth::TimerWheel> wheel = notifierOf(timer_);
  if (!wheel) wheel = notifierOf(machine().timerWheel());
  return wheel ? wheel->now() : 0;
}

// --- From the armed timer to the packet manager ------------------------------------------------------

JoinPruneTimer::JoinPruneTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel, JoinPruneTimedSender* sender)
    : NestedReactor(sender) {
  NestedReactor::notifierIs(wheel);
}

void JoinPruneTimer::onTime() {
  JoinPruneTimedSender* const sender = velOwner();
  if (!sender) return;
  Vel::MemoryHold const machineMemory(&sender->machine());
  try {
    sender->handleTimerExpiry();
  } catch (...) {
    // What is pending must not wait for the next change to be tried again.
    sender->updateTimer();
    throw;
  }
}

void JoinPruneTimedSender::handleTimerExpiry() {
  JoinPruneNeighborSm& sm = machine();
  TracedFunction& function = texts().handleTimerExpiry;
  Scrivo::BlockTimer const blockTimer(function.timer, function.signature);
  Vel::MemoryHold const memory(&sm);
  JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name, "()");
  if (!sm.initialized() || sm.retired()) return;

  Vel::Ptr<Packet::JoinPruneData> const pending = data();
  auto const groups = [&pending] { return pending ? pending->joinPruneGroupDataCount() : 0; };
  Dova::IntfId const outgoing = sm.intf() ? sm.intf()->intfId() : Dova::IntfId();
  auto const tell = [&](RingMessage& message, char const* count) {
    if (Scrivo::TraceFile::current() != nullptr)
      message.site.message(message.beginning, sm.neighborAddr(), ", Intf: ", outgoing.name(), count,
                           groups());
  };
  tell(texts().sending, ", Groups: ");

  Seconds const deadline = now() + sm.loopQuantum();
  if (sm.retired()) return;
  TransmitStep const step{notifierOf(sm.pimPamManager()), sm.txMessage(), pending, outgoing};
  step.prepare();
  if (sm.retired()) return;

  // The reactor on the data may be pointed at another set meanwhile.
  auto const live = [&] { return !sm.retired() && data() == pending; };
  TransmitStep::Report report;
  for (bool done = false; !done && live() && groups() != 0;) {
    report = step.send(live);
    if (sm.retired()) return;
    // Kept: suppressed sources do not count as progress here.
    done = (report.sources == 0 && report.filteredSources == 0) || now() >= deadline;
  }
  if (sm.retired()) return;
  if (groups() != 0) {
    tell(texts().suspending, ", Groups remaining: ");
    JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name,
                        "(): Suspending TX after " << report.sources << " sources, " << report.filteredSources
                                                   << " filtered sources");
  } else {
    tell(texts().finished, ", Groups remaining: ");
  }
  updateTimer();
}

void JoinPruneTimedSender::retire(bool held) {
  JoinPruneSender::retire(held);
  if (!timer_) return;
  unhook(*timer_);
  timer_->timeMinIs(Vel::never);
}

void JoinPruneTimedSender::visitReactors(std::function<void(Vel::Reactor&)> const& visit) {
  JoinPruneSender::visitReactors(visit);
  if (auto const timer = timer_) visit(*timer);
}

void JoinPruneTimedSender::timerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  JoinPruneNeighborSm& sm = machine();
  if (sm.retired() || (timer_ ? timer_->notifier() == wheel : !wheel)) return;
  auto const displaced = std::exchange(timer_, wheel ? sm.makeTimer(kind(), wheel) : nullptr);
  if (timer_) timer_->hasNotificationActiveIs(sm.hasNotificationActive());
  bool const wasArmed = displaced && displaced->armed();
  bool const wasMissed = displaced && displaced->missed();
  if (displaced) {
    if (timer_) timer_->velDoZombieReactors(displaced->isZombie());
    displaced->timeMinIs(Vel::never);
    unhook(*displaced);
  }
  Vel::MemoryHold const memory(&sm);
  sm.notifyTimer(kind());
  // The time that was set belongs to the other wheel's clock. What became due there is due here.
  if (wasArmed) updateTimer();
  if (wasMissed) armIn(0);
}

// --- Counting --------------------------------------------------------------------------------------

void JoinPrunePeriodicSender::handleSource(JoinPruneGroupReactor& reactor, EntryKind kind,
                                           Dova::IpGenAddr const& source) {
  Handling const handling(machine(), reactor, texts(), kind);
  if (!handling.groupData) return;
  if (Packet::hasEntry(*handling.groupData, kind, source)) {
    tellOfCount(move(1));
    if (machine().retired()) return;
    JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name,
                        '(' << source << "), added, sources: " << routes_);
    return;
  }
  U32 const before = move(-1);
  JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name,
                      '(' << source << "), Deleted");
  tellOfCount(before);
  retireGroup(reactor, handling.function.name, true);
}

void JoinPrunePeriodicSender::handleWildcard(JoinPruneGroupReactor& reactor) {
  Handling const handling(machine(), reactor, texts(), EntryKind::wildcardJoin);
  if (!handling.groupData) return;
  if (Vel::Ptr<Packet::WcSourceData> const wildcard = handling.groupData->wcSourceData()) {
    if (std::exchange(reactor.wildcardCounted(), true)) return;  // before the count calls out
    tellOfCount(move(1));
    if (machine().retired()) return;
    JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name,
                        '(' << wildcard->address() << "), added, sources: " << routes_);
    return;
  }
  reactor.wildcardCounted() = false;
  U32 const before = move(-1);  // Kept: also if the entry itself was never counted.
  JOIN_PRUNE_TRACE_AS(Level::activity, handling.subject, handling.function.name, "(*,G), Deleted");
  tellOfCount(before);
  retireGroup(reactor, handling.function.name, true);
}

// Moves the count by one source, without any consequence yet. The count before.
U32 JoinPrunePeriodicSender::move(int difference) {
  U32 const before = routes_;
  if (counted_ && !machine().retired()) routes_ += static_cast<U32>(difference);
  return before;
}

// What follows from a changed count.
void JoinPrunePeriodicSender::tellOfCount(U32 before) {
  if (routes_ != before && !machine().retired()) machine().tellOfCount();
}

void JoinPrunePeriodicSender::routesIs(U32 routes) {
  if (!machine().retired()) tellOfCount(std::exchange(routes_, routes));
}

// Where no reactor would be told of the single steps, only those are made that lead to the timer being armed,
// since it is the first routes that set its time; count() makes the rest at once.
void JoinPrunePeriodicSender::countAtStart(Packet::JoinPruneData const& periodic) {
  JoinPruneNeighborSm& sm = machine();
  Vel::MemoryHold const memory(&sm);
  for (auto i = periodic.joinPruneGroupDataIterator(); i && !sm.retired(); ++i) {
    bool const paceIsSet = !timerSm_ || EngineAccess<PeriodicTimerSm>::paceIsSet(*timerSm_);
    if (paceIsSet && !sm.velWatched() && joinPruneIsQuiet()) return;
    routesIs(routes_ + i->routes());
  }
}

void JoinPrunePeriodicSender::count() {
  Vel::MemoryHold const memory(&machine());
  Vel::Ptr<Packet::JoinPruneData> const periodic = data();
  if (!periodic || machine().retired()) return;
  U32 sum = 0;
  for (Packet::GroupWalk group(*periodic); group; ++group) {
    sum += group->routes();
    bool const wildcard = group->wcSourceData() != nullptr;
    if (follows(*group))
      EngineAccess<GroupData>::wcSourceSet(*group) = wildcard;
    else if (JoinPruneGroupReactor* const reactor = own(group->group()))
      reactor->wcSourceSet_ = wildcard;
  }
  routesIs(sum);
}

// --- Groups ----------------------------------------------------------------------------------------

void JoinPruneTimedSender::handleGroup(Dova::IpGenAddr const& changed) {
  JoinPruneNeighborSm& sm = machine();
  TracedFunction& function = texts().handleGroup;
  Scrivo::BlockTimer const blockTimer(function.timer, function.signature);
  Vel::MemoryHold const memory(&sm);
  JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name, '(' << changed << ')');
  if (sm.retired()) return;
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  if (Vel::Ptr<GroupData> const found = all ? all->joinPruneGroupData(changed) : nullptr) {
    if (!found->empty()) updateTimer();
    return;
  }
  JOIN_PRUNE_TRACE_AS(Level::activity, &sm, function.name, '(' << changed << "): Deleted");
}

void JoinPruneSender::retireGroup(JoinPruneGroupReactor& reactor, char const* handler, bool traced) {
  Vel::Ptr<GroupData> const groupData = reactor.notifier();
  if (!reactor.joinPruneNeighborSm() || !groupData || !groupData->empty()) return;
  if (traced)
    JOIN_PRUNE_TRACE_AS(Level::activity, (GroupForm{reactor, texts().name}), handler,
                        (kind_ == Kind::periodic ? "(): Deleted group " : "(): Finished group ")
                            << groupData->group());
  // The line may have led to another entry in the group, to another group in its place, or to the end of the
  // machine.
  if (!reactor.joinPruneNeighborSm() || !groupData->empty()) return;
  Vel::Ptr<Packet::JoinPruneData> const all = data();
  if (all && all->joinPruneGroupData(groupData->group()) == groupData)
    all->joinPruneGroupDataDel(groupData->group());
}

}  // namespace Routing::Pim
