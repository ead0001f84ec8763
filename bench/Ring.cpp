// SPDX-License-Identifier: Apache-2.0
// A ring message with three arguments and a block timer, in nanoseconds, with a trace file open. The floor
// reads the cycle counter and stores the arguments into a buffer, once for a message, and twice and the
// difference for a timer. The peers of the message are LTTng-UST, recording into its own ring (a snapshot
// session, which scripts/bench sets up; without a session nothing is measured), and, for the record, spdlog,
// which composes a line and drops it.
#include <dlfcn.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "bench/Bench.h"
#include "runtime/scrivo/Scrivo.h"

namespace {

using Dova::IpGenAddr;
using Vel::U64;
using Vel::U8;
constexpr int rounds = 10'000;

// The trace file of one measurement.
class Open {
 public:
  Open() { Scrivo::TraceFile::open(path_); }
  ~Open() {
    Scrivo::TraceFile::close();
    std::filesystem::remove(path_);
  }

 private:
  std::string const path_ =
      (std::filesystem::temp_directory_path() / ("bench-" + std::to_string(getpid()) + ".trace")).string();
};

// A buffer that is written round and round.
struct Buffer {
  static constexpr std::size_t size = 1 << 20, slot = 64;
  U8* next() { return bytes.data() + (at = (at + slot) % size); }
  std::array<U8, size> bytes{};
  std::size_t at = 0;
};
Buffer buffer;

// Loaded once and kept. The session daemon is asked while the module is loaded, so it is known then what is
// recorded.
class Lttng {
 public:
  static Lttng const& get() {
    static Lttng const instance;
    return instance;
  }
  bool (*active)() = nullptr;
  void (*messages)(Vel::U32 neighbor, char const* intf, int rounds) = nullptr;

 private:
  Lttng() {
    void* const module = dlopen(BENCH_LTTNG_MODULE, RTLD_NOW | RTLD_LOCAL);
    if (!module) throw Bench::NotMeasured{dlerror()};
    active = reinterpret_cast<decltype(active)>(dlsym(module, "lttngMessageActive"));
    messages = reinterpret_cast<decltype(messages)>(dlsym(module, "lttngMessages"));
  }
};

bool const registered = [] {
  Bench::timed("ring/message/ours", [](Bench::Stopwatch& watch) {
    Open const open;
    IpGenAddr const neighbor("10.0.0.2");
    std::string const intf = "eth0";
    watch.start();
    for (int i = 0; i < rounds; ++i)
      SCRIVO_MESSAGE("Bench", "Sending triggered joins/prunes to ", neighbor, ", Intf: ", intf,
                     ", Groups: ", i);
    watch.stop(rounds);
  });
  Bench::timed("ring/message/floor", [](Bench::Stopwatch& watch) {
    IpGenAddr const neighbor("10.0.0.2");
    std::string const intf = "eth0";
    watch.start();
    for (int i = 0; i < rounds; ++i) {
      U8* const to = buffer.next();
      U64 const counter = Scrivo::cycleCounter();
      U64 const number = static_cast<U64>(i);
      std::memcpy(to, &counter, 8);
      std::memcpy(to + 8, neighbor.bytes().data(), 4);
      std::memcpy(to + 12, intf.data(), intf.size());
      std::memcpy(to + 24, &number, 8);
      benchmark::ClobberMemory();
    }
    watch.stop(rounds);
  });
  Bench::prepared("ring/message/LTTng-UST", []() -> Bench::Run {
    Lttng const& lttng = Lttng::get();
    if (!lttng.active()) throw Bench::NotMeasured{"no session records it"};
    return [&lttng](Bench::Stopwatch& watch) {
      watch.start();
      lttng.messages(0x0a000002, "eth0", rounds);
      watch.stop(rounds);
      watch.note(lttng.active() ? "tracing was active" : "tracing stopped in the middle");
    };
  });
  Bench::prepared("ring/message/spdlog", []() -> Bench::Run {
    auto const logger =
        std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_st>());
    return [logger](Bench::Stopwatch& watch) {
      std::string const neighbor = "10.0.0.2", intf = "eth0";
      watch.start();
      for (int i = 0; i < rounds; ++i)
        logger->info("Sending triggered joins/prunes to {}, Intf: {}, Groups: {}", neighbor, intf, i);
      watch.stop(rounds);
    };
  });
  Bench::timed("ring/block timer/ours", [](Bench::Stopwatch& watch) {
    Open const open;
    watch.start();
    for (int i = 0; i < rounds; ++i) {
      SCRIVO_BLOCK_TIMER("Bench", __PRETTY_FUNCTION__);
      Bench::keep(i);
    }
    watch.stop(rounds);
  });
  Bench::timed("ring/block timer/floor", [](Bench::Stopwatch& watch) {
    watch.start();
    for (int i = 0; i < rounds; ++i) {
      U64 const began = Scrivo::cycleCounter();
      Bench::keep(i);
      U64 const ended = Scrivo::cycleCounter();
      U64 const spent = ended - began;
      U8* const to = buffer.next();
      std::memcpy(to, &ended, 8);
      std::memcpy(to + 8, &spent, 8);
      benchmark::ClobberMemory();
    }
    watch.stop(rounds);
  });
  for (char const* const what : {"message", "block timer"})
    Bench::row({.subject = "ring", .what = what, .reference = "floor", .atMost = 1.4});
  Bench::row({.subject = "ring", .what = "message", .reference = "LTTng-UST", .atLeastFaster = 5});
  Bench::row({.subject = "ring", .what = "message", .reference = "spdlog"});
  return true;
}();

}  // namespace
