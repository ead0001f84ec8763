// SPDX-License-Identifier: Apache-2.0
// Cases with fake neighbors, and the namespaces where they are run.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/Thorough.h"
#include "tests/jpagent/live/FakeLan.h"
#include "tests/jpagent/live/Worker.h"

namespace Routing::Pim::Jpagent::Live::Test {

/// A rule, and how it shows.
struct FakeCase {
  std::string rule;
  std::function<void(FakeLan&)> run;
};

/// Hellos, neighbors, what is refused; what an agent asks of neighbors; what they ask of it.
std::vector<FakeCase> helloCases();
std::vector<FakeCase> upstreamCases();
std::vector<FakeCase> downstreamCases();

// A packet socket on an interface of this process's namespace, or -1.
inline int packetSocket(std::string const& intf, bool isIpv4) {
  int const protocol = htons(isIpv4 ? ETH_P_IP : ETH_P_IPV6);
  // Without a protocol until it is bound, which would have to wait for the packets that are on their way.
  int const made = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = static_cast<unsigned short>(protocol);
  address.sll_ifindex = static_cast<int>(if_nametoindex(intf.c_str()));
  packet_mreq all{};
  all.mr_ifindex = address.sll_ifindex;
  all.mr_type = PACKET_MR_ALLMULTI;
  bool const isBound = made >= 0 && bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  return isBound && setsockopt(made, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &all, sizeof all) == 0 ? made : -1;
}

/// The namespaces of cases: in "agent" the agents with their ends of the cables, in "fake" the other ends.
class FakeLab {
 public:
  explicit FakeLab(std::vector<FakeCase> const& cases) : cases_(cases), lab_({"agent", "fake"}) {
    lab_.agentsAre("10\\.[0-9]+\\.0\\.1|fe80::1");
    lab_.in("agent",
            "echo 1 > /proc/sys/net/ipv6/conf/default/addr_gen_mode\n"  // no address but the fake LAN's
            "echo 1 > /proc/sys/net/ipv4/conf/default/accept_local");   // packets from an own address
    lab_.in("fake", "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6");
    makeLans();
    layCables();
  }

  void run() {
    for (std::size_t i = 0; i < agents_.size(); ++i) startAgent(i);
    std::vector<std::string> failures(lans_.size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < lans_.size(); ++i) {
      threads.emplace_back([this, i, &failures] {
        failures[i] = failureOf(i);
        lans_[i]->closeSocket();  // takes its time, which the threads spend together
      });
    }
    for (auto& thread : threads) thread.join();
    for (auto const& agent : agents_) agent->quit();
    for (auto const& agent : agents_) EXPECT_EQ(agent->end(), 0);
    for (std::size_t i = 0; i < lans_.size(); ++i) {
      if (!failures[i].empty()) {
        ADD_FAILURE() << casesOfLans_[i]->rule << (lans_[i]->isIpv4() ? " (IPv4): " : " (IPv6): ")
                      << failures[i] << '\n'
                      << lans_[i]->all();
      }
    }
  }

 private:
  // What an agent shows of its interfaces takes time, and each case asks for it.
  static constexpr std::size_t lansOfAgent = 24;
  static constexpr int firstNumber = 10;  // of the networks 10.10.0.0/24 and so on

  void makeLans() {
    for (auto const& one : cases_) {
      lanAdd(one, Dova::AddressFamily::ipv4);
      constexpr std::size_t share = 4;  // an interface takes its time, too
      if (thorough() || casesOfLans_.size() % share == 0) lanAdd(one, Dova::AddressFamily::ipv6);
    }
  }
  void lanAdd(FakeCase const& one, Dova::AddressFamily family) {
    if (lans_.size() % lansOfAgent == 0) agents_.push_back(std::make_unique<SharedAgent>());
    auto const number = firstNumber + static_cast<int>(&one - cases_.data());
    lans_.push_back(std::make_unique<FakeLan>(*agents_.back(), number, family));
    casesOfLans_.push_back(&one);
  }
  void layCables() {
    std::string ofAgents, ofFakes;
    std::vector<std::string> names;
    for (auto const& lan : lans_) {
      names.push_back("p" + lan->intf());
      ofAgents += lab_.newCable(lan->intf(), "fake", names.back()) + "\n";
      ofAgents += fmt::format("address add {} dev {}\n",
                              lan->address('A') + (lan->isIpv4() ? "/24" : "/64 nodad"), lan->intf());
      ofAgents += fmt::format("link set {} up\n", lan->intf());
      ofFakes += fmt::format("link set {} up\n", names.back());
    }
    std::ofstream(lab_.path("agents")) << ofAgents;
    lab_.in("agent", "ip -batch " + lab_.path("agents"));
    std::ofstream(lab_.path("fakes")) << ofFakes;
    lab_.in("fake", "ip -batch " + lab_.path("fakes"));
    auto const sockets = descriptorsOf(lab_, "fake", names.size(), [&](std::size_t i) {
      return packetSocket(names[i], lans_[i]->isIpv4());
    });
    for (std::size_t i = 0; i < lans_.size(); ++i) lans_[i]->socketIs(sockets[i]);
  }
  void startAgent(std::size_t number) {
    auto const configuration = lab_.newPath("configuration");
    std::ofstream file(configuration);
    for (auto i = number * lansOfAgent; i < std::min((number + 1) * lansOfAgent, lans_.size()); ++i)
      file << "[interface." << lans_[i]->intf()
           << "]\nhello-delay = 0.05\noverride = 0.4\npropagation = 0.1\n";
    file.close();
    auto words = lab_.entering("agent");
    words.insert(words.end(),
                 {JPAGENT, "run", "--json", "--config", configuration, "--pcap", lab_.newPath("capture")});
    agents_[number]->start(words);
  }
  std::string failureOf(std::size_t lan) {
    try {
      lans_[lan]->equal(lans_[lan]->next(), "hello");
      casesOfLans_[lan]->run(*lans_[lan]);
      return "";
    } catch (std::exception const& e) {
      return e.what();
    }
  }

  std::vector<FakeCase> const& cases_;
  Lab lab_;
  std::vector<std::unique_ptr<SharedAgent>> agents_;
  std::vector<std::unique_ptr<FakeLan>> lans_;
  std::vector<FakeCase const*> casesOfLans_;
};

/// Runs all cases at once, in both families: in IPv6 a share of them unless thorough(). Agents have short
/// delays; a case begins when the first Hello was sent.
inline void runCases(std::vector<FakeCase> const& cases) { FakeLab(cases).run(); }

}  // namespace Routing::Pim::Jpagent::Live::Test
