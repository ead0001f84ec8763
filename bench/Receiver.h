// SPDX-License-Identifier: Apache-2.0
// A machine that receives, and messages for it.
#pragma once

#include <string>
#include <vector>

#include "pim/joinprune/JoinPruneMessageSm.h"

namespace Bench {

using Dova::IpGenAddr;
using Vel::U32;

class Observer final : public Routing::Pim::JoinPruneMessageInfo::NotifieeConst {
 public:
  void onRxCount() override { ++entries; }
  std::size_t entries = 0;
};

/// What a message is made of.
struct Shape {
  std::string name;
  U32 groups, joins, prunes, rptPrunes;
  bool wildcard;
  U32 entries() const { return groups * (joins + prunes + rptPrunes + (wildcard ? 1 : 0)); }
};

inline Vel::Ptr<Routing::Pim::Packet::JoinPruneMessage> messageOf(Shape const& shape) {
  auto const data = Vel::create<Routing::Pim::Packet::JoinPruneData>(IpGenAddr("10.0.0.1"));
  data->holdTimeIs(210);
  for (U32 g = 0; g < shape.groups; ++g) {
    auto const group = data->joinPruneGroupDataIs(IpGenAddr::ipv4(0xef000000u + g));
    U32 source = 0x0a090000u;
    for (U32 i = 0; i < shape.joins; ++i) group->joinedSourceIs(IpGenAddr::ipv4(++source));
    for (U32 i = 0; i < shape.prunes; ++i) group->prunedSourceIs(IpGenAddr::ipv4(++source));
    for (U32 i = 0; i < shape.rptPrunes; ++i) group->prunedRptSourceIs(IpGenAddr::ipv4(++source));
    if (shape.wildcard)
      group->wcSourceDataIs(Vel::create<Routing::Pim::Packet::WcSourceData>(IpGenAddr("10.0.0.9"), true));
  }
  auto const message = Vel::create<Routing::Pim::Packet::JoinPruneMessage>();
  message->joinPruneDataIs(data);
  return message;
}

/// Receives the same message again and again; so many observers watch each of the two records.
class Receiver {
 public:
  Receiver(Shape const& shape, int observers) {
    using namespace Routing::Pim;
    auto const join = joinPruneMessageInfoFactory(), prune = joinPruneMessageInfoFactory();
    for (int i = 0; i < observers; ++i)
      for (auto const& record : {join, prune}) {
        watching_.push_back(Vel::create<Observer>());
        watching_.back()->notifierIs(record);
      }
    machine_ = joinPruneMessageSmFactory(nullptr, joinPruneFilterFactory(), nullptr,
                                         Vel::create<RpHashComputeStatus>(), join, prune, channel_, nullptr,
                                         nullptr);
    channel_->joinPruneMessageIs(messageOf(shape));
  }
  void receive() { channel_->countInc(1); }
  /// Receives another message, and the same from then on.
  void receive(Vel::Ptr<Routing::Pim::Packet::JoinPruneMessage> const& message) {
    channel_->joinPruneMessageIs(message);
    receive();
  }

 private:
  Vel::Ptr<Routing::Pim::IO::MessageInfo> const channel_ = Vel::create<Routing::Pim::IO::MessageInfo>();
  std::vector<Vel::Ptr<Observer>> watching_;
  Vel::Ptr<Routing::Pim::JoinPruneMessageSm> machine_;
};

}  // namespace Bench
