// SPDX-License-Identifier: Apache-2.0
// What all neighbors of a link come to: the effective delays, join suppression, the designated router.
#pragma once

#include <set>
#include <utility>

#include "pim/speaker/Random.h"
#include "pim/wire/Hello.h"

namespace Routing::Pim::Speaker {

using Dova::IpGenAddr;

/// The options of one router that count for its LAN.
struct LanOptions {
  std::optional<Wire::LanPruneDelay> delay;  ///< Option 2.
  std::optional<Wire::U32> drPriority;       ///< Option 19.

  friend bool operator==(LanOptions const& a, LanOptions const& b) = default;
};

/// The values of a link (RFC 7761, 4.3.2 and 4.3.3), kept up to date. A change costs O(log n) for n
/// neighbors, and a change of options needs no memory.
class PIM_SPEAKER_API LanValues {
 public:
  /// Propagation_delay_default, in seconds (RFC 7761, 4.11).
  static constexpr Seconds defaultPropagationDelay = 0.5;
  /// t_override_default, in seconds (RFC 7761, 4.11).
  static constexpr Seconds defaultOverrideInterval = 2.5;

  /// Of a router that announces both options, on a link without neighbors.
  LanValues(IpGenAddr const& ownAddress, LanOptions const& own) : ownAddress_(ownAddress), own_(own) {}

  /// The own options have changed.
  void ownIs(LanOptions const& own) { own_ = own; }
  /// A neighbor is new. Throws std::bad_alloc, and then nothing has changed. REQUIRES: it was not added
  /// before.
  void add(IpGenAddr const& neighbor, LanOptions const& options);
  /// A neighbor has other options. REQUIRES: `previous` is what it had. So for remove().
  void change(IpGenAddr const& neighbor, LanOptions const& previous, LanOptions const& options);
  /// A neighbor has ended.
  void remove(IpGenAddr const& neighbor, LanOptions const& previous);

  /// All neighbors. The reference is valid as long as this object.
  std::set<IpGenAddr> const& neighbors() const { return byAddress_; }

  /// Effective_Propagation_Delay, in seconds: the largest of all, or the default if a neighbor lacks option
  /// 2.
  Seconds propagationDelay() const;
  /// Effective_Override_Interval, in seconds: the same.
  Seconds overrideInterval() const;
  /// Suppression_Enabled: unless all neighbors set the T bit. The own bit takes no part in it.
  bool suppressionAllowed() const { return withoutTracking_ != 0; }
  /// The designated router: the highest priority, then the highest address; the highest address alone if a
  /// neighbor sends no priority.
  IpGenAddr designatedRouter() const;

 private:
  using Ranked = std::pair<Wire::U32, IpGenAddr>;

  void count(LanOptions const& options, int sign);

  IpGenAddr const ownAddress_;
  LanOptions own_;
  // Each has an element for each neighbor, 0 for an option that is not there.
  std::multiset<Wire::U16> propagationDelays_, overrideIntervals_;  // In milliseconds.
  std::set<Ranked> byPriority_;
  std::set<IpGenAddr> byAddress_;
  Wire::U32 withoutDelay_ = 0, withoutTracking_ = 0, withoutPriority_ = 0;
};

}  // namespace Routing::Pim::Speaker
