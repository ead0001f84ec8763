// SPDX-License-Identifier: Apache-2.0
// Where the packet manager's packets can be sent.
//
//     CapturedPackets packets;                    // into memory
//     ForwardedPackets packets([&](OutgoingPacket const& packet) { ... });
#pragma once

#include <functional>
#include <vector>

#include "pim/speaker/PacketManager.h"

namespace Routing::Pim::Speaker {

/// Keeps the packets in memory, in the order of sending.
class PIM_SPEAKER_API CapturedPackets final : public PacketSink {
 public:
  /// Keeps a copy.
  void send(OutgoingPacket const& packet) override { packets_.push_back(packet); }

  /// What was sent since the last take().
  std::vector<OutgoingPacket> const& packets() const { return packets_; }
  /// Hands over what has come since the last time.
  std::vector<OutgoingPacket> take();

 private:
  std::vector<OutgoingPacket> packets_;
};

/// Hands each packet to a function, which may throw to say that it was not sent.
class PIM_SPEAKER_API ForwardedPackets final : public PacketSink {
 public:
  /// Takes each packet; valid during the call.
  using Function = std::function<void(OutgoingPacket const& packet)>;

  /// REQUIRES: the function is not empty.
  explicit ForwardedPackets(Function function) : function_(std::move(function)) {}

  /// Calls the function.
  void send(OutgoingPacket const& packet) override { function_(packet); }

 private:
  Function function_;
};

}  // namespace Routing::Pim::Speaker
