// SPDX-License-Identifier: Apache-2.0
// A counted reference that is copied and dropped, in nanoseconds. The floor is a plain integer that goes up
// and down. In the thread-safe mode the peer is std::shared_ptr, which counts atomically once a process has
// threads.
#include <memory>
#include <thread>

#include "bench/Bench.h"
#include "runtime/vel/Ptr.h"

namespace {

constexpr int rounds = 100'000;

class Thing final : public Vel::Counted {};

// Copies and drops, without the compiler seeing that both cancel.
template <class Reference>
void copyAndDrop(Reference const& reference, Bench::Stopwatch& watch) {
  watch.start();
  for (int i = 0; i < rounds; ++i) {
    Reference const copy(reference);
    Bench::keep(copy);
  }
  watch.stop(rounds);
}

bool const registered = [] {
  Bench::timed("counted reference/copy and drop/ours",
               [](Bench::Stopwatch& watch) { copyAndDrop(Vel::create<Thing>(), watch); });
  Bench::timed("counted reference/copy and drop/floor", [](Bench::Stopwatch& watch) {
    struct Count {
      virtual ~Count() = default;
      int count = 0;
    } object;
    Count* volatile const hidden = &object;
    Count* const counted = hidden;
    watch.start();
    for (int i = 0; i < rounds; ++i) {
      Count* copy = counted;
      ++counted->count;
      Bench::keep(copy);
      benchmark::ClobberMemory();
      if (--counted->count < 0) Bench::keep(i);
    }
    watch.stop(rounds);
  });
  Bench::row({.subject = "counted reference", .what = "copy and drop", .reference = "floor", .atMost = 1.5});

  Bench::timed("counted reference/thread-safe/ours", [](Bench::Stopwatch& watch) {
    Vel::threadSafeIs(true);
    copyAndDrop(Vel::create<Thing>(), watch);
    Vel::threadSafeIs(false);
  });
  Bench::timed("counted reference/thread-safe/std::shared_ptr", [](Bench::Stopwatch& watch) {
    // Until a second thread has been seen, the library counts without atomics.
    [[maybe_unused]] static bool const threads = (std::thread([] {}).join(), true);
    copyAndDrop(std::make_shared<int>(0), watch);
  });
  Bench::row(
      {.subject = "counted reference", .what = "thread-safe", .reference = "std::shared_ptr", .atMost = 1});
  return true;
}();

}  // namespace
