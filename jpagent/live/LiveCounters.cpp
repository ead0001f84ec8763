// SPDX-License-Identifier: Apache-2.0
// What `show counters` shows.
#include "jpagent/live/Inside.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// What a metric counts.
std::string_view helpOf(std::string_view metric) {
  constexpr std::pair<std::string_view, std::string_view> texts[] = {
      {"hellos_sent", "Hello messages sent."},
      {"join_prunes_sent", "Join/Prune messages sent."},
      {"sent_later", "Messages that the system wanted later."},
      {"sending_failed", "Messages that could not be sent."},
      {"override_interval_changes", "Changes of the override interval of an interface."},
      {"rpt_prunes_left_out", "Prunes of a source on a shared tree that had no room beside its join."},
      {"upstream_routes", "Routes that are wanted from upstream neighbors."},
      {"neighbors", "PIM neighbors that are up."},
      {"downstream_routes", "Routes that neighbors have asked of this router."},
      {"entries_ignored", "Entries of Join/Prune messages that were not taken, by the reason."},
      {"sending_failures", "Messages that could not be sent, by the reason."},
      {"received", "PIM messages received, by what became of them."},
      {"refused", "PIM messages refused, by the reason."},
      {"system", "What the system counts."},
  };
  for (auto const& [name, text] : texts)
    if (name == metric) return text;
  return "A number of this program.";
}

}  // namespace

// Several of one metric differ by a label: how often packets were refused, by the reason.
struct LiveSpeaker::Counter {
  std::string_view metric;
  U64 value = 0;
  std::string_view label{};
  std::string labelled{};
  bool isGauge = false;  // one that may become less
};

namespace {

// As a label's value is written there.
std::string escaped(std::string_view text) {
  std::string result;
  for (char const c : text) {
    if (c == '"' || c == '\\') result += '\\';
    if (c == '\n')
      result += "\\n";
    else
      result += c;
  }
  return result;
}

}  // namespace

std::vector<LiveSpeaker::Counter> LiveSpeaker::counters() const {
  auto const& totals = speaker_->counters();
  std::vector<Counter> all = {
      {"hellos_sent", totals.hellosSent},
      {"join_prunes_sent", totals.joinPrunesSent},
      {"sent_later", totals.sentLater},
      {"sending_failed", totals.sendingFailed},
      {"override_interval_changes", totals.overrideIntervalChanges},
      {"rpt_prunes_left_out", totals.prunesLeftOut},
      {.metric = "upstream_routes", .value = speaker_->upstream().count(), .isGauge = true},
      {.metric = "neighbors", .value = speaker_->neighbors().size(), .isGauge = true},
      {.metric = "downstream_routes", .isGauge = true}};
  std::size_t const downstreamRoutes = all.size() - 1;
  Speaker::DownstreamCounters ignored;
  for (auto const& [name, interface] : interfaces_) {
    for (auto const family : families) {
      auto const* const routes = speaker_->downstream(name, family);
      if (routes == nullptr) continue;
      all[downstreamRoutes].value += routes->count();
      ignored.denied += routes->counters().denied;
      ignored.wrongRp += routes->counters().wrongRp;
      ignored.overLimit += routes->counters().overLimit;
      ignored.overNeighborLimit += routes->counters().overNeighborLimit;
    }
  }
  for (auto const& [why, count] : {std::pair("denied", ignored.denied),
                                   {"another RP", ignored.wrongRp},
                                   {"limit of the interface", ignored.overLimit},
                                   {"limit of the neighbor", ignored.overNeighborLimit}})
    all.push_back({"entries_ignored", count, "reason", why});
  for (auto const& [reason, count] : totals.failures)
    all.push_back({"sending_failures", count, "reason", reason});
  for (std::size_t i = 0; i < totals.verdicts.size(); ++i)
    all.push_back({"received", totals.verdicts[i], "verdict", std::string(Speaker::verdictNames[i])});
  for (std::size_t i = 0; i < totals.refusals.size(); ++i)
    all.push_back({"refused", totals.refusals[i], "reason", std::string(Wire::reasonNames[i])});
  for (auto const& [name, value] : counters_) all.push_back({"system", value, "name", name});
  return all;
}

// "received: Hello".
Json LiveSpeaker::countersShown() const {
  Json all = Json::array();
  for (auto const& counter : counters()) {
    auto const name = counter.label.empty() ? std::string(counter.metric)
                                            : fmt::format("{}: {}", counter.metric, counter.labelled);
    all.push_back({{"name", name}, {"value", counter.value}});
  }
  return all;
}

// The same in the text format of Prometheus: jpagent_received_total{verdict="Hello"}.
void LiveSpeaker::showPrometheus() {
  auto& lines = reply_->event.lines;
  std::string_view latest;
  for (auto const& counter : counters()) {
    auto const name = fmt::format("jpagent_{}{}", counter.metric, counter.isGauge ? "" : "_total");
    if (std::exchange(latest, counter.metric) != counter.metric) {
      lines.push_back(fmt::format("# HELP {} {}", name, helpOf(counter.metric)));
      lines.push_back(fmt::format("# TYPE {} {}", name, counter.isGauge ? "gauge" : "counter"));
    }
    auto const label = counter.label.empty()
                           ? std::string()
                           : fmt::format("{{{}=\"{}\"}}", counter.label, escaped(counter.labelled));
    lines.push_back(fmt::format("{}{} {}", name, label, counter.value));
  }
  reply_->event.members["result"] = countersShown();
}

}  // namespace Routing::Pim::Jpagent::Live
