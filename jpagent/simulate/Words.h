// SPDX-License-Identifier: Apache-2.0
// The words of a command, and what they may stand for. Used by the parsers of commands alone.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "jpagent/simulate/Command.h"
#include "runtime/vel/Text.h"

namespace Routing::Pim::Jpagent {

inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

inline std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

/// The beginning of a word says which one it is; a message need not be as long as what it is about.
std::string quoted(std::string_view word);

/// The words of a command, taken one by one. The function that takes one names what it must be.
class Words {
 public:
  Words(std::string_view text, U32 line, OwnForms own = {}, Subject subject = Subject::engine)
      : Words(text, line, ownRoutes_, false, own, subject) {}
  Words(Words const&) = delete;
  Words& operator=(Words const&) = delete;

  explicit operator bool() const { return !rest_.empty(); }

  std::string_view peek() const {
    return rest_.substr(
        0, static_cast<std::size_t>(std::find_if(rest_.begin(), rest_.end(), isBlank) - rest_.begin()));
  }
  std::string_view take() {
    auto const word = peek();
    rest_ = trimmed(rest_.substr(word.size()));
    return word;
  }
  std::string_view takeRest() { return std::exchange(rest_, {}); }
  /// Takes the next word if it is this one.
  bool taken(std::string_view word) {
    if (peek() != word || word.empty()) return false;
    take();
    return true;
  }
  void require(std::string_view word) {
    if (!taken(word)) fail(fmt::format("\"{}\"", word));
  }

  [[noreturn]] void fail(std::string_view expected) const;
  [[noreturn]] void refuse(std::string const& why) const { throw ConversationError(line_, why); }

  template <class Number>
  Number number(Number least, Number most, std::string_view what) {
    Number value{};
    if (!Vel::fromText(peek(), value) || !(value >= least && value <= most)) {
      fail(fmt::format("{} from {} to {}", what, least, most));
    }
    take();
    return value;
  }
  Seconds seconds() { return number<Seconds>(0, 1e6, "seconds"); }

  /// A command inside this one.
  void check(std::string_view command) const;
  bool inside() const { return inside_; }
  OwnForms own() const { return own_; }
  Subject subject() const { return subject_; }

  /// How many routes the ranges of the line have.
  U32 routes() const { return routes_; }
  void routesInc(U32 n);

  IpGenAddr address(std::string_view what);
  IpGenPrefix groups();

 private:
  Words(std::string_view text, U32 line, U32& routes, bool inside, OwnForms own, Subject subject)
      : rest_(trimmed(text)), line_(line), inside_(inside), routes_(routes), own_(own), subject_(subject) {}

  std::string_view rest_;
  U32 const line_;
  bool const inside_;  // another command
  U32 ownRoutes_ = 0;
  U32& routes_;
  OwnForms const own_;
  Subject const subject_;
};

}  // namespace Routing::Pim::Jpagent
