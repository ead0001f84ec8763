// SPDX-License-Identifier: Apache-2.0
// `jpagent run` in network namespaces: real sockets, a real kernel.
#include <gmock/gmock.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <fstream>

#include "tests/Thorough.h"
#include "tests/jpagent/live/Cable.h"

namespace Routing::Pim::Jpagent::Live {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(LiveRunTest, OneJoinsFromTheOtherAndWhatItLeavesIsPruned) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  lab.in("one", "ip address add 10.0.1.1/24 dev va");
  QuickAgent one(
      lab, "one", "va",
      {"--pcap", lab.path("pcap"), "--control", lab.path("control"), "--record", lab.path("record")});
  QuickAgent two(lab, "two", "vb");
  EXPECT_EQ(one.await(interfaceIs("up", "10.0.0.1/24"))["mtu"], 1500);
  EXPECT_EQ(one.await(neighborUp("10.0.0.2"))["hold"], 3);
  two.await(neighborUp("10.0.0.1"));
  // By an address that is not its primary one.
  EXPECT_TRUE(two.ask("join (10.9.0.1,239.1.1.1) via 10.0.1.1")["ok"]);
  EXPECT_EQ(two.await({{"event", "sent"}})["upstream"], "10.0.0.1");
  EXPECT_TRUE(two.ask("join 5 routes from (*,239.2.0.1) rp 10.255.0.1 via 10.0.0.1")["ok"]);
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(one.await(downstream("joined", "(*,239.2.0.5)"))["rp"], "10.255.0.1");
  EXPECT_EQ(one.ask("show downstream")["result"].size(), 6u);
  EXPECT_TRUE(two.ask("leave (10.9.0.1,239.1.1.1)")["ok"]);
  one.await(downstream("pruned", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(two.ask("leave (10.9.0.1,239.1.1.1)")["ok"], false);

  EXPECT_THAT(one.ask("show counters").dump(), HasSubstr("dropped_by_kernel"));

  // What is joined is pruned before the goodbye.
  EXPECT_EQ(two.end(), 0) << two.allText();
  one.await(downstream("pruned", "(*,239.2.0.5)"));
  one.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.2"}});
  EXPECT_EQ(one.count({{"event", "downstream"}, {"state", "pruned"}}), 6);
  one.say("quit");
  EXPECT_EQ(one.wait(), 0) << one.allText();
  EXPECT_FALSE(std::filesystem::exists(lab.path("control")));

  // What was recorded gives the same events again.
  auto const performed = shell(JPAGENT " simulate " + lab.path("record"));
  EXPECT_EQ(performed.status, 0) << performed.output;
  EXPECT_EQ(performed.output, one.text());

  // The capture has both directions.
  auto const replayed = shell(JPAGENT " replay --json " + lab.path("pcap"));
  EXPECT_EQ(replayed.status, 0) << replayed.output;
  EXPECT_THAT(replayed.output, HasSubstr("239.2.0.5"));
}

TEST(LiveRunTest, Ipv6WaitsForDuplicateAddressDetectionAndThenJoins) {
  REQUIRE_NAMESPACES();
  Lab const lab({"one", "two"});
  lab.cable("one", "va", "two", "vb");
  QuickAgent one(lab, "one", "va"), two(lab, "two", "vb");
  auto const up = one.await({{"event", "interface"}, {"state", "up"}});
  auto const upstream =
      up["address"].get<std::string>().substr(0, up["address"].get<std::string>().find('/'));
  EXPECT_TRUE(two.ask("join (2001:db8::1,ff0e::1) via " + upstream + "%vb")["ok"]);
  one.await(downstream("joined", "(2001:db8::1,ff0e::1)"));
  EXPECT_TRUE(two.ask("leave (2001:db8::1,ff0e::1)")["ok"]);
  one.await(downstream("pruned", "(2001:db8::1,ff0e::1)"));
  EXPECT_EQ(one.count({{"event", "refused"}}), 0) << one.allText();
  // The goodbye from an address that the kernel has removed.
  lab.in("one", "ip address del " + up["address"].get<std::string>() + " dev va");
  EXPECT_EQ(one.await(interfaceIs("down", up["address"]))["goodbye"], true);
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", upstream}});
  EXPECT_EQ(two.end(), 0);
}

TEST(LiveRunTest, OnALanAnotherRoutersPruneIsOverridden) {
  REQUIRE_NAMESPACES();
  Lab const lab({"switch", "one", "two", "three"});
  for (auto const* const space : {"switch", "one", "two", "three"})
    lab.in(space, "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6");
  lab.in("switch", "ip link add lan type bridge mcast_snooping 0; ip link set lan up");
  int number = 0;
  for (std::string const space : {"one", "two", "three"}) {
    lab.cable("switch", "to" + space, space, "e");
    lab.in("switch", "ip link set to" + space + " master lan");
    lab.in(space, "ip address add 10.0.0." + std::to_string(++number) + "/24 dev e");
  }
  QuickAgent one(lab, "one", "e", {}, " override 0.3 propagation 0.1"),
      two(lab, "two", "e", {}, " override 0.3 propagation 0.1"),
      three(lab, "three", "e", {}, " override 0.3 propagation 0.1");
  for (auto* const agent : {&two, &three}) {
    agent->await(neighborUp("10.0.0.1"));
    agent->ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  }
  one.await(neighborUp("10.0.0.2"));
  one.await(neighborUp("10.0.0.3"));
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  three.await({{"event", "sent"}});
  three.await({{"event", "received"}, {"source", "10.0.0.2"}});  // heard
  auto const before = one.eventCount();
  two.ask("leave (10.9.0.1,239.1.1.1)");
  one.await(downstream("prune-pending", "(10.9.0.1,239.1.1.1)"), before);
  auto const join = one.await({{"event", "received"}, {"source", "10.0.0.3"}}, before);
  EXPECT_EQ(join["entries"][0]["kind"], "join");
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"), before);
  pause(0.6);
  EXPECT_EQ(one.count(downstream("pruned", "(10.9.0.1,239.1.1.1)")), 0) << one.allText();
}

TEST(LiveRunTest, ANeighborThatWasKilledExpiresAndOneThatStartsAgainHasRestarted) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va");
  std::size_t restarted = 0;
  {
    QuickAgent two(lab, "two", "vb");
    one.await(neighborUp("10.0.0.2"));
    two.await(neighborUp("10.0.0.1"));
    two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
    one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
    two.process().signal(SIGKILL);
  }
  QuickAgent two(lab, "two", "vb", {}, " hello-hold 1");
  one.await({{"event", "neighbor"}, {"state", "restarted"}, {"address", "10.0.0.2"}, {"hold", 1}});
  restarted = one.eventCount();
  EXPECT_EQ(one.count({{"event", "neighbor"}, {"state", "up"}}), 1);
  two.process().signal(SIGKILL);
  one.await({{"event", "neighbor"}, {"state", "expired"}, {"hold", 1}}, restarted);
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveRunTest, AddressesMtuAndLinkAreFollowed) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va"), two(lab, "two", "vb");
  two.await(neighborUp("10.0.0.1"));
  one.await(neighborUp("10.0.0.2"));
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));

  // The kernel has removed the old address, and its goodbye is sent all the same.
  auto begin = two.eventCount(), beginOfOne = one.eventCount();
  lab.in("one", "ip address del 10.0.0.1/24 dev va; ip address add 10.0.0.9/24 dev va");
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.1"}}, begin);
  two.await(neighborUp("10.0.0.9"), begin);
  one.await(downstream("expired", "(10.9.0.1,239.1.1.1)"), beginOfOne);
  EXPECT_EQ(one.await(interfaceIs("down", "10.0.0.1/24"), beginOfOne)["goodbye"], true);
  one.await(interfaceIs("up", "10.0.0.9/24"), beginOfOne);

  // The link at the other end: no carrier here either.
  begin = one.eventCount();
  auto const beginOfTwo = two.eventCount();
  lab.in("two", "ip link set vb down");
  one.await(interfaceIs("down", "10.0.0.9/24"), begin);
  lab.in("two", "ip link set vb up");
  one.await(interfaceIs("up", "10.0.0.9/24"), begin);
  one.await(neighborUp("10.0.0.2"), begin);
  two.await(interfaceIs("up", "10.0.0.2/24"), beginOfTwo);
  two.await(neighborUp("10.0.0.9"), beginOfTwo);

  lab.in("one", "ip link set va mtu 1400");
  for (int i = 0; i < 100 && one.ask("show interfaces")["result"][0]["mtu"] != 1400; ++i) pause(0.05);
  EXPECT_EQ(one.ask("show interfaces")["result"][0]["mtu"], 1400);

  // No address at all is no end of it.
  begin = two.eventCount();
  lab.in("one", "ip address flush dev va");
  two.await({{"event", "neighbor"}, {"state", "down"}, {"address", "10.0.0.9"}}, begin);
  lab.in("one", "ip address add 10.0.0.1/24 dev va");
  two.await(neighborUp("10.0.0.1"), begin);
  EXPECT_EQ(one.end(), 0);
  EXPECT_EQ(two.end(), 0);
}

TEST(LiveRunTest, AnInterfaceMayAppearLaterDisappearComeAgainAndBeRenamed) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "late"), two(lab, "two", "vb");
  EXPECT_TRUE(one.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.2%late")["ok"]);  // waits
  EXPECT_EQ(one.count({{"event", "interface"}}), 0);
  lab.in("one", "ip link set va down; ip link set va name late; ip link set late up");
  one.await(interfaceIs("up", "10.0.0.1/24"));
  two.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));

  auto begin = one.eventCount(), beginOfTwo = two.eventCount();
  lab.in("one", "ip link set late down; ip link set late name other");
  one.await(interfaceIs("down", "10.0.0.1/24"), begin);
  lab.in("one", "ip link set other up");
  lab.in("one", "ip link set other down; ip link set other name late; ip link set late up");
  one.await(interfaceIs("up", "10.0.0.1/24"), begin);
  two.await({{"event", "neighbor"}, {"address", "10.0.0.1"}, {"state", "restarted"}}, beginOfTwo);

  // Another interface of that name has another index, also if both are told at once.
  begin = one.eventCount();
  one.process().signal(SIGSTOP);
  lab.in("one", "ip link del late");
  lab.cable("one", "late", "two", "vb");
  lab.in("one", "ip address add 10.0.0.1/24 dev late");
  lab.in("two", "ip address add 10.0.0.2/24 dev vb");
  one.process().signal(SIGCONT);
  one.await(interfaceIs("down", "10.0.0.1/24"), begin);
  one.await(interfaceIs("up", "10.0.0.1/24"), begin);
  one.await({{"event", "sent"}, {"upstream", "10.0.0.2"}}, begin);
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveRunTest, TwentyFiveInterfacesHaveTheirNeighbors) {
  REQUIRE_NAMESPACES();
  Lab const lab({"one", "two"});
  constexpr int count = 25;  // more than one socket may have memberships
  std::string ofOne, ofTwo;
  std::vector<std::string> names;
  auto const number = [](int i) { return std::to_string(i); };
  lab.cable("one", "e0", "two", "e0");
  for (int i = 0; i < count; ++i) {
    names.push_back("e" + number(i));
    auto const both = "ip address add 10.0." + number(i) + ".";
    ofOne += both + "1/24 dev e" + number(i) + "\nip link set e" + number(i) + " up\n";
    ofTwo += both + "2/24 dev e" + number(i) + "\nip link set e" + number(i) + " up\n";
    if (i > 0) lab.cable("one", names.back(), "two", names.back());
  }
  lab.in("one", ofOne);
  lab.in("two", ofTwo);
  Agent one(lab, "one", names), two(lab, "two", names);
  for (auto const& name : names) {
    one.say("interface " + name + quick);
    two.say("interface " + name + quick);
  }
  for (int i = 0; i < count; ++i) one.await(neighborUp("10.0." + number(i) + ".2"));
  EXPECT_EQ(one.count({{"event", "error"}}), 0) << one.allText();
  EXPECT_EQ(one.end(), 0);
  EXPECT_EQ(two.end(), 0);
}

TEST(LiveRunTest, AnOutputThatFailsIsToldOnceAndAllElseContinues) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  std::ofstream(lab.path("script")) << "ulimit -f 4; trap '' XFSZ; exec " JPAGENT " run --json va --pcap "
                                    << lab.path("pcap") << " --record " << lab.path("record") << "\n";
  auto words = lab.entering("one");
  words.insert(words.end(), {"bash", lab.path("script")});
  Process one(words);
  QuickAgent two(lab, "two", "vb");
  one.write("interface va hello 0.02 hello-hold 3 hello-delay 0.1\n");
  std::string output;
  for (int i = 0; i < 200 && output.find("\"what\":\"" + lab.path("pcap")) == output.npos; ++i)
    output += one.read(0.1);
  EXPECT_THAT(output, HasSubstr("File too large"));
  two.await(neighborUp("10.0.0.1"));
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  for (int i = 0; i < 100 && output.find("\"joined\"") == output.npos; ++i) output += one.read(0.1);
  EXPECT_THAT(output, HasSubstr("(10.9.0.1,239.1.1.1)"));
  one.write("quit\n");
  while (!output.ends_with("\"command\":\"quit\"}\n")) {
    auto const more = one.read(3);
    if (more.empty()) break;
    output += more;
  }
  EXPECT_EQ(one.wait(), 2) << output;
  auto const first = output.find("\"event\":\"error\",\"what\":\"" + lab.path("pcap"));
  ASSERT_NE(first, output.npos) << output;
  EXPECT_EQ(output.find("\"event\":\"error\",\"what\":\"" + lab.path("pcap"), first + 1), output.npos);
  EXPECT_EQ(shell(JPAGENT " replay " + lab.path("pcap")).status, 0);  // no part of a packet is left
}

TEST(LiveRunTest, WithoutAReaderOfItsEventsItGoesOnAndStatusTwoSaysIt) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  QuickAgent one(lab, "one", "va", {"--control", lab.path("control")});
  one.await(interfaceIs("up", "10.0.0.1/24"));
  one.process().closeOutput();
  QuickAgent two(lab, "two", "vb");
  two.await(neighborUp("10.0.0.1"));
  std::string shown;
  for (int i = 0; i < 100 && shown.find("10.0.0.2") == shown.npos; ++i, pause(0.05))
    shown = shell(JPAGENT " tell --json " + lab.path("control") + " show neighbors").output;
  EXPECT_THAT(shown, HasSubstr("\"10.0.0.2\""));
  two.ask("join (10.9.0.1,239.1.1.1) via 10.0.0.1");
  for (int i = 0; i < 100 && shown.find("joined") == shown.npos; ++i, pause(0.05))
    shown = shell(JPAGENT " tell " + lab.path("control") + " show downstream").output;
  EXPECT_THAT(shown, HasSubstr("joined"));
  one.process().signal(SIGTERM);
  EXPECT_EQ(one.process().wait(), 2);
}

// A client of the control socket.
struct Client {
  explicit Client(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      ADD_FAILURE() << path;
    timeval const patience{5, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Client() { close(descriptor); }
  void say(std::string const& text) const {
    EXPECT_EQ(send(descriptor, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  // Until this is in it, the connection ends or 5 s have passed.
  std::string hear(std::string const& what) {
    std::size_t from = 0;
    while (heard.find(what, from) == heard.npos) {
      from = heard.size() - std::min(heard.size(), what.size());
      char bytes[64 << 10];
      auto const size = recv(descriptor, bytes, sizeof bytes, 0);
      if (size <= 0) return heard + (size == 0 || errno == ECONNRESET ? "<end>" : "<silence>");
      heard.append(bytes, static_cast<std::size_t>(size));
    }
    return heard;
  }
  int const descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string heard;
};

TEST(LiveRunTest, ClientsOfTheControlSocketDoNotDisturbOneAnother) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  auto const path = lab.path("control");
  QuickAgent one(lab, "one", "va", {"--control", path});
  one.await(interfaceIs("up", "10.0.0.1/24"));
  Client listener(path), quiet(path);
  listener.say("events on\n");
  listener.hear("events on");

  {  // Half a line is no command, nor is one that comes in two parts two.
    Client half(path);
    half.say("join (10.9.0.1,239.1.1.1) via 10.0");
    half.say(".0.2\nleave (10.9.0.1,239.1");
    EXPECT_THAT(half.hear("}\n"),
                HasSubstr(R"("ok":true,"command":"join (10.9.0.1,239.1.1.1) via 10.0.0.2")"));
    half.heard.clear();
    shutdown(half.descriptor, SHUT_WR);
    EXPECT_THAT(half.hear("}\n"), HasSubstr("the line has no end"));
    EXPECT_THAT(half.hear("never"), testing::EndsWith("<end>"));
  }
  Client(path).say("show neighbors\nleave (10.9.");  // ends without reading
  EXPECT_EQ(one.ask("show upstream")["result"].size(), 1u);

  {
    Client tooLong(path);
    std::string const line(100'000, 'x');
    tooLong.say(line + "\nshow neighbors\n");
    EXPECT_THAT(tooLong.hear("show neighbors"), HasSubstr("longer than 64 KiB"));
  }

  // One that never reads is closed, at 1 MB and what the kernel takes. It asks until its connection ends.
  Client deaf(path);
  int kernelTakes = 0;
  socklen_t size = sizeof kernelTakes;
  getsockopt(deaf.descriptor, SOL_SOCKET, SO_SNDBUF, &kernelTakes, &size);  // the server's end has the same
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "help\n";
  auto const isOpen = [&] {
    auto const sent = send(deaf.descriptor, many.data(), many.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent >= 0 || (errno != EPIPE && errno != ECONNRESET);
  };
  constexpr int mostRounds = 100;  // of about 2 MB
  int rounds = 0;
  for (; rounds < mostRounds && isOpen(); ++rounds) one.ask("show interfaces");
  EXPECT_LT(rounds, mostRounds);
  EXPECT_THAT(deaf.hear("never"), testing::EndsWith("<end>"));
  EXPECT_LT(deaf.heard.size(), static_cast<std::size_t>(kernelTakes) + (1u << 20));
  // A reply that is larger than that is none of its business.
  if (thorough()) {
    EXPECT_TRUE(one.ask("join 10000 routes from (10.9.0.1,239.2.0.0) via 10.0.0.2")["ok"]);
    quiet.say("show upstream\n");
    EXPECT_THAT(quiet.hear("}]}\n"), testing::EndsWith("}]}\n"));
    EXPECT_GT(quiet.heard.size(), 1u << 20);
    one.ask("leave 10000 routes from (10.9.0.1,239.2.0.0)");
  }

  // All the while events are told.
  QuickAgent two(lab, "two", "vb");
  EXPECT_THAT(listener.hear(R"("state":"up","interface":"va","address":"10.0.0.2")"), Not(HasSubstr("<")));
  EXPECT_THAT(listener.heard, Not(HasSubstr(R"("command":"show)")));  // what others asked

  EXPECT_EQ(shell(JPAGENT " tell " + path + " jion x").status, 1);
  auto const metrics = shell(JPAGENT " tell " + path + " show counters --prometheus");
  EXPECT_EQ(metrics.status, 0);
  std::istringstream lines(metrics.output);
  for (std::string line; std::getline(lines, line);)  // no "ok" in the end
    EXPECT_THAT(line, testing::AnyOf(testing::StartsWith("jpagent_"), testing::StartsWith("# ")));
  EXPECT_EQ(shell(JPAGENT " tell " + path + " quit now").output, "ok\n");
  EXPECT_EQ(one.wait(), 0);
  EXPECT_EQ(shell(JPAGENT " tell " + path + " show neighbors").status, 2);
}

TEST(LiveRunTest, ASignalInTheLastMomentsDoesNotReplaceTheExitStatus) {
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

TEST(LiveRunTest, ASocketThatAKilledProcessLeftIsReplacedAndAFileIsNot) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  auto const path = lab.path("control");
  {
    QuickAgent one(lab, "one", "va", {"--control", path});
    one.await(interfaceIs("up", "10.0.0.1/24"));
    one.process().signal(SIGKILL);
  }
  ASSERT_TRUE(std::filesystem::exists(path));
  QuickAgent one(lab, "one", "va", {"--control", path});
  one.await(interfaceIs("up", "10.0.0.1/24"));
  EXPECT_EQ(std::filesystem::status(path).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_EQ(one.end(), 0);
  std::ofstream(path) << "kept";
  EXPECT_EQ(Agent(lab, "one", {"va", "--control", path}).wait(), 2);
  EXPECT_EQ(lab.text("control"), "kept");
}

TEST(LiveRunTest, TheEndOfStandardInputIsNoQuitAndALongLineIsAnError) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  Agent one(lab, "one", {"va"});
  one.process().write("# a comment\n\n" + std::string(70'000, 'x') +
                      "\nshow neighbors\ninterface va hello 1");
  one.process().closeInput();
  EXPECT_THAT(one.await({{"event", "reply"}, {"ok", false}})["error"].get<std::string>(),
              HasSubstr("64 KiB"));
  one.await({{"event", "reply"}, {"command", "show neighbors"}});
  one.await({{"event", "reply"}, {"command", "interface va hello 1"}});  // a last line without its end
  EXPECT_EQ(one.count({{"event", "reply"}}), 3);
  one.await(interfaceIs("up", "10.0.0.1/24"));
  EXPECT_EQ(one.end(), 0);
}

TEST(LiveRunTest, SystemdIsToldOfReadinessReloadsAndTheEndAndIsAnswered) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  int const notified = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  auto const path = lab.path("notify");
  std::copy(path.begin(), path.end(), address.sun_path);
  ASSERT_EQ(bind(notified, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  timeval const patience{10, 0};
  setsockopt(notified, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  auto const next = [&] {
    char text[200];
    auto const size = recv(notified, text, sizeof text, 0);
    return std::string(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  };
  auto const nextOther = [&](std::string const& passedOver) {
    auto text = next();
    while (text == passedOver) text = next();
    return text;
  };

  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "400000", 1);
  Agent one(lab, "one", {"va", "--pcap", lab.path("pcap"), "--log", "stderr"});
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  EXPECT_EQ(next(), "READY=1");
  EXPECT_EQ(next(), "WATCHDOG=1");
  std::filesystem::rename(lab.path("pcap"), lab.path("pcap.1"));
  one.process().signal(SIGHUP);
  EXPECT_THAT(nextOther("WATCHDOG=1"), testing::StartsWith("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_EQ(nextOther("WATCHDOG=1"), "READY=1");
  EXPECT_TRUE(std::filesystem::exists(lab.path("pcap")));  // as after the work of logrotate
  EXPECT_EQ(one.end(), 0);
  EXPECT_EQ(nextOther("WATCHDOG=1"), "STOPPING=1");
  close(notified);
}

TEST(LiveRunTest, WhatItCannotBeginWithItSays) {
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

TEST(LiveRunTest, AConfigurationIsCheckedAppliedAndItsDifferenceTakenOver) {
  REQUIRE_NAMESPACES();
  Cable const lab;
  auto const file = lab.path("jpagent.toml");
  auto const write = [&](std::string const& text) { std::ofstream(file) << text; };
  std::string const settings = "[interface.vb]\nhello = 1\nhello-delay = 0.1\n";
  std::string const first = "[[route]]\njoin = \"(10.9.0.1,239.1.1.1)\"\nvia = \"10.0.0.1\"\n";
  std::string const second = "[[route]]\njoin = \"(*,239.1.1.2)\"\nvia = \"10.0.0.1\"\n";
  write(settings + first + second);
  auto const unknown = shell(JPAGENT " run --check " + file);
  EXPECT_EQ(unknown.status, 2);  // no RP
  EXPECT_THAT(unknown.output, HasSubstr("jpagent.toml:7:1: "));
  write("[rp]\n\"239.0.0.0/8\" = \"10.255.0.1\"\n" + settings + first + second);
  EXPECT_EQ(shell(JPAGENT " run --check " + file).status, 0);

  QuickAgent one(lab, "one", "va");
  Agent two(lab, "two", {"--config", file});
  one.await(downstream("joined", "(10.9.0.1,239.1.1.1)"));
  EXPECT_EQ(one.await(downstream("joined", "(*,239.1.1.2)"))["rp"], "10.255.0.1");
  two.ask("show upstream");  // by now all that was sent has been told
  auto const sent = two.eventCount();
  write("[rp]\n\"239.0.0.0/8\" = \"10.255.0.1\"\n" + settings + second +
        "[[route]]\njoin = \"(10.9.0.3,239.1.1.3)\"\nvia = \"10.0.0.1\"\n");
  two.process().signal(SIGHUP);
  one.await(downstream("pruned", "(10.9.0.1,239.1.1.1)"));
  one.await(downstream("joined", "(10.9.0.3,239.1.1.3)"));
  for (auto at = sent; at < two.eventCount(); ++at)
    EXPECT_THAT(two.events()[at].dump(), Not(HasSubstr("239.1.1.2")));  // nothing for what stays
  write(settings + "helo = 3\n");
  two.process().signal(SIGHUP);
  EXPECT_THAT(two.await({{"event", "error"}})["reason"].get<std::string>(),
              HasSubstr("jpagent.toml:4:1: unknown key \"helo\""));
  EXPECT_EQ(two.ask("show upstream")["result"].size(), 2u);
  EXPECT_EQ(two.end(), 0);
  EXPECT_EQ(one.end(), 0);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
