// SPDX-License-Identifier: Apache-2.0
// Interface identifiers.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "runtime/vel/Export.h"
#include "runtime/vel/Hash.h"

namespace Dova {

/// Identifies an interface by its name. The default, which the empty name gives too, identifies none.
class VEL_API IntfId {
 public:
  IntfId() = default;
  /// From a name, which is not checked. Implicit, so that a call names an interface by its text alone.
  IntfId(std::string_view name) : name_(name) {}
  /// The same.
  IntfId(std::string const& name) : name_(name) {}
  /// The same.
  IntfId(char const* name) : name_(name) {}

  /// The name; empty for the default.
  std::string const& name() const& { return name_; }
  /// The same, of an identifier that ends at once.
  std::string name() const&& { return name_; }
  /// 30 bits, seeded by `Vel::hashSeedIs`.
  Vel::U32 hash() const { return Vel::hashText(name_); }

  friend bool operator==(IntfId const& a, IntfId const& b) = default;
  /// By name, byte for byte.
  friend bool operator<(IntfId const& a, IntfId const& b) { return a.name_ < b.name_; }

 private:
  std::string name_;  // IFNAMSIZ leaves 15 characters, which std::string holds without the heap.
};

/// The name.
VEL_API std::ostream& operator<<(std::ostream& os, IntfId const& id);
/// For attributes that are set by name: any text is a name.
VEL_API bool fromText(std::string_view text, IntfId& id);

}  // namespace Dova

/// The hash of collections, for those of the standard library.
template <>
struct std::hash<Dova::IntfId> {
  std::size_t operator()(Dova::IntfId const& id) const noexcept { return id.hash(); }
};
