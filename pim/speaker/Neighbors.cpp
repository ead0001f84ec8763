#include "pim/speaker/Neighbors.h"

#include <algorithm>
#include <cmath>

#include "pim/wire/private/Text.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Speaker {

namespace {

// After the sink wanted a Hello later, in seconds.
constexpr Seconds retryDelay = 0.1;
// How many restarts of a neighbor are told at once, before there is one in a Hello_Period.
constexpr int restartsAtOnce = 3;

void requireSeconds(std::string_view what, Seconds seconds, bool isAllowed) {
  if (!isAllowed) throw Vel::RangeException(Wire::concatenated(what, " of ", std::to_string(seconds), " s"));
}

NeighborSaid saidBy(NeighborInfo const& info) {
  return {info.holdTime, info.generationId, info.options.drPriority};
}

LanOptions ownOptions(HelloSettings const& settings) { return {settings.lanPruneDelay, settings.drPriority}; }

}  // namespace

void requireValid(HelloSettings const& settings) {
  requireSeconds("Hello_Period", settings.period, settings.period > 0 && std::isfinite(settings.period));
  requireSeconds("Triggered_Hello_Delay", settings.triggeredDelay,
                 settings.triggeredDelay >= 0 && std::isfinite(settings.triggeredDelay));
  if (settings.holdTime == U16{0}) throw Vel::RangeException("Hello_Holdtime of 0 s");
  Wire::Hello().lanPruneDelayIs(settings.lanPruneDelay);
}

U16 announcedHoldTime(HelloSettings const& settings) {
  if (settings.holdTime) return *settings.holdTime;
  // The largest that ends.
  return static_cast<U16>(std::min(std::ceil(3.5 * settings.period), Wire::endlessHoldTime - 1.0));
}

Neighbors::Entry::Entry(IpGenAddr const& address, Vel::Ptr<Zanth::TimerWheel> const& wheel,
                        Neighbors* neighbors)
    : timer(wheel, [neighbors, this] { neighbors->entryTimerExpired(*this); }) {
  info.address = address;
}

// What others are told of when it changes.
struct Neighbors::Values {
  Seconds propagationDelay, overrideInterval;
  bool suppressionAllowed;

  friend bool operator==(Values const& a, Values const& b) = default;
};

Neighbors::Neighbors(NeighborsOwner& owner, Dova::IntfId const& intf, IpGenAddr const& primaryAddress,
                     std::vector<IpGenAddr> secondaryAddresses, HelloSettings const& settings,
                     Vel::Ptr<Zanth::TimerWheel> const& wheel, Random& random)
    : owner_(owner),
      intf_(intf),
      primaryAddress_(primaryAddress),
      wheel_(wheel),
      random_(random),
      generationId_(random.bits32()),
      settings_((requireValid(settings), settings)),
      secondaryAddresses_(std::move(secondaryAddresses)),
      periodicDue_(wheel->now() + random.between(0, settings.triggeredDelay)),
      values_(primaryAddress, ownOptions(settings)),
      designatedRouter_(primaryAddress),
      helloTimer_(wheel, [this] { helloTimerExpired(); }) {
  arm();
}

Neighbors::~Neighbors() = default;

// --- Sending -------------------------------------------------------------------------------------

Wire::Hello Neighbors::hello() const {
  Wire::Hello hello;
  hello.holdTimeIs(announcedHoldTime(settings_));
  hello.lanPruneDelayIs(settings_.lanPruneDelay);
  hello.drPriorityIs(settings_.drPriority);
  hello.generationIdIs(generationId_);
  for (auto const& address : secondaryAddresses_) hello.addressAdd(address);
  return hello;
}

// What is due is through once the Hello is sent. The caller arms the timer, unless this object has ended.
Sent Neighbors::send() {
  Life::Watch const watch(life_);
  Sent const sent = owner_.sendHello(hello());
  if (watch.ended() || ended_) return sent;
  Seconds const now = wheel_->now();
  if (sent == Sent::later) {
    notBefore_ = now + retryDelay;
    return sent;
  }
  ++hellosSent_;
  ++counters_.sent;
  triggeredDue_ = Vel::never;
  if (periodicDue_ <= now) {
    periodicDue_ += settings_.period;
    if (periodicDue_ <= now) periodicDue_ = now + settings_.period;
  }
  return sent;
}

Sent Neighbors::sendAtOnce() {
  Life::Watch const watch(life_);
  Sent const sent = send();
  if (watch.ended() || ended_) return sent;
  if (sent == Sent::later) triggeredDue_ = std::min(triggeredDue_, wheel_->now());
  arm();
  return sent;
}

// Within Triggered_Hello_Delay; one that is pending is not moved.
void Neighbors::answer() {
  if (triggeredDue_ == Vel::never)
    triggeredDue_ = wheel_->now() + random_.between(0, settings_.triggeredDelay);
  arm();
}

void Neighbors::arm() {
  helloTimer_.armAt(ended_ ? Vel::never : std::max(std::min(periodicDue_, triggeredDue_), notBefore_));
}

void Neighbors::helloTimerExpired() {
  Life::Watch const watch(life_);
  try {
    send();
  } catch (...) {  // want of memory, say
    if (!watch.ended()) {
      notBefore_ = wheel_->now() + retryDelay;
      arm();
    }
    throw;
  }
  if (!watch.ended()) arm();
}

bool Neighbors::helloDueBefore(IpGenAddr const& target) const {
  if (hellosSent_ == 0) return true;
  auto const found = entries_.find(target);
  return found != entries_.end() && found->second.heardAfter == hellosSent_;
}

Sent Neighbors::sendHelloBefore(IpGenAddr const& target) {
  return !ended_ && helloDueBefore(target) ? sendAtOnce() : Sent::done;
}

void Neighbors::secondaryAddressesIs(std::vector<IpGenAddr> addresses) {
  if (ended_ || secondaryAddresses_ == addresses) return;
  secondaryAddresses_ = std::move(addresses);
  if (hellosSent_ != 0) sendAtOnce();
}

void Neighbors::settingsIs(HelloSettings const& settings) {
  requireValid(settings);
  if (ended_ || settings == settings_) return;
  Life::Watch const watch(life_);
  Wire::Hello const announced = hello();
  Values const previous = current();
  settings_ = settings;
  values_.ownIs(ownOptions(settings));
  periodicDue_ = std::min(periodicDue_, wheel_->now() + settings_.period);
  arm();
  if (hellosSent_ != 0 && hello() != announced) sendAtOnce();
  if (watch.ended() || ended_) return;
  tellChanges(previous);
}

void Neighbors::end() {
  if (ended_) return;
  Life::Watch const watch(life_);
  Wire::Hello goodbye = hello();
  goodbye.holdTimeIs(0);
  ended_ = true;
  arm();
  ++counters_.sent;
  owner_.sendHello(goodbye);
  while (!watch.ended() && !entries_.empty()) remove(entries_.begin()->second, Kind::linkDown);
}

// --- Receiving -----------------------------------------------------------------------------------

bool Neighbors::receive(IpGenAddr const& sender, Wire::Hello const& hello) {
  if (ended_) return true;
  auto found = entries_.find(sender);
  U16 const holdTime = hello.effectiveHoldTime();
  if (holdTime == 0) {
    ++counters_.received;
    if (found != entries_.end()) remove(found->second, Kind::goodbye);
    return true;
  }
  bool const isNew = found == entries_.end();
  if (isNew && entries_.size() >= settings_.maxNeighbors) {
    ++counters_.neighborsRefused;
    tell(Kind::tooMany, sender);
    return false;
  }
  ++counters_.received;
  Seconds const now = wheel_->now();
  Values const previousValues = current();
  if (isNew) found = entries_.try_emplace(sender, sender, wheel_, this).first;
  Entry& entry = found->second;
  NeighborInfo& info = entry.info;

  // A generation ID that was not there before says nothing of a restart.
  bool const hasRestarted =
      !isNew && info.generationId && hello.generationId() && info.generationId != hello.generationId();
  LanOptions const options{hello.lanPruneDelay(), hello.drPriority()};
  bool changed = info.options != options;
  if (isNew) {
    info.upSince = now;
    values_.add(sender, options);
  } else if (changed) {
    values_.change(sender, info.options, options);
  }
  info.options = options;
  info.generationId = hello.generationId();
  info.holdTime = holdTime;
  info.expires = holdTime == Wire::endlessHoldTime ? Vel::never : now + holdTime;
  Listing const listing = takeAddresses(entry, hello);
  changed = changed || listing.changed;
  bool const restartIsTold = hasRestarted && restart(entry);
  armEntry(entry);
  if (isNew || hasRestarted) {
    entry.heardAfter = hellosSent_;
    answer();
  }

  // From here on the neighbor may end at any moment.
  IpGenAddr const neighbor = sender;
  NeighborSaid const said = saidBy(info);
  Life::Watch const watch(life_);
  if (!tellChanges(previousValues)) return true;
  if (isNew && isUp(neighbor)) owner_.onNeighborUp(neighbor);
  if (watch.ended() || ended_) return true;
  if (restartIsTold && isUp(neighbor)) owner_.onNeighborRestarted(neighbor);
  if (watch.ended() || ended_) return true;
  if (!isNew && listing.isFound && isUp(neighbor)) owner_.onNeighborAddresses(neighbor);
  if (watch.ended() || ended_) return true;
  if (listing.conflict && !tell(Kind::addressConflict, neighbor, *listing.conflict, said)) return true;
  if (isNew)
    tell(Kind::up, neighbor, {}, said);
  else if (hasRestarted)
    tell(Kind::restarted, neighbor, {}, said);
  else if (changed)
    tell(Kind::changed, neighbor, {}, said);
  return true;
}

// Takes the list over, which is empty without option 24. Of an address that several neighbors list the latest
// mapping counts (RFC 7761, 4.3.4); it may be new though the list is the same, when another one has ended.
Neighbors::Listing Neighbors::takeAddresses(Entry& entry, Wire::Hello const& hello) {
  IpGenAddr const& neighbor = entry.info.address;
  listed_.clear();
  for (auto const& address : hello.addresses())
    if (address.af() == neighbor.af() && address != neighbor) listed_.push_back(address);
  std::sort(listed_.begin(), listed_.end());
  listed_.erase(std::unique(listed_.begin(), listed_.end()), listed_.end());
  if (listed_.size() > settings_.maxAddresses) {
    counters_.addressesLeftOut += listed_.size() - settings_.maxAddresses;
    listed_.resize(settings_.maxAddresses);
  }
  Listing listing{.changed = listed_ != entry.info.addresses, .conflict = {}};
  if (listing.changed) {
    forgetAddresses(entry);
    entry.info.addresses = listed_;
  }
  for (auto const& address : listed_) {
    auto const [mapped, isNew] = primaryOf_.try_emplace(address, neighbor);
    if (mapped->second != neighbor) listing.conflict = address;
    if (isNew || mapped->second != neighbor) listing.isFound = true;
    mapped->second = neighbor;
  }
  return listing;
}

void Neighbors::forgetAddresses(Entry const& entry) {
  for (auto const& address : entry.info.addresses) {
    auto const mapped = primaryOf_.find(address);
    if (mapped != primaryOf_.end() && mapped->second == entry.info.address) primaryOf_.erase(mapped);
  }
}

// Whether the restart is to be told now.
bool Neighbors::restart(Entry& entry) {
  ++entry.info.restarts;
  Seconds const now = wheel_->now();
  Seconds const slack = (restartsAtOnce - 1) * settings_.period;
  if (entry.restartsThrough - slack > now) {
    entry.restartDue = entry.restartsThrough - slack;
    return false;
  }
  entry.restartsThrough = std::max(entry.restartsThrough, now) + settings_.period;
  entry.restartDue = Vel::never;
  return true;
}

void Neighbors::armEntry(Entry& entry) { entry.timer.armAt(std::min(entry.info.expires, entry.restartDue)); }

void Neighbors::entryTimerExpired(Entry& entry) {
  Seconds const now = wheel_->now();
  if (entry.info.expires <= now) return remove(entry, Kind::expired);
  if (entry.restartDue <= now) {
    entry.restartsThrough = std::max(entry.restartsThrough, now) + settings_.period;
    entry.restartDue = Vel::never;
    armEntry(entry);
    owner_.onNeighborRestarted(IpGenAddr(entry.info.address));
    return;
  }
  armEntry(entry);
}

void Neighbors::remove(Entry& entry, Kind why) {
  Life::Watch const watch(life_);
  Values const previous = current();
  IpGenAddr const neighbor = entry.info.address;
  NeighborSaid const said = saidBy(entry.info);
  forgetAddresses(entry);
  values_.remove(neighbor, entry.info.options);
  entries_.erase(neighbor);
  owner_.onNeighborDown(neighbor);
  if (watch.ended() || !tell(why, neighbor, {}, said)) return;
  tellChanges(previous);
}

std::optional<IpGenAddr> Neighbors::neighborOf(IpGenAddr const& address) const {
  if (isUp(address)) return address;
  auto const mapped = primaryOf_.find(address);
  return mapped == primaryOf_.end() ? std::nullopt : std::optional(mapped->second);
}

std::vector<NeighborInfo> Neighbors::snapshot() const {
  std::vector<NeighborInfo> all;
  all.reserve(entries_.size());
  for (auto const& [address, entry] : entries_) all.push_back(entry.info);
  return all;
}

// --- Telling -------------------------------------------------------------------------------------

Neighbors::Values Neighbors::current() const {
  return {values_.propagationDelay(), values_.overrideInterval(), values_.suppressionAllowed()};
}

// False if this object has ended. So for tell().
bool Neighbors::tellChanges(Values const& previous) {
  IpGenAddr const router = values_.designatedRouter();
  IpGenAddr const before = std::exchange(designatedRouter_, router);
  if (!ended_ && current() != previous) {
    Life::Watch const watch(life_);
    owner_.onLanValues();
    if (watch.ended()) return false;
  }
  return before == router || ended_ || tell(Kind::designatedRouter, router, before);
}

bool Neighbors::tell(Kind kind, IpGenAddr const& neighbor, IpGenAddr const& other, NeighborSaid const& said) {
  EventBudget& budget = budgets_[static_cast<std::size_t>(kind)];
  if (kind >= Kind::restarted && !budget.admits(wheel_->now())) return true;
  Life::Watch const watch(life_);
  owner_.onNeighborEvent({kind, intf_, neighbor, other, budget.takeLeftOut(), said});
  return !watch.ended();
}

}  // namespace Routing::Pim::Speaker
