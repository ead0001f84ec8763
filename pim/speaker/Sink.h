// SPDX-License-Identifier: Apache-2.0
// Where the packets of a speaker go.
#pragma once

#include <span>
#include <string_view>

#include "pim/wire/PimHeader.h"
#include "runtime/dova/IntfId.h"

namespace Routing::Pim::Speaker {

/// A PIM message on its way out; valid during the call. The sender puts the IP header before it: protocol
/// 103, TTL or hop limit 1.
struct Outgoing {
  Dova::IntfId const& intf;        ///< The interface that it leaves by.
  Dova::IpGenAddr source;          ///< An address of the interface.
  Dova::IpGenAddr destination;     ///< ALL-PIM-ROUTERS of the family.
  std::span<Vel::U8 const> bytes;  ///< The PIM message, checksum included.
};

/// What became of a packet.
enum class Sent : Vel::U8 {
  done,    ///< It was sent.
  later,   ///< Not now, as when a socket's buffer is full. It stays pending and is tried again.
  failed,  ///< Never, as when it is too long. It counts as sent.
};

/// Sends packets. What it throws counts as `failed`.
class PIM_SPEAKER_API Sink {
 public:
  virtual ~Sink() = default;
  /// Sends a packet. It may do anything else, the destruction of the speaker included.
  virtual Sent send(Outgoing const& packet) = 0;
  /// Why the latest packet failed, as "Message too long"; asked as soon as send() has returned `failed`, and
  /// valid until the next call.
  virtual std::string_view failure() const { return {}; }
};

}  // namespace Routing::Pim::Speaker
