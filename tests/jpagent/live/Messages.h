// SPDX-License-Identifier: Apache-2.0
// Messages of neighbors, as tests make them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pim/wire/Hello.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Jpagent::Live::Test {

using Dova::IpGenAddr;
using Vel::U16;
using Vel::U32;
using Vel::U8;

/// The options of a Hello; one without a value is left out.
struct Hellos {
  std::optional<U16> hold{};
  std::optional<U32> generation{};
  std::optional<U32> priority{};
  std::vector<std::string> addresses{};
  std::optional<Wire::LanPruneDelay> delay{};
};

/// An entry of a Join/Prune; the source of a (*,G) is its RP.
struct Entry {
  EntryKind kind;
  std::string source, group;
};

inline std::vector<U8> helloOf(IpGenAddr const& from, Hellos const& said) {
  Wire::Hello hello;
  if (said.hold) hello.holdTimeIs(*said.hold);
  if (said.generation) hello.generationIdIs(*said.generation);
  if (said.priority) hello.drPriorityIs(*said.priority);
  if (said.delay) hello.lanPruneDelayIs(*said.delay);
  for (auto const& address : said.addresses) hello.addressAdd(IpGenAddr(address));
  return Wire::encodeHello(hello, from, Wire::allPimRouters(from.af()));
}

/// Entries of one group that follow one another are in one group set.
inline std::vector<U8> joinPruneOf(IpGenAddr const& from, IpGenAddr const& to,
                                   std::vector<Entry> const& entries, U16 hold) {
  Wire::JoinPrune message(to, hold);
  for (auto const& entry : entries) {
    IpGenAddr const group(entry.group);
    if (message.groups().empty() || message.groups().back().group() != group) message.groupAdd(group);
    message.entryAdd(entry.kind, IpGenAddr(entry.source));
  }
  return Wire::encodeJoinPrune(message, from, Wire::allPimRouters(from.af()));
}

}  // namespace Routing::Pim::Jpagent::Live::Test
