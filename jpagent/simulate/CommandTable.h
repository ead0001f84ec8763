// SPDX-License-Identifier: Apache-2.0
// The table of all commands: by which word each begins, who reads the rest of its line, and what help says
// about it. A program that has commands of its own puts a table before it (see Command.h: OwnForms).
#pragma once

#include <functional>
#include <string_view>

#include "jpagent/simulate/Words.h"

namespace Routing::Pim::Jpagent {

/// One row.
struct Form {
  std::string_view word;
  Command (*parse)(Words& words);
  std::string_view arguments;
  std::string_view about;
};

/// The forms of a table with a few words on each, for help texts.
std::string reference(OwnForms table);

/// Takes a whole line. Throws ConversationError.
Command commandFrom(Words& words);

// The parsers, each of what follows its word.

/// Asked for a word that the table of jpagent does not know: whether it was taken.
using Other = std::function<bool()>;
inline bool nothingElse() { return false; }

InterfaceCommand takeInterface(Words& words, Other const& other = nothingElse);
NeighborCommand takeNeighbor(Words& words, Other const& other = nothingElse);
Command rp(Words& words);
template <Policy policy>
Command policyOn(Words& words) {
  auto const groups = words.groups();
  return PolicyCommand{policy, groups, words.taken("off")};
}
/// If something else was taken after the target, the entries are left to who took it.
DataCommand takeData(Words& words, SendKind sendKind, Other const& other = nothingElse);
template <SendKind sendKind>
Command dataOf(Words& words) {
  return takeData(words, sendKind);
}
Command receive(Words& words);
/// "upstream ADDRESS hold S join ROUTE... prune ROUTE...".
Wire::JoinPrune takeMessage(Words& words);

Command wait(Words& words);
Command busy(Words& words);
Command cost(Words& words);
Command trace(Words& words);
Command packets(Words& words);
Command say(Words& words);

}  // namespace Routing::Pim::Jpagent
