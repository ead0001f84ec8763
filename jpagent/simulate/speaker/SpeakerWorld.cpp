// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/speaker/SpeakerWorld.h"

#include "jpagent/simulate/Inside.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Jpagent {

namespace {

std::string leftOutText(U64 leftOut) {
  return leftOut == 0 ? "" : fmt::format(" ({} left out before)", leftOut);
}

}  // namespace

SpeakerWorld::SpeakerWorld(Simulation& simulation, U32 seed)
    : simulation_(simulation),
      speaker_(simulation.wheel_, *this,
               {.seed = seed,
                .filter = simulation.denied_,
                .rp = [&table = simulation.rps_->table](IpGenAddr const& group) -> std::optional<IpGenAddr> {
                  IpGenAddr const rp = table.rp(group, {});
                  if (rp == IpGenAddr()) return std::nullopt;
                  return rp;
                },
                .observer = this}) {}

// --- Commands

void SpeakerWorld::interfaceIs(SpeakerInterfaceCommand const& command) {
  lookAtWishes();
  if (command.gone) {
    if (!speaker_.interfaceDel(command.name)) refuse("there is no interface {}", command.name);
    interfaces_.erase(command.name);
    return;
  }
  auto const known = interfaces_.find(command.name);
  bool const isNew = known == interfaces_.end();
  if (isNew && command.addresses.empty() && !command.noAddress)
    refuse("there is no interface {}: an address or \"none\" makes it", command.name);
  Interface interface = isNew ? Interface() : known->second;
  if (command.noAddress || !command.addresses.empty()) interface.addresses = command.addresses;
  for (auto const& change : command.changes) change(interface.settings);
  if (command.up || command.down) interface.isDown = command.down;
  // A link that is down is one without an address.
  speaker_.interfaceIs(command.name, interface.isDown ? std::vector<IpGenPrefix>() : interface.addresses,
                       interface.settings);
  interfaces_[command.name] = std::move(interface);
}

std::vector<SpeakerCommands::Place> SpeakerWorld::places() const {
  std::vector<Place> all;
  for (auto const& [name, interface] : interfaces_) all.push_back({name, interface.addresses});
  return all;
}

IpGenAddr SpeakerWorld::rpOf(IpGenAddr const& group) const { return simulation_.rps_->table.rp(group, {}); }

void SpeakerWorld::leave(RouteRange const& routes) {
  if (isWildcard(routes.first.kind)) simulation_.lookedAt_ += routes.count * pruned();
  SpeakerCommands::leave(routes);
}

// Neighbors and interfaces that come or restart have all their routes written again.
void SpeakerWorld::lookAtWishes() { simulation_.lookedAt_ += speaker_.upstream().count() + pruned(); }

void SpeakerWorld::receive(std::string const& intf, IpGenAddr const& source, Wire::Hello const& hello) {
  lookAtWishes();
  deliver(intf, source, Wire::encodeHello(hello, source, Wire::allPimRouters(source.af())));
}

void SpeakerWorld::receive(SpeakerReceiveCommand const& command) {
  deliver(command.intf, command.source,
          Wire::encodeJoinPrune(command.message, command.source, Wire::allPimRouters(command.source.af())));
}

void SpeakerWorld::deliver(std::string const& intf, IpGenAddr const& source, std::span<U8 const> bytes) {
  if (!speaker_.hasInterface(intf)) refuse("there is no interface {}", intf);
  tellPacket("received", intf, source, bytes);
  speaker_.receive(
      {.intf = intf, .source = source, .destination = Wire::allPimRouters(source.af()), .ttl = 1}, bytes);
}

// --- Packets and events

// Of the bytes, so that a packet that says anything else than it should is seen here.
void SpeakerWorld::tellPacket(std::string_view verb, std::string const& intf, IpGenAddr const& source,
                              std::span<U8 const> bytes) {
  auto const where = fmt::format("on {} from {}", intf, toText(source));
  IpGenAddr const destination = Wire::allPimRouters(source.af());
  auto const tellRefusal = [&](Wire::Refusal const& refusal) {
    line(fmt::format("{} {}: not well formed: {}", verb, where, toText(refusal)));
  };
  if (Wire::isPimType(bytes, Wire::PimType::hello)) {
    auto const decoded = Wire::decodeHello(bytes, source, destination);
    if (auto const* const refusal = std::get_if<Wire::Refusal>(&decoded)) return tellRefusal(*refusal);
    line(fmt::format("{} Hello {}: {}", verb, where, toText(std::get<Wire::Hello>(decoded))));
    return;
  }
  auto const decoded = Wire::decodeJoinPrune(bytes, source, destination);
  if (auto const* const refusal = std::get_if<Wire::Refusal>(&decoded)) return tellRefusal(*refusal);
  auto const& message = std::get<Wire::JoinPrune>(decoded);
  line(fmt::format("{} Join/Prune {}, upstream {}, hold {}, {} bytes", verb, where,
                   toText(message.upstreamNeighbor()), message.holdTime(), bytes.size()));
  simulation_.tellEntries(message);
}

Speaker::Sent SpeakerWorld::send(Speaker::Outgoing const& packet) {
  tellPacket("sent", packet.intf.name(), packet.source, packet.bytes);
  if (simulation_.alsoTo_ != nullptr) {
    auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
    auto const* const message = std::get_if<Wire::JoinPrune>(&decoded);
    simulation_.alsoTo_->send({.intf = packet.intf,
                               .source = packet.source,
                               .destination = packet.destination,
                               .message = message ? *message : Wire::JoinPrune(packet.source, 0),
                               .bytes = {packet.bytes.begin(), packet.bytes.end()}});
  }
  simulation_.nowIs(simulation_.now_ + simulation_.cost_);
  return Speaker::Sent::done;
}

void SpeakerWorld::neighborChanged(Speaker::NeighborEvent const& event) {
  using enum Speaker::NeighborEvent::Kind;
  std::string more;
  if (event.kind == designatedRouter) more = fmt::format(", instead of {}", toText(event.other));
  if (event.kind == addressConflict) more = fmt::format(", {}", toText(event.other));
  line(fmt::format("neighbor {} on {}: {}{}{}", toText(event.neighbor), event.intf.name(), text(event.kind),
                   more, leftOutText(event.leftOut)));
}

void SpeakerWorld::downstreamChanged(Speaker::DownstreamEvent const& event) {
  line(fmt::format("downstream {}{} on {}: {}, from {}", toText(event.route),
                   event.rp ? " rp " + toText(*event.rp) : "", event.intf.name(), text(event.change),
                   toText(event.sender)));
}

void SpeakerWorld::downstreamLimited(Speaker::DownstreamLimitEvent const& event) {
  line(fmt::format("downstream {}{} on {}: beyond the limit of the {}, from {}{}", toText(event.route),
                   event.rp ? " rp " + toText(*event.rp) : "", event.intf.name(),
                   event.ofNeighbor ? "neighbor" : "interface", toText(event.sender),
                   leftOutText(event.leftOut)));
}

void SpeakerWorld::packetUndelivered(Speaker::UndeliveredPacket const& packet) {
  line(fmt::format("discarded on {} from {}: {}{}{}", packet.packet.intf, toText(packet.packet.source),
                   text(packet.verdict), packet.refusal ? ": " + toText(*packet.refusal) : "",
                   leftOutText(packet.leftOut)));
}

}  // namespace Routing::Pim::Jpagent
