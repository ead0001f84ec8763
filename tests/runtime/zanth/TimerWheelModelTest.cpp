// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "runtime/zanth/TimerWheel.h"
#include "tests/Thorough.h"

namespace Zanth {
namespace {

using Vel::never;

class ModelledTimer final : public TimerWheel::Notifiee {
 public:
  explicit ModelledTimer(std::function<void()> call) : call_(std::move(call)) {}
  void onTime() override {
    isCalled = true;
    call_();
    isCalled = false;
  }
  void onNotificationException() override { isCalled = false; }

  bool isCalled = false;

 private:
  std::function<void()> call_;
};

// Two wheels with their timers, and what should become of them: sorted lists, in which equal times are in the
// order of arming. Everything that can be done with timers is done at random, inside callbacks as well.
class World {
 public:
  World(unsigned seed, std::size_t count) : random_(seed), entries_(count) {
    for (Side& side : sides_) side.wheel = Vel::create<TimerWheel>([&side] { return side.now; });
    nondestructing_ = random_() % 2 == 0;
    for (std::size_t i = 0; i < count; ++i) create(i);
  }

  // Returns what went wrong first, or nothing.
  std::string const& run(int operations) {
    for (int i = 0; i < operations && error_.empty(); ++i) {
      if (random_() % 12 == 0)
        stepClock(anySide());
      else if (random_() % 6 == 0)
        expire(anySide());
      else
        change();
      if (random_() % 2 == 0) check(anySide());
    }
    return error_;
  }

  // Drops the references to a wheel, from inside a callback if there is a timer to be called, and with all
  // timers or without them.
  std::string const& end(bool withTimers) {
    Side& side = sides_[0];
    set(0, side.now);
    atCall_ = [&] {
      side.wheel = nullptr;
      if (!withTimers) return;
      for (std::size_t i = 0; i < entries_.size(); ++i) destroy(i);
    };
    expire(side);
    side.wheel = nullptr;
    for (Entry& entry : entries_) {
      if (!entry.timer) continue;
      if (nondestructing_ && entry.side == &side)
        expect(!entry.timer->notifier(), "a wheel that is destroyed");
      expect(entry.timer->timeMin() == entry.at, "the time after the wheel's end");
      entry.timer->timeMinIs(entry.timer->timeMin() + 1);
      entry.timer->timeMinIs(never);
    }
    return error_;
  }

 private:
  using Line = std::multimap<Seconds, std::size_t>;
  struct Side {
    Vel::Ptr<TimerWheel> wheel;
    Seconds now = 1000;
    Line armed, due;
    bool expiring = false;
  };
  struct Entry {
    Vel::Ptr<ModelledTimer> timer;
    Side* side = nullptr;
    Seconds at = never;
    Line* line = nullptr;  // of which it is part, or null
    Line::iterator place;
    bool silent = false, missed = false;
  };

  Side& anySide() { return sides_[random_() % 8 == 0]; }
  std::size_t any() { return random_() % entries_.size(); }

  void expect(bool holds, char const* what) {
    if (!holds && error_.empty()) error_ = what;
  }

  static void leave(Entry& entry) {
    if (Line* const line = std::exchange(entry.line, nullptr)) line->erase(entry.place);
  }
  static void join(Entry& entry, std::size_t i) {
    if (!entry.side || entry.at == never) return;
    entry.line = &entry.side->armed;
    entry.place = entry.line->emplace(entry.at, i);
  }

  void create(std::size_t i) {
    Entry& entry = entries_[i];
    entry = {};
    entry.timer = Vel::create<ModelledTimer>([this, i] { called(i); });
    entry.timer->isNondestructingIs(nondestructing_);
    pointAt(i, &anySide());
  }
  void destroy(std::size_t i) {
    Entry& entry = entries_[i];
    // The wheel holds a timer while it calls it.
    if (entry.timer && entry.timer->isCalled) entry.timer->timeMinIs(never);
    leave(entry);
    entry.timer = nullptr;
  }
  void set(std::size_t i, Seconds at) {
    Entry& entry = entries_[i];
    if (!entry.timer) return;
    leave(entry);
    entry.at = at;
    entry.missed = false;
    join(entry, i);
    entry.timer->timeMinIs(at);
  }
  void pointAt(std::size_t i, Side* side) {
    Entry& entry = entries_[i];
    if (!entry.timer || (side && !side->wheel)) return;
    if (side != entry.side) {
      leave(entry);
      entry.side = side;
      join(entry, i);
    }
    entry.timer->notifierIs(side ? side->wheel : nullptr);
  }
  void silence(std::size_t i, bool silent) {
    Entry& entry = entries_[i];
    if (!entry.timer) return;
    entry.silent = silent;
    entry.timer->hasNotificationActiveIs(!silent);
  }

  void change() {
    std::size_t const i = any();
    switch (random_() % 32) {
      case 0:
        destroy(i);
        return create(i);
      case 1:
        return pointAt(i, &anySide());
      case 2:
        return random_() % 4 == 0 ? pointAt(i, nullptr) : pointAt(i, &sides_[0]);
      case 3:
        return silence(i, random_() % 4 == 0);
      default:
        return set(i, anyTime(entries_[i].side ? *entries_[i].side : sides_[0]));
    }
  }

  Seconds anyTime(Side const& side) {
    switch (random_() % 20) {
      case 0:
      case 1:
        return never;
      case 2:
        return random_() % 8 == 0 ? -never : side.now;
      case 3:
        return std::numeric_limits<Seconds>::max();
      case 4:
        return std::nextafter(side.now, never);
      case 5: {
        auto const at = std::bit_cast<Seconds>(static_cast<U64>(random_()) << 32 | random_());
        return std::isnan(at) ? 0.0 : at;
      }
      case 6:
      case 7:
      case 8:
        return entries_[any()].at;
      case 9:
        return side.now - distance();
      default:
        return side.now + distance();
    }
  }
  Seconds distance() {
    Seconds const scales[] = {1e-9, 1e-3, 1, 1, 60, 60, 3600, 1e7};
    return scales[random_() % 8] * (random_() % 1000) / 500;
  }

  void stepClock(Side& side) {
    switch (random_() % 16) {
      case 0:
        side.now -= distance();
        return;
      case 1:
        side.now = random_() % 2 == 0 ? 1e300 : never;
        return;
      case 2:
      case 3:
        side.now = 1000;
        return;
      default:
        side.now = side.armed.empty() ? 1000 : side.armed.begin()->first;
        break;
      case 4:
      case 5:
        side.now += distance();
        break;
    }
    if (!std::isfinite(side.now)) side.now = 1000;
    if (random_() % 4 == 0) side.now = std::nextafter(side.now, -never);
  }

  void check(Side& side) {
    if (!side.wheel) return;
    Seconds earliest = never;
    for (Line const* line : {&side.armed, &side.due})
      if (!line->empty()) earliest = std::min(earliest, line->begin()->first);
    expect(side.wheel->timeMin() == earliest, "the earliest time");
    expect(side.wheel->armedCount() == side.armed.size() + side.due.size(), "the number of armed timers");
    Entry const& entry = entries_[any()];
    if (!entry.timer) return;
    expect(entry.timer->timeMin() == entry.at, "a timer's time");
    expect(entry.timer->missed() == entry.missed, "whether a timer's expiry was lost");
  }

  void expire(Side& side) {
    if (!side.wheel) return;
    if (side.expiring) return side.wheel->expire();
    side.expiring = true;
    while (!side.armed.empty() && side.armed.begin()->first <= side.now) {
      Entry& entry = entries_[side.armed.begin()->second];
      entry.place = side.due.insert(side.due.end(), side.armed.extract(side.armed.begin()));
      entry.line = &side.due;
    }
    side.wheel->expire();
    passSilent(side);
    expect(side.due.empty(), "a timer that is due is called");
    side.expiring = false;
  }
  void passSilent(Side& side) {
    while (!side.due.empty() && entries_[side.due.begin()->second].silent) {
      Entry& entry = entries_[side.due.begin()->second];
      leave(entry);
      entry.at = never;
      entry.missed = true;
    }
  }

  void called(std::size_t i) {
    Entry& entry = entries_[i];
    Side* const side = entry.side;
    expect(side != nullptr, "a timer without a wheel is not called");
    if (!error_.empty()) return;
    passSilent(*side);
    bool const isNext = side->expiring && !side->due.empty() && side->due.begin()->second == i;
    expect(isNext, "the order of the calls");
    if (!isNext) return;
    leave(entry);
    entry.at = never;
    check(*side);
    if (auto const act = std::exchange(atCall_, nullptr)) return act();
    for (U32 changes = random_() % 4; changes != 0; --changes) {
      if (random_() % 16 == 0)
        stepClock(anySide());
      else if (random_() % 16 == 0)
        expire(anySide());  // of the same wheel does nothing, of the other one calls its timers
      else if (!side->due.empty() && random_() % 3 == 0)
        set(side->due.begin()->second, anyTime(*side));  // what would be called next
      else
        change();
      check(*side);
    }
    if (random_() % 16 == 0) throw 1;
  }

  std::mt19937 random_;
  std::array<Side, 2> sides_;
  std::vector<Entry> entries_;
  bool nondestructing_ = false;
  std::function<void()> atCall_;
  std::string error_;
};

// JOINPRUNE_WORLD_OPERATIONS says how many operations are performed.
TEST(TimerWheelModelTest, WhateverIsDoneInsideAndOutsideOfCallbacksAgreesWithSortedLists) {
  char const* const asked = std::getenv("JOINPRUNE_WORLD_OPERATIONS");
  U64 const operations = asked                 ? std::strtoull(asked, nullptr, 10)
                         : Routing::thorough() ? 2'000'000
                                               : 500'000;
  constexpr int perWorld = 2000;
  for (unsigned seed = 1; seed <= operations / perWorld; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::size_t const counts[] = {3, 30, 300, 1000};
    World world(seed, counts[seed % 4]);
    ASSERT_EQ(world.run(perWorld), "");
    ASSERT_EQ(world.end(seed % 3 == 0), "");
  }
}

}  // namespace
}  // namespace Zanth
