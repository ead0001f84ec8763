// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/Routes.h"

#include <fmt/format.h>

#include <array>

namespace Routing::Pim::Jpagent {

std::string toText(RouteEntry const& entry) {
  auto const verb = actionText(entry.kind);
  if (isWildcard(entry.kind))
    return fmt::format("{} (*,{}) rp {}", verb, toText(entry.group), toText(entry.source));
  return fmt::format("{} ({},{}{})", verb, toText(entry.source), toText(entry.group),
                     flagsOf(entry.kind) & EntryFlags::rpt ? ",rpt" : "");
}

IpGenAddr further(IpGenAddr const& address, U32 count) {
  auto const from = address.bytes();
  std::array<U8, 16> bytes;
  U64 sum = count;
  for (std::size_t i = from.size(); i-- > 0; sum >>= 8) bytes[i] = static_cast<U8>(sum += from[i]);
  return IpGenAddr::fromBytes({bytes.data(), from.size()});
}

Routes::Iterator::Iterator(RouteRange const* range, RouteRange const* end) : range_(range), end_(end) {
  if (range_ != end_) entry_ = range_->first;
}

Routes::Iterator& Routes::Iterator::operator++() {
  if (++passed_ != range_->count) {
    IpGenAddr& counted = range_->sources ? entry_.source : entry_.group;
    counted = further(counted, 1);
  } else {
    passed_ = 0;
    if (++range_ != end_) entry_ = range_->first;
  }
  return *this;
}

void Routes::add(RouteRange const& range) {
  ranges_.push_back(range);
  size_ += range.count;
}

}  // namespace Routing::Pim::Jpagent
