// SPDX-License-Identifier: Apache-2.0
#include "runtime/dova/IpGenAddr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <ostream>
#include <sstream>

#include "runtime/vel/Exception.h"

namespace Dova {

std::ostream& operator<<(std::ostream& os, AddressFamily af) {
  switch (af) {
    case AddressFamily::unknown:
      return os << "unknown";
    case AddressFamily::ipv4:
      return os << "IPv4";
    case AddressFamily::ipv6:
      return os << "IPv6";
  }
  return os << "AddressFamily(" << static_cast<U32>(af) << ")";
}

bool fromText(std::string_view text, AddressFamily& af) {
  for (AddressFamily const known : {AddressFamily::unknown, AddressFamily::ipv4, AddressFamily::ipv6}) {
    std::ostringstream name;
    name << known;
    if (name.view() != text) continue;
    af = known;
    return true;
  }
  return false;
}

IpGenAddr IpGenAddr::ipv4(U32 hostOrder) {
  U8 const bytes[4] = {static_cast<U8>(hostOrder >> 24), static_cast<U8>(hostOrder >> 16),
                       static_cast<U8>(hostOrder >> 8), static_cast<U8>(hostOrder)};
  return fromBytes(bytes);
}

U32 IpGenAddr::ipv4() const {
  if (!isIpv4()) throw Vel::RangeException("not an IPv4 address: \"" + toText(*this) + "\"");
  U32 hostOrder = 0;
  for (U8 const byte : bytes()) hostOrder = hostOrder << 8 | byte;
  return hostOrder;
}

std::optional<IpGenAddr> IpGenAddr::fromIp6Addr(Ip6Addr const& ip6, AddressFamily af) {
  IpGenAddr const address(ip6, af);
  // The form of an IPv4 address begins like that of 0.0.0.0; the default's is the only one of unknown family.
  bool const fits = af == AddressFamily::ipv6 ||
                    (af == AddressFamily::ipv4 && address == fromBytes(address.bytes())) ||
                    address == IpGenAddr();
  return fits ? std::optional(address) : std::nullopt;
}

IpGenAddr IpGenAddr::zero(AddressFamily af) {
  U8 const zeros[16] = {};
  switch (af) {
    case AddressFamily::ipv4:
      return fromBytes({zeros, 4});
    case AddressFamily::ipv6:
      return fromBytes({zeros, 16});
    case AddressFamily::unknown:
      break;
  }
  return {};
}

std::optional<IpGenAddr> IpGenAddr::fromText(std::string_view text) {
  if (text == "unknown") return IpGenAddr();
  // inet_pton wants a terminated text; no address is longer than this.
  char terminated[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof terminated || text.find('\0') != text.npos) return {};
  terminated[text.copy(terminated, text.size())] = '\0';
  U8 bytes[16];
  if (inet_pton(AF_INET, terminated, bytes) == 1) return fromBytes({bytes, 4});
  if (inet_pton(AF_INET6, terminated, bytes) == 1) return fromBytes({bytes, 16});
  return {};
}

IpGenAddr::IpGenAddr(std::string_view text) {
  std::optional<IpGenAddr> const address = fromText(text);
  if (!address) throw Vel::RangeException("not an IP address: \"" + std::string(text) + "\"");
  *this = *address;
}

namespace {

std::string ipv4Text(std::span<U8 const> bytes) {
  std::string text;
  for (U8 const byte : bytes) text += (text.empty() ? "" : ".") + std::to_string(byte);
  return text;
}

// inet_ntop writes "::0.1.0.2" where RFC 5952 wants "::1:2", so the text is made here.
std::string ipv6Text(std::span<U8 const> bytes) {
  unsigned words[8];
  for (int i = 0; i < 8; ++i) words[i] = bytes[2 * i] << 8 | bytes[2 * i + 1];
  // The longest run of at least two zero words becomes "::", the first of equal ones.
  int runStart = -1, runLength = 1;
  for (int i = 0; i < 8;) {
    int end = i;
    while (end < 8 && words[end] == 0) ++end;
    if (end - i > runLength) runStart = i, runLength = end - i;
    i = end + 1;
  }
  bool const ipv4Mapped = runStart == 0 && runLength == 5 && words[5] == 0xffff;
  std::string text;
  for (int i = 0; i < (ipv4Mapped ? 6 : 8);) {
    if (i == runStart) {
      text += "::";
      i += runLength;
      continue;
    }
    if (!text.empty() && text.back() != ':') text += ':';
    char hex[8];
    std::snprintf(hex, sizeof hex, "%x", words[i++]);
    text += hex;
  }
  return ipv4Mapped ? text + ":" + ipv4Text(bytes.subspan(12)) : text;
}

}  // namespace

std::string toText(IpGenAddr const& address) {
  switch (address.af()) {
    case AddressFamily::ipv4:
      return ipv4Text(address.bytes());
    case AddressFamily::ipv6:
      return ipv6Text(address.bytes());
    case AddressFamily::unknown:
      break;
  }
  return "unknown";
}

std::ostream& operator<<(std::ostream& os, IpGenAddr const& address) { return os << toText(address); }

bool fromText(std::string_view text, IpGenAddr& address) {
  std::optional<IpGenAddr> const parsed = IpGenAddr::fromText(text);
  if (parsed) address = *parsed;
  return parsed.has_value();
}

}  // namespace Dova
