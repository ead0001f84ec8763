// SPDX-License-Identifier: Apache-2.0
#include "pim/wire/PimHeader.h"

#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "pim/wire/private/Encoding.h"
#include "pim/wire/private/Text.h"

namespace Routing::Pim::Wire {

namespace {

// The ones' complement sum of 16-bit words, an odd byte padded with zero. Summed in words of the machine with
// the carry added at the low end, which comes to the same once it is folded and put into network order (RFC
// 1071).
U64 sumOf(std::span<U8 const> bytes) {
  U64 sum = 0;
  auto const add = [&sum](U64 word) {
    sum += word;
    sum += sum < word;
  };
  std::size_t i = 0;
  for (; i + 8 <= bytes.size(); i += 8) {
    U64 word;
    std::memcpy(&word, bytes.data() + i, 8);
    add(word);
  }
  if (i < bytes.size()) {
    U64 word = 0;
    std::memcpy(&word, bytes.data() + i, bytes.size() - i);
    add(word);
  }
  // Sums of several parts are added up, so that there is room for their carries.
  return (sum >> 32) + (sum & 0xffffffff);
}

U16 folded(U64 sum) {
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return ntohs(static_cast<U16>(sum));
}

// Four digits.
std::string hex(U16 number) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (int shift = 12; shift >= 0; shift -= 4) text += digits[number >> shift & 15];
  return text;
}

// REQUIRES: the header is there.
std::optional<Refusal> checksumFault(std::span<U8 const> bytes, IpGenAddr const& source,
                                     IpGenAddr const& destination) {
  if (pimChecksum(bytes, source, destination) == 0) return std::nullopt;
  std::vector<U8> zeroed(bytes.begin(), bytes.end());
  zeroed[2] = zeroed[3] = 0;
  return Refusal{Reason::badChecksum,
                 concatenated("0x", hex(static_cast<U16>(bytes[2] << 8 | bytes[3])), ", computed 0x",
                              hex(pimChecksum(zeroed, source, destination)))};
}

}  // namespace

IpGenAddr allPimRouters(AddressFamily family) {
  static IpGenAddr const ipv4("224.0.0.13"), ipv6("ff02::d");
  return family == AddressFamily::ipv4 ? ipv4 : ipv6;
}

U16 pimChecksum(std::span<U8 const> message, IpGenAddr const& source, IpGenAddr const& destination) {
  U64 sum = sumOf(message);
  if (source.isIpv6()) {
    U32 const lengthAndProtocol[] = {htonl(static_cast<U32>(message.size())), htonl(pimProtocol)};
    sum += sumOf(source.bytes()) + sumOf(destination.bytes()) + lengthAndProtocol[0] + lengthAndProtocol[1];
  }
  return static_cast<U16>(~folded(sum));
}

bool isPimType(std::span<U8 const> message, PimType type) {
  return !message.empty() && message[0] == (pimVersion << 4 | static_cast<U8>(type));
}

std::optional<Refusal> headerFault(std::span<U8 const> bytes, PimType type, IpGenAddr const& source,
                                   IpGenAddr const& destination) {
  if (bytes.size() < headerSize) return Refusal{Reason::truncated, "in the PIM header"};
  if (!isPimType(bytes, type)) {
    return Refusal{type == PimType::hello ? Reason::notHello : Reason::notJoinPrune,
                   concatenated("version ", bytes[0] >> 4, ", type ", bytes[0] & 15)};
  }
  return checksumFault(bytes, source, destination);
}

void fillChecksum(std::span<U8> message, IpGenAddr const& source, IpGenAddr const& destination) {
  message[2] = message[3] = 0;
  U16 const checksum = pimChecksum(message, source, destination);
  message[2] = static_cast<U8>(checksum >> 8);
  message[3] = static_cast<U8>(checksum);
}

}  // namespace Routing::Pim::Wire
