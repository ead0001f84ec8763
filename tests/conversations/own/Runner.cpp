// SPDX-License-Identifier: Apache-2.0
// Performs a conversation with the tests' own commands:
//
//     conversation_runner FILE            prints the first difference from what is expected, with status 1
//     conversation_runner --rewrite FILE  takes over what comes out now
#include <fstream>
#include <iostream>
#include <sstream>

#include "tests/conversations/own/OwnSimulation.h"

using namespace Routing::Pim::Jpagent;

int main(int argc, char** argv) {
  bool const rewrite = argc == 3 && std::string_view(argv[1]) == "--rewrite";
  if (argc != 2 && !rewrite) {
    std::cerr << "conversation_runner [--rewrite] FILE\n";
    return 2;
  }
  std::string const file = argv[argc - 1];
  try {
    auto const conversation = Conversation::fromFile(file, ownForms());
    std::ostringstream output;
    {
      OwnSimulation simulation(output);
      simulate(conversation, simulation);
    }
    if (rewrite) return std::ofstream(file) << conversation.withExpected(output.view()) << std::flush ? 0 : 2;
    if (!conversation.hasRule()) throw ConversationError(0, "expected a rule (----)");
    auto const difference = conversation.difference(file, output.view());
    std::cout << difference;
    return difference.empty() ? 0 : 1;
  } catch (ConversationError const& error) {
    std::cerr << file << ':' << error.line() << ": " << error.what() << '\n';
    return 2;
  }
}
