#include "agent/PacketSinks.h"

#include <chrono>
#include <utility>

#include "agent/FrameBuilder.h"

namespace Routing::Pim::Agent {

namespace {

U64 systemMicroseconds() {
  auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<U64>(std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

}  // namespace

std::vector<OutgoingPacket> CapturedPackets::take() { return std::exchange(packets_, {}); }

PcapPackets::PcapPackets(std::string const& path, Clock clock)
    : clock_(clock ? std::move(clock) : systemMicroseconds), writer_(path) {}

void PcapPackets::send(OutgoingPacket const& packet) {
  auto const datagram = ipDatagram(packet.source, packet.destination, pimProtocol, packet.bytes);
  writer_.frameAdd(clock_(), ethernetFrame(datagram));
}

}  // namespace Routing::Pim::Agent
