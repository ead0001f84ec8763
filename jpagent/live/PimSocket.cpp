// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/PimSocket.h"

#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <vector>

#include "jpagent/capture/FrameBuilder.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

constexpr int networkControl = 0xc0;  // the class of routing protocols
constexpr int receiveBuffer = 4 << 20;
constexpr std::size_t packetsAtOnce = 64, packetBytes = 65536;

[[noreturn]] void fail(char const* what) { throw std::system_error(errno, std::generic_category(), what); }

template <class Value>
void set(int descriptor, int level, int option, Value const& value, char const* what) {
  if (setsockopt(descriptor, level, option, &value, sizeof value) != 0) fail(what);
}

// Where packets are received. One for the process: what is received is used up before more is.
struct Batch {
  Batch() : bytes(packetsAtOnce * packetBytes) {
    for (std::size_t i = 0; i < packetsAtOnce; ++i) parts[i] = {bytes.data() + i * packetBytes, packetBytes};
  }

  // Receiving overwrites the sizes.
  void prepare() {
    for (std::size_t i = 0; i < packetsAtOnce; ++i) {
      headers[i] = {};
      headers[i].msg_hdr = {.msg_name = &sources[i],
                            .msg_namelen = sizeof sources[i],
                            .msg_iov = &parts[i],
                            .msg_iovlen = 1,
                            .msg_control = controls[i].data(),
                            .msg_controllen = controls[i].size(),
                            .msg_flags = 0};
    }
  }

  std::vector<U8> bytes;
  std::array<iovec, packetsAtOnce> parts;
  std::array<mmsghdr, packetsAtOnce> headers;
  std::array<sockaddr_in6, packetsAtOnce> sources;  // the larger kind
  alignas(cmsghdr) std::array<std::array<U8, 128>, packetsAtOnce> controls;
};

Batch& batch() {
  static Batch the;
  return the;
}

IpGenAddr addressOf(in6_addr const& address) { return IpGenAddr::fromBytes({address.s6_addr, 16}); }

// The ancillary data of a kind, or nothing.
template <class Value>
std::optional<Value> ancillary(msghdr& header, int level, int type) {
  for (cmsghdr* item = CMSG_FIRSTHDR(&header); item; item = CMSG_NXTHDR(&header, item)) {
    if (item->cmsg_level != level || item->cmsg_type != type) continue;
    Value value;
    std::memcpy(&value, CMSG_DATA(item), sizeof value);
    return value;
  }
  return std::nullopt;
}

// A packet of an IPv4 raw socket begins with its header, which the kernel has checked and put together from
// fragments. Until the socket was bound, it has received the packets of all interfaces. So each packet says
// where it came in; those that say nothing are older than the option that has them say it.
void takeIpv4(std::string_view intf, unsigned index, std::span<U8 const> packet, msghdr& header,
              PimSocket::Receiver const& receiver) {
  auto const arrival = ancillary<in_pktinfo>(header, IPPROTO_IP, IP_PKTINFO);
  if (!arrival || static_cast<unsigned>(arrival->ipi_ifindex) != index) return;
  if (packet.size() < sizeof(iphdr)) return;
  std::size_t const size = (packet[0] & 15u) * 4;
  if (packet.size() < size) return;
  receiver({.intf = intf,
            .source = IpGenAddr::fromBytes(packet.subspan(12, 4)),
            .destination = IpGenAddr::fromBytes(packet.subspan(16, 4)),
            .ttl = packet[8]},
           packet.subspan(size));
}

void takeIpv6(std::string_view intf, unsigned index, std::span<U8 const> message, msghdr& header,
              sockaddr_in6 const& source, PimSocket::Receiver const& receiver) {
  auto const arrival = ancillary<in6_pktinfo>(header, IPPROTO_IPV6, IPV6_PKTINFO);
  if (!arrival || arrival->ipi6_ifindex != index) return;
  int const limit = ancillary<int>(header, IPPROTO_IPV6, IPV6_HOPLIMIT).value_or(0);
  receiver({.intf = intf,
            .source = addressOf(source.sin6_addr),
            .destination = addressOf(arrival->ipi6_addr),
            .ttl = static_cast<unsigned>(limit)},
           message);
}

}  // namespace

void requireRawSockets() {
  int const descriptor = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, Wire::pimProtocol);
  if (descriptor < 0) fail("no raw sockets (CAP_NET_RAW is needed)");
  close(descriptor);
}

PimSocket::PimSocket(std::string const& intf, unsigned index, AddressFamily family)
    : index_(index), family_(family) {
  int const domain = family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  descriptor_ = socket(domain, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, Wire::pimProtocol);
  if (descriptor_ < 0) fail("socket");
  try {
    open(intf);
  } catch (...) {
    close(descriptor_);
    throw;
  }
}

PimSocket::~PimSocket() { close(descriptor_); }

void PimSocket::open(std::string const& intf) {
  if (setsockopt(descriptor_, SOL_SOCKET, SO_BINDTODEVICE, intf.data(),
                 static_cast<socklen_t>(intf.size())) != 0)
    fail("SO_BINDTODEVICE");
  // Many neighbors may answer one Hello at once. Only an administrator may exceed the system's limit.
  if (setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0)
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  if (family_ == AddressFamily::ipv4)
    openIpv4();
  else
    openIpv6();
}

void PimSocket::openIpv4() {
  auto const option = [this](int name, auto const& value, char const* what) {
    set(descriptor_, IPPROTO_IP, name, value, what);
  };
  ip_mreqn routers{};
  routers.imr_multiaddr.s_addr = htonl(Wire::allPimRouters(family_).ipv4());
  routers.imr_ifindex = static_cast<int>(index_);
  option(IP_MULTICAST_IF, routers, "IP_MULTICAST_IF");
  option(IP_MULTICAST_LOOP, 0, "IP_MULTICAST_LOOP");
  option(IP_MULTICAST_TTL, 1, "IP_MULTICAST_TTL");
  option(IP_MULTICAST_ALL, 0, "IP_MULTICAST_ALL");
  option(IP_TOS, networkControl, "IP_TOS");
  option(IP_PKTINFO, 1, "IP_PKTINFO");
  option(IP_ADD_MEMBERSHIP, routers, "IP_ADD_MEMBERSHIP");
}

void PimSocket::openIpv6() {
  auto const option = [this](int name, auto const& value, char const* what) {
    set(descriptor_, IPPROTO_IPV6, name, value, what);
  };
  ipv6_mreq routers{};
  auto const group = Wire::allPimRouters(family_);
  std::memcpy(&routers.ipv6mr_multiaddr, group.bytes().data(), 16);
  routers.ipv6mr_interface = index_;
  option(IPV6_MULTICAST_IF, static_cast<int>(index_), "IPV6_MULTICAST_IF");
  option(IPV6_MULTICAST_LOOP, 0, "IPV6_MULTICAST_LOOP");
  option(IPV6_MULTICAST_HOPS, 1, "IPV6_MULTICAST_HOPS");
  option(IPV6_MULTICAST_ALL, 0, "IPV6_MULTICAST_ALL");
  option(IPV6_TCLASS, networkControl, "IPV6_TCLASS");
  option(IPV6_RECVPKTINFO, 1, "IPV6_RECVPKTINFO");
  option(IPV6_RECVHOPLIMIT, 1, "IPV6_RECVHOPLIMIT");
  // A goodbye may come from an address that the interface has lost.
  option(IPV6_FREEBIND, 1, "IPV6_FREEBIND");
  option(IPV6_ADD_MEMBERSHIP, routers, "IPV6_ADD_MEMBERSHIP");
}

namespace {

// Sends with a source that the kernel takes from ancillary data.
template <class Address, class Info>
int sendFrom(int descriptor, Address& to, int level, int type, Info const& info,
             std::span<U8 const> message) {
  alignas(cmsghdr) U8 control[CMSG_SPACE(sizeof info)] = {};
  iovec part{const_cast<U8*>(message.data()), message.size()};
  msghdr header{.msg_name = &to,
                .msg_namelen = sizeof to,
                .msg_iov = &part,
                .msg_iovlen = 1,
                .msg_control = control,
                .msg_controllen = sizeof control,
                .msg_flags = 0};
  cmsghdr& item = *CMSG_FIRSTHDR(&header);
  item.cmsg_level = level;
  item.cmsg_type = type;
  item.cmsg_len = CMSG_LEN(sizeof info);
  std::memcpy(CMSG_DATA(&item), &info, sizeof info);
  return sendmsg(descriptor, &header, MSG_NOSIGNAL) < 0 ? errno : 0;
}

// With an IP header of its own making, which the kernel lets have any source.
int sendWithHeader(int descriptor, sockaddr_in const& to, IpGenAddr const& source,
                   IpGenAddr const& destination, std::span<U8 const> message) {
  auto const packet = ipDatagram(source, destination, Wire::pimProtocol, message);
  int const on = 1, off = 0;
  if (setsockopt(descriptor, IPPROTO_IP, IP_HDRINCL, &on, sizeof on) != 0) return errno;
  auto const sent = sendto(descriptor, packet.data(), packet.size(), MSG_NOSIGNAL,
                           reinterpret_cast<sockaddr const*>(&to), sizeof to);
  int const error = sent < 0 ? errno : 0;
  setsockopt(descriptor, IPPROTO_IP, IP_HDRINCL, &off, sizeof off);
  return error;
}

}  // namespace

int PimSocket::send(IpGenAddr const& source, IpGenAddr const& destination, std::span<U8 const> message) {
  if (family_ == AddressFamily::ipv4) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(destination.ipv4());
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(index_);
    info.ipi_spec_dst.s_addr = htonl(source.ipv4());
    int const error = sendFrom(descriptor_, to, IPPROTO_IP, IP_PKTINFO, info, message);
    // Without this address on the interface, there is no route from it.
    if (error != EINVAL && error != ENETUNREACH && error != EADDRNOTAVAIL) return error;
    return sendWithHeader(descriptor_, to, source, destination, message) == 0 ? 0 : error;
  }
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  std::memcpy(&to.sin6_addr, destination.bytes().data(), 16);
  to.sin6_scope_id = index_;
  in6_pktinfo info{};
  std::memcpy(&info.ipi6_addr, source.bytes().data(), 16);
  info.ipi6_ifindex = index_;
  return sendFrom(descriptor_, to, IPPROTO_IPV6, IPV6_PKTINFO, info, message);
}

int PimSocket::receive(std::string_view intf, Receiver const& receiver) {
  Batch& in = batch();
  in.prepare();
  int const count = recvmmsg(descriptor_, in.headers.data(), packetsAtOnce, MSG_DONTWAIT, nullptr);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? 0 : errno;
  bool const isIpv4 = family_ == AddressFamily::ipv4;  // the receiver may destroy this
  unsigned const index = index_;
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    auto const packet = std::span<U8 const>(in.bytes).subspan(i * packetBytes, in.headers[i].msg_len);
    msghdr& header = in.headers[i].msg_hdr;
    if (isIpv4)
      takeIpv4(intf, index, packet, header, receiver);
    else
      takeIpv6(intf, index, packet, header, in.sources[i], receiver);
  }
  return 0;
}

U32 PimSocket::dropped() const {
  U32 values[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof values;
  return getsockopt(descriptor_, SOL_SOCKET, SO_MEMINFO, values, &size) == 0 ? values[SK_MEMINFO_DROPS] : 0;
}

}  // namespace Routing::Pim::Jpagent::Live
