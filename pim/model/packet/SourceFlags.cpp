// SPDX-License-Identifier: Apache-2.0
#include "pim/model/packet/SourceFlags.h"

#include <ostream>

namespace Routing::Pim::Packet {

namespace {

constexpr struct {
  char letter;
  Vel::U8 bit;
} letters[] = {{'S', EntryFlags::sparse}, {'W', EntryFlags::wildcard}, {'R', EntryFlags::rpt}};

}  // namespace

std::ostream& operator<<(std::ostream& os, SourceFlags flags) {
  bool any = false;
  for (auto const& [letter, bit] : letters) {
    if ((flags.value() & bit) == 0) continue;
    os << letter;
    any = true;
  }
  return any ? os : os << "none";
}

bool fromText(std::string_view text, SourceFlags& flags) {
  Vel::U8 value = 0;
  if (text != "none") {
    for (auto const& [letter, bit] : letters)
      if (text.starts_with(letter)) {
        value |= bit;
        text.remove_prefix(1);
      }
    if (!text.empty() || value == 0) return false;
  }
  flags.valueIs(value);
  return true;
}

}  // namespace Routing::Pim::Packet
