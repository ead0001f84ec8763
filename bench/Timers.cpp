// SPDX-License-Identifier: Apache-2.0
// Timers (Zanth::TimerWheel) against an indexed 4-ary heap and against libevent, in nanoseconds an operation,
// with delays from 1 ms to 210 s. The heap is the floor of what is usual: one array of times and indexes, and
// in each timer the place where it is. libevent keeps a binary heap.
#include <event2/event.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "bench/Bench.h"
#include "runtime/zanth/TimerWheel.h"

namespace {

using Vel::U32;

// Delays spread evenly over the orders of magnitude.
std::vector<double> someDelays(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> exponent(std::log(0.001), std::log(210.0));
  std::vector<double> delays(size);
  for (double& delay : delays) delay = std::exp(exponent(random));
  return delays;
}

class Timer final : public Zanth::TimerWheel::Notifiee {
 public:
  explicit Timer(std::size_t& fired) : fired_(fired) {}
  void onTime() override { ++fired_; }

 private:
  std::size_t& fired_;
};

class Ours {
 public:
  explicit Ours(std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      timers_.push_back(Vel::create<Timer>(fired_));
      timers_.back()->notifierIs(wheel_);
    }
  }
  void arm(std::size_t i, double time) { timers_[i]->timeMinIs(time); }
  void cancel(std::size_t i) { timers_[i]->timeMinIs(Vel::never); }
  std::size_t fireUntil(double time) {
    now_ = time;
    wheel_->expire();
    return std::exchange(fired_, 0);
  }

 private:
  double now_ = 0;
  std::size_t fired_ = 0;
  Vel::Ptr<Zanth::TimerWheel> const wheel_ = Vel::create<Zanth::TimerWheel>([this] { return now_; });
  std::vector<Vel::Ptr<Timer>> timers_;
};

class Heap {
 public:
  struct Timer {
    virtual ~Timer() = default;
    virtual void onTime() = 0;
    U32 place = none;
    double time = 0;
  };

  void arm(Timer* timer, double time) {
    if (timer->place == none) {
      timer->place = static_cast<U32>(heap_.size());
      heap_.push_back({time, timer});
    }
    heap_[timer->place].time = time;
    if (!up(timer->place)) down(timer->place);
  }
  void cancel(Timer* timer) {
    U32 const place = std::exchange(timer->place, none);
    Entry const last = heap_.back();
    heap_.pop_back();
    if (last.timer == timer) return;
    put(place, last);
    if (!up(place)) down(place);
  }
  void expire(double now) {
    while (!heap_.empty() && heap_[0].time <= now) {
      Timer* const timer = heap_[0].timer;
      cancel(timer);
      timer->onTime();
    }
  }

 private:
  static constexpr U32 none = ~0u, ways = 4;
  struct Entry {
    double time;
    Timer* timer;
  };

  void put(U32 place, Entry const& entry) {
    heap_[place] = entry;
    entry.timer->place = place;
  }
  bool up(U32 place) {
    Entry const entry = heap_[place];
    U32 const from = place;
    for (; place > 0 && entry.time < heap_[(place - 1) / ways].time; place = (place - 1) / ways)
      put(place, heap_[(place - 1) / ways]);
    put(place, entry);
    return place != from;
  }
  void down(U32 place) {
    Entry const entry = heap_[place];
    for (;;) {
      U32 const first = place * ways + 1;
      if (first >= heap_.size()) break;
      U32 least = first;
      for (U32 child = first + 1; child < std::min<std::size_t>(first + ways, heap_.size()); ++child)
        if (heap_[child].time < heap_[least].time) least = child;
      if (entry.time <= heap_[least].time) break;
      put(place, heap_[least]);
      place = least;
    }
    put(place, entry);
  }

  std::vector<Entry> heap_;
};

class HeapTimers {
 public:
  explicit HeapTimers(std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) timers_.push_back(std::make_unique<Counting>(fired_));
  }
  void arm(std::size_t i, double time) { heap_.arm(timers_[i].get(), time); }
  void cancel(std::size_t i) { heap_.cancel(timers_[i].get()); }
  std::size_t fireUntil(double time) {
    heap_.expire(time);
    return std::exchange(fired_, 0);
  }

 private:
  struct Counting final : Heap::Timer {
    explicit Counting(std::size_t& fired) : fired_(fired) {}
    void onTime() override { ++fired_; }
    std::size_t& fired_;
  };
  std::size_t fired_ = 0;
  Heap heap_;
  std::vector<std::unique_ptr<Counting>> timers_;
};

class Libevent {
 public:
  explicit Libevent(std::size_t size) : base_(event_base_new(), event_base_free) {
    for (std::size_t i = 0; i < size; ++i)
      timers_.emplace_back(evtimer_new(
                               base_.get(), [](evutil_socket_t, short, void*) {}, nullptr),
                           event_free);
  }
  void arm(std::size_t i, double time) {
    // Far ahead, so that none is due while this is measured.
    timeval const delay{static_cast<time_t>(time) + 1000, static_cast<suseconds_t>(std::fmod(time, 1) * 1e6)};
    evtimer_add(timers_[i].get(), &delay);
  }
  void cancel(std::size_t i) { evtimer_del(timers_[i].get()); }

 private:
  std::unique_ptr<event_base, decltype(&event_base_free)> base_;
  std::vector<std::unique_ptr<event, decltype(&event_free)>> timers_;
};

template <class Timers>
void measure(std::size_t size, std::string const& who) {
  double const count = static_cast<double>(size);
  int const repeats = static_cast<int>(std::max<std::size_t>(1, 10'000 / size));
  auto const name = [&](char const* operation) {
    return "timers/" + (operation + (" " + Bench::sizeText(size))) + "/" + who;
  };
  struct Set {
    explicit Set(std::size_t n) : timers(n), delays(someDelays(n, 1)), others(someDelays(n, 2)) {}
    void armAll() {
      for (std::size_t i = 0; i < delays.size(); ++i) timers.arm(i, delays[i]);
    }
    void cancelAll() {
      for (std::size_t i = 0; i < delays.size(); ++i) timers.cancel(i);
    }
    Timers timers;
    std::vector<double> delays, others;
  };
  Bench::prepared(name("arm"), [=]() -> Bench::Run {
    auto const set = std::make_shared<Set>(size);
    return [=](Bench::Stopwatch& watch) {
      for (int r = 0; r < repeats; ++r) {
        watch.start();
        set->armAll();
        watch.stop(count);
        set->cancelAll();
      }
    };
  });
  Bench::prepared(name("re-arm"), [=]() -> Bench::Run {
    auto const set = std::make_shared<Set>(size);
    set->armAll();
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (int r = 0; r < repeats; ++r) {
        for (std::size_t i = 0; i < size; ++i) set->timers.arm(i, set->others[i]);
        set->delays.swap(set->others);
      }
      watch.stop(count * repeats);
    };
  });
  Bench::prepared(name("cancel"), [=]() -> Bench::Run {
    auto const set = std::make_shared<Set>(size);
    return [=](Bench::Stopwatch& watch) {
      for (int r = 0; r < repeats; ++r) {
        set->armAll();
        watch.start();
        set->cancelAll();
        watch.stop(count);
      }
    };
  });
  if constexpr (requires(Timers timers) { timers.fireUntil(1.0); }) {
    // In steps of 10 ms, as a loop would come by.
    Bench::prepared(name("fire"), [=]() -> Bench::Run {
      return [=](Bench::Stopwatch& watch) {
        for (int r = 0; r < repeats; ++r) {
          Set set(size);
          set.armAll();
          watch.start();
          std::size_t fired = 0;
          for (double now = 0; fired < size; now += 0.01) fired += set.timers.fireUntil(now);
          watch.stop(count);
        }
      };
    });
  }
}

bool const registered = [] {
  for (std::size_t const size : {1'000u, 1'000'000u}) {
    if (!Bench::wanted(size)) continue;
    measure<Ours>(size, "ours");
    measure<HeapTimers>(size, "4-ary heap");
    measure<Libevent>(size, "libevent");
    std::string const sizeName = " " + Bench::sizeText(size);
    for (std::string const operation : {"arm", "re-arm", "cancel"})
      for (std::string const reference : {"4-ary heap", "libevent"})
        Bench::row({.subject = "timers", .what = operation + sizeName, .reference = reference, .atMost = 1});
  }
  Bench::figure("timers/bytes/ours", [] { return static_cast<double>(sizeof(Zanth::TimerWheel::Notifiee)); });
  Bench::figure("timers/bytes/4-ary heap",
                [] { return static_cast<double>(sizeof(Heap::Timer) + sizeof(double) + sizeof(void*)); });
  Bench::row({.subject = "timers",
              .what = "bytes",
              .reference = "4-ary heap",
              .atMostAbsolute = 64,
              .unit = "bytes"});
  return true;
}();

}  // namespace
