// SPDX-License-Identifier: Apache-2.0
// The packets that a packet manager sends, in a capture file.
//
//     PcapPackets packets("sent.pcap");
//     auto manager = Vel::create<Speaker::PacketManager>(packets, pimStatus);
//     ...
//     packets.close();
#pragma once

#include <functional>
#include <string>

#include "jpagent/capture/Capture.h"
#include "pim/speaker/PacketManager.h"

namespace Routing::Pim::Jpagent {

/// Writes the packets of all interfaces to an Ethernet capture, with IP headers as PIM messages to neighbors
/// have them (RFC 7761, 4.9: a hop limit of 1).
class PcapPackets final : public Speaker::PacketSink {
 public:
  /// Microseconds since 1970.
  using Clock = std::function<U64()>;

  /// Throws OutputError if the file cannot be made. The clock gives the packets' time stamps; without one it
  /// is the system's.
  explicit PcapPackets(std::string const& path, Clock clock = {});

  void send(Speaker::OutgoingPacket const& packet) override;

  /// Brings everything to the file and gives it its name; nothing may be sent after it. Throws OutputError if
  /// that fails. Without this call there is no file.
  void close() { writer_.close(); }

 private:
  Clock clock_;
  CaptureWriter writer_;
};

}  // namespace Routing::Pim::Jpagent
