// SPDX-License-Identifier: Apache-2.0
// What a test does in a namespace itself: copies of this process there, raw packets, and a cable that loses
// some of what it carries.
#pragma once

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>

#include "tests/jpagent/live/Lab.h"

namespace Routing::Pim::Jpagent::Live {

/// A copy of this process in a namespace, which ends with this.
class Worker {
 public:
  Worker(Lab const& lab, std::string const& space, std::function<void()> const& work) {
    auto const spaces = "/proc/" + lab.entering(space)[2] + "/ns/";
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (auto const& [name, kind] : {std::pair("user", CLONE_NEWUSER), {"net", CLONE_NEWNET}}) {
      int const descriptor = open((spaces + name).c_str(), O_RDONLY | O_CLOEXEC);
      if (descriptor < 0 || setns(descriptor, kind) != 0) _exit(2);
    }
    work();
    _exit(0);
  }
  ~Worker() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    wait();
  }
  Worker(Worker const&) = delete;
  Worker& operator=(Worker const&) = delete;

  int wait() {
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t process_ = -1;
};

/// Descriptors that a process in a namespace makes, each by its number. One that is -1 throws
/// std::runtime_error.
inline std::vector<int> descriptorsOf(Lab const& lab, std::string const& space, std::size_t count,
                                      std::function<int(std::size_t number)> const& make) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("no sockets");
  // One descriptor a message, with a byte that carries it.
  char byte = 0;
  iovec part{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  Worker worker(lab, space, [&] {
    for (std::size_t i = 0; i < count; ++i) {
      int const made = make(i);
      if (made < 0) _exit(2);
      cmsghdr& item = *CMSG_FIRSTHDR(&header);
      item.cmsg_level = SOL_SOCKET;
      item.cmsg_type = SCM_RIGHTS;
      item.cmsg_len = CMSG_LEN(sizeof made);
      std::memcpy(CMSG_DATA(&item), &made, sizeof made);
      if (sendmsg(ends[1], &header, 0) != 1) _exit(3);
      close(made);
    }
  });
  close(ends[1]);
  std::vector<int> descriptors;
  while (descriptors.size() < count && recvmsg(ends[0], &header, MSG_CMSG_CLOEXEC) == 1) {
    std::memcpy(&descriptors.emplace_back(), CMSG_DATA(CMSG_FIRSTHDR(&header)), sizeof(int));
    header.msg_controllen = sizeof control;
  }
  close(ends[0]);
  if (worker.wait() != 0 || descriptors.size() < count) throw std::runtime_error("no descriptors there");
  return descriptors;
}

using Bytes = std::vector<std::uint8_t>;

/// Puts the checksum into an IPv4 PIM message.
inline void checksumIs(Bytes& message) {
  message[2] = message[3] = 0;
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < message.size(); i += 2)
    sum += static_cast<std::uint32_t>(message[i] << 8 | (i + 1 < message.size() ? message[i + 1] : 0));
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  message[2] = static_cast<std::uint8_t>(~sum >> 8);
  message[3] = static_cast<std::uint8_t>(~sum);
}

/// A raw socket for PIM over IPv4 in the namespace of the process that makes it.
class RawPim {
 public:
  explicit RawPim(std::string const& intf) {
    ip_mreqn to{};
    to.imr_ifindex = static_cast<int>(if_nametoindex(intf.c_str()));
    int const ttl = 1;
    if (descriptor_ < 0 || setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_IF, &to, sizeof to) != 0 ||
        setsockopt(descriptor_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0)
      _exit(2);
  }
  bool send(Bytes const& message) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = inet_addr("224.0.0.13");
    return sendto(descriptor_, message.data(), message.size(), 0, reinterpret_cast<sockaddr*>(&to),
                  sizeof to) == static_cast<ssize_t>(message.size());
  }

 private:
  int const descriptor_ = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, 103);
};

/// Carries frames between two interfaces of this process's namespace, and loses each one with the
/// probability that `lost` returns.
inline void relay(std::string const& a, std::string const& b, std::function<double()> const& lost) {
  pollfd ends[2];
  unsigned index[2];
  for (int i = 0; i < 2; ++i) {
    index[i] = if_nametoindex((i == 0 ? a : b).c_str());
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index[i]);
    ends[i] = {socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)), POLLIN, 0};
    packet_mreq all{};
    all.mr_ifindex = static_cast<int>(index[i]);
    all.mr_type = PACKET_MR_PROMISC;
    if (bind(ends[i].fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        setsockopt(ends[i].fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &all, sizeof all) != 0)
      _exit(2);
  }
  std::mt19937 random(1);
  for (char frame[10'000]; poll(ends, 2, -1) >= 0;) {
    for (int i = 0; i < 2; ++i) {
      if (!(ends[i].revents & POLLIN)) continue;
      sockaddr_ll from{};
      socklen_t length = sizeof from;
      auto const size =
          recvfrom(ends[i].fd, frame, sizeof frame, 0, reinterpret_cast<sockaddr*>(&from), &length);
      if (size <= 0 || from.sll_pkttype == PACKET_OUTGOING) continue;
      if (std::uniform_real_distribution<>()(random) < lost()) continue;
      [[maybe_unused]] auto const sent = send(ends[1 - i].fd, frame, static_cast<std::size_t>(size), 0);
    }
  }
}

}  // namespace Routing::Pim::Jpagent::Live
