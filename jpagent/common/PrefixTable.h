// SPDX-License-Identifier: Apache-2.0
// What is said of prefixes, and which of them have an address.
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <map>

#include "runtime/dova/IpGenPrefix.h"

namespace Routing::Pim::Jpagent {

using Dova::IpGenAddr;
using Dova::IpGenPrefix;
using Vel::U8;

/// A value for each prefix, whatever its host bits. A look-up costs as much as there are different lengths,
/// of which a family has few, however many prefixes there are.
template <class Value>
class PrefixTable {
 public:
  /// The prefix's value, made if there is none.
  Value& operator[](IpGenPrefix const& prefix) {
    return rows_[prefix.length()][masked(prefix.ipGenAddr(), prefix.length())];
  }

  /// Null if there is none.
  Value* find(IpGenPrefix const& prefix) {
    auto const rows = rows_.find(prefix.length());
    if (rows == rows_.end()) return nullptr;
    auto const row = rows->second.find(masked(prefix.ipGenAddr(), prefix.length()));
    return row == rows->second.end() ? nullptr : &row->second;
  }

  /// REQUIRES: find() does.
  void erase(IpGenPrefix const& prefix) {
    auto const rows = rows_.find(prefix.length());
    rows->second.erase(masked(prefix.ipGenAddr(), prefix.length()));
    if (rows->second.empty()) rows_.erase(rows);
  }

  /// Of the longest prefix that has the address; null if none has it.
  Value const* longest(IpGenAddr const& address) const {
    for (auto const& [length, rows] : rows_) {
      if (length > address.width()) continue;
      if (auto const row = rows.find(masked(address, length)); row != rows.end()) return &row->second;
    }
    return nullptr;
  }

 private:
  static IpGenAddr masked(IpGenAddr const& address, U8 length) {
    std::array<U8, 16> bytes{};
    auto const from = address.bytes();
    std::copy_n(from.begin(), length / 8, bytes.begin());
    if (length % 8 != 0) bytes[length / 8u] = static_cast<U8>(from[length / 8u] & ~(0xff >> length % 8));
    return IpGenAddr::fromBytes({bytes.data(), from.size()});
  }

  std::map<U8, std::map<IpGenAddr, Value>, std::greater<>> rows_;
};

}  // namespace Routing::Pim::Jpagent
