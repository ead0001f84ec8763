// SPDX-License-Identifier: Apache-2.0
// What the tests of the model have in common.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "runtime/dova/IpGenAddr.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim {

using Log = std::vector<std::string>;

inline Log taken(Log& log) { return std::exchange(log, {}); }

inline Dova::IpGenAddr operator""_ip(char const* text, std::size_t size) {
  return Dova::IpGenAddr(std::string_view(text, size));
}

template <class Value>
std::string inText(Value const& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

/// Expects each named mutator to be refused because it came through a const view.
using Mutators = std::vector<std::pair<char const*, std::function<void()>>>;
inline void expectRefused(Mutators const& mutators) {
  for (auto const& [name, mutate] : mutators) {
    SCOPED_TRACE(name);
    try {
      mutate();
      ADD_FAILURE() << "nothing was thrown";
    } catch (Vel::RangeException const& error) {
      EXPECT_STREQ(error.what(), "attempting to modify a const instance");
    }
  }
}

}  // namespace Routing::Pim
