// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/private/SpeakerLink.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "pim/joinprune/private/RecordAccess.h"
#include "pim/speaker/Conversion.h"
#include "pim/speaker/private/CallOut.h"

namespace Routing::Pim::Speaker {

namespace {

// How often the engine's override interval is raised at once in a Hello_Period, before it waits for the next.
constexpr U32 raisesAtOnce = 3;

// After a refresh that is due, so that it is through.
constexpr Seconds paceDelay = 0.001;

// The engine's interval is in whole seconds; what a fraction is less than that, keepPace() sees to.
U32 wholeInterval(Seconds interval) { return static_cast<U32>(std::ceil(interval)); }

// An idle timer is armed too.
void noLater(Vel::Ptr<Zanth::TimerWheel::Notifiee> const& timer, Seconds time) {
  if (timer && timer->timeMin() > time) timer->timeMinIs(time);
}

// What tells the packet manager that nothing was sent.
struct NotSent : std::runtime_error {
  NotSent() : std::runtime_error("the sink wants it later") {}
};

}  // namespace

// Whether a link is still what it was before a call out: neither destroyed nor down, nor up again with
// another address.
class SpeakerLink::SameLink {
 public:
  explicit SameLink(SpeakerLink const& link)
      : link_(link), watch_(link.life_), status_(link.engine_.status) {}
  bool ended() const { return watch_.ended() || link_.engine_.status != status_; }

 private:
  SpeakerLink const& link_;
  Life::Watch const watch_;
  Vel::Ptr<Status> const status_;
};

SpeakerLink::SpeakerLink(Speaker& speaker, Dova::IntfId const& intf, AddressFamily family)
    : speaker_(speaker),
      intf_(intf),
      family_(family),
      downstream_(*this, *this, *speaker.upstream_),
      overrideTimer_(speaker.wheel_, [this] { overrideTimerExpired(); }),
      paceTimer_(speaker.wheel_, [this] { keepPace(); }) {
  observers_.reserve(2);  // Nothing may fail once the upstream routes know of this link.
  observers_.push_back(&downstream_);
  observers_.push_back(&speaker.upstream_->linkIs(*this));
}

SpeakerLink::~SpeakerLink() {
  speaker_.upstream_->linkDel(*this);
  if (engine_.manager) engine_.manager->stop();
}

// --- Up and down ---------------------------------------------------------------------------------

void SpeakerLink::setupIs(LinkSetup setup) {
  wanted_ = std::move(setup);
  if (isChanging_) return;
  // What is thrown ends the change, not the link.
  struct Changing {
    explicit Changing(SpeakerLink& link) : link_(link), watch_(link.life_) { link_.isChanging_ = true; }
    ~Changing() {
      if (!watch_.ended()) link_.isChanging_ = false;
    }
    SpeakerLink& link_;
    Life::Watch const watch_;
  } const changing(*this);
  while (!isComplete_ || !(present_ == wanted_)) {
    isComplete_ = false;
    if (neighbors_ && present_.primary.ipGenAddr() != wanted_.primary.ipGenAddr())
      bringDown();
    else if (!neighbors_ && wanted_.primary != Dova::IpGenPrefix())
      bringUp();
    else
      adjust();
    if (changing.watch_.ended()) return;
    isComplete_ = true;
  }
}

void SpeakerLink::bringUp() {
  LinkSetup setup = wanted_;
  Life::Watch const watch(life_);
  Engine engine;
  engine.status = Vel::create<Status>();
  engine.intf = engine.status->pimIntfIs(intf_);
  engine.intf->usedAddressWithMaskIs(setup.primary);
  engine.intf->joinPruneHoldTimeIs(setup.settings.joinPruneHoldTime);
  engine.intf->joinPruneIntervalIs(wholeInterval(setup.settings.joinPruneInterval));
  engine.intf->usedOverrideIntervalInSecondsIs(setup.settings.hello.lanPruneDelay.overrideInterval / 1000.0);
  engine.dataSets = joinPruneStatusFactory();
  engine.dataSets->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
  engine.joins = joinPruneMessageInfoFactory();
  engine.prunes = joinPruneMessageInfoFactory();
  engine.channel = Vel::create<IO::MessageInfo>();
  engine.manager = Vel::create<PacketManager>(*this, engine.status, speaker_.settings_.filter);
  engine.manager->mtuIs(intf_, setup.settings.mtu);
  engine.manager->dataSetsAre(engine.dataSets);
  engine.manager->heardJoinsAre(speaker_.upstream_.get());
  engine.manager->start();
  engine.machine =
      joinPruneMessageSmFactory(engine.dataSets, speaker_.settings_.filter, engine.status, speaker_.rpHash_,
                                engine.joins, engine.prunes, engine.channel, engine.manager, speaker_.wheel_);
  // A trace sink may have done anything meanwhile.
  if (watch.ended()) return;
  neighbors_ = std::make_unique<Neighbors>(*this, intf_, setup.primary.ipGenAddr(), setup.secondary,
                                           setup.settings.hello, speaker_.wheel_, speaker_.random_);
  engine_ = std::move(engine);
  downstream_.limitsAre(setup.settings.downstream);
  present_ = std::move(setup);
}

void SpeakerLink::bringDown() {
  Life::Watch const watch(life_);
  neighbors_->end();
  if (watch.ended()) return;
  forObservers([](LinkObserver& observer) { observer.linkDown(); });
  if (watch.ended()) return;
  overrideTimer_.stop();
  paceTimer_.stop();
  raises_ = 0;
  present_ = {};
  neighbors_.reset();
  Engine const engine = std::exchange(engine_, {});  // Ends when this function does, and may call out then.
  engine.manager->stop();
}

// All but the primary address.
void SpeakerLink::adjust() {
  Life::Watch const watch(life_);
  LinkSetup const setup = wanted_;
  present_ = setup;
  downstream_.limitsAre(setup.settings.downstream);
  if (!neighbors_) return;
  Engine const engine = engine_;
  engine.intf->usedAddressWithMaskIs(setup.primary);  // with another mask length
  engine.intf->joinPruneHoldTimeIs(setup.settings.joinPruneHoldTime);
  engine.intf->joinPruneIntervalIs(wholeInterval(setup.settings.joinPruneInterval));
  engine.manager->mtuIs(intf_, setup.settings.mtu);
  if (watch.ended() || !neighbors_) return;
  Seconds const latest = speaker_.wheel_->now() + setup.settings.joinPruneInterval;
  for (auto const& neighbor : neighbors_->values().neighbors())
    if (auto const refresh = runningRefresh(neighbor)) noLater(refresh->periodicTimer(), latest);
  keepPace();
  if (watch.ended() || !neighbors_) return;
  neighbors_->settingsIs(setup.settings.hello);
  if (watch.ended() || !neighbors_) return;
  neighbors_->secondaryAddressesIs(setup.secondary);
}

// --- Sending -------------------------------------------------------------------------------------

Sent SpeakerLink::sendHello(Wire::Hello const& hello) {
  IpGenAddr const source = present_.primary.ipGenAddr();
  auto const bytes = Wire::encodeHello(hello, source, Wire::allPimRouters(family_));
  return speaker_.send(Wire::PimType::hello, intf_, source, bytes);
}

// Without a Hello before it, a neighbor that does not know this router would discard the message (RFC 7761,
// 4.3.1).
void SpeakerLink::send(OutgoingPacket const& packet) {
  if (!neighbors_) throw NotSent();
  Life::Watch const watch(life_);
  SameLink const same(*this);
  Sent const hello = neighbors_->sendHelloBefore(packet.message.upstreamNeighbor());
  if (hello == Sent::later || same.ended()) throw NotSent();
  Sent const sent = speaker_.send(Wire::PimType::joinPrune, intf_, packet.source, packet.bytes);
  if (sent == Sent::later) throw NotSent();
  if (watch.ended()) return;
  speaker_.counters_.prunesLeftOut += packet.prunesLeftOut;
  // The first routes have the refresh begin an interval later. If more than a slice of them have followed, it
  // would come to the last of them after two intervals.
  if (!same.ended()) hastenRefresh(packet.message.upstreamNeighbor(), 1);
  // The machine arms its timer once this is sent.
  if (!same.ended() && hasFraction()) paceTimer_.armAt(speaker_.wheel_->now());
  if (sent == Sent::failed) return;
  if (SpeakerObserver* const observer = speaker_.settings_.observer)
    callOut("SpeakerLink", "send", [&] { observer->joinPruneSent(packet); });
}

// --- Neighbors -----------------------------------------------------------------------------------

template <class Call>
void SpeakerLink::forObservers(Call const& call) {
  SameLink const same(*this);
  for (std::size_t i = 0; !same.ended() && i < observers_.size(); ++i)
    callOut("SpeakerLink", "forObservers", [&] { call(*observers_[i]); });
}

void SpeakerLink::onNeighborUp(IpGenAddr const& neighbor) {
  SameLink const same(*this);
  IpGenAddr const address = neighbor;
  Engine const engine = engine_;
  engine.status->pimNeighborIs(address, engine.intf);
  // One that was away may still have its machine, with an override interval of then.
  if (!same.ended()) remakeMachine(address);
  if (!same.ended()) forObservers([&](LinkObserver& observer) { observer.neighborUp(address); });
}

void SpeakerLink::onNeighborDown(IpGenAddr const& neighbor) {
  SameLink const same(*this);
  IpGenAddr const address = neighbor;
  Vel::Ptr<Status> const status = engine_.status;
  status->pimNeighborDel(address);
  if (!same.ended()) forObservers([&](LinkObserver& observer) { observer.neighborDown(address); });
}

void SpeakerLink::onNeighborAddresses(IpGenAddr const& neighbor) {
  IpGenAddr const address = neighbor;
  forObservers([&](LinkObserver& observer) { observer.neighborAddressesChanged(address); });
}

void SpeakerLink::onNeighborRestarted(IpGenAddr const& neighbor) {
  IpGenAddr const address = neighbor;
  forObservers([&](LinkObserver& observer) { observer.neighborRestarted(address); });
}

Vel::U32 SpeakerLink::routesTowards(IpGenAddr const& address) const {
  return speaker_.upstream_->joinedTowards({intf_, address});
}

void SpeakerLink::onNeighborEvent(NeighborEvent const& event) {
  SpeakerObserver* const observer = speaker_.settings_.observer;
  if (observer) callOut("SpeakerLink", "onNeighborEvent", [&] { observer->neighborChanged(event); });
}

void SpeakerLink::onLanValues() {
  if (neighbors_) updateOverrideInterval();
}

// A larger interval is taken over at once. Otherwise there is one change in a Hello_Period, since the
// machines of all neighbors are made anew.
void SpeakerLink::updateOverrideInterval() {
  Seconds const interval = neighbors_->values().overrideInterval();
  Seconds const present = engine_.intf->usedOverrideIntervalInSeconds();
  if (interval == present) return;
  if (overrideTimer_.armed()) {
    if (interval < present || raises_ == raisesAtOnce) return;
    ++raises_;
  } else {
    overrideTimer_.armAt(speaker_.wheel_->now() + present_.settings.hello.period);
  }
  ++speaker_.counters_.overrideIntervalChanges;
  Life::Watch const watch(life_);
  Engine const engine = engine_;
  engine.intf->usedOverrideIntervalInSecondsIs(interval);
  for (auto i = engine.status->pimNeighborIterator(); i && !watch.ended() && engine_.status == engine.status;
       ++i)
    remakeMachine(i.key());
}

void SpeakerLink::overrideTimerExpired() {
  raises_ = 0;
  updateOverrideInterval();
}

// A machine's override interval is fixed. The new one has the data sets of the old one, and its times: what
// was due then is not put off.
void SpeakerLink::remakeMachine(IpGenAddr const& neighbor) {
  Vel::Ptr<JoinPruneMessageSm> const machine = engine_.machine;
  Vel::Ptr<Intf> const intf = engine_.intf;
  IpGenAddr const address = neighbor;
  Vel::Ptr<JoinPruneNeighborSm> const old = machine->joinPruneNeighborSm(address);
  if (!old || !old->neighbor() || old->overrideInterval() == intf->usedOverrideIntervalInSeconds()) return;
  auto const timeOf = [](auto const& timer) { return timer ? timer->timeMin() : Vel::never; };
  Seconds const triggered = timeOf(old->triggeredTimer()), overriding = timeOf(old->overrideTimer());
  Seconds const refresh = nextRefreshOf(address);
  SameLink const same(*this);
  machine->joinPruneNeighborSmDel(address);
  if (!same.ended()) machine->handleNeighbor(address);
  if (same.ended()) return;
  Vel::Ptr<JoinPruneNeighborSm> const made = machine->joinPruneNeighborSm(address);
  if (!made || made == old) return;
  noLater(made->triggeredTimer(), triggered);
  noLater(made->overrideTimer(), overriding);
  if (auto const running = runningRefresh(address)) noLater(running->periodicTimer(), refresh);
}

// Null unless its timer is armed. While it is armed, the timer follows no change of the interval or of the
// number of routes, but takes an earlier time as it is.
Vel::Ptr<PeriodicTimerSm> SpeakerLink::runningRefresh(IpGenAddr const& neighbor) const {
  auto const machine = engine_.machine->joinPruneNeighborSm(neighbor);
  auto const refresh = machine ? machine->joinPrunePeriodicTimerSm() : nullptr;
  auto const timer = refresh ? refresh->periodicTimer() : nullptr;
  return timer && timer->timeMin() != Vel::never ? refresh : nullptr;
}

// Never without a refresh.
Seconds SpeakerLink::nextRefreshOf(IpGenAddr const& neighbor) const {
  auto const refresh = runningRefresh(neighbor);
  return refresh ? refresh->periodicTimer()->timeMin() : Vel::never;
}

// Has the next slice come within this part of a slice's interval.
void SpeakerLink::hastenRefresh(IpGenAddr const& neighbor, double part) {
  if (auto const refresh = runningRefresh(neighbor))
    noLater(refresh->periodicTimer(), speaker_.wheel_->now() + refresh->periodicParams().interval * part);
}

bool SpeakerLink::hasFraction() const {
  return neighbors_ && present_.settings.joinPruneInterval < engine_.intf->joinPruneInterval();
}

// Has each machine refresh its next slice by the fraction earlier, and looks again after the first of them.
void SpeakerLink::keepPace() {
  if (!hasFraction()) return paceTimer_.stop();
  Seconds const part = present_.settings.joinPruneInterval / engine_.intf->joinPruneInterval();
  Seconds earliest = Vel::never;
  for (auto const& neighbor : neighbors_->values().neighbors()) {
    hastenRefresh(neighbor, part);
    earliest = std::min(earliest, nextRefreshOf(neighbor));
  }
  paceTimer_.armAt(earliest == Vel::never ? Vel::never
                                          : std::max(earliest, speaker_.wheel_->now()) + paceDelay);
}

Seconds SpeakerLink::nextRefresh(IpGenAddr const& address) const {
  auto const neighbor = neighborOf(address);
  return neighbor ? nextRefreshOf(*neighbor) : Vel::never;
}

std::optional<IpGenAddr> SpeakerLink::neighborOf(IpGenAddr const& address) const {
  return neighbors_ ? neighbors_->neighborOf(address) : std::nullopt;
}

Seconds SpeakerLink::propagationDelay() const {
  return neighbors_ ? neighbors_->values().propagationDelay() : LanValues::defaultPropagationDelay;
}

Seconds SpeakerLink::overrideInterval() const {
  return neighbors_ ? neighbors_->values().overrideInterval() : LanValues::defaultOverrideInterval;
}

void SpeakerLink::downstreamChanged(DownstreamEvent const& event) {
  if (speaker_.settings_.observer) speaker_.settings_.observer->downstreamChanged(event);
}

void SpeakerLink::downstreamLimited(DownstreamLimitEvent const& event) {
  if (speaker_.settings_.observer) speaker_.settings_.observer->downstreamLimited(event);
}

// --- Receiving -----------------------------------------------------------------------------------

bool SpeakerLink::isOwn(IpGenAddr const& address) const {
  if (!neighbors_) return false;
  auto const& secondary = present_.secondary;
  return address == present_.primary.ipGenAddr() ||
         std::find(secondary.begin(), secondary.end(), address) != secondary.end();
}

Verdict SpeakerLink::receive(IpGenAddr const& sender, IpGenAddr const& destination, std::span<U8 const> bytes,
                             std::optional<Wire::Refusal>& refusal) {
  if (Wire::isPimType(bytes, Wire::PimType::joinPrune)) {
    // Asked before the message is read: a stranger costs little.
    if (!neighborUp(sender)) return Verdict::stranger;
    auto const decoded = Wire::decodeJoinPrune(bytes, sender, destination);
    if (auto const* message = std::get_if<Wire::JoinPrune>(&decoded))
      return receiveJoinPrune(sender, *message);
    refusal = std::get<Wire::Refusal>(decoded);
    return Verdict::refused;
  }
  constexpr U8 version2 = 2;
  if (!bytes.empty() && bytes[0] >> 4 == version2 && !Wire::isPimType(bytes, Wire::PimType::hello))
    return Verdict::otherType;
  auto const decoded = Wire::decodeHello(bytes, sender, destination);
  if (auto const* hello = std::get_if<Wire::Hello>(&decoded)) return receiveHello(sender, *hello);
  refusal = std::get<Wire::Refusal>(decoded);
  return Verdict::refused;
}

Verdict SpeakerLink::receiveHello(IpGenAddr const& sender, Wire::Hello const& hello) {
  Life::Watch const watch(life_);
  if (!neighbors_->receive(sender, hello)) return Verdict::tooManyNeighbors;
  if (watch.ended()) return Verdict::hello;
  SpeakerObserver* const observer = speaker_.settings_.observer;
  if (observer)
    callOut("SpeakerLink", "receiveHello",
            [&, intf = intf_] { observer->helloReceived(intf, sender, hello); });
  return Verdict::hello;
}

Verdict SpeakerLink::receiveJoinPrune(IpGenAddr const& sender, Wire::JoinPrune const& message) {
  IpGenAddr const& upstream = message.upstreamNeighbor();
  bool const isForUs = upstream == primaryAddress() || (isPointToPoint() && upstream.isZero());
  SameLink const same(*this);
  ReceivedJoinPrune const received{sender, isForUs, message};
  if (SpeakerObserver* const observer = speaker_.settings_.observer)
    callOut("SpeakerLink", "receiveJoinPrune",
            [&, intf = intf_] { observer->joinPruneReceived(intf, received); });
  if (!same.ended()) tellEngine(message);
  if (!same.ended()) forObservers([&](LinkObserver& observer) { observer.joinPruneReceived(received); });
  return isForUs ? Verdict::joinPrune : Verdict::heard;
}

// The engine's records are for those who watch them: without one, they are not written.
void SpeakerLink::tellEngine(Wire::JoinPrune const& message) {
  Life::Watch const watch(life_);
  Engine const engine = engine_;
  using Records = EngineAccess<JoinPruneMessageInfo>;
  if (Records::unheard(*engine.joins) && Records::unheard(*engine.prunes)) return;
  for (auto const& model : modelMessages(message)) {
    engine.channel->joinPruneMessageIs(model);
    engine.channel->intfIdIs(engine.intf->intfId());
    engine.channel->countInc(1);
    if (watch.ended() || engine_.channel != engine.channel) return;
  }
}

bool SpeakerLink::isDenied(IpGenAddr const& group) const {
  Vel::Ptr<JoinPruneFilter const> const filter = speaker_.settings_.filter;
  if (!filter) return false;
  bool denied = true;  // One that throws denies.
  callOut("SpeakerLink", "isDenied", [&] { denied = filter->deny(group); });
  return denied;
}

std::optional<IpGenAddr> SpeakerLink::rp(IpGenAddr const& group) const {
  if (!speaker_.settings_.rp) return std::nullopt;
  auto const rp = speaker_.settings_.rp(group);
  return rp && rp->af() == group.af() ? rp : std::nullopt;
}

}  // namespace Routing::Pim::Speaker
