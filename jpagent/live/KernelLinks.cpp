// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/KernelLinks.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace Routing::Pim::Jpagent::Live {

namespace {

constexpr std::size_t bufferSize = 64 << 10;  // a dump comes in pieces of at most 32 KiB

[[noreturn]] void fail() { throw std::system_error(errno, std::generic_category(), "netlink"); }

// The attributes of a message by their types; null where there is none.
template <std::size_t most>
std::array<nlattr const*, most + 1> attributes(nlmsghdr const& message, std::size_t offset) {
  std::array<nlattr const*, most + 1> found{};
  mnl_attr_parse(
      &message, static_cast<unsigned>(offset),
      [](nlattr const* attribute, void* to) {
        auto const type = mnl_attr_get_type(attribute);
        if (type <= most) (*static_cast<std::array<nlattr const*, most + 1>*>(to))[type] = attribute;
        return MNL_CB_OK;
      },
      &found);
  return found;
}

bool isUsable(U32 flags) { return (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0; }

}  // namespace

KernelLinks::Socket KernelLinks::openSocket(U32 groups) {
  Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | (groups ? SOCK_NONBLOCK : 0)),
                mnl_socket_close);
  if (!socket || mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) < 0) fail();
  return socket;
}

KernelLinks::KernelLinks() : news_(openSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR)) {
  askForAll();  // only now, so that nothing is missed in between
}

KernelLinks::~KernelLinks() = default;

int KernelLinks::descriptor() const { return mnl_socket_get_fd(news_.get()); }

void KernelLinks::askForAll() {
  constexpr int attempts = 100;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    links_.clear();
    auto const socket = openSocket(0);
    if (dump(socket.get(), 1, AF_UNSPEC, RTM_GETLINK) && dump(socket.get(), 2, AF_INET, RTM_GETADDR) &&
        dump(socket.get(), 3, AF_INET6, RTM_GETADDR))
      break;
  }
  // The kernel gives IPv6 addresses the latest first.
  for (auto& [index, link] : links_) {
    auto const ipv6 = std::find_if(link.addresses.begin(), link.addresses.end(),
                                   [](auto const& each) { return each.prefix.ipGenAddr().isIpv6(); });
    std::reverse(ipv6, link.addresses.end());
  }
}

// False if something changed meanwhile: then the answer may be neither the old nor the new state.
bool KernelLinks::dump(mnl_socket* socket, U32 number, U8 family, int type) {
  std::vector<char> buffer(bufferSize);
  nlmsghdr* const request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = static_cast<U16>(type);
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = number;
  if (type == RTM_GETLINK)
    static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)))->ifi_family = family;
  else
    static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifaddrmsg)))->ifa_family = family;
  if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) fail();
  for (;;) {
    auto const size = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) fail();
    int const result = mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), number,
                                  mnl_socket_get_portid(socket), dispatch, this);
    if (result < 0 && errno == EINTR) return false;  // NLM_F_DUMP_INTR
    if (result < 0) fail();
    if (result == MNL_CB_STOP) return true;
  }
}

void KernelLinks::receive() {
  std::vector<char> buffer(bufferSize);
  bool isIncomplete = false;
  for (;;) {
    auto const size = mnl_socket_recvfrom(news_.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (size < 0 && errno == ENOBUFS)
      isIncomplete = true;
    else if (size < 0)
      fail();
    else
      mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), 0, 0, dispatch, this);
  }
  // Only now: what had still been told is older than what was dropped.
  if (isIncomplete) askForAll();
}

int KernelLinks::dispatch(nlmsghdr const* message, void* self) {
  static_cast<KernelLinks*>(self)->take(*message);
  return MNL_CB_OK;
}

void KernelLinks::take(nlmsghdr const& message) {
  switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return takeLink(message);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return takeAddress(message);
    default:
      return;
  }
}

void KernelLinks::takeLink(nlmsghdr const& message) {
  auto const& info = *static_cast<ifinfomsg const*>(mnl_nlmsg_get_payload(&message));
  // A bridge tells of its ports by messages of its own family, their removal from it included.
  if (info.ifi_family != AF_UNSPEC) return;
  auto const index = static_cast<unsigned>(info.ifi_index);
  if (message.nlmsg_type == RTM_DELLINK) {
    links_.erase(index);
    return;
  }
  auto const found = attributes<IFLA_MTU>(message, sizeof info);
  KernelLink& link = links_[index].link;
  link.index = index;
  if (found[IFLA_IFNAME]) link.name = mnl_attr_get_str(found[IFLA_IFNAME]);
  if (found[IFLA_MTU]) link.mtu = mnl_attr_get_u32(found[IFLA_MTU]);
  link.isRunning = (info.ifi_flags & IFF_UP) != 0 && (info.ifi_flags & IFF_RUNNING) != 0;
  link.pointToPoint = (info.ifi_flags & IFF_POINTOPOINT) != 0;
}

void KernelLinks::takeAddress(nlmsghdr const& message) {
  auto const& info = *static_cast<ifaddrmsg const*>(mnl_nlmsg_get_payload(&message));
  auto const link = links_.find(info.ifa_index);
  if (link == links_.end()) return;
  auto const found = attributes<IFA_FLAGS>(message, sizeof info);
  // Where both are there, IFA_ADDRESS is that of the other end.
  auto const* const own = found[IFA_LOCAL] ? found[IFA_LOCAL] : found[IFA_ADDRESS];
  if (!own) return;
  auto const address = IpGenAddr::fromBytes(
      {static_cast<U8 const*>(mnl_attr_get_payload(own)), mnl_attr_get_payload_len(own)});
  if (info.ifa_prefixlen > address.width()) return;
  Address const told{IpGenPrefix(address, info.ifa_prefixlen),
                     found[IFA_FLAGS] ? mnl_attr_get_u32(found[IFA_FLAGS]) : info.ifa_flags, info.ifa_scope};
  auto& addresses = link->second.addresses;
  auto const known = std::find_if(addresses.begin(), addresses.end(),
                                  [&](Address const& each) { return each.prefix == told.prefix; });
  if (message.nlmsg_type == RTM_DELADDR) {
    if (known != addresses.end()) addresses.erase(known);
  } else if (known != addresses.end()) {
    *known = told;
  } else {
    addresses.push_back(told);
  }
}

std::optional<KernelLink> KernelLinks::find(std::string const& name) const {
  auto const found = std::find_if(links_.begin(), links_.end(),
                                  [&](auto const& link) { return link.second.link.name == name; });
  if (found == links_.end()) return std::nullopt;
  KernelLink result = found->second.link;
  // In the kernel's order: of IPv4 the primary ones first, and of those the farther reaching scopes last.
  auto const isBefore = [](Address const& a, Address const& b) {
    bool const aIsIpv4 = a.prefix.ipGenAddr().isIpv4(), bIsIpv4 = b.prefix.ipGenAddr().isIpv4();
    if (!aIsIpv4 || !bIsIpv4) return aIsIpv4 && !bIsIpv4;
    bool const aIsSecondary = a.flags & IFA_F_SECONDARY, bIsSecondary = b.flags & IFA_F_SECONDARY;
    return aIsSecondary != bIsSecondary ? bIsSecondary : a.scope > b.scope;
  };
  std::vector<Address> sorted;
  for (auto const& address : found->second.addresses) {
    if (isUsable(address.flags))
      sorted.insert(std::upper_bound(sorted.begin(), sorted.end(), address, isBefore), address);
  }
  for (auto const& address : sorted) result.addresses.push_back(address.prefix);
  return result;
}

}  // namespace Routing::Pim::Jpagent::Live
