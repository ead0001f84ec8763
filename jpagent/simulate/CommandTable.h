// The table of all commands: by which word each begins, who reads the rest of its line, and what help says about it.
#pragma once

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

/// Takes a whole line. Throws ConversationError.
Command commandFrom(Words& words);

// The parsers, each of what follows its word.

Command interface(Words& words);
Command neighbor(Words& words);
Command rp(Words& words);
template <Policy policy>
Command policyOn(Words& words) {
  auto const groups = words.groups();
  return PolicyCommand{policy, groups, words.taken("off")};
}
Command data(Words& words, Channel channel);
template <Channel channel>
Command dataOf(Words& words) {
  return data(words, channel);
}
Command receive(Words& words);
Command temper(Words& words);

}  // namespace Routing::Pim::Jpagent
