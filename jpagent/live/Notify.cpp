// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Notify.h"

#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <system_error>

#include "jpagent/live/Tell.h"
#include "runtime/vel/Text.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// A name that begins with @ is an abstract one.
bool sendDatagram(std::string_view path, std::string_view text) {
  auto address = controlAddress(path);
  if (!address || path.size() < 2) return false;
  if (path.front() == '@') address->sun_path[0] = 0;
  int const descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return false;
  auto const size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  auto const sent = sendto(descriptor, text.data(), text.size(), MSG_NOSIGNAL,
                           reinterpret_cast<sockaddr const*>(&*address), size);
  close(descriptor);
  return sent >= 0;
}

}  // namespace

void notifySystemd(std::string_view state) {
  if (char const* const path = std::getenv("NOTIFY_SOCKET")) sendDatagram(path, state);
}

bool writeToJournal(int priority, std::string_view line) {
  std::string message(line);
  std::replace(message.begin(), message.end(), '\n', ' ');  // one ends the field
  return sendDatagram("/run/systemd/journal/socket",
                      fmt::format("PRIORITY={}\nSYSLOG_IDENTIFIER=jpagent\nMESSAGE={}\n", priority, message));
}

std::optional<Vel::Seconds> watchdogPeriod() {
  char const* const microseconds = std::getenv("WATCHDOG_USEC");
  char const* const process = std::getenv("WATCHDOG_PID");
  Vel::U64 period = 0, pid = 0;
  if (!microseconds || !Vel::fromText(microseconds, period) || period == 0) return std::nullopt;
  if (process && (!Vel::fromText(process, pid) || pid != static_cast<Vel::U64>(getpid())))
    return std::nullopt;
  return static_cast<Vel::Seconds>(period) / 1e6 / 2;  // half of it, as sd_watchdog_enabled(3) recommends
}

void keepOnlyNetRaw() {
  auto const require = [](long result, char const* what) {
    if (result != 0) throw std::system_error(errno, std::generic_category(), what);
  };
  require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "giving up privileges");
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  require(syscall(SYS_capget, &header, sets), "reading capabilities");
  constexpr Vel::U32 netRaw = 1u << CAP_NET_RAW;
  for (auto& set : sets) set.inheritable = 0;
  sets[0].permitted &= netRaw;
  sets[0].effective = sets[0].permitted;
  sets[1].permitted = sets[1].effective = 0;
  require(syscall(SYS_capset, &header, sets), "giving up capabilities");
}

}  // namespace Routing::Pim::Jpagent::Live
