#include "agent/Datagram.h"

#include <algorithm>

#include "agent/Cursor.h"

namespace Routing::Pim::Agent {

namespace {

using State = Datagram::State;

namespace EtherType {
constexpr U16 ipv4 = 0x0800, ipv6 = 0x86dd;
constexpr U16 customerTag = 0x8100, serviceTag = 0x88a8, oldServiceTag = 0x9100;
}  // namespace EtherType

namespace NextHeader {
constexpr U8 hopByHop = 0, routing = 43, fragment = 44, destinationOptions = 60;
}

constexpr std::size_t ipv4HeaderSize = 20, ipv6HeaderSize = 40;

U16 wordAt(std::span<U8 const> bytes, std::size_t at) {
  return static_cast<U16>(bytes[at] << 8 | bytes[at + 1]);
}

State stateOf(unsigned fragmentOffset, bool moreFragments, bool snapped) {
  if (fragmentOffset != 0) return State::laterFragment;
  if (moreFragments) return State::firstFragment;
  return snapped ? State::snapped : State::whole;
}

std::optional<Datagram> ipv4Datagram(std::span<U8 const> bytes) {
  constexpr std::size_t protocolAt = 9;
  if (bytes.size() <= protocolAt || bytes[0] >> 4 != 4) return std::nullopt;
  Datagram found;
  found.protocol = bytes[protocolAt];
  std::size_t const headerSize = (bytes[0] & 0x0fu) * 4u;
  std::size_t const totalLength = wordAt(bytes, 2);
  if (bytes.size() >= ipv4HeaderSize) {
    found.source = IpGenAddr::fromBytes(bytes.subspan(12, 4));
    found.destination = IpGenAddr::fromBytes(bytes.subspan(16, 4));
  }
  if (headerSize < ipv4HeaderSize || totalLength < headerSize) {
    found.state = State::malformed;
    return found;
  }
  U16 const fragment = wordAt(bytes, 6);
  found.state = stateOf(fragment & 0x1fffu, fragment & 0x2000u, bytes.size() < totalLength);
  auto const datagram = bytes.first(std::min(bytes.size(), totalLength));
  found.payload = datagram.subspan(std::min(datagram.size(), headerSize));
  return found;
}

// Where the walk over extension headers has come to.
struct Ipv6Walk {
  Cursor in;
  U8 next;
  unsigned fragmentOffset = 0;
  bool moreFragments = false;

  static bool isExtension(U8 header) {
    return header == NextHeader::hopByHop || header == NextHeader::routing ||
           header == NextHeader::fragment || header == NextHeader::destinationOptions;
  }

  // False if the bytes end within a header. `next` may have moved on all the same: it comes first in each.
  bool toPayload() {
    // Behind the header of a later fragment there is no other header but the middle of something.
    while (isExtension(next) && fragmentOffset == 0) {
      U8 const header = next;
      U8 length;
      if (!in.read(next) || !in.read(length)) return false;
      if (header == NextHeader::fragment) {
        U16 offsetAndFlags;
        if (!in.read(offsetAndFlags) || !in.skip(4)) return false;
        fragmentOffset = offsetAndFlags >> 3;
        moreFragments = offsetAndFlags & 1;
      } else if (!in.skip(6 + std::size_t{length} * 8)) {
        return false;
      }
    }
    return true;
  }
};

std::optional<Datagram> ipv6Datagram(std::span<U8 const> bytes) {
  constexpr std::size_t nextHeaderAt = 6;
  if (bytes.size() <= nextHeaderAt || bytes[0] >> 4 != 6) return std::nullopt;
  Datagram found;
  found.protocol = bytes[nextHeaderAt];
  if (bytes.size() < ipv6HeaderSize) {
    if (Ipv6Walk::isExtension(found.protocol)) return std::nullopt;
    found.state = State::snapped;
    return found;
  }
  found.source = IpGenAddr::fromBytes(bytes.subspan(8, 16));
  found.destination = IpGenAddr::fromBytes(bytes.subspan(24, 16));
  std::size_t const totalLength = ipv6HeaderSize + wordAt(bytes, 4);
  bool const snapped = bytes.size() < totalLength;
  auto const datagram = bytes.first(std::min(bytes.size(), totalLength));
  Ipv6Walk walk{Cursor(datagram.subspan(ipv6HeaderSize)), found.protocol};
  bool const arrived = walk.toPayload();
  if (!arrived && Ipv6Walk::isExtension(walk.next)) return std::nullopt;
  found.protocol = walk.next;
  if (arrived) {
    found.state = stateOf(walk.fragmentOffset, walk.moreFragments, snapped);
    found.payload = walk.in.rest();
  } else {
    found.state = snapped ? State::snapped : State::malformed;
  }
  return found;
}

std::optional<Datagram> ofEtherType(U16 type, Cursor in) {
  while (type == EtherType::customerTag || type == EtherType::serviceTag ||
         type == EtherType::oldServiceTag) {
    if (!in.skip(2) || !in.read(type)) return std::nullopt;
  }
  if (type == EtherType::ipv4) return ipv4Datagram(in.rest());
  if (type == EtherType::ipv6) return ipv6Datagram(in.rest());
  return std::nullopt;
}

}  // namespace

std::optional<Datagram> findDatagram(LinkType link, std::span<U8 const> frame) {
  Cursor in(frame);
  U16 type;
  switch (link) {
    case LinkType::ethernet:
      if (!in.skip(12) || !in.read(type)) return std::nullopt;
      return ofEtherType(type, in);
    case LinkType::linuxCooked:
      if (!in.skip(14) || !in.read(type)) return std::nullopt;
      return ofEtherType(type, in);
    case LinkType::linuxCooked2:
      if (!in.read(type) || !in.skip(18)) return std::nullopt;
      return ofEtherType(type, in);
    case LinkType::rawIp:
      if (auto const found = ipv4Datagram(frame)) return found;
      return ipv6Datagram(frame);
  }
  return std::nullopt;
}

}  // namespace Routing::Pim::Agent
