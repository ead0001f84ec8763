// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/LanValues.h"

#include <algorithm>

namespace Routing::Pim::Speaker {

namespace {

using Wire::U16;

U16 propagationDelayOf(LanOptions const& options) {
  return options.delay ? options.delay->propagationDelay : 0;
}
U16 overrideIntervalOf(LanOptions const& options) {
  return options.delay ? options.delay->overrideInterval : 0;
}

// By the node, so that nothing is allocated.
template <class Set, class Value>
void replace(Set& set, Value const& previous, Value const& value) {
  if (previous == value) return;
  auto node = set.extract(set.find(previous));
  node.value() = value;
  set.insert(std::move(node));
}

template <class Set, class Value>
typename Set::node_type nodeOf(Value const& value) {
  Set one{value};
  return one.extract(one.begin());
}

Seconds largest(std::multiset<U16> const& milliseconds, U16 own) {
  return std::max(own, milliseconds.empty() ? U16{0} : *milliseconds.rbegin()) / 1000.0;
}

}  // namespace

void LanValues::count(LanOptions const& options, int sign) {
  auto const by = static_cast<Wire::U32>(sign);
  if (!options.delay) withoutDelay_ += by;
  if (!options.delay || !options.delay->tracking) withoutTracking_ += by;
  if (!options.drPriority) withoutPriority_ += by;
}

void LanValues::add(IpGenAddr const& neighbor, LanOptions const& options) {
  // What may fail comes first.
  auto propagationDelay = nodeOf<std::multiset<U16>>(propagationDelayOf(options));
  auto overrideInterval = nodeOf<std::multiset<U16>>(overrideIntervalOf(options));
  auto ranked = nodeOf<std::set<Ranked>>(Ranked(options.drPriority.value_or(0), neighbor));
  auto address = nodeOf<std::set<IpGenAddr>>(neighbor);
  // Most have the same value, and then the place is at the end.
  propagationDelays_.insert(propagationDelays_.end(), std::move(propagationDelay));
  overrideIntervals_.insert(overrideIntervals_.end(), std::move(overrideInterval));
  byPriority_.insert(std::move(ranked));
  byAddress_.insert(std::move(address));
  count(options, 1);
}

void LanValues::change(IpGenAddr const& neighbor, LanOptions const& previous, LanOptions const& options) {
  count(previous, -1);
  count(options, 1);
  replace(propagationDelays_, propagationDelayOf(previous), propagationDelayOf(options));
  replace(overrideIntervals_, overrideIntervalOf(previous), overrideIntervalOf(options));
  replace(byPriority_, Ranked(previous.drPriority.value_or(0), neighbor),
          Ranked(options.drPriority.value_or(0), neighbor));
}

void LanValues::remove(IpGenAddr const& neighbor, LanOptions const& previous) {
  count(previous, -1);
  propagationDelays_.erase(propagationDelays_.find(propagationDelayOf(previous)));
  overrideIntervals_.erase(overrideIntervals_.find(overrideIntervalOf(previous)));
  byPriority_.erase({previous.drPriority.value_or(0), neighbor});
  byAddress_.erase(neighbor);
}

Seconds LanValues::propagationDelay() const {
  if (withoutDelay_ != 0) return defaultPropagationDelay;
  return largest(propagationDelays_, propagationDelayOf(own_));
}

Seconds LanValues::overrideInterval() const {
  if (withoutDelay_ != 0) return defaultOverrideInterval;
  return largest(overrideIntervals_, overrideIntervalOf(own_));
}

IpGenAddr LanValues::designatedRouter() const {
  if (byAddress_.empty()) return ownAddress_;
  if (withoutPriority_ != 0) return std::max(ownAddress_, *byAddress_.rbegin());
  return std::max(Ranked(own_.drPriority.value_or(0), ownAddress_), *byPriority_.rbegin()).second;
}

}  // namespace Routing::Pim::Speaker
