// SPDX-License-Identifier: Apache-2.0
// A program outside the tree that uses the second library: it writes a Join/Prune message, reads it back, and
// hands it to the model.
#include <iostream>
#include <variant>

#include "pim/speaker/Conversion.h"
#include "pim/wire/PimMessage.h"

namespace Wire = Routing::Pim::Wire;
using Dova::IpGenAddr;

int main() {
  IpGenAddr const source("10.0.0.1"), upstream("10.0.0.2");
  Wire::JoinPrune message(upstream, 210);
  message.groupAdd(IpGenAddr("239.1.1.1"));
  message.entryAdd(Routing::Pim::EntryKind::sourceJoin, IpGenAddr("10.9.0.1"));
  auto const bytes = Wire::encodeJoinPrune(message, source, Wire::allPimRouters(source.af()));
  auto const decoded = Wire::decodeJoinPrune(bytes, source, Wire::allPimRouters(source.af()));
  auto const* const again = std::get_if<Wire::JoinPrune>(&decoded);
  if (!again || *again != message) return 1;
  auto const messages = Routing::Pim::Speaker::modelMessages(*again);
  std::cout << bytes.size() << " bytes, " << messages.size() << " message for "
            << messages[0]->joinPruneData()->upstreamNeighbor() << '\n';
}
