// SPDX-License-Identifier: Apache-2.0
// Attribute values to and from text, for access by name.
#pragma once

#include <charconv>
#include <cmath>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace Vel {

/// Numbers with 12 digits, booleans as "true" and "false", everything else in its own form.
template <class Value>
std::string textOf(Value const& value) {
  std::ostringstream text;
  text.precision(12);
  text << std::boolalpha << value;
  return text.str();
}

/// The whole text must be one number of the type's range; not-a-number is none.
template <class Number>
requires std::is_arithmetic_v<Number>
bool fromText(std::string_view text, Number& number) {
  Number parsed{};
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  if constexpr (std::is_floating_point_v<Number>)
    if (std::isnan(parsed)) return false;
  number = parsed;
  return true;
}

/// "true" or "false".
inline bool fromText(std::string_view text, bool& value) {
  if (text != "true" && text != "false") return false;
  value = text == "true";
  return true;
}

/// Parses into a copy and hands it to `set` only if all of it fits.
template <class Value, class Setter>
bool setFromText(std::string_view text, Value parsed, Setter const& set) {
  if (!fromText(text, parsed)) return false;
  set(parsed);
  return true;
}

}  // namespace Vel
