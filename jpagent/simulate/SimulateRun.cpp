// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/SimulateRun.h"

#include <fmt/format.h>

#include <cmath>
#include <iostream>
#include <optional>
#include <sstream>

#include "jpagent/capture/PcapPackets.h"
#include "jpagent/common/Ending.h"
#include "jpagent/common/Output.h"
#include "jpagent/common/Progress.h"
#include "jpagent/common/ScrivoRecording.h"
#include "jpagent/simulate/Simulation.h"

namespace Routing::Pim::Jpagent {

int runSimulate(std::string const& file, SimulateOptions const& options, OtherConversations const& others) {
  std::vector<NamedFile> files = {{"the conversation", file}};
  if (!options.pcapFile.empty()) files.push_back({"--pcap", options.pcapFile});
  if (!options.scrivoFile.empty()) files.push_back({"--scrivo", options.scrivoFile});
  refuseSharedFiles(files);
  std::ostringstream output;
  bool const toFile = options.check || options.rewrite;
  try {
    auto text = Conversation::textOf(file);
    bool const isOther = others.areThese != nullptr && others.areThese(text);
    // What a process writes until it is killed may end in the middle of a line.
    if (isOther) text.resize(text.rfind('\n') + 1);
    auto const conversation = isOther ? Conversation(text, others.forms, Subject::own) : Conversation(text);
    if (options.check && !conversation.hasRule())
      throw ConversationError(0, "expected a rule (----) and under it what is to come out");
    std::optional<FileOutput> rewritten;
    if (options.rewrite) rewritten.emplace(file, Scrivo::OutputFile::Use::file);
    ScrivoRecording const scrivo(options.scrivoFile);
    Simulation const* clock = nullptr;
    U64 microseconds = 0;
    std::optional<PcapPackets> packets;
    if (!options.pcapFile.empty()) {
      packets.emplace(options.pcapFile, [&clock, &microseconds] {
        return clock != nullptr ? static_cast<U64>(std::llround(clock->now() * 1e6)) : microseconds;
      });
    }
    Progress const progress("simulate", toFile ? Progress::Beside::nothing : Progress::Beside::output);
    awaitInterrupt();
    std::ostream& out = toFile ? output : std::cout;
    if (isOther) {
      others.perform(conversation, out, packets ? &*packets : nullptr, microseconds);
    } else {
      Simulation simulation(out, packets ? &*packets : nullptr);
      clock = &simulation;
      simulate(conversation, simulation);
    }
    if (packets) packets->close();
    if (rewritten) {
      *rewritten << conversation.withExpected(output.view());
      rewritten->close();
    }
    if (!options.check) return allFine;
    auto const difference = conversation.difference(file, output.view());
    std::cout << difference;
    return difference.empty() ? allFine : somethingDiffers;
  } catch (ConversationError const& e) {
    std::cout.flush();
    return cannot(e.line() ? fmt::format("{}:{}: {}", file, e.line(), e.what())
                           : fmt::format("{}: {}", file, e.what()));
  }
}

}  // namespace Routing::Pim::Jpagent
