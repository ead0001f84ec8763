// SPDX-License-Identifier: Apache-2.0
// The configuration file of `jpagent run`, in TOML:
//
//     control = "/run/jpagent/control"
//     deny = ["239.255.0.0/16"]
//
//     [rp]
//     "239.0.0.0/8" = "10.255.0.1"
//
//     [interface.eth0]
//     hello = 10                   # each setting of the command "interface"
//     tracking = true
//
//     [[route]]
//     join = "(*,239.1.1.1)"       # what follows the word in the command
//     rp = "10.255.0.1"
//     via = "10.0.0.2%eth0"
//
//     [[route]]
//     prune = "(10.9.0.1,239.1.1.1,rpt)"
//
// It comes down to commands, so what a value may be is said in one place.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent::Live {

using Vel::U32;

/// A file that cannot be read or says something that cannot be. `what()` is one line that begins with the
/// file's name and, where there is one, the line and column: "jpagent.toml:3:1: unknown key \"helo\"".
class ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Where something is in the file, from 1.
struct Place {
  U32 line = 0, column = 0;
};

/// Words of a command, and where they are in the file.
struct Configured {
  std::string words;
  Place place;
};

/// What a file says.
struct Configuration {
  std::string file;  ///< Its name.
  std::string control;
  std::vector<std::string> rps;     ///< As --rp takes them.
  std::vector<std::string> denied;  ///< As --deny takes them.
  /// For each interface its settings, as "hello 10".
  std::map<std::string, std::vector<Configured>> interfaces;
  /// For "join (*,239.1.1.1)" and the like, what follows: "rp 10.255.0.1 via 10.0.0.2". Or nothing follows.
  std::map<std::string, Configured> routes;

  /// Throws ConfigurationError. Whether the settings and routes can be is not looked at.
  static Configuration fromFile(std::string const& path);

  /// Throws a ConfigurationError about a place.
  [[noreturn]] void fail(Place place, std::string const& what) const;
};

/// The commands that lead from one configuration to another: routes that are no longer there are left first.
/// The interfaces must have been given.
std::vector<std::string> commandsBetween(Configuration const& before, Configuration const& after);

/// Performs what a file says on a speaker that sends nothing, so that what cannot be is found before anything
/// is changed. Throws ConfigurationError. `others` are interfaces that the command line gives.
void check(Configuration const& configuration, std::vector<std::string> const& others);

}  // namespace Routing::Pim::Jpagent::Live
