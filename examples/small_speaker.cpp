// SPDX-License-Identifier: Apache-2.0
// A PIM speaker on one interface: prints its neighbors and what they ask for, and joins a source from one.
//
//     small_speaker eth0 10.0.0.1/24                                the interface and its address
//     small_speaker eth0 10.0.0.2/24 10.9.0.1 239.1.1.1 10.0.0.1    joins (10.9.0.1,239.1.1.1) from 10.0.0.1
//
// It needs CAP_NET_RAW. A line on standard input, or its end, ends the program, with a Hello that says so.
// Marks like `// [socket]` are where docs/guide.md takes its pieces from.
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>

#include <iostream>
#include <system_error>

#include "pim/speaker/Speaker.h"

using namespace Routing::Pim::Speaker;

// [socket]
int openSocket(std::string const& intf, IpGenAddr const& own) {
  int const socket = ::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK, IPPROTO_PIM), off = 0;
  // 224.0.0.13; the interface's address is also the source of what is sent. Linux sends multicast with TTL 1.
  ip_mreqn const routers{{htonl(0xe000000d)}, {htonl(own.ipv4())}, int(if_nametoindex(intf.c_str()))};
  auto const set = [&](int level, int option, void const* value, std::size_t size) {
    return setsockopt(socket, level, option, value, static_cast<socklen_t>(size)) == 0;
  };
  if (socket < 0 || !set(SOL_SOCKET, SO_BINDTODEVICE, intf.data(), intf.size()) ||
      !set(IPPROTO_IP, IP_ADD_MEMBERSHIP, &routers, sizeof routers) ||
      !set(IPPROTO_IP, IP_MULTICAST_IF, &routers, sizeof routers) ||
      !set(IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off))
    throw std::system_error(errno, std::generic_category(), "PIM socket on " + intf);
  return socket;
}
// [socket]

// [agent]
struct Agent final : Sink, SpeakerObserver {
  Sent send(Outgoing const& packet) override {
    sockaddr_in const to{AF_INET, 0, {htonl(packet.destination.ipv4())}, {}};
    auto const [data, size] = std::pair(packet.bytes.data(), packet.bytes.size());
    auto const sent = sendto(socket, data, size, 0, reinterpret_cast<sockaddr const*>(&to), sizeof to);
    return sent >= 0 ? Sent::done : errno == EAGAIN || errno == ENOBUFS ? Sent::later : Sent::failed;
  }
  void neighborChanged(NeighborEvent const& event) override {
    std::cout << "neighbor " << event.neighbor << ' ' << text(event.kind) << std::endl;
  }
  void downstreamChanged(DownstreamEvent const& event) override {
    std::cout << toText(event.route) << ' ' << text(event.change) << " by " << event.sender << std::endl;
  }
  int socket = -1;
};
// [agent]

int main(int argc, char** argv) try {
  if (argc != 3 && argc != 6) throw std::runtime_error("INTERFACE ADDRESS/LENGTH [SOURCE GROUP NEIGHBOR]");
  std::string const intf = argv[1], address = argv[2];
  // [speaker]
  // Other hosts choose addresses, and must not be able to choose ones whose hashes collide.
  U64 seed;
  if (getrandom(&seed, sizeof seed, 0) < 0) throw std::system_error(errno, std::generic_category());
  Vel::hashSeedIs(seed);
  srand48(static_cast<long>(seed));  // of the engine's override delay

  Agent agent;
  agent.socket = openSocket(intf, IpGenAddr(address.substr(0, address.find('/'))));
  Speaker speaker(Vel::create<Zanth::TimerWheel>(), agent, {.seed = seed, .observer = &agent});
  speaker.interfaceIs(intf, {address}, {.hello = {.triggeredDelay = 1}});
  if (argc == 6)
    speaker.upstream().joinIs({IpGenAddr(argv[3]), IpGenAddr(argv[4])}, {intf, IpGenAddr(argv[5])});
  // [speaker]
  // [loop]
  pollfd fds[] = {{agent.socket, POLLIN, 0}, {fileno(stdin), POLLIN, 0}};
  for (U8 packet[65535]; fds[1].revents == 0; speaker.expire()) {
    poll(fds, std::size(fds), speaker.pollTimeout());
    if (auto const size = recv(agent.socket, packet, sizeof packet, 0); size > 0)
      speaker.receiveIpv4(intf, std::span(packet).first(static_cast<std::size_t>(size)));
  }
  speaker.shutDown();
  // [loop]
} catch (std::exception const& error) {
  std::cerr << "small_speaker: " << error.what() << std::endl;
  return 1;
}
