// Where `jpagent run` tells what went wrong, and the engine's trace lines.
#pragma once

#include <string>
#include <string_view>

#include "jpagent/live/LiveOutput.h"
#include "jpagent/live/Notify.h"

namespace Routing::Pim::Jpagent::Live {

class LiveLog {
 public:
  /// Priorities of syslog(3).
  static constexpr int error = 3, warning = 4, debug = 7;

  /// To "journald", to "stderr", or, if empty, nothing but trace lines to standard error.
  LiveLog(std::string const& to, LiveOutput& standardError)
      : toJournal_(to == "journald"), toStandardError_(to == "stderr"), standardError_(standardError) {}

  /// What went wrong.
  void write(int priority, std::string_view line) {
    if (toJournal_ && writeToJournal(priority, line)) return;
    if (toJournal_ || toStandardError_) add(line);
  }
  void trace(std::string_view line) {
    if (!toJournal_ || !writeToJournal(debug, line)) add(line);
  }

 private:
  void add(std::string_view line) { standardError_.add(std::string(line) + '\n'); }

  bool const toJournal_, toStandardError_;
  LiveOutput& standardError_;
};

}  // namespace Routing::Pim::Jpagent::Live
