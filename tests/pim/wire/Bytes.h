// SPDX-License-Identifier: Apache-2.0
// What tests of bytes share: bytes from hex, and their checksum.
#pragma once

#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "pim/wire/PimMessage.h"

namespace Routing::Pim::Wire::Test {

// The usual sender of each family, and where its packets are sent.
inline IpGenAddr const sender("10.0.0.14"), sender6("fe80::14");
inline IpGenAddr const routers = allPimRouters(AddressFamily::ipv4);
inline IpGenAddr const routers6 = allPimRouters(AddressFamily::ipv6);

using Bytes = std::vector<U8>;

/// Two hex digits a byte; blanks are for the reader's eye.
inline Bytes hex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (char const c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<U8>(std::stoi(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

inline Bytes operator+(Bytes a, Bytes const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline Bytes withChecksum(Bytes message, IpGenAddr const& source, IpGenAddr const& destination) {
  message[2] = message[3] = 0;
  U16 const checksum = pimChecksum(message, source, destination);
  message[2] = static_cast<U8>(checksum >> 8);
  message[3] = static_cast<U8>(checksum);
  return message;
}

}  // namespace Routing::Pim::Wire::Test
