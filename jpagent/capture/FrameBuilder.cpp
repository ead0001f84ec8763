// SPDX-License-Identifier: Apache-2.0
#include "jpagent/capture/FrameBuilder.h"

#include <algorithm>

namespace Routing::Pim::Jpagent {

namespace {

constexpr U8 networkControl = 0xc0;
constexpr std::size_t smallestFrame = 60;

void put16(std::vector<U8>& to, std::size_t value) {
  to.push_back(static_cast<U8>(value >> 8));
  to.push_back(static_cast<U8>(value));
}

void put(std::vector<U8>& to, std::span<U8 const> bytes) { to.insert(to.end(), bytes.begin(), bytes.end()); }

U16 headerChecksum(std::span<U8 const> header) {
  unsigned sum = 0;
  for (std::size_t i = 0; i < header.size(); i += 2)
    sum += static_cast<unsigned>(header[i] << 8 | header[i + 1]);
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U16>(~sum);
}

std::vector<U8> ipv4Header(IpGenAddr const& source, IpGenAddr const& destination, U8 protocol,
                           std::size_t size, U8 ttl) {
  std::vector<U8> header = {0x45, networkControl};
  put16(header, 20 + size);
  put(header, std::vector<U8>{0, 0, 0, 0, ttl, protocol, 0, 0});
  put(header, source.bytes());
  put(header, destination.bytes());
  U16 const checksum = headerChecksum(header);
  header[10] = static_cast<U8>(checksum >> 8);
  header[11] = static_cast<U8>(checksum);
  return header;
}

std::vector<U8> ipv6Header(IpGenAddr const& source, IpGenAddr const& destination, U8 protocol,
                           std::size_t size, U8 ttl) {
  std::vector<U8> header = {0x60 | networkControl >> 4, 0, 0, 0};
  put16(header, size);
  put(header, std::vector<U8>{protocol, ttl});
  put(header, source.bytes());
  put(header, destination.bytes());
  return header;
}

// The station address that a group maps to: RFC 1112, 6.4 and RFC 2464, 7.
void putMulticastStation(std::vector<U8>& to, std::span<U8 const> datagram) {
  if (datagram[0] >> 4 == 4) {
    put(to,
        std::vector<U8>{0x01, 0x00, 0x5e, static_cast<U8>(datagram[17] & 0x7f), datagram[18], datagram[19]});
  } else {
    put(to, std::vector<U8>{0x33, 0x33});
    put(to, datagram.subspan(36, 4));
  }
}

}  // namespace

std::vector<U8> ipDatagram(IpGenAddr const& source, IpGenAddr const& destination, U8 protocol,
                           std::span<U8 const> payload, U8 ttl) {
  auto datagram = source.isIpv4() ? ipv4Header(source, destination, protocol, payload.size(), ttl)
                                  : ipv6Header(source, destination, protocol, payload.size(), ttl);
  put(datagram, payload);
  return datagram;
}

std::vector<U8> ethernetFrame(std::span<U8 const> datagram, std::initializer_list<U16> vlanTags) {
  std::vector<U8> frame;
  putMulticastStation(frame, datagram);
  put(frame, std::vector<U8>{0x02, 0, 0, 0, 0, 0x01});
  std::size_t left = vlanTags.size();
  for (U16 const tag : vlanTags) {
    put16(frame, --left == 0 ? 0x8100 : 0x88a8);
    put16(frame, tag);
  }
  put16(frame, datagram[0] >> 4 == 4 ? 0x0800 : 0x86dd);
  put(frame, datagram);
  frame.resize(std::max(frame.size(), smallestFrame));
  return frame;
}

}  // namespace Routing::Pim::Jpagent
