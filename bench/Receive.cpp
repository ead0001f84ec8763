// Receiving a message: from the decoded groups to the two records that the agent watches, in nanoseconds an entry. The
// floor walks the same data into a plain structure and compares each field in the same way before it stores it.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "pim/joinprune/JoinPruneMessageSm.h"

namespace {

using namespace Routing::Pim;
using Dova::IpGenAddr;

class Observer final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  void onRxCount() override { ++entries; }
  std::size_t entries = 0;
};

// What a message is made of.
struct Shape {
  std::string name;
  U32 groups, joins, prunes, rptPrunes;
  bool wildcard;
  U32 entries() const { return groups * (joins + prunes + rptPrunes + (wildcard ? 1 : 0)); }
};

Vel::Ptr<Packet::JoinPruneMessage> messageOf(Shape const& shape) {
  auto const data = Vel::create<Packet::JoinPruneData>(IpGenAddr("10.0.0.1"));
  data->holdTimeIs(210);
  for (U32 g = 0; g < shape.groups; ++g) {
    auto const group = data->joinPruneGroupDataIs(IpGenAddr::ipv4(0xef000000u + g));
    U32 source = 0x0a090000u;
    for (U32 i = 0; i < shape.joins; ++i) group->joinedSourceIs(IpGenAddr::ipv4(++source));
    for (U32 i = 0; i < shape.prunes; ++i) group->prunedSourceIs(IpGenAddr::ipv4(++source));
    for (U32 i = 0; i < shape.rptPrunes; ++i) group->prunedRptSourceIs(IpGenAddr::ipv4(++source));
    if (shape.wildcard) group->wcSourceDataIs(Vel::create<Packet::WcSourceData>(IpGenAddr("10.0.0.9"), true));
  }
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(data);
  return message;
}

struct PlainRecord {
  RouteIntfKey key;
  IpGenAddr upstream, wcSource;
  Packet::SourceFlags flags;
  double holdTime = 210;
  U32 count = 0;

  template <class T>
  static void store(T& stored, T const& value) {
    if (!(stored == value)) stored = value;
  }
  void put(RouteIntfKey const& newKey, Packet::SourceFlags const& newFlags) {
    store(key, newKey);
    store(flags, newFlags);
    ++count;
  }
};

struct PlainGroup {
  IpGenAddr group;
  std::vector<IpGenAddr> joins, prunes, rptPrunes;
  bool wildcard;
  IpGenAddr rp;
};

std::string measure(Shape const& shape, int observers) {
  int const rounds = static_cast<int>(std::max(1u, 2'000 / shape.entries()));
  double const count = rounds * static_cast<double>(shape.entries());
  std::string const what = shape.name + ", " + std::to_string(observers) + " observers";
  Bench::prepared("receive/" + what + "/ours", [=]() -> Bench::Run {
    auto const channel = Vel::create<IO::MessageInfo>();
    auto const join = joinPruneMessageInfoFactory(), prune = joinPruneMessageInfoFactory();
    std::vector<Vel::Ptr<Observer>> watching;
    for (int i = 0; i < observers; ++i)
      for (auto const& record : {join, prune}) {
        watching.push_back(Vel::create<Observer>());
        watching.back()->notifierIs(record);
      }
    auto const machine =
        joinPruneMessageSmFactory(nullptr, joinPruneFilterFactory(), nullptr,
                                  Vel::create<RpHashComputeStatus>(), join, prune, channel, nullptr, nullptr);
    channel->joinPruneMessageIs(messageOf(shape));
    return [=](Bench::Stopwatch& watch) {
      Bench::keep(machine);
      Bench::keep(watching);
      watch.start();
      for (int i = 0; i < rounds; ++i) channel->countInc(1);
      watch.stop(count);
    };
  });
  Bench::prepared("receive/" + what + "/floor", [=]() -> Bench::Run {
    auto const groups = std::make_shared<std::vector<PlainGroup>>();
    auto const data = messageOf(shape)->joinPruneData();
    for (auto const& group : data->joinPruneGroupDataIterator()) {
      PlainGroup plain{group.group(), {}, {}, {}, shape.wildcard, IpGenAddr("10.0.0.9")};
      for (auto i = group.joinedSourceIterator(); i; ++i) plain.joins.push_back(i.key());
      for (auto i = group.prunedSourceIterator(); i; ++i) plain.prunes.push_back(i.key());
      for (auto i = group.prunedRptSourceIterator(); i; ++i) plain.rptPrunes.push_back(i.key());
      groups->push_back(plain);
    }
    auto const records = std::make_shared<std::pair<PlainRecord, PlainRecord>>();
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (int i = 0; i < rounds; ++i) {
        auto& [join, prune] = *records;
        IpGenAddr const upstream("10.0.0.1");
        for (PlainRecord* const record : {&join, &prune}) {
          PlainRecord::store(record->upstream, upstream);
          PlainRecord::store(record->holdTime, 210.0);
        }
        for (PlainGroup const& group : *groups) {
          for (auto const& source : group.joins)
            join.put(RouteIntfKey(source, group.group, {}), Packet::SourceFlags(4));
          for (auto const& source : group.prunes)
            prune.put(RouteIntfKey(source, group.group, {}), Packet::SourceFlags(4));
          if (group.wildcard) {
            PlainRecord::store(join.wcSource, group.rp);
            join.put(RouteIntfKey(IpGenAddr::zero(group.group.af()), group.group, {}),
                     Packet::SourceFlags(7));
          }
          for (auto const& source : group.rptPrunes)
            prune.put(RouteIntfKey(source, group.group, {}), Packet::SourceFlags(5));
        }
        Bench::keep(*records);
        benchmark::ClobberMemory();
      }
      watch.stop(count);
    };
  });
  return what;
}

bool const registered = [] {
  for (Shape const& shape :
       {Shape{"70 groups of one source", 70, 1, 0, 0, false}, Shape{"one group of 180", 1, 180, 0, 0, false},
        Shape{"mixed kinds", 10, 3, 2, 4, true}}) {
    for (int const observers : {0, 1})
      Bench::row({.subject = "receive",
                  .what = measure(shape, observers),
                  .reference = "floor",
                  .atMost = observers == 0 ? 2.0 : 4.0});
  }
  for (U32 const size : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u})
    if (Bench::wanted(size)) {
      Shape const shape{Bench::sizeText(size) + " groups of one source", size, 1, 0, 0, false};
      Bench::growth("receive", size, "receive/" + measure(shape, 1));
    }
  return true;
}();

}  // namespace
