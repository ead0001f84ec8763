// SPDX-License-Identifier: Apache-2.0
// `jpagent run` as a process: its start, its status, systemd.
#include <gmock/gmock.h>

#include "tests/jpagent/live/Cable.h"
#include "tests/jpagent/live/Datagrams.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

using testing::HasSubstr;

TEST(LiveProcessTest, ASignalInTheLastMomentsDoesNotReplaceTheExitStatus) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  for (auto const* const end : {"quit now", "quit"}) {
    Agent one(lab, "one", {"va"});
    one.await(interfaceIs("up", "10.0.0.1/24"));
    one.say(end);
    siginfo_t info{};
    auto const id = static_cast<id_t>(one.process().id());
    while (waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0)
      one.process().signal(SIGTERM);
    EXPECT_EQ(one.wait(), 0) << end;
  }
}

TEST(LiveProcessTest, SystemdIsToldOfReadinessReloadsAndTheEndAndIsAnswered) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  Datagrams const notified(lab.path("notify"));
  setenv("NOTIFY_SOCKET", lab.path("notify").c_str(), 1);
  setenv("WATCHDOG_USEC", "400000", 1);
  Agent one(lab, "one", {"va", "--pcap", lab.path("pcap"), "--log", "stderr"});
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  EXPECT_EQ(notified.next(), "READY=1");
  EXPECT_EQ(notified.next(), "WATCHDOG=1");
  std::filesystem::rename(lab.path("pcap"), lab.path("pcap.1"));
  one.process().signal(SIGHUP);
  EXPECT_THAT(notified.nextOther("WATCHDOG=1"), testing::StartsWith("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_EQ(notified.nextOther("WATCHDOG=1"), "READY=1");
  EXPECT_TRUE(std::filesystem::exists(lab.path("pcap")));  // as after the work of logrotate
  EXPECT_EQ(one.end(), 0);
  EXPECT_EQ(notified.nextOther("WATCHDOG=1"), "STOPPING=1");
}

TEST(LiveProcessTest, WhatItCannotBeginWithItSays) {
  EXPECT_THAT(shell(JPAGENT " run eth/0 </dev/null").output, HasSubstr("\"eth/0\" cannot be the name"));
  EXPECT_EQ(shell(JPAGENT " run </dev/null").status, 2);
  REQUIRE_NAMESPACES();
  Cable const lab;
  std::string const enter = "unshare --user --map-root-user --net ";
  if (auto const drop = enter + "setpriv --bounding-set -net_raw --inh-caps -net_raw ";
      shell(drop + "true").status == 0) {
    auto const refused = shell(drop + JPAGENT " run va </dev/null");
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.output, HasSubstr("CAP_NET_RAW"));
  }
  Agent one(lab, "one", {"va", "--control", lab.path("control"), "--pcap", lab.path("pcap")});
  one.await(interfaceIs("up", "10.0.0.1/24"));
  auto const status =
      lab.in("one", "grep CapEff /proc/" + std::to_string(one.process().id()) + "/status").output;
  EXPECT_THAT(status, HasSubstr("0000000000002000"));  // CAP_NET_RAW alone
  auto const second = shell(enter + JPAGENT " run va --control " + lab.path("control") + " --pcap " +
                            lab.path("pcap") + " </dev/null");
  EXPECT_EQ(second.status, 2);
  EXPECT_THAT(second.output, HasSubstr("is in use by another process"));
  EXPECT_EQ(one.end(), 0);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
