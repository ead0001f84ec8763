// SPDX-License-Identifier: Apache-2.0
// The interfaces that `jpagent run` was given: followed in the kernel, each with its sockets.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "jpagent/live/KernelLinks.h"
#include "jpagent/live/Loop.h"
#include "jpagent/live/PimSocket.h"

namespace Routing::Pim::Jpagent::Live {

/// Who is told of interfaces. May not give or remove one from inside a call.
class InterfacesOwner {
 public:
  virtual ~InterfacesOwner() = default;
  /// It appears or changes. Addresses of a family are left out while there is no socket for it.
  virtual void onInterface(KernelLink const& link) = 0;
  /// It has disappeared, or another one takes its name. Packets may still be sent.
  virtual void onInterfaceRemoved(std::string const& name) = 0;
  virtual void onPacket(Speaker::Incoming const& packet, std::span<U8 const> message) = 0;
  /// A socket cannot be had or has failed; it is tried again. Once for each reason.
  virtual void onSocketFailed(std::string const& name, std::string const& reason) = 0;
};

class Interfaces {
 public:
  /// Throws std::system_error if the kernel cannot be asked.
  Interfaces(Loop& loop, InterfacesOwner& owner);

  /// REQUIRES: canBeInterface().
  void add(std::string const& name);
  /// Tells the speaker that what was there of it was removed.
  void remove(std::string const& name);
  /// Tells of the interfaces as they are now; from then on changes come by themselves.
  void start();

  /// Returns 0 or an errno.
  int send(Speaker::Outgoing const& packet);
  /// How many packets the kernel has dropped on the sockets that are open now.
  Vel::U64 dropped() const;

 private:
  struct Socket {
    Socket(Loop& loop, KernelLink const& link, AddressFamily family, std::function<void()> readable);
    PimSocket socket;
    Watch watch;
  };
  struct Interface {
    std::optional<KernelLink> kernel;  // As it was when it was last looked at,
    std::optional<KernelLink> told;    // and what was told of it.
    std::optional<Socket> ipv4, ipv6;
    std::string failure;  // the latest reason of a socket that cannot be had

    std::optional<Socket>& socket(AddressFamily family) {
      return family == AddressFamily::ipv4 ? ipv4 : ipv6;
    }
  };

  void compareAll();
  void compare(std::string const& name, Interface& interface);
  void end(std::string const& name, Interface& interface);
  bool open(std::string const& name, Interface& interface, AddressFamily family);
  void receive(std::string const& name, AddressFamily family);

  Loop& loop_;
  InterfacesOwner& owner_;
  KernelLinks kernel_;
  std::map<std::string, Interface> interfaces_;
  Watch watch_;
  std::optional<Ticker> retry_;  // while there is a socket that cannot be had
};

}  // namespace Routing::Pim::Jpagent::Live
