// SPDX-License-Identifier: Apache-2.0
// A simulation that performs the commands of OwnCommands.h, too.
#pragma once

#include "jpagent/simulate/Simulation.h"
#include "tests/conversations/own/OwnCommands.h"

namespace Routing::Pim::Jpagent {

class OwnSimulation final : public Simulation {
 public:
  explicit OwnSimulation(std::ostream& out, Speaker::PacketSink* alsoTo = nullptr,
                         std::size_t mayLookAt = mostLookedAt);
  ~OwnSimulation() override;

  using Simulation::on;
  void on(OwnInterfaceCommand const& command);
  void on(NeighborAgainCommand const& command);
  void on(OwnDataCommand const& command);
  void on(TemperCommand const& command);

 private:
  class Temper;

  void beginCommand() override { temperedAtOnce_ = 0; }
  void serveRecord() override;
  void fill(Packet::JoinPruneData& data, OwnDataCommand const& own);
  void again(Packet::JoinPruneData& data, OwnDataCommand const& own);
  void sendTempered(IO::MessageInfo const& record);
  void performAll(std::vector<std::string> const& commands);

  // A packet manager in place of the real one.
  std::shared_ptr<TemperCommand const> temper_ = std::make_shared<TemperCommand>();
  U32 temperedMessages_ = 0;  // since the temper came
  U32 temperedAtOnce_ = 0;    // in one command
  Vel::Ptr<Temper> const temperer_;
};

}  // namespace Routing::Pim::Jpagent
