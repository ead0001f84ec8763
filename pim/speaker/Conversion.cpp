// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/Conversion.h"

#include "pim/model/packet/GroupEntries.h"

namespace Routing::Pim::Speaker {

namespace {

class ModelWriter {
 public:
  explicit ModelWriter(Wire::JoinPrune const& wire) : wire_(wire) { begin(); }

  std::vector<Vel::Ptr<Packet::JoinPruneMessage>> messages() {
    for (auto const& group : wire_.groups()) {
      if (data_->joinPruneGroupData(group.group())) begin();
      open(group.group());
      for (auto const& source : group.sources()) put(source);
    }
    return std::move(messages_);
  }

 private:
  void begin() {
    auto const message = Vel::create<Packet::JoinPruneMessage>();
    data_ = Vel::create<Packet::JoinPruneData>(wire_.upstreamNeighbor());
    data_->holdTimeIs(wire_.holdTime());
    message->joinPruneDataIs(data_);
    messages_.push_back(message);
  }

  void open(IpGenAddr const& group) { group_ = data_->joinPruneGroupDataIs(group); }

  void put(Wire::Source const& source) {
    if (fits(source)) return;
    auto const group = group_->group();
    begin();
    open(group);
    fits(source);
  }

  // Puts an entry in, unless it is there already or its place is taken.
  bool fits(Wire::Source const& source) {
    if (isWildcard(source.kind) && group_->wcSourceData()) return false;
    return Packet::addEntry(*group_, source.kind, source.address);
  }

  Wire::JoinPrune const& wire_;
  std::vector<Vel::Ptr<Packet::JoinPruneMessage>> messages_;
  Vel::Ptr<Packet::JoinPruneData> data_;
  Vel::Ptr<Packet::JoinPruneGroupData> group_;
};

}  // namespace

std::vector<Vel::Ptr<Packet::JoinPruneMessage>> modelMessages(Wire::JoinPrune const& message) {
  return ModelWriter(message).messages();
}

}  // namespace Routing::Pim::Speaker
