// SPDX-License-Identifier: Apache-2.0
// Why a message was not applied. A refusal names one reason from a fixed list, which is what totals are
// counted by, and may add a detail for the person who reads it.
#pragma once

#include <array>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

#include "pim/wire/Export.h"
#include "runtime/vel/Types.h"

namespace Routing::Pim::Wire {

/// What a message, or the packet that carries it, breaks.
enum class Reason : Vel::U8 {
  truncated,           ///< Fewer bytes than a field needs, or than the IP header promises.
  badIpHeader,         ///< Lengths in the IP headers that contradict each other.
  fragment,            ///< The first fragment of a datagram: its checksum covers bytes that are not here.
  notJoinPrune,        ///< Not version 2, or not type 3 (RFC 7761, 4.9).
  badChecksum,         ///< RFC 7761, 4.9; over IPv6 the pseudo-header counts.
  wrongCount,          ///< A count of groups or sources that promises more than there is.
  unknownFamily,       ///< Neither IPv4 (1) nor IPv6 (2).
  unknownEncoding,     ///< An encoding type other than the native one (0).
  familiesDiffer,      ///< An address of another family than the packet that carries it.
  maskTooLong,         ///< A mask length over the width of its address.
  groupMaskNotFull,    ///< A group range where a Join/Prune needs one group.
  sourceMaskNotFull,   ///< A source range; RFC 7761, 4.9.1 demands the full length.
  groupNotMulticast,   ///< A group address that is none.
  sourceNotUnicast,    ///< A source or RP that is multicast or all zeros.
  upstreamNotUnicast,  ///< A multicast upstream neighbor.
  wildcardWithoutRpt,  ///< W without R: (*,G) lives on the RP tree alone.
  leftOver,            ///< Bytes of the IP payload after the last group.
  badHelloOption,      ///< A Hello option of another length than it must have (RFC 7761, 4.9.2).
  senderNotUnicast,    ///< An IP source that is multicast, all zeros or the broadcast address.
  senderNotLinkLocal,  ///< An IPv6 source that is not link-local (RFC 7761, 4.9).
  notAllPimRouters,    ///< An IP destination other than 224.0.0.13 and ff02::d (RFC 7761, 4.9).
  hopLimitNotOne,      ///< Another TTL or hop limit than senders have to use (RFC 7761, 4.9).
  notHello,            ///< Not version 2, or not type 0 (RFC 7761, 4.9).
};

/// The fixed texts, in the order of the enumeration.
inline constexpr std::array<std::string_view, 23> reasonNames = {
    "truncated",
    "bad IP header",
    "fragment",
    "not a PIM version 2 Join/Prune",
    "bad checksum",
    "wrong count",
    "unknown address family",
    "unknown encoding type",
    "address families differ",
    "mask length over the address width",
    "group mask length not full",
    "source mask length not full",
    "group not multicast",
    "source not unicast",
    "upstream neighbor not unicast",
    "wildcard without the RPT bit",
    "bytes left over",
    "bad Hello option",
    "sender not unicast",
    "sender not link-local",
    "destination not ALL-PIM-ROUTERS",
    "TTL or hop limit not 1",
    "not a PIM version 2 Hello",
};
static_assert(reasonNames.size() == static_cast<std::size_t>(Reason::notHello) + 1);

/// The reason's fixed text.
constexpr std::string_view text(Reason reason) { return reasonNames[static_cast<std::size_t>(reason)]; }
/// Writes the fixed text.
PIM_SPEAKER_API std::ostream& operator<<(std::ostream& os, Reason reason);

/// Why a message was refused as a whole.
struct Refusal {
  Reason reason;       ///< What totals are counted by.
  std::string detail;  ///< May be empty.
};

/// "bad checksum (0x5ae5, computed 0x5ae6)".
PIM_SPEAKER_API std::string toText(Refusal const& refusal);

}  // namespace Routing::Pim::Wire
