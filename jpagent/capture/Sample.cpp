// SPDX-License-Identifier: Apache-2.0
#include "jpagent/capture/Sample.h"

#include "jpagent/capture/Capture.h"
#include "jpagent/capture/FrameBuilder.h"
#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Jpagent {

namespace {

constexpr U64 startOfSample = 1'750'000'000'000'000;  // Microseconds since 1970; any fixed time does.
constexpr U16 holdTime = 210;

void checksumFill(std::vector<U8>& message, IpGenAddr const& source) {
  message[2] = message[3] = 0;
  U16 const checksum = Wire::pimChecksum(message, source, Wire::allPimRouters(source.af()));
  message[2] = static_cast<U8>(checksum >> 8);
  message[3] = static_cast<U8>(checksum);
}

// A LAN with two routers. The downstream one, whose messages these are, asks the upstream one for traffic.
class Lan {
 public:
  Lan(CaptureWriter& capture, IpGenAddr const& downstream, IpGenAddr const& upstream)
      : capture_(capture), downstream_(downstream), upstream_(upstream) {}

  Wire::JoinPrune message() const { return Wire::JoinPrune(upstream_, holdTime); }

  void hello(U64 milliseconds, IpGenAddr const& sender) {
    std::vector<U8> bytes = {0x20, 0, 0, 0, 0,
                             1,    0, 2, 0, 105};  // The one option: a hold time of 105 seconds.
    checksumFill(bytes, sender);
    send(milliseconds, sender, bytes);
  }

  void helloOfEach(U64 milliseconds) {
    hello(milliseconds, downstream_);
    hello(milliseconds + 250, upstream_);
  }

  void joinPrune(U64 milliseconds, Wire::JoinPrune const& message, std::initializer_list<U16> vlanTags = {}) {
    send(milliseconds, downstream_, encode(message), vlanTags);
  }

  void withBadChecksum(U64 milliseconds, Wire::JoinPrune const& message) {
    auto bytes = encode(message);
    bytes[3] ^= 0x01;
    send(milliseconds, downstream_, bytes);
  }

  // Promises one group more than there is.
  void withWrongCount(U64 milliseconds, Wire::JoinPrune const& message) {
    auto bytes = encode(message);
    std::size_t const groupCountAt = 4 + 2 + upstream_.bytes().size() + 1;
    ++bytes[groupCountAt];
    checksumFill(bytes, downstream_);
    send(milliseconds, downstream_, bytes);
  }

 private:
  std::vector<U8> encode(Wire::JoinPrune const& message) const {
    return Wire::encodeJoinPrune(message, downstream_, Wire::allPimRouters(downstream_.af()));
  }

  void send(U64 milliseconds, IpGenAddr const& sender, std::span<U8 const> message,
            std::initializer_list<U16> vlanTags = {}) {
    auto const datagram = ipDatagram(sender, Wire::allPimRouters(sender.af()), Wire::pimProtocol, message);
    capture_.frameAdd(startOfSample + milliseconds * 1000, ethernetFrame(datagram, vlanTags));
  }

  CaptureWriter& capture_;
  IpGenAddr const downstream_, upstream_;
};

void writeIpv4(CaptureWriter& capture) {
  Lan lan(capture, IpGenAddr("10.0.0.14"), IpGenAddr("10.0.0.13"));
  IpGenAddr const rp("10.255.0.1"), group("239.1.1.1"), otherGroup("239.1.1.2");
  IpGenAddr const source("192.0.2.10"), otherSource("192.0.2.20");
  lan.helloOfEach(0);

  auto message = lan.message();
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardJoin, rp);
  lan.joinPrune(1500, message);

  message = lan.message();
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardJoin, rp);
  message.entryAdd(EntryKind::sourceJoin, source);
  message.entryAdd(EntryKind::sourceRptPrune, source);
  message.groupAdd(otherGroup);
  message.entryAdd(EntryKind::sourceJoin, source);
  message.entryAdd(EntryKind::sourcePrune, otherSource);
  lan.joinPrune(4250, message);

  message = lan.message();
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardJoin, rp);
  message.entryAdd(EntryKind::sourceRptJoin, source);
  lan.joinPrune(9125, message);
  lan.withBadChecksum(9500, message);

  message = lan.message();
  message.groupAdd(otherGroup);
  message.entryAdd(EntryKind::sourceJoin, otherSource);
  lan.joinPrune(10750, message, {100});
  lan.joinPrune(10875, message, {200, 100});
  lan.withWrongCount(12000, message);

  message = lan.message();
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardPrune, rp);
  lan.joinPrune(20625, message);
}

void writeIpv6(CaptureWriter& capture) {
  Lan lan(capture, IpGenAddr("fe80::14"), IpGenAddr("fe80::13"));
  IpGenAddr const rp("2001:db8:ff::1"), group("ff0e::101"), otherGroup("ff3e::8000:1");
  IpGenAddr const source("2001:db8::10"), otherSource("2001:db8::20");
  lan.helloOfEach(30000);

  auto message = lan.message();
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardJoin, rp);
  message.entryAdd(EntryKind::sourceRptJoin, otherSource);
  message.entryAdd(EntryKind::sourceRptPrune, source);
  message.groupAdd(otherGroup);
  message.entryAdd(EntryKind::sourceJoin, source);
  message.entryAdd(EntryKind::sourcePrune, otherSource);
  lan.joinPrune(31500, message);

  message = lan.message();
  message.groupAdd(group);
  message.entryAdd(EntryKind::wildcardPrune, rp);
  lan.joinPrune(42000, message);
}

}  // namespace

void writeSample(std::string const& path) {
  CaptureWriter capture(path);
  writeIpv4(capture);
  writeIpv6(capture);
  capture.close();
}

}  // namespace Routing::Pim::Jpagent
