// SPDX-License-Identifier: Apache-2.0
// Fields of tshark's JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace Routing::Pim::Jpagent::Test {

/// The values of a field, which is a list if there is more than one.
template <class Json>
std::vector<Json> listOf(Json const& object, std::string const& name) {
  if (!object.contains(name)) return {};
  auto const& value = object[name];
  return value.is_array() ? value.template get<std::vector<Json>>() : std::vector<Json>{value};
}

/// The first of the names that is there: fields of IPv6 addresses have names of their own.
template <class Json>
std::string textOf(Json const& object, std::string const& ipv4Name, std::string const& ipv6Name) {
  return object.value(ipv4Name, object.value(ipv6Name, "none"));
}

}  // namespace Routing::Pim::Jpagent::Test
