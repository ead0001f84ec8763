// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/BlockTimer.h"

namespace Scrivo {

void BlockTimer::start(TraceFile& file, CallSite& site, char const* signature) noexcept {
  id_ = site.timerId(file, signature);
  generation_ = file.generation();
  started_ = cycleCounter();
}

void BlockTimer::stop() noexcept {
  U64 const now = cycleCounter();
  TraceFile* const file = TraceFile::current();
  if (file == nullptr || file->generation() != generation_) return;
  // Counters of two processors may differ by a little, and the thread may have moved.
  std::int64_t const elapsed = now < started_ ? 0 : static_cast<std::int64_t>(now - started_);
  file->record(EventKind::blockTimer, id_, now, elapsed);
}

}  // namespace Scrivo
