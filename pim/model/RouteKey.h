// SPDX-License-Identifier: Apache-2.0
// Keys of multicast routes.
#pragma once

#include <functional>
#include <iosfwd>

#include "runtime/dova/IntfId.h"
#include "runtime/dova/IpGenAddr.h"

namespace Routing::Pim {

using Vel::Seconds;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// A source and a group. A source of all zeros means any: the route is (*,G).
class VEL_API RouteKey {
 public:
  RouteKey() = default;
  /// From its parts.
  RouteKey(Dova::IpGenAddr const& source, Dova::IpGenAddr const& group) : source_(source), group_(group) {}

  /// The source; all zeros for (*,G).
  Dova::IpGenAddr const& source() const& { return source_; }
  /// The same, of a key that ends at once.
  Dova::IpGenAddr source() const&& { return source_; }
  /// The group.
  Dova::IpGenAddr const& group() const& { return group_; }
  /// The same, of a key that ends at once.
  Dova::IpGenAddr group() const&& { return group_; }
  /// 30 bits, seeded by `Vel::hashSeedIs`.
  U32 hash() const { return Vel::hashCombine(source_.hash(), group_.hash()); }

  friend bool operator==(RouteKey const& a, RouteKey const& b) = default;
  /// By source, then group.
  friend bool operator<(RouteKey const& a, RouteKey const& b) {
    return a.source_ == b.source_ ? a.group_ < b.group_ : a.source_ < b.source_;
  }

 private:
  Dova::IpGenAddr source_;
  Dova::IpGenAddr group_;
};

/// "(10.0.0.1,239.1.1.1)", "(*,239.1.1.1)".
VEL_API std::ostream& operator<<(std::ostream& os, RouteKey const& key);

/// A route on an interface.
class VEL_API RouteIntfKey {
 public:
  RouteIntfKey() = default;
  /// From its parts.
  RouteIntfKey(RouteKey const& route, Dova::IntfId const& intfId) : route_(route), intfId_(intfId) {}
  /// From its parts.
  RouteIntfKey(Dova::IpGenAddr const& source, Dova::IpGenAddr const& group, Dova::IntfId const& intfId)
      : RouteIntfKey(RouteKey(source, group), intfId) {}

  /// The route.
  RouteKey const& routeKey() const& { return route_; }
  /// The same, of a key that ends at once.
  RouteKey routeKey() const&& { return route_; }
  /// The route's source; all zeros for (*,G).
  Dova::IpGenAddr const& source() const& { return route_.source(); }
  /// The same, of a key that ends at once.
  Dova::IpGenAddr source() const&& { return route_.source(); }
  /// The route's group.
  Dova::IpGenAddr const& group() const& { return route_.group(); }
  /// The same, of a key that ends at once.
  Dova::IpGenAddr group() const&& { return route_.group(); }
  /// The interface; empty if the key names none.
  Dova::IntfId const& intfId() const& { return intfId_; }
  /// The same, of a key that ends at once.
  Dova::IntfId intfId() const&& { return intfId_; }
  /// 30 bits, seeded by `Vel::hashSeedIs`.
  U32 hash() const { return Vel::hashCombine(route_.hash(), intfId_.hash()); }

  /// Becomes the key of a route on no interface. True if it was another. Cheaper than making that key: a name
  /// costs more than two addresses do.
  bool routeIs(Dova::IpGenAddr const& source, Dova::IpGenAddr const& group) {
    bool const nameless = intfId_.name().empty();
    if (route_.source() == source && route_.group() == group && nameless) return false;
    route_ = RouteKey(source, group);
    if (!nameless) intfId_ = Dova::IntfId();
    return true;
  }

  friend bool operator==(RouteIntfKey const& a, RouteIntfKey const& b) = default;
  /// By route, then interface.
  friend bool operator<(RouteIntfKey const& a, RouteIntfKey const& b) {
    return a.route_ == b.route_ ? a.intfId_ < b.intfId_ : a.route_ < b.route_;
  }

 private:
  RouteKey route_;
  Dova::IntfId intfId_;
};

/// The route's form, and "@eth0" if there is an interface.
VEL_API std::ostream& operator<<(std::ostream& os, RouteIntfKey const& key);

}  // namespace Routing::Pim

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Routing::Pim::RouteKey> {
  std::size_t operator()(Routing::Pim::RouteKey const& key) const noexcept { return key.hash(); }
};

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Routing::Pim::RouteIntfKey> {
  std::size_t operator()(Routing::Pim::RouteIntfKey const& key) const noexcept { return key.hash(); }
};
