// SPDX-License-Identifier: Apache-2.0
// A trace line that is off, in nanoseconds. The floor is a relaxed read of a flag; both stand in the same
// loop, and the empty loop is measured beside them. The peer, for comparison alone, is spdlog with its level
// off.
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <memory>

#include "bench/Bench.h"
#include "runtime/vel/Trace.h"

namespace {

constexpr int rounds = 100'000;

std::atomic<bool> flag{false};

template <class Body>
void loop(Bench::Stopwatch& watch, Body const& body) {
  watch.start();
  for (int i = 0; i < rounds; ++i) {
    body(i);
    benchmark::ClobberMemory();
  }
  watch.stop(rounds);
}

bool const registered = [] {
  Bench::timed("disabled trace line/off/ours", [](Bench::Stopwatch& watch) {
    auto& handle = Vel::TraceHandle::find("Bench");
    loop(watch, [&handle](int i) { VEL_TRACE(handle, 7, "Bench", __func__, "entry " << i); });
  });
  Bench::timed("disabled trace line/off/relaxed flag", [](Bench::Stopwatch& watch) {
    loop(watch, [](int i) {
      if (flag.load(std::memory_order_relaxed)) [[unlikely]]
        Bench::keep(i);
    });
  });
  Bench::timed("disabled trace line/off/empty loop",
               [](Bench::Stopwatch& watch) { loop(watch, [](int) {}); });
  Bench::prepared("disabled trace line/off/spdlog", []() -> Bench::Run {
    auto const logger =
        std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_st>());
    logger->set_level(spdlog::level::err);
    return [logger](Bench::Stopwatch& watch) { loop(watch, [&](int i) { logger->debug("entry {}", i); }); };
  });
  Bench::row(
      {.subject = "disabled trace line", .what = "off", .reference = "relaxed flag", .atMostBeyond = 0.3});
  Bench::row({.subject = "disabled trace line", .what = "off", .reference = "empty loop"});
  Bench::row({.subject = "disabled trace line", .what = "off", .reference = "spdlog"});
  return true;
}();

}  // namespace
