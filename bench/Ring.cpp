// SPDX-License-Identifier: Apache-2.0
// A ring message with three arguments, in nanoseconds, with a trace file open. The peers are LTTng-UST,
// recording into its own ring (a snapshot session, which scripts/bench sets up; without a session nothing is
// measured), and spdlog, which composes a line and drops it.
#include <dlfcn.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "bench/Bench.h"
#include "runtime/scrivo/Scrivo.h"

namespace {

using Dova::IpGenAddr;
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
  for (std::string const reference : {"LTTng-UST", "spdlog"})
    Bench::row({.subject = "ring", .what = "message", .reference = reference, .atMost = 1});
  return true;
}();

}  // namespace
