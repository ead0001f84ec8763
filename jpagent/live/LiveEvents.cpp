// SPDX-License-Identifier: Apache-2.0
// What the speaker tells, as events.
#include <fmt/chrono.h>

#include <cmath>
#include <ctime>

#include "jpagent/live/Inside.h"
#include "jpagent/simulate/RouteData.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

Json entriesOfMessage(Wire::JoinPrune const& message) {
  Json entries = Json::array();
  for (auto const& entry : entriesOf(message)) {
    Speaker::RouteKind const kind = Speaker::routeKindOf(entry.kind);
    bool const isWild = kind == Speaker::RouteKind::wildcard;
    Speaker::Route const route =
        isWild ? Speaker::Route::wildcard(entry.group) : Speaker::Route{kind, entry.source, entry.group};
    Json one = {{"kind", isJoin(entry.kind) ? "join" : "prune"}, {"route", toText(route)}};
    if (isWild) one["rp"] = toText(entry.source);
    entries.push_back(std::move(one));
  }
  return entries;
}

Json messageMembers(Dova::IntfId const& intf, IpGenAddr const& source, Wire::JoinPrune const& message) {
  return {{"interface", intf.name()},
          {"source", toText(source)},
          {"upstream", toText(message.upstreamNeighbor())},
          {"hold", message.holdTime()},
          {"entries", entriesOfMessage(message)}};
}

}  // namespace

Json routeMembers(Speaker::Route const& route, std::optional<IpGenAddr> const& rp) {
  Json members = {{"route", toText(route)}};
  if (rp && route.kind == Speaker::RouteKind::wildcard) members["rp"] = toText(*rp);
  return members;
}

std::string LiveSpeaker::timeText() const {
  constexpr std::int64_t million = 1'000'000;
  std::int64_t const microseconds = settings_.microseconds + std::llround((now_ - begun_) * 1e6);
  auto const seconds = static_cast<std::time_t>(microseconds / million);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z", fmt::gmtime(seconds), microseconds % million);
}

void LiveSpeaker::tell(std::string_view kind, Json members, U64 leftOut) {
  if (leftOut != 0) members["left_out"] = leftOut;
  outside_.event(made(kind, std::move(members)));
}

Event LiveSpeaker::made(std::string_view kind, Json members) const {
  Event event{.members = {{"time", timeText()}, {"event", kind}}, .lines = {}};
  event.members.update(members);
  return event;
}

// --- The observer

void LiveSpeaker::neighborChanged(Speaker::NeighborEvent const& event) {
  using enum Speaker::NeighborEvent::Kind;
  lookAtWishes();
  std::string const intf = event.intf.name(), neighbor = toText(event.neighbor);
  auto const tellNeighbor = [&](std::string_view kind, std::string_view state) {
    tell(kind,
         {{"state", state},
          {"interface", intf},
          {"address", neighbor},
          {"hold", event.said.holdTime},
          {"generation", orNull(event.said.generationId)},
          {"dr_priority", orNull(event.said.drPriority)}},
         event.leftOut);
  };
  switch (event.kind) {
    case up:
      return tellNeighbor("neighbor", "up");
    case goodbye:
    case linkDown:
      return tellNeighbor("neighbor", "down");
    case expired:
      return tellNeighbor("neighbor", "expired");
    case restarted:
      return tellNeighbor("neighbor", "restarted");
    case changed:
      return tellNeighbor("neighbor_changed", "up");
    case designatedRouter:
      return tell("designated_router",
                  {{"interface", intf}, {"address", neighbor}, {"previous", toText(event.other)}},
                  event.leftOut);
    case addressConflict:
      return tell(
          "warning",
          {{"what", fmt::format("neighbor {} on {}", neighbor, intf)},
           {"reason", fmt::format("it lists {}, which another neighbor has listed", toText(event.other))}},
          event.leftOut);
    case tooMany:
      break;  // It is told as a packet that was refused.
  }
}

void LiveSpeaker::downstreamChanged(Speaker::DownstreamEvent const& event) {
  bool const isEnded = event.change == Speaker::DownstreamChange::ended;
  Json members = {{"state", isEnded ? "expired" : Speaker::text(event.change)},
                  {"interface", event.intf.name()}};
  members.update(routeMembers(event.route, event.rp));
  tell("downstream", std::move(members));
}

void LiveSpeaker::downstreamLimited(Speaker::DownstreamLimitEvent const& event) {
  tell("warning",
       {{"what",
         fmt::format("downstream {}{} on {} from {}", toText(event.route),
                     event.rp ? " rp " + toText(*event.rp) : "", event.intf.name(), toText(event.sender))},
        {"reason", fmt::format("beyond the limit of the {}", event.ofNeighbor ? "neighbor" : "interface")}},
       event.leftOut);
}

void LiveSpeaker::joinPruneReceived(Dova::IntfId const& intf, Speaker::ReceivedJoinPrune const& received) {
  tell("received", messageMembers(intf, received.sender, received.message));
}

void LiveSpeaker::joinPruneSent(Speaker::OutgoingPacket const& packet) {
  tell("sent", messageMembers(packet.intf, packet.source, packet.message));
}

void LiveSpeaker::packetUndelivered(Speaker::UndeliveredPacket const& packet) {
  using enum Speaker::Verdict;
  // Counted alone. What neighbors send while this router does not serve the family is no fault of theirs.
  if (packet.verdict == otherType || packet.verdict == noLink) return;
  auto const& from = packet.packet.source;
  Json const source = from == IpGenAddr() ? Json(nullptr) : Json(toText(from));  // not even an IP header
  if (packet.verdict == ownPacket) {
    return tell(
        "warning",
        {{"what", fmt::format("a packet on {} from {}", packet.packet.intf, toText(from))},
         {"reason", "the address is this router's own: another daemon, or an address that is there twice"}},
        packet.leftOut);
  }
  tell("refused",
       {{"interface", packet.packet.intf},
        {"source", source},
        {"reason", packet.refusal ? toText(*packet.refusal) : std::string(Speaker::text(packet.verdict))}},
       packet.leftOut);
}

void LiveSpeaker::sendingFailed(Speaker::FailedPacket const& failed) {
  tell("error",
       {{"what",
         fmt::format("sending on {} from {}", failed.packet.intf.name(), toText(failed.packet.source))},
        {"reason", failed.reason}},
       failed.leftOut);
}

}  // namespace Routing::Pim::Jpagent::Live
