// SPDX-License-Identifier: Apache-2.0
// A speaker in the world of a simulation: commands go in, and each packet, event and refusal is a line:
//
//     2.118 sent Hello on eth0 from 10.0.0.1: hold 105, delay 500 ms, override 2500 ms, DR priority 1, ...
//     3.000 received Hello on eth0 from 10.0.0.2: hold 105, generation ID 0x00000001
//     3.000 neighbor 10.0.0.2 on eth0: up
//     3.100 sent Join/Prune on eth0 from 10.0.0.1, upstream 10.0.0.2, hold 210, 34 bytes
//     3.100   join (10.9.0.1,239.1.1.1)
//     4.000 downstream (10.9.0.1,239.1.1.1) on eth0: joined, from 10.0.0.3
//
//   SpeakerWords.h    the words of commands
//   SpeakerCommands.h what commands do that are not a conversation's alone
//   SpeakerWorld.cpp  what commands do, and the lines on packets and events
//   SpeakerShow.cpp   the lines of `show`
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "jpagent/simulate/Simulation.h"
#include "jpagent/simulate/speaker/SpeakerCommands.h"

namespace Routing::Pim::Jpagent {

/// What `receive` says.
struct SpeakerReceiveCommand {
  std::string intf;
  IpGenAddr source;
  Wire::JoinPrune message;
};

/// What a speaker is asked and what comes of it.
class SpeakerWorld final : public SpeakerCommands, public Speaker::Sink, public Speaker::SpeakerObserver {
 public:
  /// In a simulation, which must outlive it: its clock, its lines, its RPs and its denied groups.
  SpeakerWorld(Simulation& simulation, U32 seed);

  void interfaceIs(SpeakerInterfaceCommand const& command) override;
  void leave(RouteRange const& routes) override;
  void show(SpeakerSubject subject) override;
  void receive(std::string const& intf, IpGenAddr const& source, Wire::Hello const& hello);
  void receive(SpeakerReceiveCommand const& command);

 private:
  struct Interface {
    std::vector<IpGenPrefix> addresses;
    SpeakerInterfaceSettings settings;
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
  Speaker::Speaker& speaker() override { return speaker_; }
  std::vector<Place> places() const override;
  IpGenAddr rpOf(IpGenAddr const& group) const override;
  void lookAtWishes();
  void showInterfaces();
  void showNeighbors();
  void showUpstream();
  void showDownstream();
  void showCounters();
  void showInterface(std::string const& name, Interface const& interface, Dova::AddressFamily family);

  Simulation& simulation_;
  std::map<std::string, Interface> interfaces_;
  Speaker::Speaker speaker_;
};

}  // namespace Routing::Pim::Jpagent
