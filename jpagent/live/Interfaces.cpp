// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Interfaces.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace Routing::Pim::Jpagent::Live {

namespace {

bool hasFamily(KernelLink const& link, AddressFamily family) {
  return std::any_of(link.addresses.begin(), link.addresses.end(),
                     [family](auto const& each) { return each.ipGenAddr().af() == family; });
}

}  // namespace

Interfaces::Socket::Socket(Loop& loop, KernelLink const& link, AddressFamily family,
                           std::function<void()> readable)
    : socket(link.name, link.index, family), watch(loop.uv(), socket.descriptor(), std::move(readable)) {
  watch.eventsAre(UV_READABLE);
}

Interfaces::Interfaces(Loop& loop, InterfacesOwner& owner)
    : loop_(loop), owner_(owner), watch_(loop.uv(), kernel_.descriptor(), [this] {
        try {
          kernel_.receive();
        } catch (std::system_error const& e) {
          owner_.onSocketFailed("netlink", e.what());  // what is known stays
        }
        compareAll();
      }) {}

void Interfaces::add(std::string const& name) { interfaces_.try_emplace(name); }

void Interfaces::remove(std::string const& name) {
  auto const found = interfaces_.find(name);
  if (found == interfaces_.end()) return;
  end(name, found->second);
  interfaces_.erase(found);
}

void Interfaces::start() {
  watch_.eventsAre(UV_READABLE);
  compareAll();
}

void Interfaces::compareAll() {
  for (auto& [name, interface] : interfaces_) compare(name, interface);
  bool const failed = std::any_of(interfaces_.begin(), interfaces_.end(),
                                  [](auto const& each) { return !each.second.failure.empty(); });
  if (!failed)
    retry_.reset();
  else if (!retry_)
    retry_.emplace(loop_.uv(), 1.0, [this] { compareAll(); });
}

void Interfaces::compare(std::string const& name, Interface& interface) {
  auto const now = kernel_.find(name);
  if (now == interface.kernel && interface.failure.empty()) return;
  if (interface.kernel && (!now || now->index != interface.kernel->index)) end(name, interface);
  interface.kernel = now;
  if (!now) return;
  KernelLink usable = *now;
  std::string const failure = std::exchange(interface.failure, {});
  for (auto const family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    if (!hasFamily(usable, family) || open(name, interface, family)) continue;
    std::erase_if(usable.addresses, [family](auto const& each) { return each.ipGenAddr().af() == family; });
  }
  if (!interface.failure.empty() && interface.failure != failure)
    owner_.onSocketFailed(name, interface.failure);
  if (usable == interface.told) return;
  interface.told = usable;
  owner_.onInterface(usable);
}

void Interfaces::end(std::string const& name, Interface& interface) {
  if (interface.told) owner_.onInterfaceRemoved(name);
  interface.kernel.reset();
  interface.told.reset();
  interface.ipv4.reset();
  interface.ipv6.reset();
  interface.failure.clear();
}

bool Interfaces::open(std::string const& name, Interface& interface, AddressFamily family) {
  auto& socket = interface.socket(family);
  if (socket) return true;
  try {
    socket.emplace(loop_, *interface.kernel, family, [this, name, family] { receive(name, family); });
  } catch (std::system_error const& e) {
    interface.failure = e.what();
  }
  return socket.has_value();
}

void Interfaces::receive(std::string const& name, AddressFamily family) {
  auto const found = interfaces_.find(name);
  if (found == interfaces_.end() || !found->second.socket(family)) return;
  // An error is that of an earlier packet, and the next one may be sent: an interface that went down.
  found->second.socket(family)->socket.receive(
      name, [this](auto const& packet, auto message) { owner_.onPacket(packet, message); });
}

int Interfaces::send(Speaker::Outgoing const& packet) {
  auto const found = interfaces_.find(packet.intf.name());
  if (found == interfaces_.end()) return ENODEV;
  auto& socket = found->second.socket(packet.source.af());
  return socket ? socket->socket.send(packet.source, packet.destination, packet.bytes) : ENODEV;
}

Vel::U64 Interfaces::dropped() const {
  Vel::U64 sum = 0;
  for (auto const& [name, interface] : interfaces_) {
    for (auto const* const socket : {&interface.ipv4, &interface.ipv6})
      if (*socket) sum += (*socket)->socket.dropped();
  }
  return sum;
}

}  // namespace Routing::Pim::Jpagent::Live
