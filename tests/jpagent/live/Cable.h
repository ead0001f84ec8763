// SPDX-License-Identifier: Apache-2.0
// Two namespaces with a cable between them, an agent for a test that does not wait long, and what it tells.
#pragma once

#include "tests/jpagent/live/Lab.h"

#define REQUIRE_NAMESPACES() \
  if (!noNamespaces().empty()) GTEST_SKIP() << noNamespaces()

namespace Routing::Pim::Jpagent::Live {

inline std::string const quick =
    " hello 0.1 hello-hold 3 hello-delay 0.02";  // settings by which a test need not wait

inline Json neighborUp(std::string const& address) {
  return {{"event", "neighbor"}, {"state", "up"}, {"address", address}};
}
inline Json interfaceIs(std::string const& state, std::string const& address) {
  return {{"event", "interface"}, {"state", state}, {"address", address}};
}
inline Json downstream(std::string const& state, std::string const& route) {
  return {{"event", "downstream"}, {"state", state}, {"route", route}};
}

/// The interfaces of a namespace that are made from now on have no IPv6.
inline constexpr char withoutIpv6[] = "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6";

/// Two namespaces, "one" with 10.0.0.1 on its end va of a cable, "two" with 10.0.0.2 on its end vb. No IPv6.
struct Cable : Lab {
  Cable() : Lab({"one", "two"}, withoutIpv6) {
    cable("one", "va", "two", "vb", "10.0.0.1/24", "10.0.0.2/24");
  }
};

/// An agent with such settings on an interface, whose packets are captured.
struct QuickAgent : Agent {
  QuickAgent(Lab const& lab, std::string const& space, std::string const& intf,
             std::vector<std::string> arguments = {}, std::string const& settings = "")
      : Agent(lab, space, with(lab, intf, std::move(arguments))) {
    say("interface " + intf + quick + settings);
  }
  static std::vector<std::string> with(Lab const& lab, std::string const& intf,
                                       std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), intf);
    if (std::find(arguments.begin(), arguments.end(), "--pcap") == arguments.end())
      arguments.insert(arguments.end(), {"--pcap", lab.newPath("capture")});
    return arguments;
  }
};

}  // namespace Routing::Pim::Jpagent::Live
