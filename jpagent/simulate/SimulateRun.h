// SPDX-License-Identifier: Apache-2.0
// A run of `jpagent simulate`, from the conversation's file to the exit status.
#pragma once

#include <iosfwd>
#include <span>
#include <string>

#include "jpagent/simulate/Conversation.h"
#include "pim/speaker/PacketSinks.h"

namespace Routing::Pim::Jpagent {

/// What the command line of `jpagent simulate` says.
struct SimulateOptions {
  bool check = false, rewrite = false;
  std::string pcapFile, scrivoFile;  ///< Empty for none.
};

/// Conversations of another kind than those with an engine or a speaker.
struct OtherConversations {
  bool (*areThese)(std::string_view text) = nullptr;  ///< Whether a file's text is of this kind.
  OwnForms forms;                                     ///< All of their commands.
  /// Performs one. `microseconds` is to be the time since 1970 of each packet that is given to `alsoTo`,
  /// which may be null. What cannot be done throws ConversationError with its line.
  void (*perform)(Conversation const& conversation, std::ostream& out, Speaker::PacketSink* alsoTo,
                  U64& microseconds) = nullptr;
};

/// Performs a conversation, and prints, compares or takes over what comes out. Returns the exit status.
/// Throws OutputError if a file cannot be written.
int runSimulate(std::string const& file, SimulateOptions const& options,
                OtherConversations const& others = {});

}  // namespace Routing::Pim::Jpagent
