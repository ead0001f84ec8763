// SPDX-License-Identifier: Apache-2.0
// The commands on what is pending, and on what is received.
#include <map>

#include "jpagent/simulate/CommandTable.h"
#include "jpagent/simulate/RouteWords.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Jpagent {

DataCommand takeData(Words& words, SendKind sendKind, Other const& other) {
  DataCommand command{sendKind, words.address("the address of an upstream target"), Change::add, {}};
  auto const group = [&words, &command](Change change) {
    command.change = change;
    command.group = words.address("a group's address");
    if (Wire::groupFault(command.group, command.group.af())) words.refuse("expected a multicast group");
    return command;
  };
  if (other()) return command;
  if (words.taken("make")) {
    command.change = Change::make;
    return command;
  }
  if (words.taken("gone")) {
    command.change = Change::gone;
    return command;
  }
  if (words.taken("group")) return group(Change::group);
  if (words.taken("ungroup")) return group(Change::ungroup);
  if (words.taken("remove")) {
    if (words.taken("wildcard")) return group(Change::removeWildcard);
    command.change = Change::remove;
  }
  command.entries = takeEntries(words);
  return command;
}

namespace {

constexpr std::size_t mostEntries = 65535 / 8;  // of a message: each takes eight bytes at the least

// A message as a router builds it: each group once (RFC 7761, 4.9.5).
Wire::JoinPrune messageOf(IpGenAddr const& upstream, U16 holdTime, Routes const& entries) {
  Wire::JoinPrune message(upstream, holdTime);
  // First, so that no time is spent on what cannot be a message anyway.
  if (entries.size() > mostEntries)
    throw Vel::RangeException(fmt::format("{} entries do not fit an IP datagram", entries.size()));
  std::vector<IpGenAddr> groups;
  std::map<IpGenAddr, std::vector<RouteEntry>> entriesOf;
  for (auto const& entry : entries) {
    auto& list = entriesOf[entry.group];
    if (list.empty()) {
      if (groups.size() == Wire::JoinPrune::maxGroups)
        throw Vel::RangeException(fmt::format("more than {} groups", Wire::JoinPrune::maxGroups));
      groups.push_back(entry.group);
    }
    list.push_back(entry);
  }
  for (auto const& group : groups) {
    message.groupAdd(group);
    // Joins first: one that comes after prunes would move them all.
    for (bool const join : {true, false})
      for (auto const& entry : entriesOf[group])
        if (isJoin(entry.kind) == join) message.entryAdd(entry.kind, entry.source);
  }
  Wire::encodeJoinPrune(message, upstream, upstream);  // says if it is too long
  return message;
}

}  // namespace

Wire::JoinPrune takeMessage(Words& words) {
  words.require("upstream");
  auto const upstream = words.address("the address of an upstream neighbor");
  words.require("hold");
  U16 const holdTime = words.number<U16>(0, 65535, "a hold time in seconds");
  auto const entries = takeEntries(words);
  try {
    return messageOf(upstream, holdTime, entries);
  } catch (Vel::RangeException const& e) {
    words.refuse(fmt::format("expected a message that can be on the wire: {}", e.what()));
  }
}

Command receive(Words& words) {
  if (!words) words.fail("the name of an interface");
  std::string const intfName(words.take());
  return ReceiveCommand{intfName, takeMessage(words)};
}

}  // namespace Routing::Pim::Jpagent
