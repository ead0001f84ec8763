// SPDX-License-Identifier: Apache-2.0
// A plain Join/Prune engine: what one would write for one's own router, without entities, reactors and
// notifications. The benchmarks measure the library beside it, job by job.
//
// It does what the library does with its packet manager, which tests/bench compares on random input:
//
//   - triggered and periodic joins and prunes of all six kinds, for any number of neighbors, of IPv4 and
//     IPv6;
//   - refreshes at the same pace;
//   - messages within the MTU, (*,G) joins with their (S,G,rpt) prunes beside them, prunes after the joins of
//     the same, a filter by group, a suppression hook by entry, another try of what could not be sent;
//   - received messages taken apart entry by entry, for observers.
//
// It does not:
//
//   - report a change of what is wanted, of the number of routes, or of a timer;
//   - let a hook or an observer call it, or survive want of memory;
//   - check what it is given: an address of another family, or a source that is a group, is the caller's
//     fault;
//   - send overrides; follow changes of an interface's address, interval or hold time; move or retire
//     neighbors; trace, or show its state by name;
//   - give memory back after a burst, or keep thousands of sources of one group cheap: adding one is O(n).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>

#include "bench/plain/Groups.h"
#include "bench/plain/Message.h"
#include "bench/plain/Wheel.h"

namespace Plain {

/// How an entry is sent: once, a moment after it was added, or again and again.
enum class Way : U8 { triggered, periodic };

struct Settings {
  IpGenAddr address;  ///< Of the interface, and of the family of its neighbors.
  U32 mtu = 1500;
  U32 interval = 60;  ///< Between two refreshes of an entry, in seconds.
  U16 holdTime = 210;
  Seconds triggeredInterval = 0.1;  ///< From the first change to its message.
  Seconds quantum = 0.1;            ///< How long one expiry may send.
};

struct Hooks {
  std::function<Seconds()> now;
  std::function<bool(std::span<U8 const>)> send;     ///< The PIM message; false if it could not be sent.
  std::function<bool(IpGenAddr const& group)> deny;  ///< None: nothing is denied.
  /// Whether an entry need not be sent now. The source of a (*,G) is all zeros. None: nothing is suppressed.
  std::function<bool(IpGenAddr const& neighbor, IpGenAddr const& source, IpGenAddr const& group, EntryKind)>
      suppress;
  /// The RP of a group, given the one that a received join names. None: that one.
  std::function<IpGenAddr(IpGenAddr const& group, IpGenAddr const& rp)> rpOf;
};

/// A received message. The entries of a group lie together, in the order of EntryKind.
struct Received {
  struct Set {
    IpGenAddr group;
    U32 first, count;
  };
  IpGenAddr upstreamNeighbor;
  U16 holdTime;
  std::vector<Set> groups;
  std::vector<Entry> entries;
};

/// The latest entry that was received, one record for joins and one for prunes.
struct Record {
  IpGenAddr upstreamNeighbor, source, group, rp;
  U16 holdTime = 210;
  U8 flags = 0;
  U32 count = 0;  ///< Of all so far.
};

class Observer {
 public:
  virtual ~Observer() = default;
  /// Of the record for its kind.
  virtual void onEntry(EntryKind kind, Record const& record) = 0;
};

/// The engine of one interface. Hooks and observers must not call it.
class Engine {
 public:
  /// What is sent to one neighbor. Made by neighborIs(), valid as long as the engine.
  struct Neighbor {
    IpGenAddr address;
    Groups triggered, periodic;
    Timer triggeredTimer, periodicTimer;
    Seconds deadline = -never;  // when the latest slice was, or is, to begin
    U64 left = wholeSlice;      // of a slice that was cut short
  };

  Engine(Settings const& settings, Hooks hooks) : settings_(settings), hooks_(std::move(hooks)) {}

  Neighbor& neighborIs(IpGenAddr const& address) {
    std::unique_ptr<Neighbor>& neighbor = neighbors_[address];
    if (!neighbor) {
      neighbor = std::make_unique<Neighbor>();
      Neighbor& made = *neighbor;
      made.address = address;
      made.triggeredTimer.action = [this, &made] { sendTriggered(made); };
      made.periodicTimer.action = [this, &made] { refresh(made); };
    }
    return *neighbor;
  }

  /// The source of a (*,G) entry is the RP. False if the entry was there.
  bool add(Neighbor& neighbor, Way way, EntryKind kind, IpGenAddr const& group, IpGenAddr const& source) {
    if (way == Way::triggered) {
      bool const added = neighbor.triggered.add(kind, group, source);
      if (added && neighbor.triggeredTimer.due == never) armTriggered(neighbor);
      return added;
    }
    bool const added = neighbor.periodic.add(kind, group, source);
    if (added && neighbor.periodicTimer.due == never) armPeriodic(neighbor, false);
    return added;
  }
  /// False if the entry was not there.
  bool remove(Neighbor& neighbor, Way way, EntryKind kind, IpGenAddr const& group, IpGenAddr const& source) {
    Groups& groups = way == Way::triggered ? neighbor.triggered : neighbor.periodic;
    return groups.remove(kind, group, source);
  }

  Seconds nextDeadline() const { return wheel_.earliest(); }
  void expire() { wheel_.expire(hooks_.now()); }

  void observerIs(Observer& observer) { observers_.push_back(&observer); }
  void receive(Received const& message) {
    for (Received::Set const& set : message.groups) {
      std::optional<bool> denied;
      for (Entry const& entry : std::span(message.entries).subspan(set.first, set.count)) {
        // The filter says nothing of (S,G).
        if (entry.kind > EntryKind::sourcePrune) {
          if (!denied) denied = hooks_.deny && hooks_.deny(set.group);
          if (*denied) break;
        }
        if (entry.kind == EntryKind::wildcardJoin && hooks_.rpOf &&
            hooks_.rpOf(set.group, entry.address) != entry.address)
          continue;
        Record& record = isJoin(entry.kind) ? joins_ : prunes_;
        record.upstreamNeighbor = message.upstreamNeighbor;
        record.holdTime = message.holdTime;
        record.group = set.group;
        record.source = isWildcard(entry.kind) ? IpGenAddr::zero(set.group.af()) : entry.address;
        if (isWildcard(entry.kind)) record.rp = entry.address;
        record.flags = flagsOf(entry.kind);
        ++record.count;
        for (Observer* const observer : observers_) observer->onEntry(entry.kind, record);
      }
    }
  }
  Record const& joins() const { return joins_; }
  Record const& prunes() const { return prunes_; }

 private:
  static constexpr U64 wholeSlice = ~U64{0};

  void armTriggered(Neighbor& neighbor) {
    wheel_.arm(neighbor.triggeredTimer, hooks_.now() + settings_.triggeredInterval);
  }
  void sendTriggered(Neighbor& neighbor) {
    Seconds const end = hooks_.now() + settings_.quantum;
    while (!neighbor.triggered.empty()) {
      Step const step = sendPending(neighbor);
      if ((step.sent == 0 && step.filtered == 0) || hooks_.now() >= end) break;
    }
    if (!neighbor.triggered.empty()) armTriggered(neighbor);
  }

  // Up to 1,000 entries are refreshed at once. More are cut into slices of about as many, a tenth of a second
  // apart at the least.
  struct Slice {
    Seconds interval;
    U64 routes;
  };
  Slice sliceOf(U64 routes) const {
    U64 const slices = std::clamp<U64>((routes + 999) / 1000, 1, std::max<U64>(settings_.interval * 10, 1));
    return {settings_.interval / static_cast<Seconds>(slices), (routes + slices - 1) / slices};
  }
  // At the end of a slice that is late the next one is due at once.
  void armPeriodic(Neighbor& neighbor, bool sliceEnded) {
    neighbor.left = wholeSlice;
    if (neighbor.periodic.empty()) return;
    Seconds const now = hooks_.now();
    Slice const slice = sliceOf(neighbor.periodic.routes());
    Seconds const next = neighbor.deadline + slice.interval;
    neighbor.deadline = next > now ? next : sliceEnded ? now : now + slice.interval;
    wheel_.arm(neighbor.periodicTimer, neighbor.deadline);
  }
  void refresh(Neighbor& neighbor) {
    Seconds const now = hooks_.now(), end = now + settings_.quantum;
    U64 const bound = std::min<U64>(sliceOf(neighbor.periodic.routes()).routes, neighbor.left);
    U64 done = 0;
    bool cutShort = false;
    while (done < bound && !cutShort) {
      Step const step = sendNext(neighbor);
      done += step.all();
      cutShort = step.all() == 0 || hooks_.now() >= end;
    }
    if (done >= bound || done == 0) return armPeriodic(neighbor, true);
    neighbor.left = bound - done;
    wheel_.arm(neighbor.periodicTimer, hooks_.now() + 0.1);
  }

  // What has become of the entries that a message is about.
  struct Step {
    U32 sent = 0, filtered = 0, suppressed = 0;
    U32 passed() const { return filtered + suppressed; }
    U32 all() const { return sent + passed(); }
  };

  // One message from the end of what is pending, so that what was sent is cheap to take away. Another one if
  // nothing was sent, as long as there is something to say.
  Step sendPending(Neighbor& neighbor) {
    Groups& groups = neighbor.triggered;
    Step step;
    message_.begin(settings_.address, neighbor.address, settings_.holdTime, settings_.mtu);
    U32 first = groups.size();
    for (bool more = true; more && first != 0;) {
      U32 entry = 0;
      more = addGroup(neighbor, groups[--first], entry, neighbor.periodic, step, true);
    }
    bool const sent = message_.empty() || hooks_.send(message_.finish());
    for (U32 at = groups.size(); at-- != first;) {
      if (sent) {
        groups.removeTaken(at);
      } else {
        for (Entry& entry : groups[at].entries) entry.taken = false;
      }
    }
    return sent ? step : Step();
  }

  // One message from where the last one ended, at most to the end of the entries.
  Step sendNext(Neighbor& neighbor) {
    Groups& groups = neighbor.periodic;
    Step step;
    message_.begin(settings_.address, neighbor.address, settings_.holdTime, settings_.mtu);
    Groups::Cursor at = groups.cursor;
    bool more = true;
    while (more && at.group < groups.size()) {
      more = addGroup(neighbor, groups[at.group], at.entry, neighbor.triggered, step, false);
      if (more) at = {at.group + 1, 0};
    }
    if (!message_.empty() && !hooks_.send(message_.finish())) return {};
    groups.cursor = at.group < groups.size() ? at : Groups::Cursor();
    return step;
  }

  // Adds what is left of a group to the message, from an entry on. False if the message is full; the entry is
  // then where the next one continues.
  bool addGroup(Neighbor& neighbor, Group& group, U32& at, Groups& other, Step& step, bool once) {
    Entries& entries = group.entries;
    bool const denied = hooks_.deny && hooks_.deny(group.address);
    message_.groupIs(group.address);
    for (; at < entries.size(); ++at) {
      Entry& entry = entries.begin()[at];
      if (step.passed() >= mostPassed) return endGroup(false);
      if (denied) {
        ++step.filtered;
        entry.taken = once;
        continue;
      }
      if (waits(entries, entry)) {
        if (!once) ++step.suppressed;
        continue;
      }
      bool const takesPrunes = entry.kind == EntryKind::wildcardJoin;
      if (takesPrunes) findPrunes(group, other);
      std::size_t const along = takesPrunes ? std::min(prunesAlong_.size(), message_.most() - 1) : 0;
      if (!message_.fits(1 + along)) return endGroup(false);
      entry.taken = once;
      if (suppressed(neighbor, group, entry)) {
        ++step.suppressed;
        continue;
      }
      message_.add(entry.kind, entry.address);
      ++step.sent;
      if (takesPrunes) at = addPrunes(entries, at, step, once);
    }
    return endGroup(true);
  }
  bool endGroup(bool result) {
    message_.endGroup();
    return result;
  }

  static bool waits(Entries& entries, Entry const& entry) {
    return entries.size() > 1 && !isJoin(entry.kind) && !isWildcard(entry.kind) &&
           entries.contains(opposite(entry.kind), entry.address);
  }
  bool suppressed(Neighbor const& neighbor, Group const& group, Entry const& entry) const {
    if (!hooks_.suppress) return false;
    IpGenAddr const source = isWildcard(entry.kind) ? IpGenAddr::zero(group.address.af()) : entry.address;
    return hooks_.suppress(neighbor.address, source, group.address, entry.kind);
  }

  // The (S,G,rpt) prunes that belong beside a (*,G) join: without them it would ask for those sources. The
  // group's own, unless they wait, and those that the neighbor is sent in the other way, unless they are
  // joined in either. In ascending order, since the smallest are sent if not all have room.
  void findPrunes(Group& group, Groups& other) {
    prunesAlong_.clear();
    EntryKind const prune = EntryKind::sourceRptPrune, join = EntryKind::sourceRptJoin;
    Entries& own = group.entries;
    for (Entry const& entry : own)
      if (entry.kind == prune && !waits(own, entry)) prunesAlong_.push_back(entry.address);
    U32 const found = other.find(group.address);
    if (found == Groups::none) return;
    Entries& others = other[found].entries;
    for (Entry const& entry : others)
      if (entry.kind == prune && !own.contains(prune, entry.address) && !own.contains(join, entry.address) &&
          !others.contains(join, entry.address))
        prunesAlong_.push_back(entry.address);
    std::sort(prunesAlong_.begin(), prunesAlong_.end());
  }
  // What has no room counts as suppressed. The place of the last of the group's own.
  U32 addPrunes(Entries& entries, U32 wildcard, Step& step, bool once) {
    std::size_t const room = std::min(prunesAlong_.size(), message_.room());
    for (std::size_t i = 0; i < room; ++i) message_.add(EntryKind::sourceRptPrune, prunesAlong_[i]);
    U32 last = wildcard;
    for (; last + 1 < entries.size() && rankOf(entries.begin()[last + 1].kind) == rptPruneRank; ++last) {
      Entry& prune = entries.begin()[last + 1];
      if (waits(entries, prune)) {
        if (!once) ++step.suppressed;
        continue;
      }
      prune.taken = once;
      bool const isSent = room == prunesAlong_.size() || prune.address < prunesAlong_[room];
      ++(isSent ? step.sent : step.suppressed);
    }
    return last;
  }

  static constexpr U32 mostPassed = 10'000;  // so that a long row of them takes no longer than a quantum

  Settings const settings_;
  Hooks const hooks_;
  Wheel wheel_;
  std::unordered_map<IpGenAddr, std::unique_ptr<Neighbor>> neighbors_;
  Message message_;
  std::vector<IpGenAddr> prunesAlong_;
  std::vector<Observer*> observers_;
  Record joins_, prunes_;
};

}  // namespace Plain
