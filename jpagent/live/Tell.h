// SPDX-License-Identifier: Apache-2.0
// `jpagent tell`: a client of the control socket of `jpagent run`.
//
// It asks for replies in the form that it prints by a command of the connection, "json on" or "json off". In
// either form a reply ends with a line of its own: in JSON it is one line, as text its last line is "ok" or
// begins with "error: ".
#pragma once

#include <sys/un.h>

#include <optional>
#include <string>
#include <string_view>

namespace Routing::Pim::Jpagent::Live {

/// The address of a socket; nothing if the path is empty or too long.
std::optional<sockaddr_un> controlAddress(std::string_view path);
/// A connected socket, or -1 with errno.
int connectToControl(std::string const& path);

/// Gives one command, prints the reply and returns the exit status: 1 if the command failed, 2 if it could
/// not be given. After "events on" it prints events until the connection ends.
int runTell(std::string const& path, std::string const& command, bool json);

}  // namespace Routing::Pim::Jpagent::Live
