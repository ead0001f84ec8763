// SPDX-License-Identifier: Apache-2.0
// The header of PIM version 2 messages (RFC 7761, 4.9), and what all of them share.
//
// Which file of this folder does what:
//
//   PimHeader.h     the type, the checksum, the address that messages are sent to
//   PimMessage.h    Join/Prune
//   Hello.h         Hello
//   Refusal.h       why bytes are not such a message
//   Cursor.h        a place in bytes from the network
//
// and for the coders alone:
//
//   Encoding.h      numbers and sizes of encoded addresses, how a whole message is opened and closed
//   Text.h          texts put together from words and numbers
#pragma once

#include <optional>
#include <span>

#include "pim/wire/Export.h"
#include "runtime/dova/IpGenAddr.h"

namespace Routing::Pim::Wire {

using Dova::AddressFamily;
using Dova::IpGenAddr;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// The IP protocol number of PIM.
inline constexpr U8 pimProtocol = 103;

/// The message types that a router next door tells itself by (RFC 7761, 4.9).
enum class PimType : U8 { hello = 0, joinPrune = 3 };

/// 224.0.0.13 or ff02::d. REQUIRES: a known family.
PIM_SPEAKER_API IpGenAddr allPimRouters(AddressFamily family);

/// Whether the address is of 224.0.0.0/4 or ff00::/8.
inline bool isMulticast(IpGenAddr const& address) {
  if (address.isIpv4()) return address.bytes()[0] >> 4 == 0xe;
  return address.isIpv6() && address.bytes()[0] == 0xff;
}

/// The PIM checksum over a message whose checksum field is included as it is: 0 for a message that is intact,
/// the value for the field if the field is zero. Over IPv6 the pseudo-header is included (RFC 7761, 4.9).
PIM_SPEAKER_API U16 pimChecksum(std::span<U8 const> message, IpGenAddr const& source,
                                IpGenAddr const& destination);

/// True if the first byte says version 2 and the type. No bytes are of no type.
PIM_SPEAKER_API bool isPimType(std::span<U8 const> message, PimType type);

/// A hold time that never ends, in seconds.
inline constexpr U16 endlessHoldTime = 65535;

}  // namespace Routing::Pim::Wire
