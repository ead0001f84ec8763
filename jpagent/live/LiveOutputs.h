// SPDX-License-Identifier: Apache-2.0
// All that `jpagent run` writes to: standard output and error, the files of the command line, the journal.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "jpagent/live/LiveOutput.h"
#include "jpagent/live/LiveRun.h"

namespace Routing::Pim::Jpagent::Live {

class LiveOutputs {
 public:
  /// Priorities of syslog(3).
  static constexpr int error = 3, warning = 4, debug = 7;

  /// Throws Vel::RangeException "<path>: <reason>".
  LiveOutputs(Loop& loop, RunOptions const& options);
  ~LiveOutputs();

  /// Opens --pcap and --scrivo anew, also after a failure. The recording is not opened again: its beginning
  /// would be missing. Throws Vel::RangeException.
  void reopen();

  /// An event or reply, whole lines.
  void print(std::string_view lines) { stdout_.add(lines); }
  /// What went wrong, to where --log says.
  void log(int priority, std::string_view line);
  /// A packet for --pcap.
  void capture(Speaker::Incoming const& packet, std::span<U8 const> message);
  bool isRecording() const { return record_.has_value(); }
  /// A line of the recording, which is in the file when this returns.
  void record(std::string_view line);

  /// Writes what can be without waiting.
  void flush();
  /// Calls for each output that has failed since the last call.
  void takeFailures(std::function<void(std::string const& name, std::string const& reason)> const& failed);
  /// Writes everything, and waits for readers a moment. False if an output has failed at any time.
  bool finish();

 private:
  std::vector<LiveOutput*> all();
  void openPcap();
  void openScrivo();

  Loop& loop_;
  RunOptions const& options_;
  LiveOutput stdout_, stderr_;
  std::optional<LiveFile> pcap_, record_;
  bool hasFailed_ = false;
};

/// Microseconds since 1970.
U64 wallMicroseconds();

}  // namespace Routing::Pim::Jpagent::Live
