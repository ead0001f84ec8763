// SPDX-License-Identifier: Apache-2.0
// docs/tracing.md names what the code has: each level, each ring message, each block timer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>

#include "jpagent/common/RingMessages.h"
#include "runtime/scrivo/TraceReader.h"
#include "runtime/vel/Trace.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using testing::IsEmpty;
using testing::Not;

std::filesystem::path const root = JOINPRUNE_SOURCE_DIR;
using Names = std::set<std::string>;

std::string document() { return readText(root / "docs/tracing.md"); }

/// The lines of the block of this kind.
Names documented(std::string const& kind) {
  auto const text = document();
  auto const start = text.find("```text " + kind + "\n");
  if (start == text.npos) return {};
  auto const from = text.find('\n', start) + 1;
  auto const all = lines(text.substr(from, text.find("```", from) - from));
  return Names(all.begin(), all.end());
}

std::vector<std::filesystem::path> sources(std::vector<std::string> const& folders) {
  std::vector<std::filesystem::path> found;
  for (auto const& folder : folders) {
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root / folder)) {
      auto const extension = entry.path().extension();
      if (extension == ".h" || extension == ".cpp") found.push_back(entry.path());
    }
  }
  return found;
}

/// What the first group of a pattern matches in the code.
Names inCode(std::vector<std::string> const& folders, char const* pattern) {
  std::regex const statement(pattern);
  Names found;
  for (auto const& path : sources(folders)) {
    auto const text = readText(path);
    for (std::sregex_iterator i(text.begin(), text.end(), statement), end; i != end; ++i)
      found.insert((*i)[1]);
  }
  return found;
}

/// The ring trace files of all conversations and of every message of a simulation.
class TracingDocumentRingTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    TemporaryFolder const folder;
    auto const ring = folder.file("ring");
    for (auto const& conversation : std::filesystem::directory_iterator(root / "tests/conversations")) {
      if (conversation.is_directory()) continue;  // jpagent does not perform those
      ASSERT_EQ(run(JPAGENT, {"simulate", "--scrivo", ring, conversation.path()}).status, 0)
          << conversation.path();
      read(ring);
    }
    Scrivo::TraceFile::open(ring);
    IpGenAddr const address("10.0.0.2");
    RingMessages::clock(0);
    RingMessages::remark("");
    RingMessages::received("", 0);
    for (auto const sendKind : {SendKind::triggered, SendKind::override, SendKind::periodic}) {
      RingMessages::ofSendKind(sendKind, [&address]<SendKind one>() {
        RingMessages::timer<TimerEvent::armed, one>(address, "", "");
        RingMessages::timer<TimerEvent::moved, one>(address, "", "");
        RingMessages::timer<TimerEvent::disarmed, one>(address, "", "");
        RingMessages::timer<TimerEvent::fired, one>(address, "", "");
        RingMessages::sent<one>(address, "", 0, 0, 0);
        RingMessages::changed<one>(address, "", 0);
      });
    }
    Scrivo::TraceFile::close();
    read(ring);
  }

  static void read(std::string const& ring) {
    Scrivo::TraceReader const reader(ring);
    for (auto const& descriptor : reader.descriptors()) {
      auto const text = toText(descriptor), place = descriptor.source + " " + std::to_string(descriptor.line);
      if (descriptor.kind == Scrivo::EventKind::message)
        messages_[descriptor.source].insert(text.substr(place.size() + 2));
      else
        timers_.insert(
            std::regex_replace(text.substr(0, text.find('(')), std::regex(".*(Routing::Pim::)"), ""));
      lines_[descriptor.source].insert(static_cast<int>(descriptor.line));
    }
  }

  /// The statements of a file that trace into the ring and have not been seen to.
  static std::vector<std::string> unseen(char const* path, std::string const& source,
                                         char const* statement = "SCRIVO_MESSAGE(") {
    std::vector<std::string> result;
    auto const code = lines(readText(root / path));
    for (std::size_t i = 0; i < code.size(); ++i) {
      if (code[i].find(statement) == std::string::npos) continue;
      // A compiler may call a statement of several lines by any of them.
      auto const seen = lines_[source].lower_bound(static_cast<int>(i) + 1);
      if (seen == lines_[source].end() || *seen > static_cast<int>(i) + 4) result.push_back(code[i]);
    }
    return result;
  }

  static inline std::map<std::string, Names> messages_;
  static inline std::map<std::string, std::set<int>> lines_;
  static inline Names timers_;
};

TEST(TracingDocumentTest, NamesEveryLevelOfTheCodeAndNoOther) {
  std::map<std::string, Vel::U32> const numbers = {{"error", Vel::TraceLevel::error},
                                                   {"event", Vel::TraceLevel::event},
                                                   {"detail", Vel::TraceLevel::detail},
                                                   {"activity", Vel::TraceLevel::activity},
                                                   {"entry", Vel::TraceLevel::entry}};
  std::string const statement = R"((?:JOIN_PRUNE_TRACE(?:_AS|_BARE)?\(|VEL_TRACE\([^,;]+,)\s*)";
  EXPECT_THAT(inCode({"runtime", "pim", "jpagent"}, (statement + "([0-9]+),").c_str()), IsEmpty());
  Names levels;
  for (auto const& name :
       inCode({"runtime", "pim", "jpagent"}, (statement + R"((?:Vel::)?(?:Trace)?Level::(\w+),)").c_str()))
    levels.insert(std::to_string(numbers.at(name)));
  EXPECT_THAT(levels, testing::Contains("1"));
  EXPECT_THAT(levels, testing::Contains("4"));
  Names named;
  auto const text = document();
  std::regex const row(R"(\n\| `([0-9]+)` \|)");
  for (std::sregex_iterator i(text.begin(), text.end(), row), end; i != end; ++i) named.insert((*i)[1]);
  EXPECT_EQ(named, levels);
}

TEST(TracingDocumentTest, NamesEveryHandleOfTheCode) {
  auto const handles = inCode({"runtime", "pim", "jpagent"}, R"x(TraceHandle::find\("([^"]+)"\))x");
  EXPECT_THAT(handles, testing::Contains("Pim::JoinPrune"));
  for (auto const& handle : handles) EXPECT_THAT(document(), testing::HasSubstr("\n| `" + handle + "` |"));
}

TEST_F(TracingDocumentRingTest, NamesEveryRingMessageOfTheEngineAndNoOther) {
  EXPECT_THAT(unseen("pim/joinprune/JoinPruneSender.cpp", "JoinPruneSm", " SENDER_TEXTS(\""), IsEmpty());
  EXPECT_THAT(messages_["JoinPruneSm"], Not(IsEmpty()));
  EXPECT_EQ(documented("engine"), messages_["JoinPruneSm"]);
}

TEST_F(TracingDocumentRingTest, NamesEveryRingMessageOfASimulationAndNoOther) {
  EXPECT_THAT(unseen("jpagent/common/RingMessages.h", "Simulation"), IsEmpty());
  EXPECT_EQ(documented("simulation"), messages_["Simulation"]);
}

TEST(TracingDocumentTest, KnowsAllFilesWithRingMessages) {
  Names files;
  for (auto const& path : sources({"pim", "jpagent"}))
    if (std::regex_search(readText(path), std::regex(R"(\n\s*SCRIVO_MESSAGE\(|RING_MESSAGE\(\")")))
      files.insert(std::filesystem::relative(path, root));
  EXPECT_EQ(files, (Names{"pim/joinprune/JoinPruneSender.cpp", "jpagent/common/RingMessages.h"}));
}

TEST_F(TracingDocumentRingTest, NamesEveryBlockTimer) {
  auto const named = documented("timers");
  EXPECT_GT(timers_.size(), 20u);
  for (auto const& timer : timers_) EXPECT_TRUE(named.contains(timer)) << timer;
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
