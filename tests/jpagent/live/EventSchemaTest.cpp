// SPDX-License-Identifier: Apache-2.0
// The check of all events and replies of this program's tests against the schema that is documented.
#include <fstream>
#include <map>
#include <set>

#include "tests/jpagent/Support.h"
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {

namespace {

// One line of each shape: those that differ in numbers alone have the same.
std::map<std::string, std::string>& schemaLines() {
  static std::map<std::string, std::string> lines;
  return lines;
}

std::string shapeOf(std::string_view line) {
  std::string shape;
  for (char const c : line) {
    bool const isDigit = c >= '0' && c <= '9';
    if (!isDigit || shape.empty() || shape.back() != '0') shape += isDigit ? '0' : c;
  }
  return shape;
}

// What check_events.py says of these lines.
Jpagent::Test::Outcome checked(std::set<std::string> const& events) {
  Jpagent::Test::TemporaryFolder const folder;
  auto const path = folder.file("events");
  std::ofstream file(path);
  for (auto const& line : events) file << line << '\n';
  file.close();
  std::string const source = JOINPRUNE_SOURCE_DIR;
  return Jpagent::Test::run("python3", {source + "/tests/jpagent/live/check_events.py",
                                        source + "/docs/live-events.schema.json", path});
}

class SchemaCheck final : public testing::Environment {
 public:
  void TearDown() override {
    if (schemaLines().empty()) return;
    std::set<std::string> events;
    for (auto const& [shape, line] : schemaLines()) events.insert(line);
    auto const outcome = checked(events);
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  }
};

auto* const schemaCheck = testing::AddGlobalTestEnvironment(new SchemaCheck);

}  // namespace

void schemaLineIs(std::string const& line) { schemaLines().try_emplace(shapeOf(line), line); }

TEST(EventSchemaTest, TheCheckFindsALineThatIsNotAsTheSchemaSays) {
  std::string const time = R"j({"time":"2026-11-22T06:00:00.000000Z",)j";
  std::set<std::string> wrong = {R"j({"time":"06:00","event":"error","what":"x","reason":"y"})j"};
  for (std::string const members :
       {R"j("event":"error","what":"x"})j", R"j("event":"error","what":"x","reason":7})j",
        R"j("event":"error","what":"x","reason":"y","more":1})j", R"j("event":"unheard of"})j",
        R"j("event":"downstream","state":"joined","interface":"eth0","route":"(*,239.1.1.1)"})j",
        R"j("event":"reply","ok":false,"command":"x"})j"})
    wrong.insert(time + members);
  auto all = wrong;
  all.insert(time + R"j("event":"error","what":"x","reason":"y"})j");
  auto const outcome = checked(all);
  EXPECT_EQ(outcome.status, 1);
  for (auto const& line : wrong) EXPECT_THAT(outcome.out, testing::HasSubstr(line + "\n    "));
  EXPECT_THAT(outcome.out,
              testing::Not(testing::HasSubstr(time + R"j("event":"error","what":"x","reason":"y"})j")));
  EXPECT_EQ(checked({}).status, 2);
}

}  // namespace Routing::Pim::Jpagent::Live::Test
