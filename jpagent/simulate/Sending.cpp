// SPDX-License-Identifier: Apache-2.0
// What the engine sends and records.
#include <algorithm>
#include <ostream>
#include <sstream>

#include "jpagent/common/RingMessages.h"
#include "jpagent/simulate/Inside.h"
#include "jpagent/simulate/RouteData.h"

namespace Routing::Pim::Jpagent {

void Simulation::recorded(JoinPruneMessageInfo const& record, bool join) {
  std::ostringstream text;
  text << (join ? "rxJoin " : "rxPrune ") << record.rxCount() << ": " << &record;
  if (record.sourceFlags() == Packet::wildcardFlags) text << ", RP: " << record.wcSource();
  line(text.str());
}

void Simulation::send(Speaker::OutgoingPacket const& packet) {
  auto const upstream = packet.message.upstreamNeighbor();
  auto const message = manager_->txMessageInfo()->joinPruneMessage();
  line(fmt::format("sent on {} from {}, upstream {}, {}, hold {}, {} bytes", packet.intf.name(),
                   toText(packet.source), toText(upstream), sendKindOf(*message->joinPruneData()),
                   packet.message.holdTime(), packet.bytes.size()));
  // Of the bytes, so that a packet that says anything else than it should is seen here.
  auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
  if (auto const* const refusal = std::get_if<Wire::Refusal>(&decoded)) {
    line(fmt::format("  not well formed: {}", toText(*refusal)));
  } else {
    auto const& wire = std::get<Wire::JoinPrune>(decoded);
    auto const entries = entriesOf(wire);
    ringSent(packet, entries);
    tellEntries(wire);
  }
  if (alsoTo_) alsoTo_->send(packet);
  nowIs(now_ + cost_);
}

void Simulation::tellEntries(Wire::JoinPrune const& message) {
  auto const entries = entriesOf(message);
  if (!brief_) {
    for (auto const& entry : entries) line(fmt::format("  {}", toText(entry)));
  } else if (!entries.empty()) {
    line(fmt::format("  {} in {}: {} ... {}", counted(entries.size(), "route"),
                     counted(message.groups().size(), "group"), toText(entries.front()),
                     toText(entries.back())));
  }
}

void Simulation::ringSent(Speaker::OutgoingPacket const& packet,
                          std::vector<RouteEntry> const& entries) const {
  if (Scrivo::TraceFile::current() == nullptr) return;
  auto const data = manager_->txMessageInfo()->joinPruneMessage()->joinPruneData();
  auto const sendKind = std::find(sendKindNames.begin(), sendKindNames.end(), sendKindOf(*data));
  if (sendKind == sendKindNames.end()) return;
  auto const joins = static_cast<std::size_t>(std::count_if(
      entries.begin(), entries.end(), [](RouteEntry const& entry) { return isJoin(entry.kind); }));
  RingMessages::ofSendKind(static_cast<SendKind>(sendKind - sendKindNames.begin()), [&]<SendKind one>() {
    RingMessages::sent<one>(packet.message.upstreamNeighbor(), packet.intf.name(), joins,
                            entries.size() - joins, packet.bytes.size());
  });
}

std::string_view Simulation::sendKindOf(Packet::JoinPruneData const& data) const {
  auto const sendKinds = dataOf(data.upstreamNeighbor());
  auto const sendKind = std::find_if(sendKinds.begin(), sendKinds.end(),
                                     [&data](auto const& set) { return set.get() == &data; });
  return sendKind == sendKinds.end() ? "for a target that is gone"
                                     : sendKindNames[static_cast<std::size_t>(sendKind - sendKinds.begin())];
}

}  // namespace Routing::Pim::Jpagent
