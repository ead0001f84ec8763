// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/RouteWords.h"

#include <array>

namespace Routing::Pim::Jpagent {

namespace {

constexpr std::string_view entryForms =
    "a route such as (10.9.0.1,239.1.1.1), (*,239.1.1.1) rp 10.0.0.9 or (10.9.0.1,239.1.1.1,rpt)";

RouteEntry takeRoute(Words& words, bool join, bool rpIsOptional) {
  auto const word = words.peek();
  if (word.size() < 2 || word.front() != '(' || word.back() != ')') words.fail(entryForms);
  std::array<std::string_view, 3> parts;
  std::size_t count = 0;
  for (std::size_t at = 1; at < word.size(); ++count) {
    if (count == parts.size()) words.fail(entryForms);
    auto const end = std::min(word.find(',', at), word.size() - 1);
    parts[count] = word.substr(at, end - at);
    at = end + 1;
  }
  bool const rpt = count == 3 && parts[2] == "rpt";
  if (count != 2 && !rpt) words.fail(entryForms);
  bool const wildcard = !rpt && parts[0] == "*";
  auto const group = IpGenAddr::fromText(parts[1]);
  auto const source = wildcard ? group : IpGenAddr::fromText(parts[0]);
  if (!group || !source) words.fail(entryForms);
  if (Wire::groupFault(*group, group->af())) words.fail("a route to a multicast group");
  words.take();
  EntryKind const kind = wildcard ? EntryKind::wildcardJoin
                         : rpt    ? EntryKind::sourceRptJoin
                                  : EntryKind::sourceJoin;
  RouteEntry entry{join ? kind : pruneOf(kind), *source, *group};
  if (wildcard && rpIsOptional && words.peek() != "rp") {
    entry.source = {};
    return entry;
  }
  if (wildcard) {
    words.require("rp");
    entry.source = words.address("the address of an RP");
  }
  if (Wire::sourceFault(entry.source, group->af())) {
    words.refuse(
        fmt::format("expected a source of the group's family that is unicast, not {}", toText(entry.source)));
  }
  return entry;
}

RouteEntry routeOf(RouteRange const& range, U32 at) {
  RouteEntry entry = range.first;
  IpGenAddr& counted = range.sources ? entry.source : entry.group;
  counted = further(counted, at);
  return entry;
}

// Whether there is such a route. Those that there are lie side by side at the beginning of a range, since
// it is shorter than the blocks of addresses of either kind.
bool exists(RouteRange const& range, U32 at) {
  auto const entry = routeOf(range, at);
  bool const begunAgain = range.sources ? entry.source < range.first.source : entry.group < range.first.group;
  // What a (*,G) has for a source is its RP, which was tested when it was read, or nothing.
  return !begunAgain && !Wire::groupFault(entry.group, entry.group.af()) &&
         (isWildcard(entry.kind) || !Wire::sourceFault(entry.source, entry.group.af()));
}

// "3000 routes from (10.9.0.1,239.1.0.1)": a group each, counted upwards. "3000 sources from ...": a source
// each, all in one group.
RouteRange takeRange(Words& words, bool join, bool rpIsOptional) {
  RouteRange range;
  range.count = words.number<U32>(1, mostRoutesOfLine, "a number of routes");
  words.routesInc(range.count);
  range.sources = words.taken("sources");
  if (!range.sources && !words.taken("routes")) words.fail("\"routes\" or \"sources\"");
  words.require("from");
  range.first = takeRoute(words, join, rpIsOptional);
  if (range.sources && isWildcard(range.first.kind)) words.refuse("expected sources, and (*,G) has none");
  if (!exists(range, range.count - 1)) {
    U32 there = 0, missing = range.count - 1;
    while (missing - there > 1) {
      U32 const middle = there + (missing - there) / 2;
      (exists(range, middle) ? there : missing) = middle;
    }
    words.refuse(fmt::format("expected fewer: there is no {}", toText(routeOf(range, missing))));
  }
  return range;
}

}  // namespace

RouteRange takeRoutes(Words& words, bool join, bool rpIsOptional) {
  if (words.peek().starts_with('(')) return RouteRange{takeRoute(words, join, rpIsOptional)};
  return takeRange(words, join, rpIsOptional);
}

Routes takeEntries(Words& words) {
  Routes entries;
  do {
    bool const join = words.taken("join");
    if (!join && !words.taken("prune")) words.fail("\"join\" or \"prune\"");
    do {
      entries.add(takeRoutes(words, join));
    } while (words && words.peek() != "join" && words.peek() != "prune");
  } while (words);
  return entries;
}

}  // namespace Routing::Pim::Jpagent
