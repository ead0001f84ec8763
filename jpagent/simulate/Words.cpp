// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/Words.h"

#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent {

std::string quoted(std::string_view word) {
  constexpr std::size_t longest = 60;
  return word.size() <= longest ? fmt::format("\"{}\"", word)
                                : fmt::format("\"{}...\"", word.substr(0, longest));
}

void Words::fail(std::string_view expected) const {
  throw ConversationError(line_, rest_.empty()
                                     ? fmt::format("expected {} at the end of the line", expected)
                                     : fmt::format("expected {}, not {}", expected, quoted(peek())));
}

void Words::routesInc(U32 n) {
  if (n > mostRoutesOfLine - routes_)
    refuse(fmt::format("expected at most {} routes in the ranges of a line, not {}", mostRoutesOfLine,
                       routes_ + n));
  routes_ += n;
}

IpGenAddr Words::address(std::string_view what) {
  auto const address = IpGenAddr::fromText(peek());
  if (!address) fail(what);
  take();
  return *address;
}

IpGenPrefix Words::groups() {
  try {
    auto const groups = groupPrefixFromText(peek());
    take();
    return groups;
  } catch (OptionError const&) {
    fail("groups such as 239.1.0.0/16");
  }
}

void Words::check(std::string_view command) const {
  Words words(command, line_, routes_, true, own_, subject_);
  commandFrom(words);
}

}  // namespace Routing::Pim::Jpagent
