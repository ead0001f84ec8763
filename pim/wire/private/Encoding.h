// SPDX-License-Identifier: Apache-2.0
// What the coders of this folder share: the numbers and sizes of encoded addresses (RFC 7761, 4.9.1), and
// how a whole message is opened and closed.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "pim/wire/PimHeader.h"
#include "pim/wire/Refusal.h"

namespace Routing::Pim::Wire {

inline constexpr U8 pimVersion = 2;
inline constexpr std::size_t headerSize = 4;
inline constexpr std::size_t maxPayload =
    65535 - 20;  // What an IPv4 datagram leaves after its smallest header.

// The numbers of address families on the wire (RFC 7761, 4.9.1).
inline constexpr U8 wireIpv4 = 1, wireIpv6 = 2;
inline constexpr U8 nativeEncoding = 0;

inline U8 wireFamily(AddressFamily family) { return family == AddressFamily::ipv4 ? wireIpv4 : wireIpv6; }
inline std::size_t addressSize(AddressFamily family) { return family == AddressFamily::ipv4 ? 4 : 16; }
inline std::size_t encodedUnicastSize(AddressFamily family) { return 2 + addressSize(family); }

/// Why the header of a whole message is not good: its version and type, then its checksum.
std::optional<Refusal> headerFault(std::span<U8 const> bytes, PimType type, IpGenAddr const& source,
                                   IpGenAddr const& destination);

/// Writes the checksum over the whole message. REQUIRES: the header is there.
void fillChecksum(std::span<U8> message, IpGenAddr const& source, IpGenAddr const& destination);

}  // namespace Routing::Pim::Wire
