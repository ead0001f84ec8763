// SPDX-License-Identifier: Apache-2.0
#include "jpagent/common/Options.h"

#include <fmt/format.h>

#include "pim/wire/PimMessage.h"
#include "runtime/vel/Text.h"

namespace Routing::Pim::Jpagent {

namespace {

constexpr U32 lowestLevel = 1, highestLevel = 30;

bool hasGroups(IpGenPrefix const& prefix) {
  IpGenPrefix const all = prefix.ipGenAddr().isIpv4() ? IpGenPrefix(IpGenAddr("224.0.0.0"), 4)
                                                      : IpGenPrefix(IpGenAddr("ff00::"), 8);
  return all.contains(prefix.ipGenAddr()) || prefix.contains(all.ipGenAddr());
}

[[noreturn]] void fail(std::string_view text, std::string_view what) {
  throw OptionError(fmt::format("\"{}\" {}", text, what));
}

U32 levelFromText(std::string_view text, std::string_view whole) {
  U32 level = 0;
  if (!Vel::fromText(text, level) || level < lowestLevel || level > highestLevel) {
    fail(whole, "is no list of trace levels from 1 to 30, such as 1,2,7 or 1-8");
  }
  return level;
}

}  // namespace

void RpTable::add(std::string_view text) {
  auto const equals = text.find('=');
  if (equals == std::string_view::npos) fail(text, "is not GROUP/LEN=ADDRESS");
  auto const prefix = groupPrefixFromText(text.substr(0, equals));
  auto const rp = IpGenAddr::fromText(text.substr(equals + 1));
  if (!rp) fail(text, "does not end in an address");
  if (rp->af() != prefix.ipGenAddr().af()) fail(text, "has groups and an RP of different families");
  if (Wire::sourceFault(*rp, rp->af())) fail(text, "names an RP that is not unicast");
  if (rows_.find(prefix)) fail(text, "gives the same groups an RP again");
  rows_[prefix] = *rp;
}

IpGenAddr RpTable::rp(IpGenAddr const& group, IpGenAddr const& otherwise) const {
  auto const* const rp = rows_.longest(group);
  return rp ? *rp : otherwise;
}

IpGenPrefix groupPrefixFromText(std::string_view text) {
  auto const prefix = IpGenPrefix::fromText(text);
  if (!prefix || prefix->ipGenAddr().width() == 0) fail(text, "is not GROUP/LEN");
  if (!hasGroups(*prefix)) fail(text, "has no multicast group");
  return *prefix;
}

std::vector<U32> traceLevelsFromText(std::string_view text) {
  U32 named = 0;  // bit n is level n
  for (std::size_t at = 0; at <= text.size();) {
    auto const end = std::min(text.find(',', at), text.size());
    auto const item = text.substr(at, end - at);
    auto const dash = std::min(item.find('-'), item.size());
    U32 const first = levelFromText(item.substr(0, dash), text);
    U32 const last = dash == item.size() ? first : levelFromText(item.substr(dash + 1), text);
    if (last < first) fail(text, "has a range that ends before it begins");
    for (U32 level = first; level <= last; ++level) named |= 1u << level;
    at = end + 1;
  }
  std::vector<U32> levels;
  for (U32 level = lowestLevel; level <= highestLevel; ++level)
    if (named >> level & 1) levels.push_back(level);
  return levels;
}

}  // namespace Routing::Pim::Jpagent
