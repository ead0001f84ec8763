// SPDX-License-Identifier: Apache-2.0
#include "jpagent/replay/ReplayRun.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "jpagent/common/Ending.h"
#include "jpagent/common/Output.h"
#include "jpagent/common/Progress.h"
#include "jpagent/common/ScrivoRecording.h"
#include "runtime/vel/Hash.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Jpagent {

namespace {

// Senders choose the addresses in a capture, and must not be able to choose such as collide.
void seedHash() {
  U64 seed;
  if (getrandom(&seed, sizeof seed, 0) != sizeof seed)
    throw std::runtime_error(fmt::format("no random numbers: {}", std::strerror(errno)));
  Vel::hashSeedIs(seed);
}

}  // namespace

int runReplay(std::string const& file, ReplayOptions const& options, Report& report) {
  seedHash();
  std::vector<NamedFile> files = {{"the capture", file}};
  if (!options.scrivoFile.empty()) files.push_back({"--scrivo", options.scrivoFile});
  refuseSharedFiles(files);
  Capture capture(file);
  ScrivoRecording const scrivo(options.scrivoFile);
  for (Vel::U32 const level : options.traceLevels)
    Vel::TraceHandle::find("Pim::JoinPrune").levelIs(level, true);
  Replay machine(options, report);
  std::string damage;
  try {
    Progress const progress("replay", Progress::Beside::output);
    awaitInterrupt();
    Frame frame;
    while (std::cout && !interrupted() && capture.next(frame)) {
      machine.receiveFrame(frame);
      if (frame.number % 64 == 0) Progress::at(capture.bytesRead(), capture.size());
    }
  } catch (CaptureError const& e) {
    damage = e.what();
  }
  if (interrupted()) damage = fmt::format("{}: interrupted after frame {}", file, machine.totals().frames);
  report.totals(machine.totals());
  if (!damage.empty()) {
    std::cout.flush();
    return cannot(damage);
  }
  return machine.totals().refusedMessages() ? somethingRefused : allFine;
}

}  // namespace Routing::Pim::Jpagent
