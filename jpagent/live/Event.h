// SPDX-License-Identifier: Apache-2.0
// Events and replies of `jpagent run`: JSON objects, and lines for people made from them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace Routing::Pim::Jpagent::Live {

using Json = nlohmann::ordered_json;

/// One event, or one reply.
struct Event {
  Json members;                    ///< `time` and `event` come first.
  std::vector<std::string> lines;  ///< Of a reply with a text of its own; otherwise the text is made from
                                   ///< the members.
};

/// The object in one line, without a newline. Bytes that are no UTF-8 are replaced.
std::string jsonLine(Event const& event);

/// One line for a person, or several for a reply to `show` or `help`; without the last newline. A reply ends
/// with a line "ok" or "error: ...".
std::string textOf(Event const& event);

}  // namespace Routing::Pim::Jpagent::Live
