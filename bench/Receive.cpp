// SPDX-License-Identifier: Apache-2.0
// Receiving a message: from the decoded groups to the two records that the agent watches, in nanoseconds an
// entry. The floor walks the same data into a plain structure and compares each field in the same way before
// it stores it.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/Receiver.h"

namespace {

using namespace Routing::Pim;
using Bench::Shape;
using Dova::IpGenAddr;

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
    auto const receiver = std::make_shared<Bench::Receiver>(shape, observers);
    return [=](Bench::Stopwatch& watch) {
      watch.start();
      for (int i = 0; i < rounds; ++i) receiver->receive();
      watch.stop(count);
    };
  });
  Bench::prepared("receive/" + what + "/floor", [=]() -> Bench::Run {
    auto const groups = std::make_shared<std::vector<PlainGroup>>();
    auto const data = Bench::messageOf(shape)->joinPruneData();
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
