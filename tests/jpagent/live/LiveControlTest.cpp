// SPDX-License-Identifier: Apache-2.0
// Standard input and the control socket of `jpagent run`.
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

TEST(LiveControlTest, ClientsOfTheControlSocketDoNotDisturbOneAnother) {
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
  // A reply that is larger than that is no reason to close.
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

TEST(LiveControlTest, ASocketThatAKilledProcessLeftIsReplacedAndAFileIsNot) {
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

TEST(LiveControlTest, TheEndOfStandardInputIsNoQuitAndALongLineIsAnError) {
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

}  // namespace
}  // namespace Routing::Pim::Jpagent::Live
