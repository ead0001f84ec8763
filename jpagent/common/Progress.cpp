// SPDX-License-Identifier: Apache-2.0
#include "jpagent/common/Progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>

namespace Routing::Pim::Jpagent {

namespace {

volatile std::sig_atomic_t hasInterrupt = 0;

}  // namespace

// Not with the handler in Ending.cpp: that has all programs that it is linked into end when memory runs out.
void interruptIs() noexcept { hasInterrupt = 1; }
bool interrupted() { return hasInterrupt != 0; }

Progress* Progress::shown_ = nullptr;

Progress::Progress(std::string_view what, Beside beside)
    : what_(what), began_(std::chrono::steady_clock::now()) {
  if (isatty(STDERR_FILENO) && (beside == Beside::nothing || !isatty(STDOUT_FILENO))) shown_ = this;
}

Progress::~Progress() {
  if (shown_ != this) return;
  shown_ = nullptr;
  if (isOnScreen_) std::cerr << "\r\033[K" << std::flush;
}

void Progress::show(Vel::U64 done, Vel::U64 total) {
  double const passed = std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
  if (passed < due_) return;
  due_ = passed + 0.2;
  isOnScreen_ = true;
  double const share =
      std::min(1.0, static_cast<double>(done) / static_cast<double>(std::max<Vel::U64>(total, 1)));
  auto line = fmt::format("\r\033[K{}: {:.0f} %, {} of {}, {:.0f} a second", what_, share * 100, done, total,
                          static_cast<double>(done) / passed);
  if (share > 0) line += fmt::format(", {:.0f} s left", passed / share - passed);
  std::cerr << line << std::flush;
}

}  // namespace Routing::Pim::Jpagent
