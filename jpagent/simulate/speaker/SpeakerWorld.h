// A speaker in the world of a simulation: commands go in, and each packet, event and refusal is a line:
//
//     2.118 sent Hello on eth0 from 10.0.0.1: hold 105, delay 500 ms, override 2500 ms, DR priority 1, ...
//     3.000 received Hello on eth0 from 10.0.0.2: hold 105, generation ID 0x00000001
//     3.000 neighbor 10.0.0.2 on eth0: up
//     3.100 sent Join/Prune on eth0 from 10.0.0.1, upstream 10.0.0.2, hold 210, 34 bytes
//     3.100   join (10.9.0.1,239.1.1.1)
//     4.000 downstream (10.9.0.1,239.1.1.1) on eth0: joined, from 10.0.0.3
//
//   SpeakerWords.h    the commands
//   SpeakerWorld.cpp  what commands do, and the lines on packets and events
//   SpeakerShow.cpp   the lines of `show`
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "jpagent/simulate/Simulation.h"
#include "pim/speaker/Speaker.h"

namespace Routing::Pim::Jpagent {

/// What `interface` says.
struct SpeakerInterfaceCommand {
  using Change = std::function<void(Speaker::InterfaceSettings&)>;

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

/// What `join` says.
struct SpeakerJoinCommand {
  RouteRange routes;
  SpeakerNeighborName via;
  bool assert = false;
};

/// What `receive` says.
struct SpeakerReceiveCommand {
  std::string intf;
  IpGenAddr source;
  Wire::JoinPrune message;
};

/// What a speaker is asked and what comes of it. A command that cannot be performed throws std::range_error
/// with the reason.
class SpeakerWorld final : public Speaker::Sink, public Speaker::SpeakerObserver {
 public:
  /// In a simulation, which must outlive it: its clock, its lines, its RPs and its denied groups.
  SpeakerWorld(Simulation& simulation, U32 seed);

  void interfaceIs(SpeakerInterfaceCommand const& command);
  void join(SpeakerJoinCommand const& command);
  void leave(RouteRange const& routes);
  void prune(RouteRange const& routes);
  void unprune(RouteRange const& routes);
  void receive(std::string const& intf, IpGenAddr const& source, Wire::Hello const& hello);
  void receive(SpeakerReceiveCommand const& command);
  void showInterfaces();
  void showNeighbors();
  void showUpstream();
  void showDownstream();
  void showCounters();

 private:
  struct Interface {
    std::vector<IpGenPrefix> addresses;
    Speaker::InterfaceSettings settings;
    bool isDown = false;
  };

  Speaker::Sent send(Speaker::Outgoing const& packet) override;
  void neighborChanged(Speaker::NeighborEvent const& event) override;
  void downstreamChanged(Speaker::DownstreamEvent const& event) override;
  void downstreamLimited(Speaker::DownstreamLimitEvent const& event) override;
  void packetUndelivered(Speaker::UndeliveredPacket const& packet) override;

  void line(std::string_view text) { simulation_.line(text); }
  void tellPacket(std::string_view verb, std::string const& intf, IpGenAddr const& source,
                  std::span<U8 const> bytes);
  void deliver(std::string const& intf, IpGenAddr const& source, std::span<U8 const> bytes);
  Speaker::UpstreamNeighbor upstreamOf(SpeakerNeighborName const& name) const;
  void lookAtWishes();
  void showInterface(std::string const& name, Interface const& interface, Dova::AddressFamily family);

  Simulation& simulation_;
  std::map<std::string, Interface> interfaces_;
  std::size_t pruned_ = 0;  // (S,G,rpt) that are wanted pruned
  Speaker::Speaker speaker_;
};

}  // namespace Routing::Pim::Jpagent
