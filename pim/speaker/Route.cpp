#include "pim/speaker/Route.h"

namespace Routing::Pim::Speaker {

std::string toText(Route const& route) {
  bool const isWildcard = route.kind == SourceKind::wildcard;
  return "(" + (isWildcard ? "*" : toText(route.source)) + "," + toText(route.group) +
         (route.kind == SourceKind::sourceRpt ? ",rpt)" : ")");
}

}  // namespace Routing::Pim::Speaker
