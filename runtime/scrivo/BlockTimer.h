// SPDX-License-Identifier: Apache-2.0
// How long a block takes.
//
//     void JoinPruneMessageSm::handleInitialized() {
//       SCRIVO_BLOCK_TIMER("JoinPruneSm", __PRETTY_FUNCTION__);
//       ...
#pragma once

#include "runtime/scrivo/CallSite.h"
#include "runtime/scrivo/CycleCounter.h"
#include "runtime/scrivo/TraceFile.h"
#include "runtime/vel/Export.h"

/// Records how many counts pass from here to the end of the enclosing block, however it is left. `source` is
/// a constant expression; `signature` is fixed for the statement. Costs one flag test if no trace file is
/// open.
#define SCRIVO_BLOCK_TIMER(source, signature)                                           \
  static constinit ::Scrivo::CallSite SCRIVO_UNIQUE(scrivoTimerSite)(source, __LINE__); \
  ::Scrivo::BlockTimer const SCRIVO_UNIQUE(scrivoTimer)(SCRIVO_UNIQUE(scrivoTimerSite), signature)

// The detour expands __LINE__ before it is pasted.
#define SCRIVO_UNIQUE(name) SCRIVO_UNIQUE_AT(name, __LINE__)
#define SCRIVO_UNIQUE_AT(name, line) SCRIVO_PASTE(name, line)
#define SCRIVO_PASTE(name, line) name##line

namespace Scrivo {

/// Records its own lifetime in the trace file that was open at its start. If that file is closed before its
/// end, it records nothing. One record at the end, so inner blocks come before outer ones.
class VEL_API BlockTimer {
 public:
  /// REQUIRES: `site` outlives this.
  BlockTimer(CallSite& site, char const* signature) {
    if (TraceFile* const file = TraceFile::current()) start(*file, site, signature);
  }
  ~BlockTimer() {
    if (id_ != 0) stop();
  }

  BlockTimer(BlockTimer const&) = delete;
  BlockTimer& operator=(BlockTimer const&) = delete;

 private:
  void start(TraceFile& file, CallSite& site, char const* signature) noexcept;
  void stop() noexcept;

  // Changed by the start. 0 is a timer that does not run; the others mean nothing then.
  U32 id_ = 0;
  U64 generation_;
  U64 started_;
};

}  // namespace Scrivo
