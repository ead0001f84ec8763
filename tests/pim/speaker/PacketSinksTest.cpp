// SPDX-License-Identifier: Apache-2.0
// Packets that are kept in memory or handed to a function.
#include "pim/speaker/PacketSinks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/pim/speaker/OnePacket.h"

namespace Routing::Pim::Speaker {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

TEST(PacketSinksTest, CapturedPacketsAreKeptInOrderUntilTheyAreTaken) {
  CapturedPackets packets;
  packets.send(packet(true, 1));
  packets.send(packet(false, 2));
  ASSERT_THAT(packets.packets(), SizeIs(2));
  auto const taken = packets.take();
  ASSERT_THAT(taken, SizeIs(2));
  EXPECT_EQ(taken[0].message, packet(true, 1).message);
  EXPECT_EQ(taken[1].bytes, packet(false, 2).bytes);
  EXPECT_THAT(packets.packets(), IsEmpty());
}

TEST(PacketSinksTest, ForwardedPacketsReachTheFunctionAndItsRefusalReachesTheSender) {
  std::vector<U16> seen;
  ForwardedPackets packets([&](OutgoingPacket const& sent) {
    seen.push_back(sent.message.holdTime());
    if (seen.size() == 2) throw std::runtime_error("no buffer space");
  });
  packets.send(packet(true, 1));
  EXPECT_THROW(packets.send(packet(true, 2)), std::runtime_error);
  EXPECT_EQ(seen, (std::vector<U16>{1, 2}));
}

}  // namespace
}  // namespace Routing::Pim::Speaker
