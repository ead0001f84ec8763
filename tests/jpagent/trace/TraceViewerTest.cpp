// SPDX-License-Identifier: Apache-2.0
// docs/trace-viewer.html in a browser without a window: what it has drawn is in the page afterwards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/Thorough.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using nlohmann::json;
using testing::HasSubstr;

/// How often something of a kind ("slice", "instant", "timer") with a name was drawn on each track.
using Drawn = std::map<std::string, std::map<std::string, int>>;

class TraceViewerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!thorough()) GTEST_SKIP() << "scripts/prove runs it: a browser starts for each test";
    if (run("sh", {"-c", "command -v chromium"}).status != 0) GTEST_SKIP() << "chromium is not installed";
  }

  std::string traceOf(std::string const& conversation) {
    auto const ring = folder_.file("ring");
    auto const path = JOINPRUNE_SOURCE_DIR "/tests/conversations/" + conversation;
    EXPECT_EQ(run(JPAGENT, {"simulate", "--scrivo", ring, path}).status, 0);
    auto const outcome = run(JPAGENT, {"trace", "--chrome", ring});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome.out;
  }

  /// The address of a copy of the page with this trace in it.
  std::string page(std::string const& trace) {
    auto html = readText(JOINPRUNE_SOURCE_DIR "/docs/trace-viewer.html");
    std::string const element = R"(<script type="application/json" id="trace">)";
    auto const place = html.find(element);
    EXPECT_NE(place, html.npos);
    html.insert(place + element.size(), std::regex_replace(trace, std::regex("</"), "<\\/"));
    return "file://" + folder_.with("page.html", Bytes(html.begin(), html.end()));
  }

  Outcome chromium(std::vector<std::string> const& arguments) {
    auto const profile = folder_.file("profile" + std::to_string(++profiles_));
    std::filesystem::create_directory(profile);
    std::vector<std::string> all = {"--headless",
                                    "--no-sandbox",
                                    "--disable-gpu",
                                    "--disable-quic",
                                    "--no-first-run",
                                    "--disable-background-networking",
                                    "--disable-component-update",
                                    "--disable-sync",
                                    "--user-data-dir=" + profile};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run("chromium", all);
  }

  std::string dom(std::string const& address) {
    auto const outcome = chromium({"--window-size=1240,900", "--dump-dom", address});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return outcome.out;
  }

  static std::string attribute(std::string const& tag, std::string const& name) {
    std::smatch match;
    return std::regex_search(tag, match, std::regex(" " + name + "=\"([^\"]*)\"")) ? match[1].str() : "";
  }

  /// What the tracks of the upper half of the picture show.
  static Drawn drawn(std::string const& page) {
    Drawn result;
    std::string track;
    std::regex const tags("<(g|rect|path)( [^>]*)>");
    auto const svg = page.substr(std::min(page.find("<svg"), page.size()));
    for (std::sregex_iterator i(svg.begin(), svg.end(), tags), end; i != end; ++i) {
      std::string const tag = (*i)[2];
      auto const kind = attribute(tag, "class"), name = attribute(tag, "data-name");
      if ((*i)[1] == "g") track = kind == "track" ? attribute(tag, "data-track") : "";
      if (!track.empty() && !name.empty()) ++result[track][kind.substr(0, kind.find(' ')) + " " + name];
    }
    return result;
  }

  static Drawn expected(json const& trace) {
    Drawn result;
    std::map<int, std::string> names;
    for (auto const& event : trace["traceEvents"])
      if (event["name"] == "thread_name") names[event["tid"]] = event["args"]["name"];
    std::map<std::string, std::string> const kinds = {{"X", "slice"}, {"i", "instant"}, {"b", "timer"}};
    for (auto const& event : trace["traceEvents"]) {
      auto const kind = kinds.find(event["ph"]);
      if (kind != kinds.end())
        ++result[names.at(event["tid"])][kind->second + " " + event["name"].get<std::string>()];
    }
    return result;
  }

  TemporaryFolder folder_;
  int profiles_ = 0;
};

TEST_F(TraceViewerTest, DrawsEveryTrackSliceInstantAndTimer) {
  auto const trace = traceOf("two-upstreams.txt");
  auto const page = dom(this->page(trace) + "#at=0.5");
  auto const seen = drawn(page);
  EXPECT_EQ(seen, expected(json::parse(trace)));
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen.at("10.0.1.2 on eth1").at("instant Sent a message of triggered data"), 7);
  EXPECT_EQ(seen.at("10.0.0.2 on eth0").at("timer override timer of 10.0.0.2"), 1);
  EXPECT_EQ(seen.at("engine").at("slice JoinPruneNeighborSm::handleTriggeredTimerExpiry"), 4);
  for (char const* text :
       {">10.0.0.2 on eth0</text>", ">join (10.9.1.1,239.1.1.2) and 10 more</text>",
        ">Suspending sending triggered</text>", ">override timer</text>", ">sent 1 prune</text>"})
    EXPECT_THAT(page, HasSubstr(text));
  // A busy machine may be late by some milliseconds.
  EXPECT_THAT(page, testing::ContainsRegex(">0\\.5[0-9]+ s under the magnifying glass: "));
}

TEST_F(TraceViewerTest, DrawsEveryKindOfConversation) {
  for (char const* conversation : {"refresh.txt", "ipv6.txt", "received-entries.txt"}) {
    SCOPED_TRACE(conversation);
    auto const trace = traceOf(conversation);
    EXPECT_EQ(drawn(dom(page(trace))), expected(json::parse(trace)));
  }
}

TEST_F(TraceViewerTest, AClickChoosesTheMomentAndTheWheelZooms) {
  auto const address = page(traceOf("two-upstreams.txt"));
  auto html = readText(address.substr(std::string("file://").size()));
  // The burst of 1.6 s lies here in a picture of this width, and the wheel is turned until the refresh is out
  // of it.
  html += R"(<script>
    const at = {clientX: 930, clientY: 200, bubbles: true, cancelable: true};
    document.getElementById("picture").dispatchEvent(new PointerEvent("pointerdown", at));
    window.dispatchEvent(new PointerEvent("pointerup", at));
    for (let i = 0; i < 4; ++i)
      document.getElementById("picture").dispatchEvent(new WheelEvent("wheel", {...at, deltaY: -1}));
    </script>)";
  auto const seen = dom("file://" + folder_.with("clicked.html", Bytes(html.begin(), html.end())));
  EXPECT_THAT(seen, testing::ContainsRegex(">1\\.6[0-9]+ s under the magnifying glass: "));
  auto const drawnThen = drawn(seen);
  EXPECT_EQ(drawnThen.at("10.0.1.2 on eth1").at("instant Sent a message of triggered data"), 4);
  EXPECT_FALSE(drawnThen.at("10.0.0.2 on eth0").contains("instant Sent a message of periodic data"));
}

TEST_F(TraceViewerTest, SaysWhatIsWrongWithATrace) {
  struct {
    char const *trace, *message;
  } const rows[] = {{"{\"traceEvents\":[", "This is no JSON: "},
                    {"{\"other\":1}", "This is no trace: there are no traceEvents in it."},
                    {"[]", "There are no events in this trace."}};
  for (auto const& row : rows) {
    auto const page = dom(this->page(row.trace));
    EXPECT_THAT(page, HasSubstr(std::string("<div id=\"error\">") + row.message));
    EXPECT_EQ(page.find("id=\"picture\""), page.npos);
  }
}

TEST_F(TraceViewerTest, TakesAPictureOfTheSizeThatThePageNames) {
  auto const address = page(traceOf("two-upstreams.txt")) + "#at=0.5";
  std::smatch height;
  auto const drawnPage = dom(address);
  ASSERT_TRUE(std::regex_search(drawnPage, height, std::regex("data-height=\"([0-9]+)\"")));
  auto const picture = folder_.file("picture.png");
  EXPECT_EQ(chromium({"--hide-scrollbars", "--window-size=1240," + height[1].str(), "--screenshot=" + picture,
                      address})
                .status,
            0);
  auto const bytes = readBytes(picture);
  ASSERT_GT(bytes.size(), 24u);
  auto const number = [&bytes](std::size_t at) {
    return bytes[at] << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3];
  };
  EXPECT_EQ(std::string(bytes.begin() + 1, bytes.begin() + 4), "PNG");
  EXPECT_EQ(number(16), 1240);
  EXPECT_EQ(std::to_string(number(20)), height[1].str());
  // A page that is one color is a few thousand bytes.
  EXPECT_GT(bytes.size(), 30000u);
  EXPECT_LT(bytes.size(), 150000u);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
