// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Tell.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

#include "jpagent/common/Ending.h"
#include "jpagent/live/Pending.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// What a line of a reply says.
enum class LineKind : char { more, good, bad };

LineKind kindOf(std::string_view line, bool json) {
  if (!json) {
    if (line.starts_with("error: ")) return LineKind::bad;
    return line == "ok" ? LineKind::good : LineKind::more;
  }
  auto const object = nlohmann::json::parse(line, nullptr, false);
  if (!object.is_object() || object.value("event", "") != "reply") return LineKind::more;
  return object.value("ok", false) ? LineKind::good : LineKind::bad;
}

bool sendAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    auto const sent = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

}  // namespace

std::optional<sockaddr_un> controlAddress(std::string_view path) {
  sockaddr_un address{};
  if (path.empty() || path.size() >= sizeof address.sun_path) return std::nullopt;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int connectToControl(std::string const& path) {
  auto const address = controlAddress(path);
  errno = ENAMETOOLONG;
  if (!address) return -1;
  int const descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return -1;
  if (connect(descriptor, reinterpret_cast<sockaddr const*>(&*address), sizeof *address) == 0)
    return descriptor;
  int const error = errno;
  close(descriptor);
  errno = error;
  return -1;
}

int runTell(std::string const& path, std::string const& command, bool json) {
  if (command.find('\n') != command.npos) return cannot("a command is one line");
  int const descriptor = connectToControl(path);
  if (descriptor < 0) return cannot(fmt::format("{}: {}", path, std::strerror(errno)));
  if (!sendAll(descriptor, fmt::format("json {}\n{}\n", json ? "on" : "off", command)))
    return cannot(fmt::format("{}: {}", path, std::strerror(errno)));
  bool const stays = command == "events on";
  bool const isForScraper = !json && command.ends_with("--prometheus");  // which takes no "ok"
  bool isChosen = false, isAnswered = false;
  int status = allFine;
  Lines lines;
  char bytes[16 << 10];
  while (!isAnswered || stays) {
    auto const size = recv(descriptor, bytes, sizeof bytes, 0);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) break;
    lines.add({bytes, static_cast<std::size_t>(size)}, [&](std::string_view line, bool) {
      auto const kind = kindOf(line, json);
      bool const isForm = !isChosen;  // the reply to "json"
      if (isForm) isChosen = kind != LineKind::more;
      if (isForm || (isAnswered && !stays)) return;
      if (!isForScraper || kind != LineKind::good) std::cout << line << '\n';
      if (isAnswered || kind == LineKind::more) return;
      isAnswered = true;
      if (kind == LineKind::bad) status = somethingRefused;
    });
    std::cout.flush();
  }
  close(descriptor);
  if (!isAnswered) return cannot(fmt::format("{}: the connection ended without a reply", path));
  return status;
}

}  // namespace Routing::Pim::Jpagent::Live
