#include "runtime/vel/Hash.h"

#include <cstring>

namespace Vel {

namespace Detail {
U64 hashSeed = 0xa0761d6478bd642fULL;
}

void hashSeedIs(U64 seed) {
  // A seed of zero would cancel against an address of zeros.
  Detail::hashSeed = Detail::foldedMultiply(seed ^ 0xa0761d6478bd642fULL, 0xe7037ed1a0b428dbULL) | 1;
}

U64 hashSeed() { return Detail::hashSeed; }

U32 hashText(std::string_view text) {
  U64 state = text.size();
  for (; text.size() > 8; text.remove_prefix(8)) {
    U64 word;
    std::memcpy(&word, text.data(), 8);
    state = Detail::foldedMultiply(state ^ Detail::hashSeed, word ^ 0xe7037ed1a0b428dbULL);
  }
  U64 last = 0;
  if (!text.empty()) std::memcpy(&last, text.data(), text.size());
  return hash128(state, last);
}

}  // namespace Vel
