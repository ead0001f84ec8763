// SPDX-License-Identifier: Apache-2.0
// The names that a small world uses: few, so that states collide. Some are used twice on purpose: a neighbor
// may sit on an interface's address.
#pragma once

#include <string>
#include <vector>

#include "runtime/dova/IntfId.h"
#include "runtime/dova/IpGenAddr.h"

namespace Routing::Pim::Worlds {

using Vel::Seconds;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// An address by its number. Numbers go in the order in which hashed collections are walked, so that a
/// std::map of them is walked like one.
using Addr = U8;

/// An interface by its number, in the same sense.
using IntfName = U8;

class Names {
 public:
  static constexpr U32 intfs = 3, neighbors = 4, groups = 3, sources = 4, rps = 2, intfAddresses = 4,
                       targets = 6;

  /// The addresses in use. Switching the family is for the beginning of a test: no world may be there.
  static Names const& get() { return *current_; }
  static void useIpv6(bool ipv6);

  Dova::IpGenAddr const& address(Addr a) const { return addresses_[a]; }
  std::string const& text(Addr a) const { return texts_[a]; }
  bool less(Addr a, Addr b) const { return addresses_[a] < addresses_[b]; }
  /// The number of an address that is among the names.
  Addr number(Dova::IpGenAddr const& address) const;

  Dova::IntfId const& intfId(IntfName i) const { return intfIds_[i]; }
  std::string const& intf(IntfName i) const { return intfIds_[i].name(); }
  U8 number(Dova::IntfId const& id) const;

  // By role. The first of the targets are the ones that every world has.
  Addr intfAddress[intfAddresses];
  Addr neighbor[neighbors];
  Addr group[groups];
  Addr source[sources];
  Addr rp[rps];
  Addr target[targets];
  Addr unknown;  ///< the unspecified address of unknown family
  Addr zero;     ///< the family's all-zero address
  bool ipv6;

 private:
  explicit Names(bool useIpv6);
  static Names const ipv4_, ipv6_;
  static Names const* current_;

  std::vector<Dova::IpGenAddr> addresses_;
  std::vector<std::string> texts_;
  std::vector<Dova::IntfId> intfIds_;
};

}  // namespace Routing::Pim::Worlds
