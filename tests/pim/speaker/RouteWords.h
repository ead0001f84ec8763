// SPDX-License-Identifier: Apache-2.0
// What the tests of routes share: addresses by short names, messages and routes as text, and a link.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "pim/speaker/Link.h"
#include "pim/speaker/Route.h"

namespace Routing::Pim::Speaker::Test {

/// Addresses of a family by names: N1 (neighbors), S1 (sources), R1 (RPs), G1 (groups), each up to 99, and
/// ME.
class Names {
 public:
  explicit Names(AddressFamily family) : isIpv4_(family == AddressFamily::ipv4) {}

  IpGenAddr address(std::string_view name) const {
    if (name == "ME") return IpGenAddr(isIpv4_ ? "10.0.0.100" : "fe80::64");
    std::string const number(name.substr(1));
    switch (name.front()) {
      case 'N':
        return IpGenAddr((isIpv4_ ? "10.0.0." : "fe80::") + number);
      case 'S':
        return IpGenAddr((isIpv4_ ? "10.9.0." : "2001:db8:9::") + number);
      case 'R':
        return IpGenAddr((isIpv4_ ? "10.8.0." : "2001:db8:8::") + number);
      default:
        return IpGenAddr((isIpv4_ ? "239.1.1." : "ff0e::1:") + number);
    }
  }
  std::string name(IpGenAddr const& address) const {
    std::string const text = toText(address);
    std::size_t const last = text.find_last_of(".:");
    if (last == text.npos) return text;
    for (std::string const kind : {"N", "S", "R", "G"})
      if (this->address(kind + "1") == IpGenAddr(text.substr(0, last + 1) + "1"))
        return address == this->address("ME") ? "ME" : kind + text.substr(last + 1);
    return text;
  }

  /// From "(S1,G1)", "(*,G1)", "(S1,G1,rpt)".
  Route route(std::string_view text) const {
    std::size_t const comma = text.find(',');
    std::size_t const end = text.find_first_of(",)", comma + 1);
    IpGenAddr const group = address(text.substr(comma + 1, end - comma - 1));
    if (text[1] == '*') return Route::wildcard(group);
    return {text[end] == ',' ? RouteKind::sourceRpt : RouteKind::source, address(text.substr(1, comma - 1)),
            group};
  }
  std::string name(Route const& route) const {
    return "(" + (route.kind == RouteKind::wildcard ? "*" : name(route.source)) + "," + name(route.group) +
           (route.kind == RouteKind::sourceRpt ? ",rpt)" : ")");
  }

  /// From "join (*,G1) R1, prune (S1,G1,rpt)". Entries of one group that follow each other are in one group
  /// set; "; " begins another one.
  Wire::JoinPrune message(IpGenAddr const& upstream, U16 hold, std::string_view text) const {
    Wire::JoinPrune message(upstream, hold);
    bool isOpen = false;
    while (!text.empty()) {
      std::size_t const close = text.find(')');
      bool const isJoin = text.starts_with("join ");
      Route const entry = route(text.substr(text.find('('), close + 1 - text.find('(')));
      text.remove_prefix(close + 1);
      IpGenAddr named = entry.source;
      if (entry.kind == RouteKind::wildcard) {
        std::size_t const end = std::min(text.find_first_of(",;"), text.size());
        named = address(text.substr(1, end - 1));
        text.remove_prefix(end);
      }
      if (!isOpen || !(message.groups().back().group() == entry.group)) message.groupAdd(entry.group);
      message.entryAdd(entryKindOf(entry.kind, isJoin), named);
      isOpen = !text.starts_with(";");
      text.remove_prefix(std::min<std::size_t>(2, text.size()));
    }
    return message;
  }

 private:
  bool isIpv4_;
};

/// A link whose values a test sets.
class TestLink final : public Link {
 public:
  TestLink(AddressFamily family, Vel::Ptr<Zanth::TimerWheel> const& wheel, std::string_view name = "eth0")
      : name_(name), family_(family), wheel_(wheel), address(Names(family).address("ME")) {}

  Dova::IntfId const& intf() const override { return name_; }
  AddressFamily family() const override { return family_; }
  IpGenAddr primaryAddress() const override { return address; }
  bool isPointToPoint() const override { return false; }
  U32 neighborCount() const override { return static_cast<U32>(neighbors.size()); }
  bool neighborUp(IpGenAddr const& neighbor) const override { return neighbors.contains(neighbor); }
  std::optional<IpGenAddr> neighborOf(IpGenAddr const& neighbor) const override {
    auto const found = secondary.find(neighbor);
    IpGenAddr const primary = found == secondary.end() ? neighbor : found->second;
    return neighborUp(primary) ? std::optional(primary) : std::nullopt;
  }
  Seconds propagationDelay() const override { return 0.5; }
  Seconds overrideInterval() const override { return overrideIntervalOfLan; }
  bool suppressionAllowed() const override { return suppression; }
  U16 holdTime() const override { return 210; }
  Seconds joinPruneInterval() const override { return 60; }
  bool isDenied(IpGenAddr const& group) const override {
    if (onFilter) onFilter();
    return denied.contains(group);
  }
  std::optional<IpGenAddr> rp(IpGenAddr const& group) const override {
    if (onRp) onRp();
    auto const found = rps.find(group);
    return found == rps.end() ? std::nullopt : std::optional(found->second);
  }
  Vel::Ptr<Zanth::TimerWheel> const& wheel() const override { return wheel_; }
  Random& random() const override { return random_; }
  Vel::Ptr<JoinPruneStatus> const& dataSets() const override { return data; }

 private:
  Dova::IntfId const name_;
  AddressFamily const family_;
  Vel::Ptr<Zanth::TimerWheel> const wheel_;
  mutable Random random_{1};

 public:
  IpGenAddr address;
  std::set<IpGenAddr> neighbors;
  std::map<IpGenAddr, IpGenAddr> secondary;  // to the primary one
  std::set<IpGenAddr> denied;
  std::map<IpGenAddr, IpGenAddr> rps;
  std::function<void()> onFilter, onRp;
  Seconds overrideIntervalOfLan = 2.5;
  bool suppression = true;
  Vel::Ptr<JoinPruneStatus> data;
};

}  // namespace Routing::Pim::Speaker::Test
