// SPDX-License-Identifier: Apache-2.0
// Address prefixes.
#pragma once

#include "runtime/dova/IpGenAddr.h"

namespace Dova {

/// An address with a mask length, such as an interface's own address (10.0.0.1/24). The host bits are kept:
/// `ipGenAddr()` is the address itself, `contains()` looks at the masked bits alone.
class VEL_API IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;

  /// Throws Vel::RangeException if the length exceeds the width of the address's family.
  IpGenPrefix(IpGenAddr const& address, U8 length);

  /// From "10.0.0.1/24"; an address alone means its full width. Nothing for any other text.
  static std::optional<IpGenPrefix> fromText(std::string_view text);

  /// The address, host bits included.
  IpGenAddr const& ipGenAddr() const& { return address_; }
  /// The same, of a prefix that ends at once.
  IpGenAddr ipGenAddr() const&& { return address_; }
  /// How many bits the mask has.
  U8 length() const { return length_; }

  /// True if the address has the prefix's family and agrees with it in the first `length()` bits.
  bool contains(IpGenAddr const& address) const;

  /// 30 bits, seeded by `Vel::hashSeedIs`.
  U32 hash() const { return Vel::hashCombine(address_.hash(), length_); }

  friend bool operator==(IpGenPrefix const& a, IpGenPrefix const& b) = default;

 private:
  IpGenAddr address_;
  U8 length_ = 0;
};

/// "10.0.0.1/24"; "unknown" for the default.
VEL_API std::ostream& operator<<(std::ostream& os, IpGenPrefix const& prefix);
/// The same as a string.
VEL_API std::string toText(IpGenPrefix const& prefix);
/// For attributes that are set by name.
VEL_API bool fromText(std::string_view text, IpGenPrefix& prefix);

}  // namespace Dova

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Dova::IpGenPrefix> {
  std::size_t operator()(Dova::IpGenPrefix const& prefix) const noexcept { return prefix.hash(); }
};
