// SPDX-License-Identifier: Apache-2.0
// Text as a conversation. What is understood can be rewritten, and then expects what it was rewritten to.
#include "jpagent/simulate/Conversation.h"

#include "fuzz/Fuzz.h"
#include "tests/conversations/own/OwnCommands.h"

using namespace Routing::Pim::Jpagent;

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  auto const text = Fuzz::textOf({data, size});
  try {
    Conversation const conversation(text, ownForms());
    FUZZ_REQUIRE(!conversation.story().empty() && !conversation.steps().empty());
    std::string const output = "0.000 -- a line\n0.000 -- another\n";
    Conversation const rewritten(conversation.withExpected(output), ownForms());
    FUZZ_REQUIRE(rewritten.hasRule() && rewritten.difference("", output).empty());
    FUZZ_REQUIRE(!rewritten.difference("", "0.000 -- a line\n").empty());
    FUZZ_REQUIRE(rewritten.story() == conversation.story());
    FUZZ_REQUIRE(rewritten.steps().size() == conversation.steps().size());
    for (std::size_t i = 0; i < conversation.steps().size(); ++i) {
      auto const& was = conversation.steps()[i];
      FUZZ_REQUIRE(rewritten.steps()[i].line == was.line);
      FUZZ_REQUIRE(rewritten.steps()[i].command().index() == was.command().index());
    }
  } catch (ConversationError const& error) {
    FUZZ_REQUIRE(error.line() <= static_cast<U32>(std::count(text.begin(), text.end(), '\n')) + 1);
    FUZZ_REQUIRE(*error.what() != '\0');
  }
  return 0;
}
