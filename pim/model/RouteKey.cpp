// SPDX-License-Identifier: Apache-2.0
#include "pim/model/RouteKey.h"

#include <ostream>

namespace Routing::Pim {

std::ostream& operator<<(std::ostream& os, RouteKey const& key) {
  os << '(';
  if (key.source().af() != Dova::ipunknown() && key.source().isZero())
    os << '*';
  else
    os << key.source();
  return os << ',' << key.group() << ')';
}

std::ostream& operator<<(std::ostream& os, RouteIntfKey const& key) {
  os << key.routeKey();
  if (!key.intfId().name().empty()) os << '@' << key.intfId();
  return os;
}

}  // namespace Routing::Pim
