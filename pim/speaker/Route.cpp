// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/Route.h"

namespace Routing::Pim::Speaker {

std::string toText(Route const& route) {
  bool const isWildcard = route.kind == RouteKind::wildcard;
  return "(" + (isWildcard ? "*" : toText(route.source)) + "," + toText(route.group) +
         (route.kind == RouteKind::sourceRpt ? ",rpt)" : ")");
}

}  // namespace Routing::Pim::Speaker
