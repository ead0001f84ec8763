// SPDX-License-Identifier: Apache-2.0
#include "runtime/dova/IntfId.h"

#include <ostream>

namespace Dova {

std::ostream& operator<<(std::ostream& os, IntfId const& id) { return os << id.name(); }

bool fromText(std::string_view text, IntfId& id) {
  id = IntfId(text);
  return true;
}

}  // namespace Dova
