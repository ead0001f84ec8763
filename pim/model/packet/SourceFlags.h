// SPDX-License-Identifier: Apache-2.0
// The flags of an encoded source address.
#pragma once

#include <iosfwd>
#include <string_view>

#include "pim/entry/EntryKind.h"
#include "runtime/dova/NetU8.h"
#include "runtime/vel/Export.h"

namespace Routing::Pim::Packet {

/// The flags byte of a PIM encoded-source address (RFC 7761, 4.9.1); EntryFlags has its bits.
class VEL_API SourceFlags {
 public:
  constexpr SourceFlags() = default;
  /// From the byte on the wire.
  constexpr explicit SourceFlags(Vel::U8 value) : value_(value) {}
  /// What an entry of this kind carries.
  constexpr explicit SourceFlags(EntryKind kind) : SourceFlags(flagsOf(kind)) {}

  /// The byte on the wire.
  constexpr Vel::U8 value() const { return value_.value(); }
  /// Sets the byte.
  constexpr void valueIs(Vel::U8 value) { value_.valueIs(value); }

  friend constexpr bool operator==(SourceFlags a, SourceFlags b) = default;

 private:
  Dova::NetU8 value_;
};

/// What an (S,G) entry carries (RFC 7761, 4.9.5.1).
inline constexpr SourceFlags sgFlags{EntryKind::sourceJoin};
/// What an (S,G,rpt) entry carries.
inline constexpr SourceFlags sgRptFlags{EntryKind::sourceRptJoin};
/// What a (*,G) entry carries.
inline constexpr SourceFlags wildcardFlags{EntryKind::wildcardJoin};

/// The letters S, W, R of the flags that are set; "none" without.
VEL_API std::ostream& operator<<(std::ostream& os, SourceFlags flags);
/// The same letters, for attributes that are set by name.
VEL_API bool fromText(std::string_view text, SourceFlags& flags);

}  // namespace Routing::Pim::Packet
