#include "pim/joinprune/JoinPruneNeighborSm.h"

#include <array>
#include <cstdlib>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "pim/joinprune/JoinPruneTrace.h"
#include "pim/joinprune/NestedReactor.h"
#include "pim/joinprune/TransmitStep.h"
#include "pim/model/packet/GroupEntries.h"
#include "pim/model/packet/GroupWalk.h"
#include "runtime/vel/Assert.h"

namespace Routing::Pim {

namespace {

using GroupData = Packet::JoinPruneGroupData;

// A text put together at compile time, for names that differ from channel to channel in one word.
template <std::size_t... N>
consteval auto joined(char const (&... parts)[N]) {
  std::array<char, (N + ...) - sizeof...(N) + 1> text{};
  std::size_t length = 0;
  auto const append = [&](char const* part) {
    for (; *part; ++part) text[length++] = *part;
  };
  (append(parts), ...);
  return text;
}

}  // namespace

// --- What differs between the channels -----------------------------------------------------------

struct JoinPruneNeighborSm::Triggered {
  using GroupReactor = VelTriggeredGroupData;
  static constexpr char name[] = "Triggered";
  static constexpr char word[] = "triggered";
  static constexpr char parameter[] = "_triggeredGroupData";
  static constexpr char mutator[] = "Routing::Pim::JoinPruneNeighborSm::triggeredGroupData";
  static constexpr char maker[] = "newTriggeredGroupData";
  static constexpr bool counted = false;
  static constexpr bool tracesFinishedJoins =
      false;  // Kept: the join handlers retire a group without a word.
  static auto& group(JoinPruneNeighborSm const& sm) { return sm.triggeredGroup_; }
  static auto& groupData(JoinPruneNeighborSm& sm) { return sm.triggeredGroupData_; }
  static void notify(JoinPruneNeighborSm& sm, Dova::IpGenAddr const& group) {
    sm.triggeredGroupDataNotify(group);
  }
  template <class Sm>
  static auto& timer(Sm& sm) {
    return sm.triggeredTimer_;
  }
  static void notifyTimer(JoinPruneNeighborSm& sm) {
    sm.velDeliver<NotifieeConst, triggeredTimerId>([](NotifieeConst& r) { r.onTriggeredTimer(); });
  }
  static Seconds delay(JoinPruneNeighborSm const& sm) { return sm.triggeredInterval_; }
};

struct JoinPruneNeighborSm::Override {
  using GroupReactor = VelOverrideGroupData;
  static constexpr char name[] = "Override";
  static constexpr char word[] = "override";
  static constexpr char parameter[] = "_overrideGroupData";
  static constexpr char mutator[] = "Routing::Pim::JoinPruneNeighborSm::overrideGroupData";
  static constexpr char maker[] = "newOverrideGroupData";
  static constexpr bool counted = false;
  static constexpr bool tracesFinishedJoins = true;
  static auto& group(JoinPruneNeighborSm const& sm) { return sm.overrideGroup_; }
  static auto& groupData(JoinPruneNeighborSm& sm) { return sm.overrideGroupData_; }
  static void notify(JoinPruneNeighborSm& sm, Dova::IpGenAddr const& group) {
    sm.overrideGroupDataNotify(group);
  }
  template <class Sm>
  static auto& timer(Sm& sm) {
    return sm.overrideTimer_;
  }
  static void notifyTimer(JoinPruneNeighborSm& sm) {
    sm.velDeliver<NotifieeConst, overrideTimerId>([](NotifieeConst& r) { r.onOverrideTimer(); });
  }
  static Seconds delay(JoinPruneNeighborSm const& sm) { return randomDelay(sm.overrideInterval_); }
};

struct JoinPruneNeighborSm::Periodic {
  using GroupReactor = VelPeriodicGroupData;
  static constexpr char name[] = "Periodic";
  static constexpr char parameter[] = "_periodicGroupData";
  static constexpr char mutator[] = "Routing::Pim::JoinPruneNeighborSm::periodicGroupData";
  static constexpr char maker[] = "newPeriodicGroupData";
  static constexpr bool counted = true;
  static constexpr bool tracesFinishedJoins = true;
  static auto& group(JoinPruneNeighborSm const& sm) { return sm.periodicGroup_; }
  static auto& groupData(JoinPruneNeighborSm& sm) { return sm.periodicGroupData_; }
  static void notify(JoinPruneNeighborSm& sm, Dova::IpGenAddr const& group) {
    sm.periodicGroupDataNotify(group);
  }
};

// --- Group reactors ------------------------------------------------------------------------------

template <class Channel>
JoinPruneNeighborSm::ChannelGroup<Channel>::ChannelGroup(Vel::Ptr<Packet::JoinPruneData> const& data,
                                                         JoinPruneNeighborSm* sm)
    : Base(sm) {
  Base::notifierIs(data);
}

template <class Channel>
void JoinPruneNeighborSm::ChannelGroup<Channel>::notifierIs(Vel::Ptr<Packet::JoinPruneData> const& data) {
  if (data == this->notifier()) return;
  Vel::MemoryHold const memory(this);
  Base::notifierIs(data);
  onJoinPruneGroupDatavelImmediate();
}

template <class Channel>
void JoinPruneNeighborSm::ChannelGroup<Channel>::onJoinPruneGroupData(Dova::IpGenAddr group) {
  JoinPruneNeighborSm* const sm = this->joinPruneNeighborSm();
  if (!sm) return;
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(sm);
  if (Vel::Ptr<Packet::JoinPruneData> const data = this->notifier()) {
    try {
      if (Vel::Ptr<GroupData> const groupData = data->joinPruneGroupData(group))
        sm->groupDataIs<Channel>(groupData);
      else
        sm->groupDataDel<Channel>(group);
    } catch (...) {
      sm->fallBehind();
      throw;
    }
  }
  if (!this->hasNotificationActive() || !this->joinPruneNeighborSm()) return;
  if constexpr (std::is_same_v<Channel, Triggered>)
    sm->vel_handleTriggeredGroup_joinPruneGroupData(group);
  else if constexpr (std::is_same_v<Channel, Override>)
    sm->vel_handleOverrideGroup_joinPruneGroupData(group);
  else
    sm->vel_handlePeriodicGroup_joinPruneGroupData(group);
}

template <class Channel>
void JoinPruneNeighborSm::ChannelGroup<Channel>::onJoinPruneGroupDatavelImmediate() {
  JoinPruneNeighborSm* const sm = this->joinPruneNeighborSm();
  if (!sm) return;
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(sm);
  try {
    sm->reconcile<Channel>();
  } catch (...) {
    sm->fallBehind();
    throw;
  }
  if constexpr (Channel::counted)
    if (this->hasNotificationActive() && this->joinPruneNeighborSm()) sm->handlePeriodicGroup();
}

// --- Source reactors -----------------------------------------------------------------------------

template <class Channel>
JoinPruneNeighborSm::ChannelGroupData<Channel>::ChannelGroupData(Vel::Ptr<GroupData> const& groupData,
                                                                 JoinPruneNeighborSm* sm)
    : Owned(sm), group_(groupData->group()) {
  notifierIs(groupData);
}

template <class Channel>
template <class Sources>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::handleSource(Dova::IpGenAddr const& source) {
  static constexpr auto handler = joined("handle", Sources::name);
  static constexpr auto signature = joined("void Routing::Pim::JoinPruneNeighborSm::Vel", Channel::name,
                                           "GroupData::handle", Sources::name, "(const Dova::IpGenAddr&)");
  JoinPruneNeighborSm* const sm = this->joinPruneNeighborSm();
  if (!sm) return;
  if constexpr (!Channel::counted) {
    // The bulk of a burst: one more source, and the timer runs already. Nobody is called, so nothing is held.
    if (sm->timerRunsQuietly<Channel>()) {
      auto const* const watched = static_cast<GroupData const*>(this->velNotifier());
      if (!watched || Sources::contains(*watched, source)) return;
    }
  }
  SCRIVO_BLOCK_TIMER(JOIN_PRUNE_SOURCE, signature.data());
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(sm);
  Vel::Ptr<GroupData> const groupData = this->notifier();
  if (!groupData) return;
  auto const* const subject = static_cast<typename Channel::GroupReactor const*>(this);

  if constexpr (Channel::counted) {
    if (Sources::contains(*groupData, source)) {
      sm->tellOfCount(sm->countSilently(1));
      if (sm->retired()) return;
      JOIN_PRUNE_TRACE_AS(7, subject, handler.data(),
                          '(' << source << "), added, sources: " << sm->numPeriodicRoutes());
      return;
    }
    U32 const before = sm->countSilently(-1);
    JOIN_PRUNE_TRACE_AS(7, subject, handler.data(), '(' << source << "), Deleted");
    sm->tellOfCount(before);
  } else {
    JOIN_PRUNE_TRACE_AS(7, subject, handler.data(), '(' << source << ')');
    if (sm->retired()) return;
    if (Sources::contains(*groupData, source)) {
      sm->doUpdateTimer<Channel>();
      return;
    }
    JOIN_PRUNE_TRACE_AS(7, subject, handler.data(), '(' << source << "), Sent");
  }
  retireGroup(handler.data(), !isJoin(Sources::kind) || Channel::tracesFinishedJoins);
}

template <class Channel>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::handleWcSource() {
  static constexpr auto signature =
      joined("void Routing::Pim::JoinPruneNeighborSm::Vel", Channel::name, "GroupData::handleWcSource()");
  JoinPruneNeighborSm* const sm = this->joinPruneNeighborSm();
  if (!sm) return;
  SCRIVO_BLOCK_TIMER(JOIN_PRUNE_SOURCE, signature.data());
  Vel::MemoryHold const memory(this);
  Vel::MemoryHold const machineMemory(sm);
  Vel::Ptr<GroupData> const groupData = this->notifier();
  if (!groupData) return;
  auto const* const subject = static_cast<typename Channel::GroupReactor const*>(this);
  Vel::Ptr<Packet::WcSourceData> const wildcard = groupData->wcSourceData();

  if constexpr (Channel::counted) {
    if (wildcard) {
      if (wcSourceSet_) return;
      wcSourceSet_ = true;  // before the count calls out
      sm->tellOfCount(sm->countSilently(1));
      if (sm->retired()) return;
      JOIN_PRUNE_TRACE(7, subject,
                       '(' << wildcard->address() << "), added, sources: " << sm->numPeriodicRoutes());
      return;
    }
    wcSourceSet_ = false;
    U32 const before = sm->countSilently(-1);  // Kept: also if the entry itself was never counted.
    JOIN_PRUNE_TRACE(7, subject, "(*,G), Deleted");
    sm->tellOfCount(before);
  } else {
    if (wildcard) {
      sm->doUpdateTimer<Channel>();
      return;
    }
    JOIN_PRUNE_TRACE(7, subject, "(*,G), Sent");
  }
  retireGroup("handleWcSource", true);
}

// If nothing is left in the group, takes it out of its data set, which takes this reactor out of the machine.
template <class Channel>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::retireGroup(char const* handler, bool traced) {
  Vel::Ptr<GroupData> const groupData = this->notifier();
  if (!this->joinPruneNeighborSm() || !groupData || !groupData->empty()) return;
  if (traced)
    JOIN_PRUNE_TRACE_AS(7, static_cast<typename Channel::GroupReactor const*>(this), handler,
                        (Channel::counted ? "(): Deleted group " : "(): Finished group ")
                            << groupData->group());
  // The line may have led to another entry in the group, to another group in its place, or to the end of the
  // machine.
  JoinPruneNeighborSm* const sm = this->joinPruneNeighborSm();
  if (!sm || !groupData->empty()) return;
  Vel::Ptr<Packet::JoinPruneData> const data = sm->data<Channel>();
  if (data && data->joinPruneGroupData(groupData->group()) == groupData)
    data->joinPruneGroupDataDel(groupData->group());
}

template <class Channel>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::handleJoinedSource(Dova::IpGenAddr const& source) {
  handleSource<Packet::GroupSources<EntryKind::sourceJoin>>(source);
}
template <class Channel>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::handlePrunedSource(Dova::IpGenAddr const& source) {
  handleSource<Packet::GroupSources<EntryKind::sourcePrune>>(source);
}
template <class Channel>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::handleJoinedRptSource(Dova::IpGenAddr const& source) {
  handleSource<Packet::GroupSources<EntryKind::sourceRptJoin>>(source);
}
template <class Channel>
void JoinPruneNeighborSm::ChannelGroupData<Channel>::handlePrunedRptSource(Dova::IpGenAddr const& source) {
  handleSource<Packet::GroupSources<EntryKind::sourceRptPrune>>(source);
}

#define JOIN_PRUNE_TRACE_ONLY(handler)                        \
  void JoinPruneNeighborSm::VelPeriodicGroupData::handler() { \
    if (!joinPruneNeighborSm()) return;                       \
    JOIN_PRUNE_BLOCK_TIMER();                                 \
    JOIN_PRUNE_TRACE(7, this, "()");                          \
  }
JOIN_PRUNE_TRACE_ONLY(handleJoinedSource)
JOIN_PRUNE_TRACE_ONLY(handlePrunedSource)
JOIN_PRUNE_TRACE_ONLY(handleJoinedRptSource)
JOIN_PRUNE_TRACE_ONLY(handlePrunedRptSource)
#undef JOIN_PRUNE_TRACE_ONLY

// --- Timers --------------------------------------------------------------------------------------

template <class Channel>
JoinPruneNeighborSm::ChannelTimer<Channel>::ChannelTimer(Vel::Ptr<Zanth::TimerWheel> const& wheel,
                                                         JoinPruneNeighborSm* sm)
    : Owned(sm) {
  Owned<Zanth::TimerWheel::Notifiee>::notifierIs(wheel);
}

template <class Channel>
void JoinPruneNeighborSm::ChannelTimer<Channel>::onTime() {
  JoinPruneNeighborSm* const sm = this->joinPruneNeighborSm();
  if (!sm) return;
  Vel::MemoryHold const machineMemory(sm);
  try {
    sm->handleTimerExpiry<Channel>();
  } catch (...) {
    // What is pending must not wait for the next change to be tried again.
    sm->doUpdateTimer<Channel>();
    throw;
  }
}

Seconds randomDelay(Seconds interval) {
  double r = drand48();
  VEL_ASSERT(JOIN_PRUNE_SOURCE, r <= 1.0);
  if (r < 0.1) r += 0.1;  // Kept: once, no clamp.
  return r * interval;
}

// On the clock of the channel's timer, which need not be that of the machine's own wheel.
template <class Channel>
Seconds JoinPruneNeighborSm::now() const {
  Vel::Ptr<Zanth::TimerWheel> wheel = notifierOf(Channel::timer(*this));
  if (!wheel) wheel = notifierOf(timerWheel_);
  return wheel ? wheel->now() : 0;
}

template <class Channel>
Vel::Ptr<Packet::JoinPruneData> JoinPruneNeighborSm::data() const {
  auto const& group = Channel::group(*this);
  return group ? group->notifier() : nullptr;
}

// Whether updating the channel's timer would do nothing at all.
template <class Channel>
bool JoinPruneNeighborSm::timerRunsQuietly() {
  auto const& timer = Channel::timer(*this);
  return timer && timer->armed() && joinPruneIsQuiet();
}

template <class Channel>
void JoinPruneNeighborSm::doUpdateTimer() {
  static constexpr auto function = joined("doUpdate", Channel::name, "Timer");
  static constexpr auto signature =
      joined("void Routing::Pim::JoinPruneNeighborSm::doUpdate", Channel::name, "Timer()");
  if (timerRunsQuietly<Channel>()) return;
  Vel::MemoryHold const memory(this);
  auto const timer = Channel::timer(*this);
  if (!timer || retired()) return;
  SCRIVO_BLOCK_TIMER(JOIN_PRUNE_SOURCE, signature.data());
  if (timer->armed()) {
    JOIN_PRUNE_TRACE_AS(7, this, function.data(), "(): Timer running");
    return;
  }
  Vel::Ptr<Packet::JoinPruneData> const pending = data<Channel>();
  if (!pending || pending->joinPruneGroupDataCount() == 0) {
    // Before the line: whoever is called by it may add what arms the timer.
    timer->timeMinIs(Vel::never);
    JOIN_PRUNE_TRACE_AS(7, this, function.data(), "(): Disarming timer");
    return;
  }
  U16 const holdTime = intf_ ? intf_->joinPruneHoldTime() : pending->holdTime();
  JOIN_PRUNE_TRACE_AS(7, this, function.data(), "(): Arming timer, setting holdtime to " << holdTime);
  if (retired()) return;
  pending->holdTimeIs(holdTime);
  if (retired() || timer->armed() || Channel::timer(*this) != timer) return;
  armIn<Channel>(Channel::delay(*this));
}

template <class Channel>
void JoinPruneNeighborSm::handleTimerExpiry() {
  static constexpr auto function = joined("handle", Channel::name, "TimerExpiry");
  static constexpr auto signature =
      joined("void Routing::Pim::JoinPruneNeighborSm::handle", Channel::name, "TimerExpiry()");
  static constexpr auto sending = joined("JoinPruneNeighborSm: Sending ", Channel::word, " joins/prunes to ");
  static constexpr auto suspending =
      joined("JoinPruneNeighborSm: Suspending sending ", Channel::word, " joins/prunes to ");
  static constexpr auto finished =
      joined("JoinPruneNeighborSm: Finished sending ", Channel::word, " joins/prunes to ");
  SCRIVO_BLOCK_TIMER(JOIN_PRUNE_SOURCE, signature.data());
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE_AS(7, this, function.data(), "()");
  if (!initialized_ || retired()) return;
  catchUp();
  if (retired()) return;

  Vel::Ptr<Packet::JoinPruneData> const pending = data<Channel>();
  auto const groups = [&pending] { return pending ? pending->joinPruneGroupDataCount() : 0; };
  Dova::IntfId const outgoing = intf_ ? intf_->intfId() : Dova::IntfId();
  SCRIVO_MESSAGE(JOIN_PRUNE_SOURCE, sending.data(), neighborAddr_, ", Intf: ", outgoing.name(),
                 ", Groups: ", groups());

  Seconds const deadline = now<Channel>() + loopQuantum_;
  if (retired()) return;
  TransmitStep const step{notifierOf(pimPamManager_), txMessage_, pending, outgoing};
  step.prepare();
  if (retired()) return;

  // The reactor on the data may be pointed at another set meanwhile.
  auto const live = [&] { return !retired() && data<Channel>() == pending; };
  TransmitStep::Report report;
  for (bool done = false; !done && live() && groups() != 0;) {
    report = step.send(live);
    if (retired()) return;
    // Kept: suppressed sources do not count as progress here.
    done = (report.sources == 0 && report.filteredSources == 0) || now<Channel>() >= deadline;
  }
  if (retired()) return;
  if (groups() != 0) {
    SCRIVO_MESSAGE(JOIN_PRUNE_SOURCE, suspending.data(), neighborAddr_, ", Intf: ", outgoing.name(),
                   ", Groups remaining: ", groups());
    JOIN_PRUNE_TRACE_AS(7, this, function.data(),
                        "(): Suspending TX after " << report.sources << " sources, " << report.filteredSources
                                                   << " filtered sources");
  } else {
    SCRIVO_MESSAGE(JOIN_PRUNE_SOURCE, finished.data(), neighborAddr_, ", Intf: ", outgoing.name(),
                   ", Groups remaining: ", groups());
  }
  doUpdateTimer<Channel>();
}

void JoinPruneNeighborSm::doUpdateTriggeredTimer() { doUpdateTimer<Triggered>(); }
void JoinPruneNeighborSm::doUpdateOverrideTimer() { doUpdateTimer<Override>(); }
void JoinPruneNeighborSm::handleTriggeredTimerExpiry() { handleTimerExpiry<Triggered>(); }
void JoinPruneNeighborSm::handleOverrideTimerExpiry() { handleTimerExpiry<Override>(); }

template <class Channel>
void JoinPruneNeighborSm::timerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  auto& timer = Channel::timer(*this);
  if (retired() || (timer ? timer->notifier() == wheel : !wheel)) return;
  using Timer = typename std::remove_reference_t<decltype(timer)>::Element;
  auto const displaced = std::exchange(timer, reactorOn<Timer>(wheel, this));
  if (timer) timer->hasNotificationActiveIs(hasNotificationActive());
  bool const wasArmed = displaced && displaced->armed();
  bool const wasMissed = displaced && displaced->missed();
  if (displaced) {
    if (timer) timer->velDoZombieReactors(displaced->isZombie());
    displaced->timeMinIs(Vel::never);
    unhook(*displaced);
  }
  Vel::MemoryHold const memory(this);
  Channel::notifyTimer(*this);
  // The time that was set belongs to the other wheel's clock. What became due there is due here.
  if (wasArmed) doUpdateTimer<Channel>();
  if (wasMissed) armIn<Channel>(0);
}

void JoinPruneNeighborSm::triggeredTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  timerIs<Triggered>(wheel);
}
void JoinPruneNeighborSm::overrideTimerIs(Vel::Ptr<Zanth::TimerWheel> const& wheel) {
  timerIs<Override>(wheel);
}

Vel::Ptr<IO::MessageInfo> JoinPruneNeighborSm::txMessageInfoIs() {
  return notifierOf(pimPamManager_)->txMessageInfoIs();
}

// --- Life ----------------------------------------------------------------------------------------

JoinPruneNeighborSm::JoinPruneNeighborSm(JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr,
                                         Vel::Ptr<Neighbor const> const& neighbor,
                                         Vel::Ptr<Intf const> const& intf,
                                         Vel::Ptr<Packet::JoinPruneData> const& triggeredGroup,
                                         Vel::Ptr<Packet::JoinPruneData> const& overrideGroup,
                                         Vel::Ptr<Packet::JoinPruneData> const& periodicGroup,
                                         Vel::Ptr<Zanth::TimerWheel> const& timerWheel,
                                         Seconds const& overrideInterval,
                                         Vel::Ptr<IO::PamManager> const& pimPamManager,
                                         Vel::Ptr<Packet::JoinPruneMessage> const& txMessage)
    : parentSm_(parentSm),
      neighborAddr_(neighborAddr),
      neighbor_(neighbor),
      intf_(intf),
      overrideInterval_(overrideInterval),
      txMessage_(txMessage),
      triggeredGroup_(reactorOn<VelTriggeredGroup>(triggeredGroup, this)),
      overrideGroup_(reactorOn<VelOverrideGroup>(overrideGroup, this)),
      periodicGroup_(reactorOn<VelPeriodicGroup>(periodicGroup, this)),
      timerWheel_(reactorOn<VelTimerWheel>(timerWheel, this)),
      pimPamManager_(reactorOn<VelPimPamManager>(pimPamManager, this)) {}

Vel::Ptr<JoinPruneNeighborSm> JoinPruneNeighborSm::velConstruct(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr,
    Vel::Ptr<Neighbor const> const& neighbor, Vel::Ptr<Intf const> const& intf,
    Vel::Ptr<Packet::JoinPruneData> const& triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> const& overrideGroup,
    Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Zanth::TimerWheel> const& timerWheel,
    Seconds const& overrideInterval, Vel::Ptr<IO::PamManager> const& pimPamManager,
    Vel::Ptr<Packet::JoinPruneMessage> const& txMessage) {
  Vel::requireDuration("overrideInterval", overrideInterval);
  return Vel::Ptr<JoinPruneNeighborSm>::owning(
      new JoinPruneNeighborSm(parentSm, neighborAddr, neighbor, intf, triggeredGroup, overrideGroup,
                              periodicGroup, timerWheel, overrideInterval, pimPamManager, txMessage));
}

Vel::Ptr<JoinPruneNeighborSm> joinPruneNeighborSmFactory(
    JoinPruneMessageSm* parentSm, Dova::IpGenAddr const& neighborAddr, Vel::Ptr<Neighbor const> neighbor,
    Vel::Ptr<Intf const> intf, Vel::Ptr<Packet::JoinPruneData> triggeredGroup,
    Vel::Ptr<Packet::JoinPruneData> overrideGroup, Vel::Ptr<Packet::JoinPruneData> periodicGroup,
    Vel::Ptr<Zanth::TimerWheel> timerWheel, Seconds const& overrideInterval,
    Vel::Ptr<IO::PamManager> pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> txMessage) {
  auto const sm = JoinPruneNeighborSm::velConstruct(parentSm, neighborAddr, neighbor, intf, triggeredGroup,
                                                    overrideGroup, periodicGroup, timerWheel,
                                                    overrideInterval, pimPamManager, txMessage);
  sm->velStart();
  return sm;
}

void JoinPruneNeighborSm::velStart() {
  Vel::MemoryHold const memory(this);
  reconcile<Triggered>();
  reconcile<Override>();
  reconcile<Periodic>();
  handleInitialized();
}

void JoinPruneNeighborSm::handleInitialized() {
  JOIN_PRUNE_BLOCK_TIMER();
  if (!start()) return;
  Vel::MemoryHold const memory(this);
  Vel::Ptr<Packet::JoinPruneData> const periodic = data<Periodic>();
  if (periodic) periodic->periodicIs(true);
  Vel::Ptr<Zanth::TimerWheel> const wheel = notifierOf(timerWheel_);
  triggeredTimerIs(wheel);
  overrideTimerIs(wheel);
  doUpdateTriggeredTimer();
  doUpdateOverrideTimer();
  joinPrunePeriodicTimerSmIs(wheel, this, loopQuantum_, periodic, intf_, notifierOf(pimPamManager_),
                             txMessage_);
  if (periodic) countRoutesAtStart(*periodic);
  // Whoever was called so far may have changed what there is, so the last word is the data's. From here on
  // the sources are counted one by one.
  counted_ = true;
  countRoutes();
  if (retired()) return;
  JOIN_PRUNE_TRACE(2, this, "(), total number of periodic joins and prunes is " << numPeriodicRoutes_);
  if (!retired()) initializedIs(true);
}

void JoinPruneNeighborSm::velRetire() {
  retire();
  auto const unhookAll = [](auto const&... reactors) { ((reactors ? unhook(*reactors) : void()), ...); };
  for (auto i = triggeredGroupDataIterator(); i; ++i) unhook(*i);
  for (auto i = overrideGroupDataIterator(); i; ++i) unhook(*i);
  for (auto i = periodicGroupDataIterator(); i; ++i) unhook(*i);
  unhookAll(triggeredGroup_, overrideGroup_, periodicGroup_, timerWheel_, pimPamManager_, triggeredTimer_,
            overrideTimer_);
  if (triggeredTimer_) triggeredTimer_->timeMinIs(Vel::never);
  if (overrideTimer_) overrideTimer_->timeMinIs(Vel::never);
  if (joinPrunePeriodicTimerSm_) joinPrunePeriodicTimerSm_->handleRetired();
  parentSm_ = nullptr;
}

JoinPruneNeighborSm::~JoinPruneNeighborSm() { velRetire(); }

void JoinPruneNeighborSm::doTeardown() { velRetire(); }

void JoinPruneNeighborSm::velVisitReactors(ReactorVisitor const& visit) {
  auto const visitAll = [&visit](auto const... reactors) { ((reactors ? visit(*reactors) : void()), ...); };
  visitAll(triggeredGroup_, overrideGroup_, periodicGroup_, timerWheel_, pimPamManager_, triggeredTimer_,
           overrideTimer_);
  for (auto i = triggeredGroupDataIterator(); i; ++i) visit(*i);
  for (auto i = overrideGroupDataIterator(); i; ++i) visit(*i);
  for (auto i = periodicGroupDataIterator(); i; ++i) visit(*i);
}

void JoinPruneNeighborSm::hasNotificationActiveIs(bool active) {
  Vel::MemoryHold const memory(this);
  Machine::hasNotificationActiveIs(active);
  if (joinPrunePeriodicTimerSm_) joinPrunePeriodicTimerSm_->hasNotificationActiveIs(active);
  if (active) bringTimersUpToDate();
}

void JoinPruneNeighborSm::velDoZombieReactors(bool zombie) {
  Vel::MemoryHold const memory(this);
  Machine::velDoZombieReactors(zombie);
  if (joinPrunePeriodicTimerSm_) joinPrunePeriodicTimerSm_->velDoZombieReactors(zombie);
  if (!zombie) bringTimersUpToDate();
}

// What became due while it could not be called is due now.
void JoinPruneNeighborSm::bringTimersUpToDate() {
  if (triggeredTimer_ && triggeredTimer_->missed()) armIn<Triggered>(0);
  if (overrideTimer_ && overrideTimer_->missed()) armIn<Override>(0);
}

// Arms the channel's timer if it is idle. The clock is somebody's code, so all may be different afterwards.
template <class Channel>
void JoinPruneNeighborSm::armIn(Seconds delay) {
  Vel::MemoryHold const memory(this);
  auto const timer = Channel::timer(*this);
  if (retired() || !timer) return;
  Seconds const due = now<Channel>() + delay;
  if (!retired() && !timer->armed() && Channel::timer(*this) == timer) timer->timeMinIs(due);
}

Vel::Ptr<JoinPrunePeriodicTimerSm> JoinPruneNeighborSm::joinPrunePeriodicTimerSmIs(
    Vel::Ptr<Zanth::TimerWheel> const& timerWheel, JoinPruneNeighborSm* parentSm, Seconds const& loopQuantum,
    Vel::Ptr<Packet::JoinPruneData> const& periodicGroup, Vel::Ptr<Intf const> const& intf,
    Vel::Ptr<IO::PamManager> const& pimPamManager, Vel::Ptr<Packet::JoinPruneMessage> const& txMessage) {
  if (joinPrunePeriodicTimerSm_ || retired()) return joinPrunePeriodicTimerSm_;
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
  if (joinPrunePeriodicTimerSm_) Vel::throwPresent("newJoinPrunePeriodicTimerSm", fwkType(), "one");
  auto const made = joinPrunePeriodicTimerSmFactory(timerWheel, parentSm, loopQuantum, periodicGroup, intf,
                                                    pimPamManager, txMessage);
  made->hasNotificationActiveIs(hasNotificationActive());
  joinPrunePeriodicTimerSm_ = made;
  return made;
}

void JoinPruneNeighborSm::joinPrunePeriodicTimerSmDel() {
  if (retired()) return;
  auto const removed = std::exchange(joinPrunePeriodicTimerSm_, nullptr);
  if (!removed) return;
  removed->handleRetired();
  velDeliver<NotifieeConst, joinPrunePeriodicTimerSmId>(
      [](NotifieeConst& r) { r.onJoinPrunePeriodicTimerSm(); });
}

// --- Groups --------------------------------------------------------------------------------------

// Brings the group reactors into line with the data.
template <class Channel>
void JoinPruneNeighborSm::reconcile() {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<Packet::JoinPruneData> const groups = data<Channel>();
  if (!groups || retired()) return;
  if (Channel::groupData(*this).size() == 0 && !velWatched()) {
    // At the start there is nothing to compare with, and nobody is called.
    Channel::groupData(*this).reserve(groups->joinPruneGroupDataCount());
    for (Packet::GroupWalk walk(*groups); walk; ++walk) newGroupData<Channel>(&*walk);
    return;
  }
  for (auto i = groups->joinPruneGroupDataIterator(); i && !retired(); ++i) groupDataIs<Channel>(i.ptr());
  using Iterator =
      Vel::EntityIterator<Dova::IpGenAddr, typename Channel::GroupReactor, typename Channel::GroupReactor>;
  for (Iterator i(this, Channel::groupData(*this)); i && !retired(); ++i)
    if (!groups->joinPruneGroupData(i.key())) groupDataDel<Channel>(i.key());
}

template <class Channel>
auto JoinPruneNeighborSm::newGroupData(Vel::Ptr<GroupData> const& groupData) {
  if (!groupData) Vel::throwNullParameter(Channel::parameter, Channel::mutator);
  Vel::Ptr<typename Channel::GroupReactor> reactor;
  if (retired()) return reactor;
  auto const where = Vel::vacancy(Channel::groupData(*this), groupData->group(), Channel::maker, *this);
  reactor = Vel::create<typename Channel::GroupReactor>(groupData, this);
  Channel::groupData(*this).insert(where, reactor);
  if (!hasNotificationActive()) reactor->hasNotificationActiveIs(false);
  return reactor;
}

template <class Channel>
auto JoinPruneNeighborSm::groupDataIs(Vel::Ptr<GroupData> const& groupData) {
  using Reactor = typename Channel::GroupReactor;
  if (!groupData) Vel::throwNullParameter(Channel::parameter, Channel::mutator);
  if (retired()) return Vel::Ptr<Reactor>();
  Vel::MemoryHold const memory(this);
  Vel::Ptr<Reactor> reactor(Channel::groupData(*this).find(groupData->group()));
  if (reactor && reactor->notifier() == groupData) return reactor;
  if (reactor) {
    reactor->notifierIs(groupData);
    reactor->hasNotificationActiveIs(hasNotificationActive());
  } else {
    reactor = newGroupData<Channel>(groupData);
  }
  Channel::notify(*this, groupData->group());
  return reactor;
}

template <class Channel>
auto JoinPruneNeighborSm::groupDataDel(Dova::IpGenAddr const& group) {
  Vel::Ptr<typename Channel::GroupReactor> removed;
  if (!retired()) removed = Channel::groupData(*this).remove(group);
  if (removed) {
    unhook(*removed);
    Channel::notify(*this, removed->velKey());
  }
  return removed;
}

template <class Channel>
void JoinPruneNeighborSm::groupDataDelAll() {
  Vel::MemoryHold const memory(this);
  for (auto const& reactor : Channel::groupData(*this).elements())
    if (Channel::groupData(*this).find(reactor->velKey()) == reactor.get())
      groupDataDel<Channel>(reactor->velKey());
}

#define JOIN_PRUNE_GROUP_DATA(Channel, foo, Foo)                                                           \
  Vel::Ptr<JoinPruneNeighborSm::Vel##Foo> JoinPruneNeighborSm::foo##Is(Vel::Ptr<GroupData> const& data) {  \
    return groupDataIs<Channel>(data);                                                                     \
  }                                                                                                        \
  Vel::Ptr<JoinPruneNeighborSm::Vel##Foo> JoinPruneNeighborSm::new##Foo(Vel::Ptr<GroupData> const& data) { \
    return newGroupData<Channel>(data);                                                                    \
  }                                                                                                        \
  Vel::Ptr<JoinPruneNeighborSm::Vel##Foo> JoinPruneNeighborSm::foo##Del(Dova::IpGenAddr const& group) {    \
    return groupDataDel<Channel>(group);                                                                   \
  }                                                                                                        \
  void JoinPruneNeighborSm::foo##DelAll() { groupDataDelAll<Channel>(); }
JOIN_PRUNE_GROUP_DATA(Triggered, triggeredGroupData, TriggeredGroupData)
JOIN_PRUNE_GROUP_DATA(Override, overrideGroupData, OverrideGroupData)
JOIN_PRUNE_GROUP_DATA(Periodic, periodicGroupData, PeriodicGroupData)
#undef JOIN_PRUNE_GROUP_DATA

// A group of the channel's data, or null; not held.
template <class Channel>
GroupData const* JoinPruneNeighborSm::groupOf(Dova::IpGenAddr const& group) const {
  auto const& reactor = Channel::group(*this);
  Packet::JoinPruneData const* const groups = reactor ? reactor->velData() : nullptr;
  return groups && groups->joinPruneGroupDataCount() != 0 ? groups->velGroup(group) : nullptr;
}

template <class Channel>
void JoinPruneNeighborSm::handleGroup(Dova::IpGenAddr const& group) {
  static constexpr auto function = joined("handle", Channel::name, "Group");
  static constexpr auto signature = joined("void Routing::Pim::JoinPruneNeighborSm::handle", Channel::name,
                                           "Group(const Dova::IpGenAddr&)");
  if (joinPruneIsQuiet()) {
    GroupData const* const found = groupOf<Channel>(group);
    if (found && !found->empty()) doUpdateTimer<Channel>();
    return;
  }
  SCRIVO_BLOCK_TIMER(JOIN_PRUNE_SOURCE, signature.data());
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE_AS(7, this, function.data(), '(' << group << ')');
  if (retired()) return;
  Vel::Ptr<Packet::JoinPruneData> const groups = data<Channel>();
  if (Vel::Ptr<GroupData> const found = groups ? groups->joinPruneGroupData(group) : nullptr) {
    if (!found->empty()) doUpdateTimer<Channel>();
    return;
  }
  JOIN_PRUNE_TRACE_AS(7, this, function.data(), '(' << group << "): Deleted");
}

void JoinPruneNeighborSm::handleTriggeredGroup(Dova::IpGenAddr const& group) {
  handleGroup<Triggered>(group);
}
void JoinPruneNeighborSm::handleOverrideGroup(Dova::IpGenAddr const& group) { handleGroup<Override>(group); }

void JoinPruneNeighborSm::handlePeriodicGroup(Dova::IpGenAddr const& group) {
  if (joinPruneIsQuiet() && periodicGroup_ && periodicGroup_->velData() &&
      periodicGroup_->velData()->joinPruneGroupDataCount() != 0 && !groupOf<Periodic>(group))
    return;
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(7, this, '(' << group << ')');
  if (retired()) return;
  Vel::Ptr<Packet::JoinPruneData> const groups = data<Periodic>();
  if (Vel::Ptr<GroupData> const found = groups ? groups->joinPruneGroupData(group) : nullptr) {
    numPeriodicRoutesInc(found->routes());
    return;
  }
  JOIN_PRUNE_TRACE(7, this, '(' << group << "): Deleted");
  auto const drained = [&] { return !retired() && (!groups || groups->joinPruneGroupDataCount() == 0); };
  if (!drained()) return;
  catchUp();
  if (!drained()) return;
  if (counted_ && !behind_ && !catchingUp_ && numPeriodicRoutes_ != 0) {
    // A group was removed before its sources: what this machine counts is no longer what there is.
    JOIN_PRUNE_TRACE(1, this, '(' << group << "), Num routes: " << numPeriodicRoutes_);
    VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
  }
  if (parentSm_) parentSm_->doMaybeDeleteNeighbor(neighborAddr_);
}

void JoinPruneNeighborSm::handlePeriodicGroup() {
  JOIN_PRUNE_BLOCK_TIMER();
  JOIN_PRUNE_TRACE(7, this, "()");
}

#define JOIN_PRUNE_FORWARD(Foo)                                                                          \
  void JoinPruneNeighborSm::vel_handle##Foo##_joinPruneGroupData(Dova::IpGenAddr const&) {               \
    handle##Foo(neighborAddr_);                                                                          \
  }                                                                                                      \
  void JoinPruneNeighborSm::vel_handle##Foo##_joinPruneGroupData(Vel::Ptr<GroupData> const& groupData) { \
    vel_handle##Foo##_joinPruneGroupData(groupData->group());                                            \
  }
JOIN_PRUNE_FORWARD(TriggeredGroup)
JOIN_PRUNE_FORWARD(OverrideGroup)
JOIN_PRUNE_FORWARD(PeriodicGroup)
#undef JOIN_PRUNE_FORWARD

// --- Want of memory ------------------------------------------------------------------------------

// A group has no reactor: its sources are neither counted nor do they arm a timer, until this machine has
// caught up.
void JoinPruneNeighborSm::fallBehind() {
  behind_ = true;
  if (triggeredTimer_ && !triggeredTimer_->armed()) armIn<Triggered>(triggeredInterval_);
}

// Follows what could not be followed, counts anew and arms what is pending. Asked at each expiry, and when
// the periodic data has run empty.
void JoinPruneNeighborSm::catchUp() {
  if (!behind_ || catchingUp_) return;
  Vel::MemoryHold const memory(this);
  behind_ = false;  // before what may fall behind again
  catchingUp_ = true;
  try {
    retireUnfollowedGroups<Triggered>();
    retireUnfollowedGroups<Override>();
    retireUnfollowedGroups<Periodic>();
    reconcile<Triggered>();
    reconcile<Override>();
    reconcile<Periodic>();
  } catch (...) {
    catchingUp_ = false;
    fallBehind();
    throw;
  }
  catchingUp_ = false;
  countRoutes();
  doUpdateTimer<Override>();
  // The owner may have been told of nothing since the data ran empty.
  Vel::Ptr<Packet::JoinPruneData> const periodic = data<Periodic>();
  if (parentSm_ && (!periodic || periodic->joinPruneGroupDataCount() == 0))
    parentSm_->doMaybeDeleteNeighbor(neighborAddr_);
}

// A group that was filled and emptied while it had no reactor is removed, as its reactor would have done. One
// that was never filled stays: its entries are still to come.
template <class Channel>
void JoinPruneNeighborSm::retireUnfollowedGroups() {
  Vel::Ptr<Packet::JoinPruneData> const groups = data<Channel>();
  if (!groups) return;
  for (auto i = groups->joinPruneGroupDataIterator(); i && !retired(); ++i)
    if (i->empty() && i->velWasFilled() && !Channel::groupData(*this).find(i.key()))
      groups->joinPruneGroupDataDel(i.key());
}

// --- The route count -----------------------------------------------------------------------------

// Counts up group by group. Where nobody would hear of the single steps, only those are made that lead to the
// timer being armed, since it is the first routes that set its time; countRoutes() makes the rest at once.
void JoinPruneNeighborSm::countRoutesAtStart(Packet::JoinPruneData const& periodic) {
  Vel::MemoryHold const memory(this);
  for (auto i = periodic.joinPruneGroupDataIterator(); i && !retired(); ++i) {
    bool const paceIsSet = !joinPrunePeriodicTimerSm_ || joinPrunePeriodicTimerSm_->velPaceIsSet();
    if (paceIsSet && !velWatched() && joinPruneIsQuiet()) return;
    numPeriodicRoutesInc(i->routes());
  }
}

// Takes the count from the data, with all (*,G) entries that are there: they are not counted again.
void JoinPruneNeighborSm::countRoutes() {
  Vel::MemoryHold const memory(this);
  Vel::Ptr<Packet::JoinPruneData> const periodic = data<Periodic>();
  if (!periodic || retired()) return;
  U32 sum = 0;
  auto const& groups = periodic->velGroups();
  auto const& reactors = periodicGroupData_.table();
  // Both are in one order, so they are walked side by side.
  auto reactor = reactors.first();
  for (auto place = groups.first(); place.position != groups.end(); place = groups.next(place)) {
    GroupData const& group = *groups.at(place.position);
    sum += group.routes();
    U32 const mark = groups.markAt(place.position);
    auto const isBefore = [&](U32 at) {
      U32 const other = reactors.markAt(at);
      return other < mark || (other == mark && reactors.keyAt(at) < group.group());
    };
    while (reactor.position != reactors.end() && isBefore(reactor.position)) reactor = reactors.next(reactor);
    if (reactor.position == reactors.end()) continue;
    VelPeriodicGroupData* const candidate = reactors.at(reactor.position);
    if (candidate->velKey() == group.group()) candidate->wcSourceSetIs(group.wcSourceData() != nullptr);
  }
  numPeriodicRoutesIs(sum);
}

// Moves the count by one source, without any consequence yet. The count before.
U32 JoinPruneNeighborSm::countSilently(int difference) {
  U32 const before = numPeriodicRoutes_;
  if (counted_ && !retired()) numPeriodicRoutes_ += static_cast<U32>(difference);
  return before;
}

// What follows from a changed count.
void JoinPruneNeighborSm::tellOfCount(U32 before) {
  if (numPeriodicRoutes_ == before || retired()) return;
  Vel::MemoryHold const memory(this);
  vel_handleNumPeriodicRoutes();
  velDeliver<NotifieeConst, numPeriodicRoutesId>([](NotifieeConst& r) { r.onNumPeriodicRoutes(); });
}

void JoinPruneNeighborSm::numPeriodicRoutesIs(U32 n) {
  if (retired()) return;
  U32 const before = std::exchange(numPeriodicRoutes_, n);
  tellOfCount(before);
}

U32 JoinPruneNeighborSm::numPeriodicRoutesInc(U32 n) {
  if (retired()) return numPeriodicRoutes_;
  U32 const value = numPeriodicRoutes_ + n;
  numPeriodicRoutesIs(value);
  return value;
}

void JoinPruneNeighborSm::vel_handleNumPeriodicRoutes() {
  Vel::MemoryHold const memory(this);
  if (Vel::Ptr<JoinPrunePeriodicTimerSm> const periodic = joinPrunePeriodicTimerSm_)
    periodic->doUpdatePeriodicTimer();
  if (!retired()) validateNumPeriodicRoutes();
}

void JoinPruneNeighborSm::validateNumPeriodicRoutes() {
  JOIN_PRUNE_BLOCK_TIMER();
  Vel::MemoryHold const memory(this);
  JOIN_PRUNE_TRACE(8, this, '(' << numPeriodicRoutes_ << ')');
  if (!initialized_ || retired() || behind_ || catchingUp_ || (parentSm_ && !parentSm_->diagUpJoinCount()))
    return;
  U32 sum = 0;
  if (Vel::Ptr<Packet::JoinPruneData> const groups = data<Periodic>())
    for (auto i = groups->joinPruneGroupDataIterator(); i; ++i) sum += i->routes();
  if (sum == numPeriodicRoutes_) return;
  JOIN_PRUNE_TRACE(1, this, ", expected: " << sum << ", got: " << numPeriodicRoutes_);
  VEL_ASSERT(JOIN_PRUNE_SOURCE, false);
}

// --- Text ----------------------------------------------------------------------------------------

std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm const* sm) {
  if (!sm) return os << "null";
  os << "JoinPruneNeighborSm(";
  if (sm->intf()) os << sm->intf()->intfId();
  return os << "::" << sm->neighborAddr() << ")::@" << static_cast<void const*>(sm) << "::";
}

namespace {

template <class Reactor>
std::ostream& writeGroupForm(std::ostream& os, Reactor const* reactor, char const* kind) {
  if (!reactor) return os << "null";
  Vel::Ptr<GroupData> const groupData = reactor->notifier();
  return os << reactor->joinPruneNeighborSm() << kind << '('
            << (groupData ? groupData->group() : Dova::IpGenAddr()) << ")::";
}

}  // namespace

std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelTriggeredGroupData const* reactor) {
  return writeGroupForm(os, reactor, "Triggered");
}
std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelOverrideGroupData const* reactor) {
  return writeGroupForm(os, reactor, "Override");
}
std::ostream& operator<<(std::ostream& os, JoinPruneNeighborSm::VelPeriodicGroupData const* reactor) {
  return writeGroupForm(os, reactor, "Periodic");
}

Vel::AttributeTable const& JoinPruneNeighborSm::attributeTable() const {
  using Self = JoinPruneNeighborSm;
  static Vel::AttributeTable const table{VEL_ROW_FIXED(parentSm),
                                         VEL_ROW_FIXED(neighborAddr),
                                         VEL_ROW_FIXED(neighbor),
                                         VEL_ROW_FIXED(intf),
                                         VEL_ROW_FIXED(triggeredGroup),
                                         VEL_ROW_FIXED(overrideGroup),
                                         VEL_ROW_FIXED(periodicGroup),
                                         VEL_ROW_FIXED(timerWheel),
                                         VEL_ROW_FIXED(overrideInterval),
                                         VEL_ROW_FIXED(pimPamManager),
                                         VEL_ROW_FIXED(txMessage),
                                         VEL_ROW_FIXED(triggeredTimer),
                                         VEL_ROW_FIXED(overrideTimer),
                                         VEL_ROW(loopQuantum),
                                         VEL_ROW(triggeredInterval),
                                         VEL_ROW_FIXED(joinPrunePeriodicTimerSm),
                                         VEL_ROW_FIXED(triggeredGroupData),
                                         VEL_ROW_FIXED(overrideGroupData),
                                         VEL_ROW_FIXED(numPeriodicRoutes),
                                         VEL_ROW_FIXED(periodicGroupData),
                                         VEL_ROW(initialized)};
  return table;
}

template class JoinPruneNeighborSm::ChannelTimer<JoinPruneNeighborSm::Triggered>;
template class JoinPruneNeighborSm::ChannelTimer<JoinPruneNeighborSm::Override>;
template class JoinPruneNeighborSm::ChannelGroup<JoinPruneNeighborSm::Triggered>;
template class JoinPruneNeighborSm::ChannelGroup<JoinPruneNeighborSm::Override>;
template class JoinPruneNeighborSm::ChannelGroup<JoinPruneNeighborSm::Periodic>;
template class JoinPruneNeighborSm::ChannelGroupData<JoinPruneNeighborSm::Triggered>;
template class JoinPruneNeighborSm::ChannelGroupData<JoinPruneNeighborSm::Override>;
template class JoinPruneNeighborSm::ChannelGroupData<JoinPruneNeighborSm::Periodic>;

}  // namespace Routing::Pim
