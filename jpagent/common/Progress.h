// SPDX-License-Identifier: Apache-2.0
// How far long work is, on a terminal: "simulate: 45 %, 123456 of 270000, 98000 a second, 1 s left".
//
//     Progress const progress("simulate", Progress::Beside::output);
//     for (...) { Progress::at(done, total); if (interrupted()) break; ... }
//
// The line is on standard error, if that is a terminal, and is erased in the end. Work that is done at once
// has none.
#pragma once

#include <chrono>
#include <string_view>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent {

/// One at a time. As long as it lives, what calls at() shows how far it is.
class Progress {
 public:
  /// What the work prints meanwhile. Beside output on the same terminal, nothing is shown: it would be
  /// between its lines.
  enum class Beside : Vel::U8 { nothing, output };

  explicit Progress(std::string_view what, Beside beside);
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  /// So much of so much is done. Nothing without a Progress.
  static void at(Vel::U64 done, Vel::U64 total) {
    if (shown_ != nullptr) shown_->show(done, total);
  }

 private:
  void show(Vel::U64 done, Vel::U64 total);

  static Progress* shown_;
  std::string_view const what_;
  std::chrono::steady_clock::time_point const began_;
  double due_ = 0.3;  // seconds after that
  bool isOnScreen_ = false;
};

/// From here on a first SIGINT only makes interrupted() true. A second one ends the process.
void awaitInterrupt();
/// There was one. Async-signal-safe.
void interruptIs() noexcept;
/// Whether there was one since awaitInterrupt().
bool interrupted();

}  // namespace Routing::Pim::Jpagent
