// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/Neighbors.h"

#include <algorithm>
#include <cmath>

#include "pim/wire/private/Encoding.h"
#include "pim/wire/private/Text.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Speaker {

namespace {

// After a Hello that was not sent, in seconds.
constexpr Seconds retryDelay = 0.1;
// What one neighbor can have written again and again.
constexpr Seconds routesASecond = 10'000;

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

void requireListable(std::vector<IpGenAddr> const& secondaryAddresses) {
  Wire::Hello hello;
  hello.holdTimeIs(0);
  hello.lanPruneDelayIs(Wire::LanPruneDelay{});
  hello.drPriorityIs(0);
  hello.generationIdIs(0);
  for (auto const& address : secondaryAddresses) hello.addressAdd(address);
  if (hello.encodedSize() > Wire::maxPayload) {
    throw Vel::RangeException(Wire::concatenated("a Hello with ", secondaryAddresses.size(),
                                                 " secondary addresses does not fit an IP datagram"));
  }
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
      secondaryAddresses_((requireListable(secondaryAddresses), std::move(secondaryAddresses))),
      periodicDue_(wheel->now() + random.between(0, settings.triggeredDelay)),
      values_(primaryAddress, ownOptions(settings)),
      toldValues_(current()),
      toldRouter_(primaryAddress),
      helloTimer_(wheel, [this] { helloTimerExpired(); }) {
  arm();
}

Neighbors::~Neighbors() = default;

// --- Sending -------------------------------------------------------------------------------------

Wire::Hello Neighbors::hello() const { return helloWith(settings_); }

Wire::Hello Neighbors::helloWith(HelloSettings const& settings) const {
  Wire::Hello hello;
  hello.holdTimeIs(announcedHoldTime(settings));
  hello.lanPruneDelayIs(settings.lanPruneDelay);
  hello.drPriorityIs(settings.drPriority);
  hello.generationIdIs(generationId_);
  for (auto const& address : secondaryAddresses_) hello.addressAdd(address);
  return hello;
}

// What is due is through once the Hello is sent. The caller arms the timer, unless this object has ended.
Sent Neighbors::send() {
  Life::Watch const watch(life_);
  Sent sent = Sent::later;
  try {
    sent = owner_.sendHello(hello());
  } catch (...) {  // want of memory, say
    if (!watch.ended() && !ended_) {
      notBefore_ = wheel_->now() + retryDelay;
      triggeredDue_ = std::min(triggeredDue_, wheel_->now());
      arm();
    }
    throw;
  }
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
  send();
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
  requireListable(addresses);
  secondaryAddresses_ = std::move(addresses);
  if (hellosSent_ != 0) sendAtOnce();
}

void Neighbors::settingsIs(HelloSettings const& settings) {
  requireValid(settings);
  if (ended_) return;
  Life::Watch const watch(life_);
  if (settings != settings_) {
    bool const isAnnounced = hellosSent_ != 0 && helloWith(settings) != hello();
    settings_ = settings;
    values_.ownIs(ownOptions(settings));
    periodicDue_ = std::min(periodicDue_, wheel_->now() + settings_.period);
    arm();
    if (isAnnounced) sendAtOnce();
    if (watch.ended() || ended_) return;
  }
  tellChanges();  // those, too, that the same call could not tell before, for want of memory
}

void Neighbors::end() {
  Life::Watch const watch(life_);
  if (!ended_) {
    Wire::Hello goodbye = hello();
    goodbye.holdTimeIs(0);
    ended_ = true;
    arm();
    ++counters_.sent;
    owner_.sendHello(goodbye);
    if (watch.ended()) return;
  }
  while (!watch.ended() && !values_.neighbors().empty())
    remove(entries_.find(*values_.neighbors().begin())->second, Kind::linkDown);
}

// --- Receiving -----------------------------------------------------------------------------------

bool Neighbors::receive(IpGenAddr const& sender, Wire::Hello const& hello) {
  if (ended_) return true;
  auto found = entries_.find(sender);
  U16 const holdTime = hello.effectiveHoldTime();
  if (holdTime == 0) {
    ++counters_.received;
    if (found != entries_.end() && !found->second.endPutOff) endOrPutOff(found->second, Kind::goodbye);
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
  LanOptions const options{hello.lanPruneDelay(), hello.drPriority()};

  // What needs memory comes first: without it, nothing has changed.
  if (isNew) found = insert(sender, options);
  Entry& entry = found->second;
  NeighborInfo& info = entry.info;
  Listing listing;
  try {
    listing = takeAddresses(entry, hello);
  } catch (...) {
    if (isNew) {
      values_.remove(sender, options);
      entries_.erase(found);
    }
    throw;
  }

  // A generation ID that was not there before says nothing of a restart.
  bool const isAgain = std::exchange(entry.endPutOff, std::nullopt).has_value();
  bool const hasRestarted = isAgain || (!isNew && info.generationId && hello.generationId() &&
                                        info.generationId != hello.generationId());
  bool const changed = listing.changed || info.options != options;
  if (isNew) {
    info.upSince = now;
    if (auto const departed = departed_.extract(sender)) entry.ends = departed.mapped();
  } else if (info.options != options) {
    values_.change(sender, info.options, options);
  }
  info.options = options;
  info.generationId = hello.generationId();
  info.holdTime = holdTime;
  info.expires = holdTime == Wire::endlessHoldTime ? Vel::never : now + holdTime;
  bool const upIsDue = entry.upIsDue;
  if (hasRestarted) ++info.restarts;
  bool const restartIsTold = hasRestarted && takeTurn(entry, entry.restarts, entry.restartDue);
  bool const addressesAreTold = !upIsDue && (listing.isFound || listing.changed) &&
                                takeTurn(entry, entry.addressLists, entry.addressesDue);
  armEntry(entry);
  if (isNew || hasRestarted) {
    entry.heardAfter = hellosSent_;
    answer();
  }

  // From here on the neighbor may end at any moment.
  IpGenAddr const neighbor = sender;
  NeighborSaid const said = saidBy(info);
  Life::Watch const watch(life_);
  if (!tellChanges() || !tellUp(neighbor) || ended_) return true;
  if (restartIsTold && isUp(neighbor)) owner_.onNeighborRestarted(neighbor);
  if (watch.ended() || ended_) return true;
  if (addressesAreTold && isUp(neighbor)) owner_.onNeighborAddresses(neighbor);
  if (watch.ended() || ended_) return true;
  if (listing.conflict && !tell(Kind::addressConflict, neighbor, *listing.conflict, said)) return true;
  if (auto const there = entries_.find(neighbor); there != entries_.end() && there->second.eventIsDue) {
    there->second.eventIsDue = false;
    tell(Kind::up, neighbor, {}, said);
  } else if (isNew) {
    return true;  // It has ended meanwhile.
  } else if (hasRestarted) {
    tell(Kind::restarted, neighbor, {}, said);
  } else if (changed) {
    tell(Kind::changed, neighbor, {}, said);
  }
  return true;
}

// Throws std::bad_alloc, and then nothing has changed.
Neighbors::Entries::iterator Neighbors::insert(IpGenAddr const& neighbor, LanOptions const& options) {
  auto const inserted = entries_.try_emplace(neighbor, neighbor, wheel_, this).first;
  try {
    values_.add(neighbor, options);
  } catch (...) {
    entries_.erase(inserted);
    throw;
  }
  return inserted;
}

// Takes the list over, which is empty without option 24. Of an address that several neighbors list the latest
// mapping counts (RFC 7761, 4.3.4); it may be new though the list is the same, when another one has ended.
// Throws std::bad_alloc, and then nothing has changed.
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
  std::map<IpGenAddr, IpGenAddr> found;
  for (auto const& address : listed_)
    if (!primaryOf_.contains(address)) found.emplace(address, neighbor);
  if (listing.changed) {
    std::vector<IpGenAddr> addresses = listed_;
    forgetAddresses(entry, listed_);
    entry.info.addresses = std::move(addresses);
  }
  listing.isFound = !found.empty();
  primaryOf_.merge(found);
  for (auto const& address : listed_) {
    IpGenAddr& mapped = primaryOf_.find(address)->second;
    if (mapped == neighbor) continue;
    listing.conflict = address;
    listing.isFound = true;
    mapped = neighbor;
  }
  return listing;
}

// All but those that are to stay, which are in ascending order.
void Neighbors::forgetAddresses(Entry const& entry, std::vector<IpGenAddr> const& stay) {
  for (auto const& address : entry.info.addresses) {
    if (std::binary_search(stay.begin(), stay.end(), address)) continue;
    auto const mapped = primaryOf_.find(address);
    if (mapped != primaryOf_.end() && mapped->second == entry.info.address) primaryOf_.erase(mapped);
  }
}

// How long it takes until the routes towards a neighbor may be written again.
Seconds Neighbors::turnInterval(Entry const& entry) const {
  U64 routes = owner_.routesTowards(entry.info.address);
  for (auto const& address : entry.info.addresses) routes += owner_.routesTowards(address);
  return std::min(settings_.period, static_cast<Seconds>(routes) / routesASecond);
}

// Whether it is to be told now; otherwise it is due later.
bool Neighbors::takeTurn(Entry const& entry, Turns& turns, Seconds& due) {
  Seconds const interval = turnInterval(entry);
  bool const isNow = turns.take(wheel_->now(), interval);
  due = isNow ? Vel::never : turns.next(interval);
  return isNow;
}

void Neighbors::armEntry(Entry& entry) {
  entry.timer.armAt(std::min({entry.info.expires, entry.restartDue, entry.addressesDue}));
}

void Neighbors::entryTimerExpired(Entry& entry) {
  Seconds const now = wheel_->now();
  if (entry.info.expires <= now) return endOrPutOff(entry, entry.endPutOff.value_or(Kind::expired));
  bool const restartIsTold = entry.restartDue <= now && takeTurn(entry, entry.restarts, entry.restartDue);
  bool const addressesAreTold =
      entry.addressesDue <= now && takeTurn(entry, entry.addressLists, entry.addressesDue);
  armEntry(entry);
  IpGenAddr const neighbor = entry.info.address;
  Life::Watch const watch(life_);
  if (restartIsTold) owner_.onNeighborRestarted(neighbor);
  if (watch.ended() || ended_) return;
  if (addressesAreTold && isUp(neighbor)) owner_.onNeighborAddresses(neighbor);
}

// A neighbor that ends too often stays until it has a turn.
void Neighbors::endOrPutOff(Entry& entry, Kind why) {
  Seconds const now = wheel_->now(), interval = turnInterval(entry);
  bool const isRemembered = hasRoomForDeparted();
  Seconds turn = entry.ends.next(interval);
  if (!isRemembered) turn = std::max(turn, entry.info.upSince + interval);
  if (turn > now) {
    entry.endPutOff = why;
    entry.info.expires = turn;
    return armEntry(entry);
  }
  entry.ends.take(now, interval);
  if (isRemembered) departed_.insert_or_assign(entry.info.address, entry.ends);
  remove(entry, why);
}

bool Neighbors::hasRoomForDeparted() {
  if (departed_.size() < settings_.maxNeighbors) return true;
  Seconds const now = wheel_->now();
  if (now < departedFullUntil_) return false;
  std::erase_if(departed_, [&](auto const& one) { return one.second.isFresh(now); });
  departedFullUntil_ = now + settings_.period;
  return departed_.size() < settings_.maxNeighbors;
}

void Neighbors::remove(Entry& entry, Kind why) {
  Life::Watch const watch(life_);
  IpGenAddr const neighbor = entry.info.address;
  NeighborSaid const said = saidBy(entry.info);
  bool const wasUp = !entry.upIsDue, wasTold = !entry.eventIsDue;
  forgetAddresses(entry);
  values_.remove(neighbor, entry.info.options);
  entries_.erase(neighbor);
  if (wasUp) owner_.onNeighborDown(neighbor);
  if (watch.ended() || (wasTold && !tell(why, neighbor, {}, said))) return;
  tellChanges();
}

std::optional<IpGenAddr> Neighbors::neighborOf(IpGenAddr const& address) const {
  if (isUp(address)) return address;
  auto const mapped = primaryOf_.find(address);
  return mapped == primaryOf_.end() ? std::nullopt : std::optional(mapped->second);
}

std::vector<NeighborInfo> Neighbors::snapshot() const {
  std::vector<NeighborInfo> all;
  all.reserve(entries_.size());
  for (auto const& address : values_.neighbors()) all.push_back(entries_.find(address)->second.info);
  return all;
}

// --- Telling -------------------------------------------------------------------------------------

Neighbors::Values Neighbors::current() const {
  return {values_.propagationDelay(), values_.overrideInterval(), values_.suppressionAllowed()};
}

// False if this object has ended. So for the others.
bool Neighbors::tellChanges() {
  if (ended_) return true;
  Life::Watch const watch(life_);
  if (Values const present = current(); toldValues_ != present) {
    toldValues_ = present;
    try {
      owner_.onLanValues();
    } catch (...) {
      if (!watch.ended()) toldValues_.reset();
      throw;
    }
    if (watch.ended()) return false;
  }
  IpGenAddr const router = values_.designatedRouter();
  IpGenAddr const before = std::exchange(toldRouter_, router);
  return before == router || ended_ || tell(Kind::designatedRouter, router, before);
}

bool Neighbors::tellUp(IpGenAddr const& neighbor) {
  auto const entry = entries_.find(neighbor);
  if (ended_ || entry == entries_.end() || !entry->second.upIsDue) return true;
  entry->second.upIsDue = false;
  Life::Watch const watch(life_);
  try {
    owner_.onNeighborUp(neighbor);
  } catch (...) {
    if (!watch.ended() && isUp(neighbor)) entries_.find(neighbor)->second.upIsDue = true;
    throw;
  }
  return !watch.ended();
}

bool Neighbors::tell(Kind kind, IpGenAddr const& neighbor, IpGenAddr const& other, NeighborSaid const& said) {
  EventBudget& budget = budgets_[static_cast<std::size_t>(kind)];
  if (kind >= Kind::restarted && !budget.admits(wheel_->now())) return true;
  Life::Watch const watch(life_);
  owner_.onNeighborEvent({kind, intf_, neighbor, other, budget.takeLeftOut(), said});
  return !watch.ended();
}

}  // namespace Routing::Pim::Speaker
