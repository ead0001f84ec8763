// SPDX-License-Identifier: Apache-2.0
// Hashing of collection keys. Keys come from the network, so the hash is seeded: who cannot guess the seed
// cannot choose addresses that collide.
#pragma once

#include <cstddef>
#include <string_view>

#include "runtime/vel/Export.h"
#include "runtime/vel/Types.h"

namespace Vel {

/// Sets the seed of every hash in the process. REQUIRES: no collection holds anything yet. The default is
/// fixed, so that walks repeat from run to run; an agent that faces strangers seeds from `getrandom(2)`.
VEL_API void hashSeedIs(U64 seed);

/// What tells one seed from another, for a log; it is not the number that was given to `hashSeedIs`.
VEL_API U64 hashSeed();

namespace Detail {
// Both secret: somebody who knew one factor of a product could choose a key that makes it 0, or 1, and the
// other factor would have no say, whatever the seed.
VEL_API extern U64 hashSeed;
VEL_API extern U64 hashSecondSeed;

inline U64 foldedMultiply(U64 a, U64 b) {
  __extension__ using U128 = unsigned __int128;
  U128 const product = static_cast<U128>(a) * b;
  return static_cast<U64>(product) ^ static_cast<U64>(product >> 64);
}
}  // namespace Detail

/// Collections keep 30 bits of a hash, so that a slot has room for two bits of its own.
inline constexpr U32 hashMask = 0x3fffffff;

/// The bits of a hash in reverse: hashed collections are walked in ascending order of this. A hash of 30 bits
/// leaves the two lowest bits of the result zero.
constexpr U32 bitReverse(U32 v) {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0f0f0f0fu) | ((v & 0x0f0f0f0fu) << 4);
  return __builtin_bswap32(v);
}

/// Mixes 16 bytes into the reverse of a 30-bit hash. Collections ask for nothing else, so this is what is
/// made first.
inline U32 order128(U64 high, U64 low) {
  U64 const mixed = Detail::foldedMultiply(high ^ Detail::hashSeed, low ^ Detail::hashSecondSeed);
  U64 const done = Detail::foldedMultiply(mixed ^ Detail::hashSeed, 0x8ebc6af09c88c6e3ULL);
  return static_cast<U32>(done ^ (done >> 32)) << 2;
}

/// Mixes 16 bytes into a 30-bit hash.
inline U32 hash128(U64 high, U64 low) { return bitReverse(order128(high, low)); }

/// The reversed hash of a key: its own `order()` if it has one, whose two low bits must be zero.
template <class Key>
U32 orderOf(Key const& key) {
  if constexpr (requires { key.order(); })
    return key.order();
  else
    return bitReverse(key.hash() & hashMask);
}

/// Mixes a text into a 30-bit hash.
VEL_API U32 hashText(std::string_view text);

/// Combines two 30-bit hashes; the order matters.
inline U32 hashCombine(U32 a, U32 b) { return hash128(a, b); }

}  // namespace Vel
