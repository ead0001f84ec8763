// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Hash.h"

#include <cstring>

namespace Vel {

namespace Detail {
U64 hashSeed = 0xa0761d6478bd642fULL;
U64 hashSecondSeed = 0xe7037ed1a0b428dbULL;
}  // namespace Detail

namespace {

// One to one, so that no seed is weaker than another (the finalizer of splitmix64).
U64 scrambled(U64 v) {
  v = (v ^ (v >> 30)) * 0xbf58476d1ce4e5b9ULL;
  v = (v ^ (v >> 27)) * 0x94d049bb133111ebULL;
  return v ^ (v >> 31);
}

}  // namespace

void hashSeedIs(U64 seed) {
  constexpr U64 step = 0x9e3779b97f4a7c15ULL;
  // Zero would cancel against an address of zeros.
  Detail::hashSeed = scrambled(seed + step) | 1;
  Detail::hashSecondSeed = scrambled(seed + 2 * step) | 1;
}

U64 hashSeed() { return Detail::hashSeed; }

U32 hashText(std::string_view text) {
  U64 state = text.size();
  for (; text.size() > 8; text.remove_prefix(8)) {
    U64 word;
    std::memcpy(&word, text.data(), 8);
    state = Detail::foldedMultiply(state ^ Detail::hashSeed, word ^ Detail::hashSecondSeed);
  }
  U64 last = 0;
  if (!text.empty()) std::memcpy(&last, text.data(), text.size());
  return hash128(state, last);
}

}  // namespace Vel
