// SPDX-License-Identifier: Apache-2.0
// Network addresses.
//
// Which file of this folder does what:
//
//   IpGenAddr.h    an IPv4 or IPv6 address, and how collections store it
//   IpGenPrefix.h  an address with a mask length
//   IntfId.h       the identifier of an interface
//   NetU8.h        a byte in network form
#pragma once

#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "runtime/vel/Export.h"
#include "runtime/vel/Types.h"
#include "runtime/vel/detail/HashTable.h"

namespace Dova {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// The family of an address. The numbers order addresses of different families.
enum class AddressFamily : U32 { unknown = 0, ipv4 = 1, ipv6 = 2 };

/// The family of the default address, which belongs to neither protocol.
constexpr AddressFamily ipunknown() { return AddressFamily::unknown; }

/// "unknown", "IPv4", "IPv6".
VEL_API std::ostream& operator<<(std::ostream& os, AddressFamily af);
/// From that text; false for any other.
VEL_API bool fromText(std::string_view text, AddressFamily& af);

/// Sixteen bytes of an IPv6 address, in network order.
class Ip6Addr {
 public:
  constexpr Ip6Addr() = default;
  /// From bytes in network order.
  explicit Ip6Addr(std::array<U8, 16> const& bytes) { std::memcpy(words_, bytes.data(), 16); }

  /// The bytes in network order.
  std::array<U8, 16> bytes() const { return std::bit_cast<std::array<U8, 16>>(*this); }

  /// 30 bits, seeded by `Vel::hashSeedIs`.
  U32 hash() const { return Vel::bitReverse(order()); }
  /// The same in reverse, which is the order of collections, and cheaper.
  U32 order() const {
    U64 high, low;
    std::memcpy(&high, words_, 8);
    std::memcpy(&low, words_ + 2, 8);
    return Vel::order128(high, low);
  }

  /// The same bytes.
  friend bool operator==(Ip6Addr const& a, Ip6Addr const& b) {
    return std::memcmp(a.words_, b.words_, sizeof a.words_) == 0;
  }
  /// Numerically.
  friend bool operator<(Ip6Addr const& a, Ip6Addr const& b) {
    __extension__ using U128 = unsigned __int128;
    return (U128{a.number(0)} << 64 | a.number(2)) < (U128{b.number(0)} << 64 | b.number(2));
  }

 private:
  // Eight bytes as the number that they are in network order.
  U64 number(int word) const {
    U64 bytes;
    std::memcpy(&bytes, words_ + word, 8);
    return std::endian::native == std::endian::little ? __builtin_bswap64(bytes) : bytes;
  }

  U32 words_[4] = {};
};

/// An IPv4 or IPv6 address with its family; the key of neighbors, groups and sources.
///
/// The default is the unspecified address of unknown family: it equals neither 0.0.0.0 nor "::". An IPv4
/// address is held in its IPv6 form (::ffff:a.b.c.d), which is also what the hash is made of; equality and
/// order look at the family first.
class VEL_API IpGenAddr {
 public:
  constexpr IpGenAddr() = default;

  /// From dotted or RFC 5952 text, or "unknown" for the default. Nothing for any other text.
  static std::optional<IpGenAddr> fromText(std::string_view text);

  /// From text that is known to be an address. Throws Vel::RangeException that quotes it if it is not.
  explicit IpGenAddr(std::string_view text);

  /// From an IPv4 address in host order.
  static IpGenAddr ipv4(U32 hostOrder);

  /// From 4 or 16 bytes in network order. Any other size gives the default.
  static IpGenAddr fromBytes(std::span<U8 const> bytes) {
    IpGenAddr address;
    std::array<U8, 16> ip6{};
    if (bytes.size() == 4) {
      ip6[10] = ip6[11] = 0xff;
      std::memcpy(&ip6[12], bytes.data(), 4);
      address.af_ = AddressFamily::ipv4;
    } else if (bytes.size() == 16) {
      std::memcpy(ip6.data(), bytes.data(), 16);
      address.af_ = AddressFamily::ipv6;
    }
    address.ip6_ = Ip6Addr(ip6);
    return address;
  }

  /// The inverse of `ip6Addr()`: the address of a family that has this IPv6 form, or nothing if none has.
  static std::optional<IpGenAddr> fromIp6Addr(Ip6Addr const& ip6, AddressFamily af);

  /// The address of a family whose bits are all zero; the default for an unknown family.
  static IpGenAddr zero(AddressFamily af);

  /// The family.
  constexpr AddressFamily af() const { return af_; }
  /// Whether the family is IPv4.
  bool isIpv4() const { return af_ == AddressFamily::ipv4; }
  /// Whether the family is IPv6.
  bool isIpv6() const { return af_ == AddressFamily::ipv6; }

  /// True for the default address and for a family's all-zero address.
  bool isZero() const {
    for (U8 const byte : bytes())
      if (byte != 0) return false;
    return true;
  }

  /// The address in IPv6 form.
  Ip6Addr const& ip6Addr() const& { return ip6_; }
  /// The same, of an address that ends at once.
  Ip6Addr ip6Addr() const&& { return ip6_; }

  /// The bytes on the wire: 4, 16 or none. They lie within this object; of a temporary one there are none.
  std::span<U8 const> bytes() const& {
    U8 const* const first = reinterpret_cast<U8 const*>(&ip6_);
    if (isIpv4()) return {first + 12, 4};
    if (isIpv6()) return {first, 16};
    return {};
  }
  std::span<U8 const> bytes() const&& = delete;

  /// An IPv4 address in host order, the inverse of `ipv4(U32)`. Any other family throws Vel::RangeException.
  U32 ipv4() const;

  /// How many bits a prefix of this family can have: 32, 128 or 0.
  U8 width() const { return isIpv4() ? 32 : isIpv6() ? 128 : 0; }

  /// 30 bits, seeded by `Vel::hashSeedIs`.
  U32 hash() const { return ip6_.hash(); }
  /// The same in reverse, which is the order of collections.
  U32 order() const { return ip6_.order(); }

  friend bool operator==(IpGenAddr const& a, IpGenAddr const& b) = default;

  /// By family, then numerically.
  friend bool operator<(IpGenAddr const& a, IpGenAddr const& b) {
    return (a.af_ < b.af_) | ((a.af_ == b.af_) & (a.ip6_ < b.ip6_));
  }

 private:
  friend struct AddressSlot;
  IpGenAddr(Ip6Addr const& ip6, AddressFamily af) : ip6_(ip6), af_(af) {}

  Ip6Addr ip6_;
  AddressFamily af_ = AddressFamily::unknown;
};

/// IPv4 dotted, IPv6 as in RFC 5952, "unknown" for the default address.
VEL_API std::ostream& operator<<(std::ostream& os, IpGenAddr const& address);
/// The same as a string.
VEL_API std::string toText(IpGenAddr const& address);

/// For attributes that are set by name.
VEL_API bool fromText(std::string_view text, IpGenAddr& address);

/// How a set stores an address: the two low bits that a 30-bit hash leaves free hold the family.
struct AddressSlot {
  using Key = IpGenAddr;
  using Stored = Ip6Addr;

  static U32 tag(Key const& key) { return static_cast<U32>(key.af_); }
  static U32 mark(Key const& key) { return key.order() | tag(key); }
  static Stored const& stored(Key const& key) { return key.ip6_; }
  static Key key(U32 mark, Stored const& stored) { return Key(stored, static_cast<AddressFamily>(mark & 3)); }
  static bool holds(Stored const& stored, Key const& key) { return stored == key.ip6_; }
};

}  // namespace Dova

template <>
struct Vel::SlotOf<Dova::IpGenAddr> {
  using Type = Dova::AddressSlot;
};

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Dova::Ip6Addr> {
  std::size_t operator()(Dova::Ip6Addr const& address) const noexcept { return address.hash(); }
};

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Dova::IpGenAddr> {
  std::size_t operator()(Dova::IpGenAddr const& address) const noexcept { return address.hash(); }
};
