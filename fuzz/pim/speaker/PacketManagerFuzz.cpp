// SPDX-License-Identifier: Apache-2.0
// Data sets of any content and MTUs of any size into the packet manager: every packet keeps to the rules, and
// every entry is sent, left out for a reason that is reported, or stays because it cannot be encoded.
#include "pim/speaker/PacketManager.h"

#include <vector>

#include "fuzz/pim/speaker/Packets.h"
#include "pim/model/packet/GroupEntries.h"

namespace {

using namespace Routing::Pim;
using namespace Routing::Pim::Speaker;
using Fuzz::Input;

class CheckedPackets final : public PacketSink {
 public:
  explicit CheckedPackets(U32 const& mtu) : mtu_(mtu) {}
  void send(OutgoingPacket const& packet) override {
    if (failing) throw std::runtime_error("the line is down");
    Fuzz::requireGoodPacket(packet, mtu_);
    for (auto const& group : packet.message.groups())
      for (auto const& source : group.sources())
        entries.emplace_back(group.group(), source.address, source.kind);
  }

  bool failing = false;
  std::vector<std::tuple<IpGenAddr, IpGenAddr, EntryKind>> entries;

 private:
  U32 const& mtu_;
};

class SomeGroups final : public JoinPruneFilter {
 public:
  bool deny(IpGenAddr const& group) const override { return group.bytes().back() % 8 < denied; }
  U32 denied = 0;
};

struct World {
  explicit World(Input& bytes) : input(bytes), ipv6(input.flag()) {
    intf->usedAddressWithMaskIs(Dova::IpGenPrefix(unicast(1), 24));
    status->pimIntfIs(intf);
    mtu = 68 + input.below(1433);
    filter->denied = input.u8() & 1;
    suppressing = input.u8() & 1;
    manager = Vel::create<PacketManager>(
        packets, status, filter,
        [this](Dova::IntfId const&, IpGenAddr const&, RouteKey const& route, EntryKind kind) {
          return suppressing && isJoin(kind) && route.source().bytes().back() % 4 == 0;
        });
    manager->mtuIs(intf->intfId(), mtu);
    manager->start();
    data->holdTimeIs(input.u8());
  }

  IpGenAddr unicast(U8 n) const {
    U8 const ipv4Bytes[4] = {10, 0, 0, n},
             ipv6Bytes[16] = {0x20, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, n};
    return ipv6 ? IpGenAddr::fromBytes(ipv6Bytes) : IpGenAddr::fromBytes(ipv4Bytes);
  }
  IpGenAddr multicast(U8 n) const {
    U8 const ipv4Bytes[4] = {239, 1, 1, n},
             ipv6Bytes[16] = {0xff, 0xe, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, n};
    return ipv6 ? IpGenAddr::fromBytes(ipv6Bytes) : IpGenAddr::fromBytes(ipv4Bytes);
  }
  // Now and then what no message can hold: a group that is none, a source of another family or that is a
  // group.
  IpGenAddr source(U8 n) const { return n == 0 ? IpGenAddr() : n == 1 ? multicast(1) : unicast(n); }

  void fill() {
    for (U32 left = input.u8(); left > 0 && input; --left) {
      U8 const n = input.u8();
      auto const group = data->joinPruneGroupDataIs(n == 0 ? unicast(1) : multicast(n % 16));
      U8 const kind = input.u8(), count = kind & 64 ? input.u8() : 1, first = input.u8();
      for (U32 i = 0; i < count; ++i) {
        IpGenAddr const address = source(static_cast<U8>(first + i));
        switch (kind % 6) {
          case 0:
            group->joinedSourceIs(address);
            break;
          case 1:
            group->prunedSourceIs(address);
            break;
          case 2:
            group->joinedRptSourceIs(address);
            break;
          case 3:
            group->prunedRptSourceIs(address);
            break;
          case 4:
            group->wcSourceDataIs(Vel::create<Packet::WcSourceData>(address, true));
            break;
          case 5:
            group->wcSourceDataIs(Vel::create<Packet::WcSourceData>(address, false));
            break;
        }
      }
    }
  }

  U64 routes() const {
    U64 sum = 0;
    for (auto const& group : data->joinPruneGroupDataIterator()) sum += group.routes();
    return sum;
  }

  Packet::JoinPruneMessage::Report send() {
    auto const record = manager->txMessageInfo();
    record->joinPruneMessageIs(message);
    record->intfIdIs(intf->intfId());
    message->joinPruneDataIs(data);
    record->countInc(1);
    return message->report();
  }

  // Until nothing more is sent. What is left cannot be encoded, and was passed over in the last step.
  void drain() {
    U64 const before = routes();
    U64 done = 0;
    for (U32 messages = 0;;) {
      packets.failing = input.u8() == 1;
      if (!packets.failing) FUZZ_REQUIRE(++messages <= 2 * before + 2);
      U64 const left = routes();
      auto const report = send();
      FUZZ_REQUIRE(routes() == left - report.sources - report.skipped());
      done += report.sources + report.skipped();
      if (packets.failing) FUZZ_REQUIRE(report.sources == 0);
      if (!packets.failing && report.sources == 0 && report.skipped() == 0) break;
    }
    FUZZ_REQUIRE(done + routes() == before);
    for (auto const& group : data->joinPruneGroupDataIterator()) {
      Packet::forEachEntry(group, [&](EntryKind, IpGenAddr const& address) {
        FUZZ_REQUIRE(Wire::groupFault(group.group(), family()) || Wire::sourceFault(address, family()));
      });
    }
  }

  // One round: every route is sent or reported, and none of them twice.
  void refresh() {
    data->periodicIs(true);
    U64 const before = routes();
    U64 done = 0;
    for (U32 messages = 0; done < before; ++messages) {
      FUZZ_REQUIRE(messages <= before);
      auto const report = send();
      FUZZ_REQUIRE(report.sources != 0 || report.skipped() != 0);
      done += report.sources + report.skipped();
      FUZZ_REQUIRE(routes() == before);
    }
    FUZZ_REQUIRE(done == before);
    auto entries = packets.entries;
    std::sort(entries.begin(), entries.end());
    FUZZ_REQUIRE(std::adjacent_find(entries.begin(), entries.end()) == entries.end());
  }

  AddressFamily family() const { return ipv6 ? AddressFamily::ipv6 : AddressFamily::ipv4; }

  Input& input;
  bool const ipv6;
  U32 mtu = 1500;
  bool suppressing = false;
  CheckedPackets packets{mtu};
  Vel::Ptr<Status> const status = Vel::create<Status>();
  Vel::Ptr<Intf> const intf = Vel::create<Intf>(Dova::IntfId("eth0"));
  Vel::Ptr<SomeGroups> const filter = Vel::create<SomeGroups>();
  Vel::Ptr<PacketManager> manager;
  Vel::Ptr<Packet::JoinPruneMessage> const message = Vel::create<Packet::JoinPruneMessage>();
  Vel::Ptr<Packet::JoinPruneData> const data = Vel::create<Packet::JoinPruneData>(unicast(2));
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t size) {
  Input input(bytes, size);
  World world(input);
  world.fill();
  // No IPv6 message with one entry fits the smallest IPv4 MTU: then there is nothing to see.
  if (world.mtu < 40 + 26 + 24 + 20) return 0;
  world.refresh();
  world.data->periodicIs(false);
  // Resumes where the round ended, which is anywhere.
  world.drain();
  return 0;
}
