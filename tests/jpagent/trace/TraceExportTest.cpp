// SPDX-License-Identifier: Apache-2.0
// A ring trace file in other forms. The files are what simulations and statements of this test have written.
#include "jpagent/trace/TraceExport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "runtime/scrivo/Scrivo.h"
#include "tests/Thorough.h"
#include "tests/jpagent/Support.h"
#include "tests/runtime/scrivo/CraftedRing.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string const conversations = JOINPRUNE_SOURCE_DIR "/tests/conversations/";

class TraceExportTest : public testing::Test {
 protected:
  ~TraceExportTest() override { Scrivo::TraceFile::close(); }

  void open() { Scrivo::TraceFile::open(ring_, {.messageBytes = 8192, .timerBytes = 8192}); }

  /// Writes the ring trace file of a conversation.
  void simulate(std::string const& conversation) {
    auto const outcome = run(JPAGENT, {"simulate", "--scrivo", ring_, conversation});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
  }

  static std::string chrome(std::string const& file) {
    std::ostringstream text;
    exportChrome(Scrivo::TraceReader(file), text);
    return text.str();
  }
  json trackEvents() { return json::parse(chrome(ring_))["traceEvents"]; }

  /// The names of the tracks by their numbers.
  static std::map<int, std::string> tracks(json const& events) {
    std::map<int, std::string> names;
    for (auto const& event : events)
      if (event["name"] == "thread_name") names[event["tid"]] = event["args"]["name"];
    return names;
  }

  /// The instants and timers of a track: "i Sending triggered joins/prunes".
  static std::vector<std::string> story(json const& events, std::string const& track) {
    auto const names = tracks(events);
    std::vector<std::string> result;
    for (auto const& event : events) {
      std::string const phase = event["ph"];
      if (phase == "M" || names.at(event["tid"]) != track) continue;
      result.push_back(phase + " " + event["name"].get<std::string>());
    }
    return result;
  }

  TemporaryFolder folder_;
  std::string const ring_ = folder_.file("ring");
};

TEST_F(TraceExportTest, JsonHasAMessageWithItsArgumentsByTheWordsBeforeThem) {
  open();
  SCRIVO_MESSAGE("Sm", "Machine: Sending joins to ", IpGenAddr("10.0.0.2"), ", Intf: ", std::string("eth0"),
                 ", Groups: ", 3);
  { SCRIVO_BLOCK_TIMER("Sm", "void Routing::Pim::Machine::handle(int)"); }
  std::ostringstream text;
  exportJson(Scrivo::TraceReader(ring_), text);
  auto const written = lines(text.str());
  ASSERT_EQ(written.size(), 2u);
  auto const message = json::parse(written[0]), timer = json::parse(written[1]);
  EXPECT_EQ(message["kind"], "message");
  EXPECT_EQ(message["source"], "Sm");
  EXPECT_EQ(message["text"], "Machine: Sending joins to 10.0.0.2, Intf: eth0, Groups: 3");
  EXPECT_EQ(message["arguments"], json::parse(R"({"to":"10.0.0.2","Intf":"eth0","Groups":3})"));
  EXPECT_GE(message["time"], 0);
  EXPECT_EQ(timer["kind"], "block timer");
  EXPECT_EQ(timer["text"], "void Routing::Pim::Machine::handle(int)");
  EXPECT_GT(timer["elapsed"], 0);
  EXPECT_GE(timer["time"], message["time"]);
}

TEST_F(TraceExportTest, WhateverTheTextsAreTheOutputIsJson) {
  open();
  SCRIVO_MESSAGE("Sm", std::string("\xff\xc0 \"quoted\"\n\\"), 1, 2, ", ", 3);
  SCRIVO_MESSAGE("Sm", "nothing but words");
  SCRIVO_MESSAGE("Sm", ": ", std::string());
  std::ostringstream text;
  exportJson(Scrivo::TraceReader(ring_), text);
  for (auto const& line : lines(text.str())) EXPECT_TRUE(json::accept(line)) << line;
  EXPECT_EQ(lines(text.str()).size(), 3u);
  EXPECT_EQ(json::parse(lines(text.str())[0])["arguments"].size(), 4u);
  auto const events = trackEvents();
  EXPECT_EQ(tracks(events).at(2), "messages");
  EXPECT_EQ(events.back()["name"], "Sm");
  EXPECT_EQ(events[events.size() - 2]["name"], "nothing but words");
}

TEST_F(TraceExportTest, AFileWithoutEventsHasNoneInAnyForm) {
  open();
  std::ostringstream text;
  exportText(Scrivo::TraceReader(ring_), text);
  exportJson(Scrivo::TraceReader(ring_), text);
  EXPECT_EQ(text.str(), "");
  EXPECT_THAT(tracks(trackEvents()), ElementsAre(testing::Pair(1, "engine")));
}

TEST_F(TraceExportTest, EachNeighborHasATrackWithWhatHappenedThere) {
  simulate(conversations + "two-upstreams.txt");
  auto const events = trackEvents();
  std::vector<std::string> names;
  for (auto const& [number, name] : tracks(events)) names.push_back(name);
  EXPECT_THAT(names, ElementsAre("engine", "10.0.0.2 on eth0", "10.0.1.2 on eth1"));
  EXPECT_THAT(
      story(events, "10.0.1.2 on eth1"),
      ElementsAre(
          "i Changed the triggered data", "i Armed the triggered timer", "b triggered timer of 10.0.1.2",
          "i Fired the triggered timer", "e triggered timer of 10.0.1.2", "i Sending triggered joins/prunes",
          "i Sent a message of triggered data", "i Finished sending triggered joins/prunes",
          // The quantum cuts the burst.
          "i Changed the triggered data", "i Armed the triggered timer", "b triggered timer of 10.0.1.2",
          "i Fired the triggered timer", "e triggered timer of 10.0.1.2", "i Sending triggered joins/prunes",
          "i Sent a message of triggered data", "i Sent a message of triggered data",
          "i Sent a message of triggered data", "i Sent a message of triggered data",
          "i Suspending sending triggered joins/prunes", "i Armed the triggered timer",
          "b triggered timer of 10.0.1.2", "i Fired the triggered timer", "e triggered timer of 10.0.1.2",
          "i Sending triggered joins/prunes", "i Sent a message of triggered data",
          "i Sent a message of triggered data", "i Finished sending triggered joins/prunes"));
  auto const zero = story(events, "10.0.0.2 on eth0");
  for (char const* event : {"i Armed the triggered timer", "i Sending override joins/prunes",
                            "i Sent a message of periodic data", "b periodic timer of 10.0.0.2"})
    EXPECT_THAT(zero, testing::Contains(event));
  auto const sending = std::find_if(events.begin(), events.end(), [](json const& event) {
    return event["name"] == "Sending override joins/prunes";
  });
  EXPECT_EQ((*sending)["args"]["text"],
            "JoinPruneNeighborSm: Sending override joins/prunes to 10.0.0.2, Intf: eth0, Groups: 1");
}

TEST_F(TraceExportTest, NothingOfASimulationComesBeforeItsVirtualTime) {
  simulate(conversations + "two-upstreams.txt");
  double last = 0;
  int fired = 0;
  for (auto const& event : trackEvents()) {
    if (event["ph"] != "i") continue;
    double const time = event["ts"];
    EXPECT_GE(time, last) << event;
    last = time;
    if (event["name"].get<std::string>().starts_with("Fired")) {
      // What is due has three digits.
      EXPECT_GE(time, std::stod(event["args"]["Due"].get<std::string>()) * 1e6 - 500) << event;
      ++fired;
    }
    if (event["name"] == "Suspending sending triggered joins/prunes") {
      EXPECT_GE(time, 1720000);
    }
  }
  EXPECT_EQ(fired, 6);
  EXPECT_GE(last, 2030000);
}

// What a viewer needs: phases that it knows, tracks with names, slices that lie in each other or apart, and
// asynchronous slices that begin once and end once.
void expectSound(json const& events) {
  std::map<int, std::vector<std::pair<std::int64_t, std::int64_t>>> open;  // by track, from the outermost
  std::map<std::string, int> running;
  std::map<int, std::string> names;
  for (auto const& event : events)
    if (event["name"] == "thread_name") names[event["tid"]] = event["args"]["name"];
  auto const nanoseconds = [](json const& time) {
    return static_cast<std::int64_t>(std::llround(time.get<double>() * 1000));
  };
  for (auto const& event : events) {
    std::string const phase = event["ph"];
    ASSERT_TRUE(event["name"].is_string());
    ASSERT_EQ(event["pid"], 1);
    if (phase == "M") continue;
    ASSERT_TRUE(names.contains(event["tid"])) << event;
    ASSERT_GE(event["ts"], 0) << event;
    if (phase == "X") {
      auto const begin = nanoseconds(event["ts"]), end = begin + nanoseconds(event["dur"]);
      ASSERT_GE(end, begin) << event;
      auto& outer = open[event["tid"]];
      while (!outer.empty() && outer.back().second <= begin && outer.back().second < end) outer.pop_back();
      if (!outer.empty()) {
        ASSERT_GE(begin, outer.back().first) << event;
        ASSERT_LE(end, outer.back().second) << event;
      }
      outer.emplace_back(begin, end);
    } else if (phase == "b" || phase == "e") {
      auto& runs = running[event["id"]];
      runs += phase == "b" ? 1 : -1;
      ASSERT_TRUE(runs == 0 || runs == 1) << event;
    } else {
      ASSERT_EQ(phase, "i") << event;
      ASSERT_EQ(event["s"], "t") << event;
    }
  }
}

TEST_F(TraceExportTest, EveryConversationBecomesEventsThatAViewerCanDraw) {
  int slices = 0, instants = 0, count = 0;
  for (auto const& file : std::filesystem::directory_iterator(conversations)) {
    if (file.is_directory()) continue;  // jpagent does not perform those
    if (count++ % 6 != 0 && !thorough()) continue;
    SCOPED_TRACE(file.path());
    simulate(file.path());
    auto const events = trackEvents();
    expectSound(events);
    if (HasFatalFailure()) return;
    slices += static_cast<int>(
        std::count_if(events.begin(), events.end(), [](json const& e) { return e["ph"] == "X"; }));
    instants += static_cast<int>(
        std::count_if(events.begin(), events.end(), [](json const& e) { return e["ph"] == "i"; }));
  }
  EXPECT_GT(slices, thorough() ? 1000 : 100);
  EXPECT_GT(instants, thorough() ? 500 : 50);
}

TEST_F(TraceExportTest, TimeIsThatOfTheCounterWhereNobodySimulatesAClock) {
  open();
  SCRIVO_MESSAGE("Sm", "first");
  usleep(20000);
  SCRIVO_MESSAGE("Sm", "second");
  auto const events = trackEvents();
  double const first = events[events.size() - 2]["ts"], second = events.back()["ts"];
  EXPECT_GT(second - first, 20000 * 0.9);
  EXPECT_NEAR(first, Scrivo::TraceReader(ring_).events()[0].seconds * 1e6, 0.01);
}

TEST_F(TraceExportTest, ATimeThatIsLongInComputingDoesNotGoBack) {
  open();
  SCRIVO_MESSAGE("Simulation", "Clock: ", 1000000);
  usleep(3000);
  SCRIVO_MESSAGE("Sm", "before");
  SCRIVO_MESSAGE("Simulation", "Clock: ", 1001000);
  SCRIVO_MESSAGE("Sm", "after");
  SCRIVO_MESSAGE("Simulation", "Clock: ", 9000000);
  SCRIVO_MESSAGE("Sm", "much later");
  auto const events = trackEvents();
  std::size_t const last = events.size() - 1;
  double const before = events[last - 2]["ts"], after = events[last - 1]["ts"], later = events[last]["ts"];
  EXPECT_GT(before, 1002500);
  EXPECT_GE(after, before);
  EXPECT_GE(later, 9000000);
  EXPECT_LT(later, 9001000 + 2000000);
}

TEST_F(TraceExportTest, WhateverTheTimesAreEventsAreInTheirOrderAndNoneEndsBeforeItsBegin) {
  using Scrivo::EventKind;
  using Scrivo::Test::CraftedRing;
  constexpr auto most = std::numeric_limits<std::int64_t>::max(),
                 least = std::numeric_limits<std::int64_t>::min();
  constexpr auto integer = Scrivo::ArgumentKind::integer;
  auto const number = [](std::int64_t value) {
    return std::string(reinterpret_cast<char const*>(&value), sizeof value);
  };
  for (Vel::U64 const rate : {Vel::U64{1}, Vel::U64{1'000'000'000}, ~Vel::U64{0}}) {
    CraftedRing ring;
    auto const clock = ring.descriptor(EventKind::message, "Simulation",
                                       CraftedRing::literal("Clock: ") + CraftedRing::place(integer), 2);
    auto const text = ring.descriptor(
        EventKind::message, "Simulation",
        CraftedRing::literal("Clock: ") + CraftedRing::place(Scrivo::ArgumentKind::string), 2);
    auto const timer = ring.descriptor(EventKind::blockTimer, "T",
                                       CraftedRing::literal("void f()") + CraftedRing::place(integer), 2);
    for (Vel::U64 const counter : {Vel::U64{0}, Vel::U64{1} << 40, Vel::U64{1} << 63, ~Vel::U64{0}}) {
      for (std::int64_t const value :
           {least, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1} << 53, most}) {
        ring.record(EventKind::message, clock, counter, number(value));
        ring.record(EventKind::blockTimer, timer, counter, number(value));
      }
      ring.record(EventKind::message, text, counter, std::string("\1x"));
    }
    auto const bytes = ring.bytes(rate);
    auto const file = folder_.with("crafted", Bytes(bytes.begin(), bytes.end()));
    int slices = 0;
    json const all = json::parse(chrome(file));
    for (auto const& event : all["traceEvents"]) {
      if (event["ph"] != "X") continue;
      ++slices;
      EXPECT_GE(event["dur"].get<double>(), 0) << event;
      EXPECT_LE(std::abs(event["ts"].get<double>()), 3e15) << event;
    }
    EXPECT_EQ(slices, 20);
  }
}

TEST_F(TraceExportTest, EveryArgumentIsThereWhateverItIsCalled) {
  open();
  SCRIVO_MESSAGE("Sm", "Did text: ", 1, ", text: ", 2, ", source: ", 3, ", text#2: ", 4, ", text: ", 5,
                 ", : ", 6);
  auto const arguments = trackEvents().back()["args"];
  EXPECT_EQ(arguments.size(), 8u) << arguments;
  EXPECT_EQ(arguments["text"], "Did text: 1, text: 2, source: 3, text#2: 4, text: 5, : 6");
  int sum = 0;
  for (auto const& argument : arguments)
    if (argument.is_number()) sum += argument.get<int>();
  EXPECT_EQ(sum, 1 + 2 + 3 + 4 + 5 + 6);
}

class TraceCommandTest : public TraceExportTest {
 protected:
  Outcome trace(std::string const& file, std::vector<std::string> options = {}) {
    options.insert(options.begin(), "trace");
    options.push_back(file);
    return run(JPAGENT, options);
  }
};

TEST_F(TraceCommandTest, PrintsAllFormsOfAFile) {
  simulate(conversations + "triggered-join.txt");
  auto const text = trace(ring_), objects = trace(ring_, {"--json"}),
             chromeTrace = trace(ring_, {"--chrome"});
  for (auto const* outcome : {&text, &objects, &chromeTrace}) {
    EXPECT_EQ(outcome->status, 0);
    EXPECT_EQ(outcome->err, "");
  }
  auto const printed = lines(text.out), parsed = lines(objects.out);
  ASSERT_EQ(printed.size(), parsed.size());
  for (std::size_t i = 0; i < printed.size(); ++i)
    EXPECT_THAT(printed[i], testing::EndsWith(json::parse(parsed[i])["text"].get<std::string>()));
  EXPECT_EQ(chromeTrace.out, chrome(ring_));
}

TEST_F(TraceCommandTest, JsonAndChromeExcludeEachOther) {
  open();
  auto const outcome = trace(ring_, {"--json", "--chrome"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.err, HasSubstr("--json"));
}

TEST_F(TraceCommandTest, OfAFileThatWasCutOffWhatIsWholeIsPrinted) {
  simulate(conversations + "triggered-join.txt");
  auto const whole = lines(trace(ring_).out);
  auto bytes = readBytes(ring_);
  // The ring of block timers is the last; its first records remain.
  std::size_t const missing = (512 << 10) - 100;
  bytes.resize(bytes.size() - missing);
  auto const cut = folder_.with("cut", bytes);
  for (auto const& options : {std::vector<std::string>{}, {"--json"}, {"--chrome"}}) {
    auto const outcome = trace(cut, options);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "jpagent: " + cut + ": cut off, the last " + std::to_string(missing) +
                               " bytes are missing; 1 damaged part was passed over, the first at byte " +
                               std::to_string(bytes.size() - 4) + ": the end of the file\n");
    if (!options.empty()) continue;
    auto const printed = lines(outcome.out);
    // Four timers of 24 bytes each, and all messages.
    auto const messages = std::count_if(whole.begin(), whole.end(), [](std::string const& line) {
      return line.find(" counts, ") == line.npos;
    });
    EXPECT_EQ(static_cast<std::ptrdiff_t>(printed.size()), messages + 4);
    EXPECT_TRUE(std::includes(whole.begin(), whole.end(), printed.begin(), printed.end(),
                              [](auto const& a, auto const& b) { return std::stod(a) < std::stod(b); }));
  }
}

TEST_F(TraceCommandTest, SaysWhatIsDamagedAndWhere) {
  simulate(conversations + "triggered-join.txt");
  auto bytes = readBytes(ring_);
  std::size_t const firstMessage = 4096 + (256 << 10);
  bytes[firstMessage + 4] = 99;
  auto const damaged = folder_.with("damaged", bytes);
  auto const outcome = trace(damaged);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "jpagent: " + damaged + ": 1 damaged part was passed over, the first at byte " +
                             std::to_string(firstMessage) + ": a record of an unknown call site\n");
  EXPECT_EQ(lines(outcome.out).size() + 1, lines(trace(ring_).out).size());
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
