// SPDX-License-Identifier: Apache-2.0
// What the kernel says of interfaces, by netlink.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "jpagent/live/LiveSpeaker.h"

struct mnl_socket;
struct nlmsghdr;

namespace Routing::Pim::Jpagent::Live {

/// An interface as the kernel has it. Of its addresses IPv4 is first, in the kernel's order, primary ones
/// first; then IPv6, the oldest first, so that a new one displaces none.
struct KernelLink : KernelInterface {
  unsigned index = 0;
  std::string name;

  friend bool operator==(KernelLink const& a, KernelLink const& b) = default;
};

/// Follows all interfaces of the network namespace.
class KernelLinks {
 public:
  /// Asks for all of them. Throws std::system_error.
  KernelLinks();
  ~KernelLinks();

  /// Readable when something has changed.
  int descriptor() const;
  /// Takes what has changed. If the kernel had to drop some of it, asks for everything again. Throws
  /// std::system_error.
  void receive();

  /// The interface of that name, or nothing.
  std::optional<KernelLink> find(std::string const& name) const;

 private:
  struct Address {
    IpGenPrefix prefix;
    U32 flags;
    U8 scope;
  };
  struct Link {
    KernelLink link;  // without addresses
    std::vector<Address> addresses;
  };
  using Socket = std::unique_ptr<mnl_socket, int (*)(mnl_socket*)>;

  static Socket openSocket(U32 groups);
  void askForAll();
  bool dump(mnl_socket* socket, U32 number, U8 family, int type);
  static int dispatch(nlmsghdr const* message, void* self);
  void take(nlmsghdr const& message);
  void takeLink(nlmsghdr const& message);
  void takeAddress(nlmsghdr const& message);

  Socket const news_;
  std::map<unsigned, Link> links_;  // by index
};

}  // namespace Routing::Pim::Jpagent::Live
