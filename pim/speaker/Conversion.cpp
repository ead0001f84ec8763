#include "pim/speaker/Conversion.h"

namespace Routing::Pim::Speaker {

namespace {

class ModelWriter {
 public:
  explicit ModelWriter(Wire::JoinPrune const& wire) : wire_(wire) { begin(); }

  std::vector<Vel::Ptr<Packet::JoinPruneMessage>> messages() {
    for (auto const& group : wire_.groups()) {
      if (data_->joinPruneGroupData(group.group())) begin();
      open(group.group());
      for (auto const& source : group.joins()) put(source, true);
      for (auto const& source : group.prunes()) put(source, false);
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

  void put(Wire::Source const& source, bool join) {
    if (fits(source, join)) return;
    auto const group = group_->group();
    begin();
    open(group);
    fits(source, join);
  }

  // Puts an entry in, unless it is there already or its place is taken.
  bool fits(Wire::Source const& source, bool join) {
    switch (source.kind) {
      case Wire::SourceKind::source:
        return join ? group_->joinedSourceIs(source.address) : group_->prunedSourceIs(source.address);
      case Wire::SourceKind::sourceRpt:
        return join ? group_->joinedRptSourceIs(source.address) : group_->prunedRptSourceIs(source.address);
      case Wire::SourceKind::wildcard:
        if (group_->wcSourceData()) return false;
        group_->wcSourceDataIs(Vel::create<Packet::WcSourceData>(source.address, join));
        return true;
    }
    return true;
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
