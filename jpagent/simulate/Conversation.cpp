// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/Conversation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

#include "jpagent/simulate/CommandTable.h"

namespace Routing::Pim::Jpagent {

namespace {

constexpr std::size_t shortestRule = 4;

bool isRule(std::string_view line) {
  line = trimmed(line);
  return line.size() >= shortestRule && line.find_first_not_of('-') == line.npos;
}

// The lines of a text one by one, without the newlines; a last line needs none.
class Lines {
 public:
  explicit Lines(std::string_view text) : rest_(text) {}

  /// False at the end.
  bool next(std::string_view& line) {
    if (rest_.empty()) return false;
    auto const end = std::min(rest_.find('\n'), rest_.size());
    line = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return true;
  }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

}  // namespace

Conversation::Conversation(std::string_view text, OwnForms own, Subject subject)
    : text_(std::make_shared<std::string const>(text)) {
  Lines lines(*text_);
  std::string_view line;
  if (!lines.next(line) || !line.starts_with('#') || trimmed(line.substr(1)).empty()) {
    throw ConversationError(1, "expected a comment (#) that tells the story in one sentence");
  }
  story_ = trimmed(line.substr(1));
  U32 routes = 0;
  for (U32 at = 2; !hasRule() && lines.next(line); ++at) {
    line = trimmed(line);
    if (isRule(line)) {
      firstExpectedLine_ = at + 1;
    } else if (!line.empty() && line.front() != '#') {
      Words words(line, at, own, subject);
      bool const speaker = std::holds_alternative<SpeakerStartCommand>(commandFrom(words));
      if (speaker && !steps_.empty()) words.refuse("expected \"speaker\" as the first command only");
      routes += words.routes();
      if (routes > mostRoutesOfFile)
        words.refuse(fmt::format("expected at most {} routes in the ranges of all lines up to here, not {}",
                                 mostRoutesOfFile, routes));
      steps_.push_back({at, line, own, subject});
      if (speaker) subject = Subject::speaker;
    }
  }
  expected_ = lines.rest();
  head_ = std::string_view(*text_).substr(0, text_->size() - expected_.size());
  if (steps_.empty()) throw ConversationError(0, "expected commands");
}

Conversation Conversation::fromFile(std::string const& path, OwnForms own) {
  return Conversation(textOf(path), own);
}

std::string Conversation::textOf(std::string const& path) {
  std::string text;
  errno = 0;
  try {
    std::ifstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(path, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(file), {});
  } catch (std::ios_base::failure const&) {  // a folder is refused only when it is read
    throw ConversationError(0, errno == 0 ? "cannot be read" : std::generic_category().message(errno));
  }
  return text;
}

std::string Conversation::difference(std::string_view name, std::string_view output) const {
  constexpr std::size_t context = 3, shown = 6;
  Lines expected(expected_), came(output);
  std::vector<std::string_view> before;  // the last lines that are the same
  for (std::size_t same = 0;; ++same) {
    Lines const expectedRest = expected, cameRest = came;
    std::string_view line, other;
    bool const more = expected.next(line), moreCame = came.next(other);
    if (!more && !moreCame) return {};
    if (more && moreCame && line == other) {
      if (before.size() == context) before.erase(before.begin());
      before.push_back(line);
      continue;
    }
    std::string text = fmt::format("{}:{}: something else came out\n", name, firstExpectedLine_ + same);
    for (auto const& one : before) text += fmt::format("  {}\n", one);
    auto const tell = [&text](char sign, Lines lines) {
      std::string_view one;
      std::size_t told = 0, left = 0;
      for (; told < shown && lines.next(one); ++told) text += fmt::format("{} {}\n", sign, one);
      while (lines.next(one)) ++left;
      if (told == 0)
        text += fmt::format("{} (the end)\n", sign);
      else if (left != 0)
        text += fmt::format("{} ({} more)\n", sign, left);
    };
    tell('-', expectedRest);
    tell('+', cameRest);
    return text;
  }
}

std::string Conversation::withExpected(std::string_view output) const {
  std::string text(head_);
  if (!text.ends_with('\n')) text += '\n';
  if (!hasRule()) text += "----\n";
  return text.append(output);
}

}  // namespace Routing::Pim::Jpagent
