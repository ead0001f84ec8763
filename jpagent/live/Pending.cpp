// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Pending.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Routing::Pim::Jpagent::Live {

int Pending::writeTo(int descriptor) {
  int error = 0;
  while (size() > 0 && error == 0) {
    pollfd ready{descriptor, POLLOUT, 0};
    if (poll(&ready, 1, 0) == 0) break;
    // A pipe that is writable takes this much without waiting.
    auto const written = write(descriptor, bytes_.data() + done_, std::min<std::size_t>(size(), PIPE_BUF));
    if (written > 0)
      done_ += static_cast<std::size_t>(written);
    else if (written == 0)
      error = EIO;
    else if (errno == EAGAIN)
      break;
    else if (errno != EINTR)
      error = errno;
  }
  if (size() == 0 || done_ > size()) {
    bytes_.erase(0, done_);
    done_ = 0;
  }
  return error;
}

void Lines::add(std::string_view bytes, Line const& line) {
  while (!bytes.empty()) {
    auto const end = bytes.find('\n');
    std::string_view part = bytes.substr(0, end);
    if (rest_.size() + part.size() > longest) isTooLong_ = true;
    rest_.append(part.substr(0, longest - std::min(longest, rest_.size())));
    if (end == bytes.npos) return;
    bytes.remove_prefix(end + 1);
    if (rest_.ends_with('\r')) rest_.pop_back();
    std::string const whole = std::exchange(rest_, {});
    line(whole, !std::exchange(isTooLong_, false));
  }
}

}  // namespace Routing::Pim::Jpagent::Live
