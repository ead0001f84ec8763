// SPDX-License-Identifier: Apache-2.0
#include "pim/wire/Refusal.h"

#include <ostream>

#include "pim/wire/private/Text.h"

namespace Routing::Pim::Wire {

std::ostream& operator<<(std::ostream& os, Reason reason) { return os << text(reason); }

std::string toText(Refusal const& refusal) {
  if (refusal.detail.empty()) return std::string(text(refusal.reason));
  return concatenated(text(refusal.reason), " (", refusal.detail, ")");
}

}  // namespace Routing::Pim::Wire
