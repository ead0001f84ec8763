// SPDX-License-Identifier: Apache-2.0
// What a failing world prints is worth something only if it does the same when it is pasted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "tests/Thorough.h"
#include "tests/conversations/own/OwnSimulation.h"
#include "tests/world/Paste.h"
#include "tests/world/Random.h"

namespace Routing::Pim::Worlds {
namespace {

/// Gives objects the names 1, 2, ... in the order in which a text names them.
class Renaming {
 public:
  std::string operator()(std::string const& name) {
    return "@" + std::to_string(names_.emplace(name, names_.size() + 1).first->second);
  }

 private:
  std::map<std::string, std::size_t> names_;
};

/// The trace lines of a model's step.
void addTraces(Model const& model, Renaming& renamed, std::vector<std::string>& lines) {
  for (auto const& event : model.events) {
    if (event.level == 0) continue;
    std::string text = event.text;
    if (auto const begin = text.find('\1'); begin != text.npos) {
      auto const end = text.find('\2');
      auto const at = begin != 0 && text[begin - 1] == '@' ? begin - 1 : begin;
      text = text.substr(0, at) + renamed(text.substr(begin + 1, end - begin - 1)) + text.substr(end + 1);
    }
    lines.push_back("trace " + std::to_string(event.level) + " " + text);
  }
}

/// The trace lines of a simulation's output, without the time.
std::vector<std::string> tracesOf(std::string const& output) {
  std::vector<std::string> lines;
  Renaming renamed;
  std::istringstream text(output);
  for (std::string line; std::getline(text, line);) {
    line.erase(0, line.find(' ') + 1);
    if (!line.starts_with("trace ")) continue;
    if (auto const at = line.find('@'); at != line.npos) {
      auto const end = line.find_first_not_of("0123456789", at + 1);
      line = line.substr(0, at) + renamed(line.substr(at, end - at)) + line.substr(end);
    }
    lines.push_back(line);
  }
  return lines;
}

class PasteTest : public testing::TestWithParam<Profile> {
 protected:
  PasteTest() { Names::useIpv6(GetParam().ipv6); }
};

TEST_P(PasteTest, APastedSequenceTracesTheSame) {
  U32 const worlds = thorough() ? 40 : 8, most = 150;
  for (U64 seed = 1; seed <= worlds; ++seed) {
    Sequence sequence;
    std::vector<std::string> expected;
    Model model;
    Random random(seed, GetParam());
    Renaming renamed;
    try {
      while (sequence.size() < most) {
        auto const operation = random.operation(model);
        model.step(operation);
        if (model.cutShort) break;
        sequence.push_back(operation);
        addTraces(model, renamed, expected);
      }
    } catch (Stopped const&) {
    }
    auto const text = asConversation("A world.", sequence);
    std::ostringstream out;
    Jpagent::OwnSimulation simulation(out);
    Jpagent::Conversation const conversation(text, Jpagent::ownForms());
    for (auto const& step : conversation.steps()) {
      ASSERT_NO_THROW(simulation.perform(step.command())) << text;
      ASSERT_TRUE(simulation.everyTimerIsTold()) << "line " << step.line << "\n" << text;
    }
    auto const got = tracesOf(out.str());
    auto const [one, other] = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
    ASSERT_TRUE(one == expected.end() && other == got.end())
        << "seed " << seed << ": expected " << (one == expected.end() ? "the end" : *one) << "\ngot "
        << (other == got.end() ? "the end" : *other) << "\n"
        << text << out.str();
  }
}

INSTANTIATE_TEST_SUITE_P(Profiles, PasteTest, testing::ValuesIn(profiles),
                         [](auto const& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace Routing::Pim::Worlds
