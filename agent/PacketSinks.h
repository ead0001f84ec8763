// Where the packet manager's packets can go.
//
//     CapturedPackets packets;                    // into memory
//     PcapPackets packets("sent.pcap");           // into a file, for whoever reads captures
//     ForwardedPackets packets([&](OutgoingPacket const& packet) { ... });
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "agent/Capture.h"
#include "agent/PacketManager.h"

namespace Routing::Pim::Agent {

/// Keeps the packets in memory, in the order of sending.
class CapturedPackets final : public PacketSink {
 public:
  void send(OutgoingPacket const& packet) override { packets_.push_back(packet); }

  std::vector<OutgoingPacket> const& packets() const { return packets_; }
  /// Hands over what has come since the last time.
  std::vector<OutgoingPacket> take();

 private:
  std::vector<OutgoingPacket> packets_;
};

/// Writes the packets of all interfaces to an Ethernet capture, with IP headers as PIM messages to neighbors
/// have them (RFC 7761, 4.9: a hop limit of 1).
class PcapPackets final : public PacketSink {
 public:
  /// Microseconds since 1970.
  using Clock = std::function<U64()>;

  /// Throws OutputError if the file cannot be made. The clock gives the packets' time stamps; without one it
  /// is the system's.
  explicit PcapPackets(std::string const& path, Clock clock = {});

  void send(OutgoingPacket const& packet) override;

  /// Brings everything to the file and gives it its name; nothing may be sent after it. Throws OutputError if
  /// that fails. Without this call there is no file.
  void close() { writer_.close(); }

 private:
  Clock clock_;
  CaptureWriter writer_;
};

/// Hands each packet to a function, which may throw to say that it was not sent.
class ForwardedPackets final : public PacketSink {
 public:
  using Function = std::function<void(OutgoingPacket const& packet)>;

  /// REQUIRES: the function is not empty.
  explicit ForwardedPackets(Function function) : function_(std::move(function)) {}

  void send(OutgoingPacket const& packet) override { function_(packet); }

 private:
  Function function_;
};

}  // namespace Routing::Pim::Agent
