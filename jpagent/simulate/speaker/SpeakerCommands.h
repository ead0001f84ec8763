// SPDX-License-Identifier: Apache-2.0
// What commands to a speaker do, whatever world it is in: that of a conversation or that of `jpagent run`.
//
//   SpeakerCommands.h   the commands
//   SpeakerWords.h      their words
//   SpeakerWorld.h      a speaker in a conversation
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "jpagent/simulate/Routes.h"
#include "pim/speaker/Speaker.h"

namespace Routing::Pim::Jpagent {

using Dova::IpGenPrefix;
using Vel::Seconds;
using Vel::U16;

/// The settings of an interface, and which of them were given.
struct SpeakerInterfaceSettings : Speaker::InterfaceSettings {
  bool helloHoldGiven = false, holdGiven = false;
};

/// What `interface` says.
struct SpeakerInterfaceCommand {
  using Change = std::function<void(SpeakerInterfaceSettings&)>;

  std::string name;
  std::vector<IpGenPrefix> addresses;  ///< None: they stay as they are.
  bool noAddress = false;              ///< They are taken away.
  std::vector<Change> changes;         ///< Of settings, in order.
  bool up = false, down = false, gone = false;
};

/// A neighbor that is named by an address and perhaps by its interface.
struct SpeakerNeighborName {
  IpGenAddr address;
  std::string intf;  ///< Empty if it is not named.
};

/// What `join` says. A (*,G) without an RP has one of unknown family.
struct SpeakerJoinCommand {
  RouteRange routes;
  SpeakerNeighborName via;
  bool assert = false;
};

/// What `show` may name.
enum class SpeakerSubject : U8 { interfaces, neighbors, upstream, downstream, counters };

/// The commands. One that cannot be performed throws std::range_error with the reason and changes nothing.
class SpeakerCommands {
 public:
  virtual ~SpeakerCommands() = default;

  virtual void interfaceIs(SpeakerInterfaceCommand const& command) = 0;
  void join(SpeakerJoinCommand const& command);
  virtual void leave(RouteRange const& routes);
  void prune(RouteRange const& routes);
  void unprune(RouteRange const& routes);
  virtual void show(SpeakerSubject subject) = 0;

 protected:
  /// An interface by its name, with its addresses.
  struct Place {
    std::string intf;
    std::vector<IpGenPrefix> addresses;
  };

  virtual Speaker::Speaker& speaker() = 0;
  virtual std::vector<Place> places() const = 0;
  /// Of unknown family if it is not known.
  virtual IpGenAddr rpOf(IpGenAddr const& group) const = 0;
  /// Throws if there is no such interface and may be none.
  virtual void requireInterface(std::string const&) const {}

  /// How many (S,G,rpt) are wanted pruned.
  std::size_t pruned() const { return pruned_; }

 private:
  Speaker::UpstreamNeighbor upstreamOf(SpeakerNeighborName const& name);

  std::size_t pruned_ = 0;
};

}  // namespace Routing::Pim::Jpagent
