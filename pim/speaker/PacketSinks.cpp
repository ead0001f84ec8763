// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/PacketSinks.h"

#include <utility>

namespace Routing::Pim::Speaker {

std::vector<OutgoingPacket> CapturedPackets::take() { return std::exchange(packets_, {}); }

}  // namespace Routing::Pim::Speaker
