// SPDX-License-Identifier: Apache-2.0
// Frames of all link types into a replay: through the IP headers, the decoder, the conversion and the
// engine. Each entry of a message that is well formed comes out once, or again if the message repeats it;
// without leniency, only if the message came by the right way.
#include "jpagent/replay/Replay.h"

#include <sstream>

#include "fuzz/Fuzz.h"
#include "jpagent/capture/Datagram.h"

namespace {

using namespace Routing::Pim::Jpagent;
namespace Wire = Routing::Pim::Wire;
using Fuzz::Input;

// Puts the checksum right in most PIM messages; hardly any input would come further otherwise.
void mend(LinkType link, std::vector<U8>& frame) {
  auto const result = findDatagram(link, frame);
  auto const* const found = std::get_if<Datagram>(&result);
  if (!found || found->protocol != Wire::pimProtocol || found->payload.size() < 4) return;
  if (found->source.af() != found->destination.af() || found->source.width() == 0) return;
  U8* const message = frame.data() + (found->payload.data() - frame.data());
  message[2] = message[3] = 0;
  Vel::U16 const checksum = Wire::pimChecksum(found->payload, found->source, found->destination);
  message[2] = static_cast<U8>(checksum >> 8);
  message[3] = static_cast<U8>(checksum);
}

// How many entries of a frame must come out.
std::size_t expected(LinkType link, std::span<U8 const> frame) {
  auto const result = findDatagram(link, frame);
  auto const* const found = std::get_if<Datagram>(&result);
  if (!found) return 0;
  FUZZ_REQUIRE(found->payload.empty() ||
               (found->payload.data() >= frame.data() &&
                found->payload.data() + found->payload.size() <= frame.data() + frame.size()));
  if (found->protocol != Wire::pimProtocol || found->state != Datagram::State::whole) return 0;
  auto const decoded = Wire::decodeJoinPrune(found->payload, found->source, found->destination);
  std::size_t entries = 0;
  if (auto const* const message = std::get_if<Wire::JoinPrune>(&decoded))
    for (auto const& group : message->groups()) entries += group.joins().size() + group.prunes().size();
  return entries;
}

class CountingReport final : public Report {
 public:
  void entry(Place const& place, Entry const& entry) override {
    ++entries;
    text_.entry(place, entry);
    json_.entry(place, entry);
  }
  void refusal(Place const& place, Wire::PimType type, Wire::Refusal const& refusal) override {
    text_.refusal(place, type, refusal);
    json_.refusal(place, type, refusal);
  }
  void totals(Totals const& totals) override {
    text_.totals(totals);
    json_.totals(totals);
  }

  std::size_t entries = 0;

 private:
  std::ostringstream out_;
  TextReport text_{out_};
  JsonReport json_{out_, out_};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  Input input(data, size);
  CountingReport report, strictReport;
  ReplayOptions options;
  Replay strict(options, strictReport);
  options.lenient = true;
  Replay replay(options, report);
  Frame frame;
  while (input) {
    U8 const how = input.u8();
    auto const length = how & 8 ? input.u16() : input.u8();
    auto const bytes = input.bytes(length);
    std::vector<U8> copy(bytes.begin(), bytes.end());
    frame.link = how & 16 ? LinkType::ppp : static_cast<LinkType>(how & 3);
    if (how & 32) frame.time += input.u8() - 16;
    if (!(how & 4)) mend(frame.link, copy);
    frame.bytes = copy;
    ++frame.number;
    std::size_t const before = report.entries, strictBefore = strictReport.entries;
    replay.receiveFrame(frame);
    strict.receiveFrame(frame);
    std::size_t const entries = report.entries - before, strictEntries = strictReport.entries - strictBefore;
    FUZZ_REQUIRE(entries == expected(frame.link, frame.bytes));
    FUZZ_REQUIRE(strictEntries == entries || strictEntries == 0);
    auto const& totals = replay.totals();
    FUZZ_REQUIRE(totals.messages + totals.hellos + totals.passedOverFrames() == totals.frames);
  }
  report.totals(replay.totals());
  strictReport.totals(strict.totals());
  return 0;
}
