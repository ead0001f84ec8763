// SPDX-License-Identifier: Apache-2.0
// The raw socket for the PIM messages of one interface and address family. (One socket for all interfaces
// could join ALL-PIM-ROUTERS on 20 of them only: net.ipv4.igmp_max_memberships.)
#pragma once

#include <functional>
#include <string>

#include "pim/speaker/Sink.h"
#include "pim/speaker/Speaker.h"

namespace Routing::Pim::Jpagent::Live {

using Dova::AddressFamily;
using Dova::IpGenAddr;
using Vel::U32;
using Vel::U8;

/// A raw socket that is bound to an interface and has joined 224.0.0.13 or ff02::d there. It does not receive
/// what it sends.
class PimSocket {
 public:
  /// The interface is the one that has this index and name now; a renamed interface stays the same. Throws
  /// std::system_error.
  PimSocket(std::string const& intf, unsigned index, AddressFamily family);
  ~PimSocket();
  PimSocket(PimSocket const&) = delete;
  PimSocket& operator=(PimSocket const&) = delete;

  int descriptor() const { return descriptor_; }

  /// Sends a message with TTL or hop limit 1. The source may be an address that the interface no longer has.
  /// Returns 0 or an errno.
  int send(IpGenAddr const& source, IpGenAddr const& destination, std::span<U8 const> message);

  /// Called for each message, with the addresses and the hop limit of its IP header.
  using Receiver = std::function<void(Speaker::Incoming const& packet, std::span<U8 const> message)>;
  /// Takes at most 64 packets that are there. `intf` is what the packets say of their interface. Returns 0,
  /// also if there are none, or an errno. The receiver may destroy this.
  int receive(std::string_view intf, Receiver const& receiver);

  /// How many packets the kernel has dropped since there was no room for them.
  U32 dropped() const;

 private:
  void open(std::string const& intf);
  void openIpv4();
  void openIpv6();

  unsigned const index_;
  AddressFamily const family_;
  int descriptor_ = -1;
};

/// Throws std::system_error if this process may not open raw sockets.
void requireRawSockets();

}  // namespace Routing::Pim::Jpagent::Live
