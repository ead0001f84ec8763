// The check of all events and replies of this program's tests against the schema that is documented.
#include <fstream>
#include <set>

#include "tests/jpagent/Support.h"
#include "tests/jpagent/live/LiveScene.h"

namespace Routing::Pim::Jpagent::Live::Test {

namespace {

std::set<std::string>& schemaLines() {
  static std::set<std::string> lines;
  return lines;
}

class SchemaCheck final : public testing::Environment {
 public:
  void TearDown() override {
    if (schemaLines().empty()) return;
    Jpagent::Test::TemporaryFolder const folder;
    auto const path = folder.file("events");
    std::ofstream file(path);
    for (auto const& line : schemaLines()) file << line << '\n';
    file.close();
    std::string const source = JOINPRUNE_SOURCE_DIR;
    auto const outcome = Jpagent::Test::run("python3", {source + "/tests/jpagent/live/check_events.py",
                                                        source + "/docs/live-events.schema.json", path});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  }
};

auto* const schemaCheck = testing::AddGlobalTestEnvironment(new SchemaCheck);

}  // namespace

void schemaLineIs(std::string const& line) { schemaLines().insert(line); }

}  // namespace Routing::Pim::Jpagent::Live::Test
