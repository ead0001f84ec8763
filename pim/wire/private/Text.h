// SPDX-License-Identifier: Apache-2.0
// Texts put together from words and numbers.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

namespace Routing::Pim::Wire {

inline void append(std::string& to, std::string_view text) { to += text; }
/// In decimal, one byte wide or not.
inline void append(std::string& to, std::integral auto number) { to += std::to_string(number); }

/// concatenated(3, " of ", 4) is "3 of 4". It makes the texts of refusals beside code that must be fast: so
/// it is not inlined, and takes values, since a variable whose address is taken is kept in memory.
template <class... Parts>
[[gnu::noinline, gnu::cold]] std::string concatenated(Parts... parts) {
  std::string text;
  (append(text, parts), ...);
  return text;
}

}  // namespace Routing::Pim::Wire
