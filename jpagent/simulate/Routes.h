// SPDX-License-Identifier: Apache-2.0
// Routes as commands give them and the output shows them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Jpagent {

using Dova::IpGenAddr;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// A join or prune of a route, in the form in which commands give it and the output shows it:
/// "join (10.9.0.1,239.1.1.1)", "prune (10.9.0.1,239.1.1.1,rpt)", "join (*,239.1.1.1) rp 10.0.0.9".
struct RouteEntry {
  EntryKind kind = EntryKind::sourceJoin;
  IpGenAddr source;  ///< The RP of a (*,G) entry.
  IpGenAddr group;
};
std::string toText(RouteEntry const& entry);

/// So many routes from one on: each in the group above the one before, or from the source above.
struct RouteRange {
  RouteEntry first;
  U32 count = 1;
  bool sources = false;  ///< The sources are counted, not the groups.
};

/// The routes of a command, in order: a walk over `RouteEntry`s, of which only the ranges are kept.
class Routes {
 public:
  class Iterator {
   public:
    RouteEntry const& operator*() const { return entry_; }
    Iterator& operator++();
    bool operator!=(Iterator const& other) const {
      return range_ != other.range_ || passed_ != other.passed_;
    }

   private:
    friend class Routes;
    Iterator(RouteRange const* range, RouteRange const* end);

    RouteRange const* range_;
    RouteRange const* end_;
    U32 passed_ = 0;  // of the range
    RouteEntry entry_;
  };

  /// REQUIRES: at least one route, and addresses that do not run out.
  void add(RouteRange const& range);

  std::vector<RouteRange> const& ranges() const { return ranges_; }
  /// How many routes there are, which is more than the ranges.
  std::size_t size() const { return size_; }
  bool empty() const { return ranges_.empty(); }
  Iterator begin() const { return {ranges_.data(), ranges_.data() + ranges_.size()}; }
  Iterator end() const { return {ranges_.data() + ranges_.size(), ranges_.data() + ranges_.size()}; }

 private:
  std::vector<RouteRange> ranges_;
  std::size_t size_ = 0;
};

/// How many routes the ranges ("N routes from", "N sources from") of one line, and of all lines of a file,
/// may have together. Single routes are not counted: they take as much room in the file.
inline constexpr U32 mostRoutesOfLine = 1'000'000, mostRoutesOfFile = 2'000'000;

/// The address so many further on, as a number; beyond the last one it begins again at zero.
IpGenAddr further(IpGenAddr const& address, U32 count);

}  // namespace Routing::Pim::Jpagent
