// SPDX-License-Identifier: Apache-2.0
// The raw socket of an interface and family.
#include "jpagent/live/PimSocket.h"

#include "tests/jpagent/live/Cable.h"
#include "tests/jpagent/live/Worker.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

// How many packets the socket of an interface takes out of one that comes in on "lo" while it is bound to no
// interface, as none is until it was bound; -1 if it has not even received it.
int takenOnLo(std::string const& intf, AddressFamily family) {
  PimSocket socket(intf, if_nametoindex(intf.c_str()), family);
  PimSocket sender("lo", if_nametoindex("lo"), family);
  for (auto const* const each : {&socket, &sender})
    if (setsockopt(each->descriptor(), SOL_SOCKET, SO_BINDTODEVICE, "", 0) != 0) return -1;
  IpGenAddr const self(family == AddressFamily::ipv4 ? "127.0.0.1" : "::1");
  Bytes const message = {0x20, 0, 0, 0};
  pollfd ready{socket.descriptor(), POLLIN, 0};
  if (sender.send(self, self, message) != 0 || poll(&ready, 1, 5000) != 1) return -1;
  int taken = 0;
  socket.receive(intf, [&taken](Speaker::Incoming const&, std::span<U8 const>) { ++taken; });
  return taken;
}

TEST(PimSocketTest, APacketThatCameInOnAnotherInterfaceBeforeTheSocketWasBoundIsNotTaken) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  for (auto const family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    auto const taken = [&](std::string const& intf) {
      return Worker(lab, "one", [&] { _exit(10 + takenOnLo(intf, family)); }).wait() - 10;
    };
    EXPECT_EQ(taken("lo"), 1);  // its own
    EXPECT_EQ(taken("va"), 0);
  }
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
