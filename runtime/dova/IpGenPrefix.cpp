// SPDX-License-Identifier: Apache-2.0
#include "runtime/dova/IpGenPrefix.h"

#include <algorithm>
#include <charconv>
#include <ostream>

#include "runtime/vel/Exception.h"

namespace Dova {

IpGenPrefix::IpGenPrefix(IpGenAddr const& address, U8 length) : address_(address), length_(length) {
  if (length > address.width())
    throw Vel::RangeException("mask length " + std::to_string(length) + " exceeds the " +
                              std::to_string(address.width()) + " bits of " + toText(address));
}

std::optional<IpGenPrefix> IpGenPrefix::fromText(std::string_view text) {
  std::size_t const slash = text.find('/');
  std::optional<IpGenAddr> const address = IpGenAddr::fromText(text.substr(0, slash));
  if (!address) return {};
  if (slash == text.npos) return IpGenPrefix(*address, address->width());
  std::string_view const digits = text.substr(slash + 1);
  U8 length = 0;
  auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  if (error != std::errc() || end != digits.data() + digits.size() || length > address->width()) return {};
  return IpGenPrefix(*address, length);
}

bool IpGenPrefix::contains(IpGenAddr const& address) const {
  if (address.af() != address_.af()) return false;
  std::span<U8 const> const ours = address_.bytes(), theirs = address.bytes();
  unsigned const whole = length_ / 8, rest = length_ % 8;
  if (!std::equal(ours.begin(), ours.begin() + whole, theirs.begin())) return false;
  return rest == 0 || ((ours[whole] ^ theirs[whole]) >> (8 - rest)) == 0;
}

std::string toText(IpGenPrefix const& prefix) {
  std::string const address = toText(prefix.ipGenAddr());
  return prefix.ipGenAddr().af() == ipunknown() ? address : address + '/' + std::to_string(prefix.length());
}

std::ostream& operator<<(std::ostream& os, IpGenPrefix const& prefix) { return os << toText(prefix); }

bool fromText(std::string_view text, IpGenPrefix& prefix) {
  std::optional<IpGenPrefix> const parsed = IpGenPrefix::fromText(text);
  if (parsed) prefix = *parsed;
  return parsed.has_value();
}

}  // namespace Dova
