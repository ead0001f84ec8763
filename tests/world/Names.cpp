// SPDX-License-Identifier: Apache-2.0
#include "tests/world/Names.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Routing::Pim::Worlds {

namespace {

// The order of walks through hashed collections: by the bit-reversed hash, then by the key.
template <class Key>
bool walkedBefore(Key const& a, Key const& b) {
  return std::pair(Vel::bitReverse(a.hash()), a) < std::pair(Vel::bitReverse(b.hash()), b);
}

}  // namespace

Names const Names::ipv4_(false);
Names const Names::ipv6_(true);
Names const* Names::current_ = &Names::ipv4_;

void Names::useIpv6(bool ipv6) { current_ = ipv6 ? &ipv6_ : &ipv4_; }

Names::Names(bool useIpv6) : ipv6(useIpv6) {
  std::string const local = ipv6 ? "fe80::" : "10.0.0.";
  std::string const other = ipv6 ? "fe80::1:" : "10.0.1.";
  std::string const anySource = ipv6 ? "2001:db8:9::" : "10.9.0.";
  std::string const anyGroup = ipv6 ? "ff3e::" : "239.1.1.";
  std::string const anyRp = ipv6 ? "2001:db8::" : "10.0.7.";
  std::vector<std::string> const roles[] = {
      {local + "1", other + "1", local + "2", "unknown"},                            // interfaces
      {local + "2", local + "3", other + "2", local + "1"},                          // neighbors
      {anyGroup + "1", anyGroup + "2", anyGroup + "3"},                              // groups
      {anySource + "1", anySource + "2", anySource + "3", anySource + "4"},          // sources
      {anyRp + "1", anyRp + "2"},                                                    // RPs
      {local + "2", local + "1", local + "3", other + "2", other + "1", "unknown"},  // targets
      {"unknown", ipv6 ? "::" : "0.0.0.0"}};
  for (auto const& role : roles)
    for (auto const& text : role) addresses_.emplace_back(text);
  std::sort(addresses_.begin(), addresses_.end(), walkedBefore<Dova::IpGenAddr>);
  addresses_.erase(std::unique(addresses_.begin(), addresses_.end()), addresses_.end());
  for (auto const& known : addresses_) texts_.push_back(toText(known));
  Addr* const places[] = {intfAddress, neighbor, group, source, rp, target};
  for (std::size_t role = 0; role < std::size(places); ++role)
    for (std::size_t i = 0; i < roles[role].size(); ++i)
      places[role][i] = number(Dova::IpGenAddr(roles[role][i]));
  unknown = number(Dova::IpGenAddr(roles[6][0]));
  zero = number(Dova::IpGenAddr(roles[6][1]));
  for (auto const* name : {"eth0", "eth1", "eth2"}) intfIds_.emplace_back(name);
  std::sort(intfIds_.begin(), intfIds_.end(), walkedBefore<Dova::IntfId>);
}

Addr Names::number(Dova::IpGenAddr const& wanted) const {
  auto const found = std::find(addresses_.begin(), addresses_.end(), wanted);
  if (found == addresses_.end()) throw std::logic_error("not among the names: " + toText(wanted));
  return static_cast<Addr>(found - addresses_.begin());
}

U8 Names::number(Dova::IntfId const& id) const {
  auto const found = std::find(intfIds_.begin(), intfIds_.end(), id);
  if (found == intfIds_.end()) throw std::logic_error("not among the names: " + id.name());
  return static_cast<U8>(found - intfIds_.begin());
}

}  // namespace Routing::Pim::Worlds
