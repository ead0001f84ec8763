// SPDX-License-Identifier: Apache-2.0
// Where `jpagent run` writes: standard output and files. None of them ever makes it wait.
#pragma once

#include <sys/types.h>

#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "jpagent/live/Loop.h"
#include "jpagent/live/Pending.h"
#include "pim/speaker/Speaker.h"
#include "runtime/scrivo/OutputFile.h"

namespace Routing::Pim::Jpagent::Live {

using Vel::U64;
using Vel::U8;

/// An output. After its first failure all else is dropped.
class LiveOutput {
 public:
  /// How much may wait for a reader that does not read, in bytes; more is a failure.
  static constexpr std::size_t mostPending = 64 << 20;

  /// To a descriptor that stays the caller's. `name` is for messages. If it is a file of this output alone,
  /// what a failure has cut off is removed from its end.
  LiveOutput(Loop& loop, std::string name, int descriptor, bool isOwnFile = false);

  std::string const& name() const { return name_; }
  /// Adds what belongs together, such as a line or a record.
  void add(std::string_view bytes);
  /// Writes what can be without waiting, and the rest when the loop says that there is room.
  void flush();
  /// The reason of the first failure, once; empty without one that is new.
  std::string takeFailure();
  bool hasFailed() const { return !reason_.empty(); }
  /// Writes everything, and waits for it at most this long. False if not everything was written.
  bool finish(Seconds patience);

 private:
  void fail(std::string reason);

  Loop& loop_;
  std::string const name_;
  int const descriptor_;
  bool const isOwnFile_;
  Pending pending_;
  std::deque<U64> ends_;  // of what was added and is not written
  U64 added_ = 0, whole_ = 0;
  std::optional<Watch> watch_;  // while something waits
  std::string reason_;
  bool isTold_ = false;
};

/// A file. It has its name as soon as its first part is written.
class LiveFile {
 public:
  /// Throws Vel::RangeException "<path>: <reason>".
  LiveFile(Loop& loop, std::string const& path, std::string_view first);

  LiveOutput& output() { return output_; }
  /// Closes the file. False if not everything was written.
  bool close(Seconds patience);

 private:
  Scrivo::OutputFile file_;
  LiveOutput output_;
};

/// The first bytes of a capture of IP packets with time stamps in microseconds.
std::string captureHeader();
/// A PIM message in such a capture, with its IP header. The time is in microseconds since 1970.
std::string capturedPacket(U64 microseconds, Speaker::Incoming const& packet, std::span<U8 const> message);

}  // namespace Routing::Pim::Jpagent::Live
