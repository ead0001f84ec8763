// SPDX-License-Identifier: Apache-2.0
#include "tests/world/Operation.h"

#include <algorithm>

namespace Routing::Pim::Worlds {

std::vector<ReceivedEntry> receivedEntries(U32 bits) {
  std::vector<ReceivedEntry> entries;
  auto const take = [&bits](U32 count) {
    U32 const value = bits & ((1u << count) - 1);
    bits >>= count;
    return static_cast<U8>(value);
  };
  U32 const count = 1 + take(2);
  for (U32 i = 0; i < count; ++i) {
    ReceivedEntry entry;
    entry.group = take(1);
    entry.kind = static_cast<Kind>(take(3) % 5);
    entry.source = take(2);
    entry.join = take(1) != 0;
    // A message has each entry once.
    auto const same = [&entry](ReceivedEntry const& other) {
      return other.group == entry.group && other.kind == entry.kind &&
             (entry.kind == Kind::wildcard || other.source == entry.source);
    };
    if (std::find_if(entries.begin(), entries.end(), same) == entries.end()) entries.push_back(entry);
  }
  return entries;
}

std::string toText(Operation const& o) {
  static constexpr char const* words[] = {
      "intfUp",       "intfDown",     "intfAddress", "intfNotify",   "intfHold",      "intfInterval",
      "intfOverride", "intfRenew",    "neighborUp",  "neighborDown", "neighborAgain", "resync",
      "add",          "remove",       "groupAdd",    "groupDel",     "groupFilled",   "groupsAgain",
      "sourceAgain",  "sourcesAgain", "dataMake",    "dataDel",      "receive",       "rp",
      "deny",         "wait",         "waitNext",    "busy",         "seed",          "quantum",
      "interval",     "diag",         "start",       "drop",         "hold",          "release",
      "temper",       "record"};
  static_assert(std::size(words) == static_cast<std::size_t>(Do::count_));
  std::string text = words[static_cast<U32>(o.what)];
  text += " a=" + std::to_string(o.a) + " sendKind=" + std::to_string(static_cast<U32>(o.sendKind)) +
          " group=" + std::to_string(o.group) + " kind=" + std::to_string(static_cast<U32>(o.kind)) +
          " source=" + std::to_string(o.source) + " n=" + std::to_string(o.n) + " x=" + std::to_string(o.x);
  if (o.what == Do::temper) {
    auto const& t = o.temper;
    text += " take=" + std::to_string(t.take) + " filtered=" + std::to_string(t.filtered) +
            " suppressed=" + std::to_string(t.suppressed) + " tidy=" + std::to_string(t.tidy) +
            " lie=" + std::to_string(static_cast<U32>(t.lie)) +
            " throws=" + std::to_string(static_cast<U32>(t.throws)) + " cost=" + std::to_string(t.cost) +
            " moment=" + std::to_string(static_cast<U32>(t.moment)) + " message=" + std::to_string(t.message);
    for (auto const& operation : o.meanwhile) text += "\n    meanwhile " + toText(operation);
  }
  return text;
}

}  // namespace Routing::Pim::Worlds
