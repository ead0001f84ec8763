// SPDX-License-Identifier: Apache-2.0
// Conversations: a text file with commands and, under a rule, everything that came out.
//
//     # A triggered join is sent 0.1 s after the route changed.
//     interface eth0 10.0.0.1/24
//     neighbor 10.0.0.2 on eth0
//     start
//     triggered 10.0.0.2 join (10.9.0.1,239.1.1.1)
//     wait 0.2
//     ----
//     0.000 machine 10.0.0.1 made on eth0, for the interface
//     0.000 machine 10.0.0.2 made on eth0, for the neighbor
//     0.000 timer 10.0.0.2 triggered armed for 0.100
//     0.100 timer 10.0.0.2 triggered fires
//     0.100 sent on eth0 from 10.0.0.1, upstream 10.0.0.2, triggered, hold 210, 34 bytes
//     0.100   join (10.9.0.1,239.1.1.1)
//
// The first line is a comment that tells the story. If the first command is `speaker`, all others speak to a
// speaker and have words of their own. What a command does is in Simulation.h, which performs
// them; this header has what a file says, checked as a whole before any of it is performed.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "jpagent/simulate/Command.h"

namespace Routing::Pim::Jpagent {

/// A file's content, checked as a whole and kept as the text that it is.
class Conversation {
 public:
  /// A line with a command. The text is the conversation's, or a copy's.
  struct Step {
    U32 line;
    std::string_view text;
    OwnForms own;
    Subject subject = Subject::engine;

    /// Made each time: a command may be much larger than its text.
    Command command() const { return commandFromText(text, line, own, subject); }
  };

  /// Throws ConversationError.
  explicit Conversation(std::string_view text, OwnForms own = {}, Subject subject = Subject::engine);
  static Conversation fromFile(std::string const& path, OwnForms own = {});
  /// What is in a file.
  static std::string textOf(std::string const& path);

  /// The first line, without the sign of a comment.
  std::string const& story() const { return story_; }
  std::vector<Step> const& steps() const { return steps_; }

  /// Whether there is a rule; without one, nothing is expected and nothing can be compared.
  bool hasRule() const { return firstExpectedLine_ != 0; }

  /// Empty if exactly this is expected. Otherwise where the first difference is, with the lines around it,
  /// "-" before what was expected and "+" before what came out. `name` is the file's.
  std::string difference(std::string_view name, std::string_view output) const;

  /// The file with another expected half. The other half stays as it is, byte for byte.
  std::string withExpected(std::string_view output) const;

 private:
  std::shared_ptr<std::string const> text_;  // at one place, for steps_ and for copies
  std::string story_;
  std::vector<Step> steps_;
  std::string_view head_;  // Up to and with the rule.
  std::string_view expected_;
  U32 firstExpectedLine_ = 0;
};

}  // namespace Routing::Pim::Jpagent
