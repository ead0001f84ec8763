// SPDX-License-Identifier: Apache-2.0
// What the files of LiveSpeaker share.
#pragma once

#include <array>

#include "jpagent/common/PrefixTable.h"
#include "jpagent/live/LiveSpeaker.h"
#include "jpagent/simulate/Inside.h"
#include "pim/joinprune/JoinPruneFilter.h"

namespace Routing::Pim::Jpagent::Live {

inline constexpr std::array families = {Dova::AddressFamily::ipv4, Dova::AddressFamily::ipv6};
constexpr std::size_t indexOf(Dova::AddressFamily family) {
  return family == Dova::AddressFamily::ipv6 ? 1 : 0;
}

/// The groups that are neither taken nor sent.
class LiveSpeaker::Denied final : public JoinPruneFilter {
 public:
  bool deny(IpGenAddr const& group) const override { return groups_.longest(group) != nullptr; }
  void are(std::vector<IpGenPrefix> const& groups) {
    groups_ = {};
    for (auto const& prefix : groups) groups_[prefix] = true;
  }

 private:
  PrefixTable<bool> groups_;
};

/// JSON's null for nothing.
template <class Value>
Json orNull(std::optional<Value> const& value) {
  return value ? Json(*value) : Json(nullptr);
}

/// A route as events and `show` name it, with the RP of a (*,G).
Json routeMembers(Speaker::Route const& route, std::optional<IpGenAddr> const& rp);

}  // namespace Routing::Pim::Jpagent::Live
