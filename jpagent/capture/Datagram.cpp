// SPDX-License-Identifier: Apache-2.0
#include "jpagent/capture/Datagram.h"

#include <algorithm>

#include "pim/wire/Cursor.h"

namespace Routing::Pim::Jpagent {

namespace {

using State = Datagram::State;
using Found = std::variant<Datagram, PassedOver>;

// What is smaller is the length of an LLC frame (IEEE 802.3).
constexpr U16 smallestEtherType = 0x0600;

namespace EtherType {
constexpr U16 ipv4 = 0x0800, ipv6 = 0x86dd;
constexpr U16 customerTag = 0x8100, serviceTag = 0x88a8, oldServiceTag = 0x9100;
constexpr U16 pppoeSession = 0x8864, bridgedEthernet = 0x6558;
constexpr U16 mpls = 0x8847, mplsMulticast = 0x8848, backboneTag = 0x88e7, macsec = 0x88e5;
}  // namespace EtherType

namespace PppProtocol {
constexpr U16 ipv4 = 0x0021, ipv6 = 0x0057;
constexpr U16 multilink = 0x003d, encrypted = 0x0053, compressed = 0x00fd, mpls = 0x0281;
}  // namespace PppProtocol

namespace NextHeader {
constexpr U8 hopByHop = 0, routing = 43, fragment = 44, destinationOptions = 60, authentication = 51;
constexpr U8 ipv4 = 4, ipv6 = 41, gre = 47;
constexpr U8 security = 50, etherIp = 97, compression = 108, l2tp = 115, mpls = 137;
}  // namespace NextHeader

constexpr std::size_t ipv4HeaderSize = 20, ipv6HeaderSize = 40;

U16 wordAt(std::span<U8 const> bytes, std::size_t at) {
  return static_cast<U16>(bytes[at] << 8 | bytes[at + 1]);
}

State stateOf(unsigned fragmentOffset, bool moreFragments, bool snapped) {
  if (fragmentOffset != 0) return State::laterFragment;
  if (moreFragments) return State::firstFragment;
  return snapped ? State::snapped : State::whole;
}

// Where the walk over the headers between the IP header and the payload has come to.
struct HeaderWalk {
  Wire::Cursor in;
  U8 next;
  bool ipv6;
  unsigned fragmentOffset = 0;
  bool moreFragments = false;

  static bool isHeader(U8 header, bool ipv6) {
    if (header == NextHeader::authentication) return true;
    return ipv6 && (header == NextHeader::hopByHop || header == NextHeader::routing ||
                    header == NextHeader::fragment || header == NextHeader::destinationOptions);
  }
  bool atHeader() const { return isHeader(next, ipv6); }

  // False if the bytes end within a header. `next` may have moved on all the same: it comes first in each.
  bool toPayload() {
    // Behind the header of a later fragment there is no other header but the middle of something.
    while (atHeader() && fragmentOffset == 0) {
      U8 const header = next;
      U8 length;
      if (!in.read(next) || !in.read(length)) return false;
      if (header == NextHeader::fragment) {
        U16 offsetAndFlags;
        if (!in.read(offsetAndFlags) || !in.skip(4)) return false;
        fragmentOffset = offsetAndFlags >> 3;
        moreFragments = offsetAndFlags & 1;
      } else {
        // The authentication header alone counts in units of 4 bytes, less 2 (RFC 4302, 2.2).
        std::size_t const unit = header == NextHeader::authentication ? 4 : 8;
        std::size_t const units = header == NextHeader::authentication ? length + 2u : length + 1u;
        if (!in.skip(units * unit - 2)) return false;
      }
    }
    return true;
  }
};

// Opens one encapsulation after another, each within the bytes of the one before.
class Opener {
 public:
  Found ofLink(LinkType link, std::span<U8 const> frame) {
    Wire::Cursor in(frame);
    U16 type;
    switch (link) {
      case LinkType::ethernet:
        return ofEthernet(in);
      case LinkType::linuxCooked:
        if (!in.skip(14) || !in.read(type)) return PassedOver::unreadable;
        return ofEtherType(type, in);
      case LinkType::linuxCooked2:
        if (!in.read(type) || !in.skip(18)) return PassedOver::unreadable;
        return ofEtherType(type, in);
      case LinkType::rawIp:
        return ofIp(frame);
      case LinkType::ppp:
        return ofPpp(in);
      case LinkType::unknown:
        break;
    }
    return PassedOver::unknownLink;
  }

 private:
  Found ofEthernet(Wire::Cursor in) {
    U16 type;
    if (!in.skip(12) || !in.read(type)) return PassedOver::unreadable;
    return ofEtherType(type, in);
  }

  Found ofEtherType(U16 type, Wire::Cursor in) {
    while (type == EtherType::customerTag || type == EtherType::serviceTag ||
           type == EtherType::oldServiceTag) {
      if (!in.skip(2) || !in.read(type)) return PassedOver::unreadable;
    }
    if (type < smallestEtherType && !readSnap(in, type)) return PassedOver::notIp;
    switch (type) {
      case EtherType::ipv4:
        return ofIpv4(in.rest());
      case EtherType::ipv6:
        return ofIpv6(in.rest());
      case EtherType::pppoeSession:
        if (!in.skip(6)) return PassedOver::unreadable;
        return ofPpp(in);
      case EtherType::mpls:
      case EtherType::mplsMulticast:
      case EtherType::backboneTag:
      case EtherType::macsec:
        return PassedOver::notOpened;
      default:
        return PassedOver::notIp;
    }
  }

  // The EtherType behind LLC, if SNAP has one there (RFC 1042).
  static bool readSnap(Wire::Cursor& in, U16& type) {
    U16 accessPoints, controlAndOui, oui;
    return in.read(accessPoints) && accessPoints == 0xaaaa && in.read(controlAndOui) &&
           controlAndOui == 0x0300 && in.read(oui) && oui == 0 && in.read(type);
  }

  // RFC 1661, 2 and 6.5; RFC 1662, 3.1: address and control, and the first zero byte of the protocol, may be
  // left out.
  Found ofPpp(Wire::Cursor in) {
    auto const bytes = in.rest();
    if (bytes.size() >= 2 && wordAt(bytes, 0) == 0xff03 && !in.skip(2)) return PassedOver::unreadable;
    U8 high, low;
    if (!in.read(high)) return PassedOver::unreadable;
    U16 protocol = high;
    if ((high & 1) == 0) {
      if (!in.read(low)) return PassedOver::unreadable;
      protocol = static_cast<U16>(high << 8 | low);
    }
    switch (protocol) {
      case PppProtocol::ipv4:
        return ofIpv4(in.rest());
      case PppProtocol::ipv6:
        return ofIpv6(in.rest());
      case PppProtocol::multilink:
      case PppProtocol::encrypted:
      case PppProtocol::compressed:
      case PppProtocol::mpls:
        return PassedOver::notOpened;
      default:
        return PassedOver::notIp;
    }
  }

  // RFC 2784 and 2890; what has the routing of RFC 1701 or another version is not opened.
  Found ofGre(Wire::Cursor in) {
    constexpr U16 checksumBit = 0x8000, routingBit = 0x4000, keyBit = 0x2000, sequenceBit = 0x1000;
    U16 flags, type;
    if (!in.read(flags) || !in.read(type)) return PassedOver::unreadable;
    if (flags & (routingBit | 7)) return PassedOver::notOpened;
    for (U16 const bit : {checksumBit, keyBit, sequenceBit})
      if ((flags & bit) && !in.skip(4)) return PassedOver::unreadable;
    return type == EtherType::bridgedEthernet ? ofEthernet(in) : ofEtherType(type, in);
  }

  Found ofIp(std::span<U8 const> bytes) {
    if (bytes.empty()) return PassedOver::unreadable;
    if (bytes[0] >> 4 == 4) return ofIpv4(bytes);
    if (bytes[0] >> 4 == 6) return ofIpv6(bytes);
    return PassedOver::notIp;
  }

  Found ofIpv4(std::span<U8 const> bytes) {
    constexpr std::size_t hopLimitAt = 8, protocolAt = 9;
    if (bytes.size() <= protocolAt || bytes[0] >> 4 != 4) return PassedOver::unreadable;
    Datagram found;
    found.hopLimit = bytes[hopLimitAt];
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
    auto const datagram = bytes.first(std::min(bytes.size(), totalLength));
    HeaderWalk const walk{Wire::Cursor(datagram.subspan(std::min(datagram.size(), headerSize))),
                          found.protocol, false, fragment & 0x1fffu, (fragment & 0x2000u) != 0};
    return ofPayload(found, walk, bytes.size() < totalLength);
  }

  Found ofIpv6(std::span<U8 const> bytes) {
    constexpr std::size_t nextHeaderAt = 6, hopLimitAt = 7;
    if (bytes.size() <= nextHeaderAt || bytes[0] >> 4 != 6) return PassedOver::unreadable;
    Datagram found;
    found.protocol = bytes[nextHeaderAt];
    if (bytes.size() < ipv6HeaderSize) {
      if (HeaderWalk::isHeader(found.protocol, true)) return PassedOver::unreadable;
      found.state = State::snapped;
      return found;
    }
    found.hopLimit = bytes[hopLimitAt];
    found.source = IpGenAddr::fromBytes(bytes.subspan(8, 16));
    found.destination = IpGenAddr::fromBytes(bytes.subspan(24, 16));
    std::size_t const totalLength = ipv6HeaderSize + wordAt(bytes, 4);
    auto const datagram = bytes.first(std::min(bytes.size(), totalLength));
    HeaderWalk const walk{Wire::Cursor(datagram.subspan(ipv6HeaderSize)), found.protocol, true};
    return ofPayload(found, walk, bytes.size() < totalLength);
  }

  Found ofPayload(Datagram found, HeaderWalk walk, bool snapped) {
    bool const arrived = walk.toPayload();
    if (!arrived && walk.atHeader()) return PassedOver::unreadable;
    found.protocol = walk.next;
    if (!arrived) {
      found.state = snapped ? State::snapped : State::malformed;
      return found;
    }
    found.state = stateOf(walk.fragmentOffset, walk.moreFragments, snapped);
    found.payload = walk.in.rest();
    return isTunnel(found.protocol) ? ofTunnel(found) : found;
  }

  static bool isTunnel(U8 protocol) {
    switch (protocol) {
      case NextHeader::ipv4:
      case NextHeader::ipv6:
      case NextHeader::gre:
      case NextHeader::security:
      case NextHeader::etherIp:
      case NextHeader::compression:
      case NextHeader::l2tp:
      case NextHeader::mpls:
        return true;
      default:
        return false;
    }
  }

  Found ofTunnel(Datagram const& outer) {
    // A bound on the stack: the bytes could nest thousands.
    constexpr int maxTunnels = 8;
    bool const fragment = outer.state == State::firstFragment || outer.state == State::laterFragment;
    if (fragment || ++tunnels_ > maxTunnels) return PassedOver::notOpened;
    if (outer.protocol == NextHeader::ipv4) return ofIpv4(outer.payload);
    if (outer.protocol == NextHeader::ipv6) return ofIpv6(outer.payload);
    if (outer.protocol == NextHeader::gre) return ofGre(Wire::Cursor(outer.payload));
    return PassedOver::notOpened;
  }

  int tunnels_ = 0;
};

}  // namespace

std::variant<Datagram, PassedOver> findDatagram(LinkType link, std::span<U8 const> frame) {
  return Opener().ofLink(link, frame);
}

}  // namespace Routing::Pim::Jpagent
