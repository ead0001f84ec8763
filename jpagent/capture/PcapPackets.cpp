// SPDX-License-Identifier: Apache-2.0
#include "jpagent/capture/PcapPackets.h"

#include <chrono>
#include <utility>

#include "jpagent/capture/FrameBuilder.h"

namespace Routing::Pim::Jpagent {

namespace {

U64 systemMicroseconds() {
  auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<U64>(std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

}  // namespace

PcapPackets::PcapPackets(std::string const& path, Clock clock)
    : clock_(clock ? std::move(clock) : systemMicroseconds), writer_(path) {}

void PcapPackets::send(Speaker::OutgoingPacket const& packet) {
  auto const datagram = ipDatagram(packet.source, packet.destination, Wire::pimProtocol, packet.bytes);
  writer_.frameAdd(clock_(), ethernetFrame(datagram));
}

}  // namespace Routing::Pim::Jpagent
