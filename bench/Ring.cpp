// A ring message with three arguments and a block timer, in nanoseconds, with a trace file open. The floor reads the
// cycle counter and stores the arguments into a buffer, once for a message, and twice and the difference for a timer.
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
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
  return true;
}();

}  // namespace
