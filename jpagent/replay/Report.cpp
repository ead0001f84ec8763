// SPDX-License-Identifier: Apache-2.0
#include "jpagent/replay/Report.h"

#include <fmt/ostream.h>

#include <nlohmann/json.hpp>
#include <numeric>

#include "runtime/vel/Text.h"

namespace Routing::Pim::Jpagent {

namespace {

// Wide enough for two IPv4 addresses; lines with IPv6 ones go over it.
constexpr int routeWidth = 33, addressWidth = 15;

}  // namespace

U64 Totals::refusedMessages() const { return std::accumulate(refused.begin(), refused.end(), U64{0}); }

U64 Totals::passedOverFrames() const { return std::accumulate(passedOver.begin(), passedOver.end(), U64{0}); }

void TextReport::entry(Place const& place, Entry const& entry) {
  anyLine_ = true;
  auto const route = fmt::format("({},{})", toText(entry.source), toText(entry.group));
  fmt::print(out_, "frame {:<5} {:>13.6f}  {:<5}  {:<9}  {:<{}}  upstream {:<{}}  hold {:>5}  flags {}",
             place.frame, place.time, actionText(entry.kind), routeText(entry.kind), route, routeWidth,
             toText(entry.upstreamNeighbor), addressWidth, entry.holdTime, Vel::textOf(entry.flags));
  if (isWildcard(entry.kind)) fmt::print(out_, "  rp {}", toText(entry.rp));
  out_ << '\n';
}

void TextReport::refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) {
  anyLine_ = true;
  fmt::print(out_, "frame {}  {}refused: {}\n", place.frame, type == Wire::PimType::hello ? "Hello " : "",
             toText(refusal));
}

void TextReport::totals(Totals const& totals) {
  auto const row = [this](std::string_view what, U64 count) {
    fmt::print(out_, "{:<34} {:>8}\n", what, count);
  };
  if (anyLine_) out_ << '\n';
  row("frames", totals.frames);
  row("Join/Prune messages", totals.messages);
  for (bool const join : {true, false})
    for (EntryKind const kind : entryKinds)
      if (isJoin(kind) == join) row(text(kind), totals.entries[indexOf(kind)]);
  row("refused messages", totals.refusedMessages());
  for (std::size_t reason = 0; reason < Wire::reasonNames.size(); ++reason) {
    if (totals.refused[reason]) row(fmt::format("  {}", Wire::reasonNames[reason]), totals.refused[reason]);
  }
  if (totals.lenient) row("taken because of --lenient", totals.lenient);
  row("Hello messages", totals.hellos);
  if (totals.strangers) row("without room for their sender", totals.strangers);
  row("frames passed over", totals.passedOverFrames());
  for (std::size_t why = 0; why < passedOverNames.size(); ++why) {
    if (totals.passedOver[why]) row(fmt::format("  {}", passedOverNames[why]), totals.passedOver[why]);
  }
}

void JsonReport::entry(Place const& place, Entry const& entry) {
  nlohmann::ordered_json object = {
      {"frame", place.frame},
      {"time", place.time},
      {"record", actionText(entry.kind)},
      {"kind", routeText(entry.kind)},
      {"source", toText(entry.source)},
      {"group", toText(entry.group)},
      {"upstream", toText(entry.upstreamNeighbor)},
      {"holdtime", entry.holdTime},
      {"flags", entry.flags.value()},
  };
  if (isWildcard(entry.kind)) object["rp"] = toText(entry.rp);
  out_ << object.dump() << '\n';
}

void JsonReport::refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) {
  nlohmann::ordered_json object = {{"frame", place.frame}};
  if (type == Wire::PimType::hello) object["message"] = "Hello";
  object["refused"] = text(refusal.reason);
  out_ << object.dump() << '\n';
}

void JsonReport::totals(Totals const& totals) {
  if (totals.passedOverFrames() == 0) return;
  std::string counts;
  for (std::size_t why = 0; why < passedOverNames.size(); ++why) {
    if (totals.passedOver[why] == 0) continue;
    counts +=
        fmt::format("{}{} {}", counts.empty() ? "" : ", ", totals.passedOver[why], passedOverNames[why]);
  }
  fmt::print(beside_, "{} of {} frames passed over: {}\n", totals.passedOverFrames(), totals.frames, counts);
}

}  // namespace Routing::Pim::Jpagent
