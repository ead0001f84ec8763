// SPDX-License-Identifier: Apache-2.0
#include <sched.h>

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "bench/Bench.h"

namespace Bench {

namespace {

std::vector<Row>& rows() {
  static std::vector<Row> all;
  return all;
}

// Google Benchmark keeps a name and shows it; spaces and all.
void registered(std::string const& name, std::function<void(benchmark::State&)> body) {
  benchmark::RegisterBenchmark(name.c_str(), [body = std::move(body)](benchmark::State& state) {
    body(state);
  })->UseManualTime();
}

void measure(benchmark::State& state, Run const& run) {
  double spent = 0, operations = 0;
  for ([[maybe_unused]] auto _ : state) {
    Stopwatch watch;
    run(watch);
    spent += watch.spent();
    operations += watch.operations();
    state.SetIterationTime(watch.spent());
    if (!watch.note().empty()) state.SetLabel(watch.note());
  }
  state.counters["value"] = operations == 0 ? 0 : spent * 1e9 / operations;
}

}  // namespace

void timed(std::string const& name, Run run) {
  registered(name, [run = std::move(run)](benchmark::State& state) { measure(state, run); });
}

void prepared(std::string const& name, std::function<Run()> prepare) {
  registered(name, [prepare = std::move(prepare)](benchmark::State& state) {
    Run run;
    try {
      run = prepare();
    } catch (NotMeasured const& absent) {
      return state.SkipWithError(("not measured: " + absent.why).c_str());
    }
    measure(state, run);
  });
}

void inTurns(std::string const& name, std::function<Run()> prepareOurs, std::function<Run()> preparePlain) {
  registered(name + "/in turns", [=](benchmark::State& state) {
    Run const runs[] = {prepareOurs(), preparePlain()};
    Stopwatch watches[2];
    std::size_t first = 0;
    for ([[maybe_unused]] auto _ : state) {
      double const before = watches[0].spent() + watches[1].spent();
      runs[first](watches[first]);
      runs[1 - first](watches[1 - first]);
      first = 1 - first;
      state.SetIterationTime(watches[0].spent() + watches[1].spent() - before);
    }
    for (std::size_t who = 0; who < 2; ++who)
      state.counters[who == 0 ? "ours" : "plain"] = watches[who].spent() * 1e9 / watches[who].operations();
  });
}

void figure(std::string const& name, std::function<double()> measureOnce) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [measureOnce = std::move(measureOnce)](benchmark::State& state) {
                                 double value = 0;
                                 for ([[maybe_unused]] auto _ : state) {
                                   value = measureOnce();
                                   state.SetIterationTime(1);
                                 }
                                 state.counters["value"] = value;
                               })
      ->UseManualTime()
      ->Iterations(1);
}

void row(Row row) { rows().push_back(std::move(row)); }

void growth(std::string const& series, std::size_t size, std::string const& name) {
  row({.subject = "growth",
       .what = series + " " + std::to_string(size),
       .reference = "plain",
       .ours = name + "/ours",
       .theirs = name + "/plain"});
}

bool wanted(std::size_t size) {
  static char const* const largest = std::getenv("JOINPRUNE_BENCH_LARGEST");
  return !largest || size <= std::strtoull(largest, nullptr, 10);
}

std::string sizeText(std::size_t size) {
  if (size >= 1'000'000 && size % 1'000'000 == 0) return std::to_string(size / 1'000'000) + "M";
  if (size >= 1'000 && size % 1'000 == 0) return std::to_string(size / 1'000) + "k";
  return std::to_string(size);
}

namespace {

// One core for all, so that ours and theirs see the same caches and clock.
void pin() {
  int const core = sched_getcpu();
  if (core < 0) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(core), &set);
  sched_setaffinity(0, sizeof set, &set);
}

std::string textOf(std::vector<Row> const& all) {
  nlohmann::json array = nlohmann::json::array();
  for (Row const& row : all) {
    std::string const common = row.subject + "/" + row.what + "/";
    array.push_back({{"subject", row.subject},
                     {"what", row.what},
                     {"reference", row.reference},
                     {"atMost", row.atMost},
                     {"atMostAbsolute", row.atMostAbsolute},
                     {"unit", row.unit},
                     {"ours", row.ours.empty() ? common + "ours" : row.ours},
                     {"theirs", row.theirs.empty() ? common + row.reference : row.theirs}});
  }
  return array.dump();
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  Bench::pin();
  // The rows go into the output beside the figures: the bars stand next to what they are about.
  benchmark::AddCustomContext("rows", Bench::textOf(Bench::rows()));
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
