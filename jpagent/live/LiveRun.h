// SPDX-License-Identifier: Apache-2.0
// `jpagent run`: a LiveSpeaker with everything outside of it.
#pragma once

#include <string>
#include <vector>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent::Live {

/// What the command line says.
struct RunOptions {
  std::vector<std::string> interfaces;
  bool json = false;
  bool check = false;  ///< Only the configuration file is looked at.
  std::string control, configFile, pcapFile, scrivoFile, recordFile, log;
  std::vector<Vel::U32> traceLevels;
  std::vector<std::string> rps, denied;
};

/// Runs until it is told to end, and returns the exit status. What it cannot begin with throws an exception
/// whose text is one line.
int runLive(RunOptions const& options);

}  // namespace Routing::Pim::Jpagent::Live
