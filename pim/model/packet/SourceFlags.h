// The flags of an encoded source address.
#pragma once

#include <iosfwd>
#include <string_view>

#include "runtime/dova/NetU8.h"
#include "runtime/vel/Export.h"

namespace Routing::Pim::Packet {

/// The flags byte of a PIM encoded-source address (RFC 7761, 4.9.1): S 0x4, W 0x2, R 0x1.
class VEL_API SourceFlags {
 public:
  static constexpr Vel::U8 sparseBit = 0x4;    ///< S: always set in PIM version 2.
  static constexpr Vel::U8 wildcardBit = 0x2;  ///< W: the source is the RP, and the entry is for (*,G).
  static constexpr Vel::U8 rptBit = 0x1;       ///< R: the entry is for the tree of the RP.

  constexpr SourceFlags() = default;
  /// From the byte on the wire.
  constexpr explicit SourceFlags(Vel::U8 value) : value_(value) {}

  /// The byte on the wire.
  constexpr Vel::U8 value() const { return value_.value(); }
  /// Sets the byte.
  constexpr void valueIs(Vel::U8 value) { value_.valueIs(value); }

  friend constexpr bool operator==(SourceFlags a, SourceFlags b) = default;

 private:
  Dova::NetU8 value_;
};

/// What an (S,G) entry carries (RFC 7761, 4.9.5.1).
inline constexpr SourceFlags sgFlags{SourceFlags::sparseBit};
/// What an (S,G,rpt) entry carries.
inline constexpr SourceFlags sgRptFlags{SourceFlags::sparseBit | SourceFlags::rptBit};
/// What a (*,G) entry carries.
inline constexpr SourceFlags wildcardFlags{SourceFlags::sparseBit | SourceFlags::wildcardBit |
                                           SourceFlags::rptBit};

/// The letters S, W, R of the flags that are set; "none" without.
VEL_API std::ostream& operator<<(std::ostream& os, SourceFlags flags);
/// The same letters, for attributes that are set by name.
VEL_API bool fromText(std::string_view text, SourceFlags& flags);

}  // namespace Routing::Pim::Packet
