// SPDX-License-Identifier: Apache-2.0
// What the benchmarks share: how one is written, and how a row of the table comes about.
//
// A file measures one subject against its floor (the least that such work can cost) or its peers, all in the
// same process; whole jobs are measured against the plain engine (bench/plain). Each variant is a benchmark
// of its own, registered under "subject/variant/who":
//
//     Bench::timed("codec/encode IPv4/ours", [=](Bench::Stopwatch& watch) {
//       watch.start();
//       for (int i = 0; i < rounds; ++i) Bench::keep(encodeJoinPrune(message, source, destination));
//       watch.stop(rounds * entries);
//     });
//     Bench::row({.subject = "codec", .what = "encode IPv4", .reference = "floor", .atMost = 1.5});
//
// scripts/bench runs everything, takes medians, prints the table and writes it as JSON. The program by itself
// is a Google Benchmark program with all its options; JOINPRUNE_BENCH_LARGEST in the environment leaves out
// sizes beyond that number, for a quick look or a test.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <ctime>
#include <functional>
#include <string>
#include <utility>

namespace Bench {

/// Stops the time of the part of a run that counts: processor time of this thread, so that a busy machine
/// disturbs less. Reading it takes some hundred nanoseconds; what is timed should be much longer. Starts and
/// stops add up.
class Stopwatch {
 public:
  void start() { began_ = now(); }

  /// `operations` is what the figure is divided by.
  void stop(double operations) {
    spent_ += now() - began_;
    operations_ += operations;
  }

  /// Something about the circumstances that belongs beside the figure.
  void note(std::string text) { note_ = std::move(text); }

  /// In seconds.
  double spent() const { return spent_; }
  double operations() const { return operations_; }
  std::string const& note() const { return note_; }

 private:
  static double now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }

  double began_ = 0;
  double spent_ = 0, operations_ = 0;
  std::string note_;
};

using Run = std::function<void(Stopwatch&)>;

/// A figure that cannot be had honestly: the row says so, with the reason, and has no verdict.
struct NotMeasured {
  std::string why;
};

/// Registers a benchmark in nanoseconds an operation. `run` is called again and again; each time it prepares
/// what it needs, and times what counts. What it captures lives as long as the process.
void timed(std::string const& name, Run run);

/// The same for a run with preparations that serve all repetitions: `prepare` is called when the benchmark
/// begins, and what it gives is dropped when it ends. A peer that is not to be had here throws NotMeasured.
void prepared(std::string const& name, std::function<Run()> prepare);

/// The same for ours and the plain engine, which take turns: the figures "<name>/ours" and "<name>/plain".
/// Both are prepared before either runs, and each repetition has a ratio of its own, so that there is a
/// spread.
void inTurns(std::string const& name, std::function<Run()> prepareOurs, std::function<Run()> preparePlain);

/// Registers a figure that needs no repetition, such as bytes.
void figure(std::string const& name, std::function<double()> measure);

/// A row of the table: ours against a reference, both benchmarks of the names "subject/what/ours" and
/// "subject/what/<reference>" unless said otherwise.
struct Row {
  std::string subject;
  std::string what;
  std::string reference;      ///< "plain", "floor" or a peer's name.
  double atMost = 0;          ///< The bar: ours is at most so many times the reference.
  double atMostAbsolute = 0;  ///< Or: ours is at most so much; the reference is there for comparison.
                              ///< With neither the row is for comparison alone.
  std::string unit = "ns";
  std::string ours = {};  ///< Another name of a benchmark.
  std::string theirs = {};
};
void row(Row row);

/// Rows without a bar, of the benchmarks "<name>/ours" and "<name>/plain": the points of the curve of that
/// series.
void growth(std::string const& series, std::size_t size, std::string const& name);

/// True unless the environment asks for smaller sizes.
bool wanted(std::size_t size);

/// "1k", "100k", "1M".
std::string sizeText(std::size_t size);

/// Keeps the compiler from leaving a result out.
template <class T>
void keep(T const& value) {
  benchmark::DoNotOptimize(value);
}

}  // namespace Bench
