// SPDX-License-Identifier: Apache-2.0
// `jpagent run` follows what the kernel says of interfaces.
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstring>
#include <fstream>

#include "jpagent/capture/FrameBuilder.h"
#include "tests/jpagent/live/Cable.h"
#include "tests/jpagent/live/Messages.h"
#include "tests/jpagent/live/Worker.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

using Dova::IpGenAddr;
using Test::helloOf;
using Test::joinPruneOf;

TEST(LiveLinksTest, AddressesMtuAndLinkAreFollowed) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va"), two(lab, "two", "vb");
  two.await(neighborUp("10.0.0.1"));
  one.await(neighborUp("10.0.0.2"));
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));

  // The kernel has removed the old address, and its goodbye is sent all the same.
  auto begin = two.eventCount(), beginOfOne = one.eventCount();
  lab.in("one", "ip address del 10.0.0.1/24 dev va; ip address add 10.0.0.9/24 dev va");
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.1"}}, begin);
  two.await(neighborUp("10.0.0.9"), begin);
  one.await(downstream("expired", "(10.9.0.1,239.1.1.1)"), beginOfOne);
  EXPECT_EQ(one.await(interfaceIs("down", "10.0.0.1/24"), beginOfOne)["goodbye"], true);
  one.await(interfaceIs("up", "10.0.0.9/24"), beginOfOne);

  // The link at the other end: no carrier here either.
  begin = one.eventCount();
  auto const beginOfTwo = two.eventCount();
  lab.in("two", "ip link set vb down");
  one.await(interfaceIs("down", "10.0.0.9/24"), begin);
  lab.in("two", "ip link set vb up");
  one.await(interfaceIs("up", "10.0.0.9/24"), begin);
  one.await(neighborUp("10.0.0.2"), begin);
  two.await(interfaceIs("up", "10.0.0.2/24"), beginOfTwo);
  two.await(neighborUp("10.0.0.9"), beginOfTwo);

  lab.in("one", "ip link set va mtu 1400");
  for (int i = 0; i < 100 && one.ask("show interfaces")["result"][0]["mtu"] != 1400; ++i) pause(0.05);
  EXPECT_EQ(one.ask("show interfaces")["result"][0]["mtu"], 1400);

  // No address at all is no end of it.
  begin = two.eventCount();
  lab.in("one", "ip address flush dev va");
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.9"}}, begin);
  lab.in("one", "ip address add 10.0.0.1/24 dev va");
  two.await(neighborUp("10.0.0.1"), begin);
  EXPECT_EQ(one.end(), 0);
  EXPECT_EQ(two.end(), 0);
}

TEST(LiveLinksTest, AnInterfaceMayAppearLaterDisappearComeAgainAndBeRenamed) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "late"), two(lab, "two", "vb");
  EXPECT_TRUE(one.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.2%late")["ok"]);  // waits
  EXPECT_EQ(one.count({{"event", "interface"}}), 0);
  lab.in("one", "ip link set va down; ip link set va name late; ip link set late up");
  one.await(interfaceIs("up", "10.0.0.1/24"));
  auto const generation = two.await(neighborUp("10.0.0.1"))["generation"];
  two.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));

  auto begin = one.eventCount(), beginOfTwo = two.eventCount();
  lab.in("one", "ip link set late down; ip link set late name other");
  one.await(interfaceIs("down", "10.0.0.1/24"), begin);
  lab.in("one", "ip link set other up");
  lab.in("one", "ip link set other down; ip link set other name late; ip link set late up");
  one.await(interfaceIs("up", "10.0.0.1/24"), begin);
  two.await({{"event", "received"}, {"source", "10.0.0.1"}}, beginOfTwo);
  EXPECT_NE(two.ask("show neighbors")["result"][0]["generation"], generation);

  // Another interface of that name has another index, also if both are told at once.
  begin = one.eventCount();
  one.process().signal(SIGSTOP);
  lab.in("one", "ip link del late");
  lab.cable("one", "late", "two", "vb", "10.0.0.1/24", "10.0.0.2/24");
  one.process().signal(SIGCONT);
  one.await(interfaceIs("down", "10.0.0.1/24"), begin);
  one.await(interfaceIs("up", "10.0.0.1/24"), begin);
  one.await({{"event", "sent"}, {"upstream", "10.0.0.2"}}, begin);
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveLinksTest, TwentyFiveInterfacesHaveTheirNeighbors) {
  REQUIRE_NAMESPACES();
  Lab const lab({"one", "two"});
  constexpr int count = 25;  // more than one socket may have memberships
  std::string ofOne, ofTwo;
  std::vector<std::string> names;
  auto const number = [](int i) { return std::to_string(i); };
  for (int i = 0; i < count; ++i) {
    auto const& name = names.emplace_back("e" + number(i));
    auto const up = [&](int host) {
      return "address add 10.0." + number(i) + "." + number(host) + "/24 dev " + name + "\nlink set " + name +
             " up\n";
    };
    ofOne += lab.newCable(name, "two", name) + "\n" + up(1);
    ofTwo += up(2);
  }
  lab.in("one", "ip -batch - <<'BATCH'\n" + ofOne + "BATCH");
  lab.in("two", "ip -batch - <<'BATCH'\n" + ofTwo + "BATCH");
  Agent one(lab, "one", names), two(lab, "two", names);
  for (auto const& name : names) {
    one.say("interface " + name + quick);
    two.say("interface " + name + quick);
  }
  for (int i = 0; i < count; ++i) one.await(neighborUp("10.0." + number(i) + ".2"));
  EXPECT_EQ(one.count({{"event", "error"}}), 0) << one.allText();
  EXPECT_EQ(one.end(), 0);
  EXPECT_EQ(two.end(), 0);
}

TEST(LiveLinksTest, WhatTheKernelCouldNotTellIsAskedForAgain) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va");
  one.await(interfaceIs("up", "10.0.0.1/24"));
  // More news than the socket holds while it does not read, and then some that it must not miss.
  one.process().signal(SIGSTOP);
  std::string batch = "link set va mtu 1450\n";
  for (int i = 0; i < 2000; ++i) {
    auto const address =
        "10.1." + std::to_string(i / 250) + "." + std::to_string(1 + i % 250) + "/32 dev lo\n";
    batch.append("address add ").append(address).append("address del ").append(address);
  }
  batch += "address del 10.0.0.1/24 dev va\naddress add 10.0.0.9/24 dev va\nlink set va mtu 1400\n";
  std::ofstream(lab.path("batch")) << batch;
  lab.in("one", "ip -batch " + lab.path("batch"));
  one.process().signal(SIGCONT);
  EXPECT_EQ(one.await(interfaceIs("up", "10.0.0.9/24"))["mtu"], 1400);
  EXPECT_EQ(one.count({{"event", "error"}}), 0);
  lab.in("one", "ip link set va mtu 1300");  // and is followed again
  for (int i = 0; i < 100 && one.ask("show interfaces")["result"][0]["mtu"] != 1300; ++i) pause(0.05);
  EXPECT_EQ(one.ask("show interfaces")["result"][0]["mtu"], 1300);
  EXPECT_EQ(one.end(), 0);
}

// A tunnel whose other end is a descriptor.
int tunnel() {
  int const descriptor = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  ifreq request{};
  std::strcpy(request.ifr_name, "tunnel");
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  return descriptor >= 0 && ioctl(descriptor, TUNSETIFF, &request) == 0 ? descriptor : -1;
}

TEST(LiveLinksTest, OnAPointToPointLinkAMessageToTheUnspecifiedAddressIsForThisRouter) {
  REQUIRE_NAMESPACES();
  if (access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no tunnels here";
  Lab lab({"one"});
  lab.agentsAre("10\\.0\\.0\\.1");
  int const other = descriptorsOf(lab, "one", 1, [](std::size_t) { return tunnel(); })[0];
  lab.in("one", "ip address add 10.0.0.1 peer 10.0.0.2 dev tunnel; ip link set tunnel up");
  QuickAgent one(lab, "one", "tunnel");
  one.await(interfaceIs("up", "10.0.0.1/32"));
  IpGenAddr const from("10.0.0.2"), routers = Wire::allPimRouters(Dova::AddressFamily::ipv4);
  auto const send = [&](std::vector<Vel::U8> const& message) {
    auto const packet = ipDatagram(from, routers, Wire::pimProtocol, message);
    EXPECT_EQ(write(other, packet.data(), packet.size()), static_cast<ssize_t>(packet.size()));
  };
  send(helloOf(from, {.hold = 105}));
  one.await(neighborUp("10.0.0.2"));
  send(joinPruneOf(from, IpGenAddr("0.0.0.0"), {{EntryKind::sourceJoin, "10.9.0.1", "239.1.1.1"}}, 210));
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  send(joinPruneOf(from, IpGenAddr("10.0.0.1"), {{EntryKind::sourceJoin, "10.9.0.1", "239.1.1.2"}}, 210));
  one.await(downstream("joined", "(10.9.0.1,239.1.1.2)"));
  EXPECT_TRUE(one.ask("join (10.9.0.1,239.2.0.1) via 10.0.0.2")["ok"]);
  one.await({{"event", "sent"}, {"upstream", "10.0.0.2"}});
  EXPECT_EQ(one.end(), 0);
  close(other);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
