// SPDX-License-Identifier: Apache-2.0
// `jpagent run`: a LiveSpeaker with everything outside of it.
//
// Which file of this folder does what:
//
//   LiveRun.h        `jpagent run` from its beginning to its exit status
//   LiveSpeaker.h    all that it does without I/O; which source file of it does what is said there
//   LiveWords.h      the table of commands
//   Event.h          events and replies as JSON or text
//   Inside.h         what the source files of LiveSpeaker share
//   Recording.h      the inputs of a LiveSpeaker, written to a file
//   Performance.h    the performance of a recording
//   Configuration.h  the configuration file
//   Interfaces.h     the interfaces that it was given: followed in the kernel, each with its sockets
//   KernelLinks.h    what the kernel says of interfaces, by netlink
//   PimSocket.h      the raw socket of one interface and family
//   Loop.h           what the loop watches: descriptors, timers, signals
//   ControlServer.h  the UNIX socket for commands, and its clients
//   Tell.h           `jpagent tell`, a client of it
//   LiveOutput.h     an output that never makes the program wait
//   LiveOutputs.h    all the outputs of a run
//   Pending.h        bytes on their way through descriptors that may be slow
//   Notify.h         what systemd and the journal are told
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
