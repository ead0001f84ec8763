// SPDX-License-Identifier: Apache-2.0
// The ring trace file of a run.
#pragma once

#include <string>

#include "jpagent/common/Ending.h"
#include "runtime/scrivo/TraceFile.h"

namespace Routing::Pim::Jpagent {

/// Writes a ring trace file for as long as it lives; with an empty path, none.
class ScrivoRecording {
 public:
  explicit ScrivoRecording(std::string const& path) {
    if (path.empty()) return;
    traceFileIs(path);
    Scrivo::TraceFile::open(path);
  }
  ~ScrivoRecording() { Scrivo::TraceFile::close(); }
  ScrivoRecording(ScrivoRecording const&) = delete;
  ScrivoRecording& operator=(ScrivoRecording const&) = delete;
};

}  // namespace Routing::Pim::Jpagent
