// SPDX-License-Identifier: Apache-2.0
// A PIM message from the input of a fuzz target: IPv4 or IPv6, with a right checksum or the one that comes.
#pragma once

#include "fuzz/Fuzz.h"
#include "pim/wire/PimHeader.h"

namespace Fuzz {

struct Message {
  Routing::Pim::Wire::IpGenAddr source, destination;
  std::vector<Vel::U8> bytes;
};

inline Message takeMessage(Vel::U8 const* data, std::size_t size) {
  Input input(data, size);
  Vel::U8 const how = input.u8();
  bool const ipv6 = how & 1, asItIs = how & 2;
  Routing::Pim::Wire::IpGenAddr const source(ipv6 ? "fe80::14" : "10.0.0.14");
  auto const destination = Routing::Pim::Wire::allPimRouters(source.af());
  auto const rest = input.rest();
  std::vector<Vel::U8> bytes(rest.begin(), rest.end());
  if (!asItIs && bytes.size() >= 4) {
    bytes[2] = bytes[3] = 0;
    Vel::U16 const checksum = Routing::Pim::Wire::pimChecksum(bytes, source, destination);
    bytes[2] = static_cast<Vel::U8>(checksum >> 8);
    bytes[3] = static_cast<Vel::U8>(checksum);
  }
  return {source, destination, bytes};
}

}  // namespace Fuzz
