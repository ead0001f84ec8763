// SPDX-License-Identifier: Apache-2.0
// What the engine writes into the ring trace file.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>

#include "runtime/scrivo/TraceFile.h"
#include "runtime/scrivo/TraceReader.h"
#include "tests/pim/joinprune/World.h"

namespace Routing::Pim {

/// A ring trace file for one test.
class RingTrace {
 public:
  RingTrace() { Scrivo::TraceFile::open(path_); }
  ~RingTrace() {
    Scrivo::TraceFile::close();
    std::filesystem::remove(path_);
  }
  Lines messages() const {
    Lines lines;
    for (auto const& event : Scrivo::TraceReader(path_).events())
      if (event.kind == Scrivo::EventKind::message) lines.push_back(event.text);
    return lines;
  }
  Lines timers() const {
    Lines lines;
    for (auto const& event : Scrivo::TraceReader(path_).events())
      if (event.kind == Scrivo::EventKind::blockTimer) lines.push_back(event.text);
    return lines;
  }

 private:
  std::string const path_ = testing::TempDir() + "engine-" + std::to_string(getpid()) + ".trace";
};

}  // namespace Routing::Pim
