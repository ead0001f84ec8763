// SPDX-License-Identifier: Apache-2.0
// What systemd and its journal would be sent.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace Routing::Pim::Jpagent::Live {

/// A UNIX socket for datagrams, which waits for each at most 10 s.
class Datagrams {
 public:
  explicit Datagrams(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    EXPECT_EQ(bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    timeval const patience{10, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Datagrams() { close(descriptor_); }
  Datagrams(Datagrams const&) = delete;
  Datagrams& operator=(Datagrams const&) = delete;

  /// Empty if none came.
  std::string next() const {
    char text[2000];
    auto const size = recv(descriptor_, text, sizeof text, 0);
    return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  }
  /// The next one that does not begin so.
  std::string nextOther(std::string const& passedOver) const {
    auto text = next();
    while (text.starts_with(passedOver)) text = next();
    return text;
  }

 private:
  int const descriptor_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

}  // namespace Routing::Pim::Jpagent::Live
