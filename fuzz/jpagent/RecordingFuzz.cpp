// SPDX-License-Identifier: Apache-2.0
// Recordings of jpagent run. An input that begins as one does is performed as it is. Any other makes the
// choices of a run, whose recording performs to what the run printed. After some of its bytes were changed it
// may end with an error, which names a line.
#include <nlohmann/json.hpp>
#include <sstream>

#include "fuzz/pim/speaker/Packets.h"
#include "jpagent/live/Performance.h"
#include "tests/jpagent/live/ChosenRun.h"

namespace {

using namespace Routing::Pim::Jpagent;
using Fuzz::Input;

class CheckedPackets final : public Routing::Pim::Speaker::PacketSink {
 public:
  void send(Routing::Pim::Speaker::OutgoingPacket const& packet) override {
    constexpr U32 largestPacket = 65535;
    if (!Fuzz::Wire::isPimType(packet.bytes, Fuzz::Wire::PimType::hello))
      Fuzz::requireGoodPacket(packet, largestPacket);
  }
};

// What comes out of a recording; nothing is added for an error that it ends with.
std::string performed(std::string_view text, bool& hasFailed) {
  std::ostringstream out;
  CheckedPackets packets;
  U64 microseconds = 0;
  hasFailed = false;
  try {
    auto const others = Live::recordings();
    Conversation const recording(text, others.forms, Subject::own);
    others.perform(recording, out, &packets, microseconds);
  } catch (ConversationError const& error) {
    hasFailed = true;
    FUZZ_REQUIRE(error.line() <= static_cast<U32>(std::count(text.begin(), text.end(), '\n')) + 1);
    FUZZ_REQUIRE(*error.what() != '\0');
  }
  return out.str();
}

void performAnything(std::string_view text) {
  bool hasFailed;
  std::istringstream lines(performed(text, hasFailed));
  for (std::string line; std::getline(lines, line);)
    FUZZ_REQUIRE(!line.starts_with('{') || nlohmann::json::accept(line));
}

// Changes bytes of a text.
class Damage {
 public:
  explicit Damage(Input& input) {
    for (U32 left = input.below(8); left > 4; --left) changes_.push_back({input.u16(), input.u8()});
  }
  explicit operator bool() const { return !changes_.empty(); }
  void doTo(std::string& text) const {
    for (auto const& [place, byte] : changes_) text[place % text.size()] = static_cast<char>(byte);
  }

 private:
  struct Change {
    std::size_t place;
    U8 byte;
  };
  std::vector<Change> changes_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t size) {
  if (size != 0 && *bytes == '#') {
    performAnything(Fuzz::textOf({bytes, size}));
    return 0;
  }
  Input input(bytes, size);
  Damage const damage(input);
  std::ostringstream record, printed;
  Live::Test::ChosenRun([&input](U32 bound) { return input.below(bound); }, input.flag(), record, printed)
      .play([&input] { return static_cast<bool>(input); });
  auto text = record.str();
  if (damage) {
    damage.doTo(text);
    performAnything(text);
    return 0;
  }
  bool hasFailed;
  auto const output = performed(text, hasFailed);
  if (output != printed.str())
    std::fprintf(stderr, "RECORDING\n%s\nPRINTED\n%s\nPERFORMED\n%s\n", text.c_str(), printed.str().c_str(),
                 output.c_str());
  FUZZ_REQUIRE(!hasFailed && output == printed.str());
  return 0;
}
