// SPDX-License-Identifier: Apache-2.0
// The words of conversations with a speaker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "jpagent/simulate/Simulation.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using testing::HasSubstr;

std::string const beginning = "# S.\nspeaker\ninterface eth0 10.0.0.1/24 hello-delay 0\n";

/// What comes out of a speaker that is told so, or why it cannot be.
std::string outputOf(std::string const& commands, Speaker::PacketSink* packets = nullptr) {
  std::ostringstream out;
  try {
    Simulation simulation(out, packets);
    simulate(Conversation(beginning + commands), simulation);
  } catch (ConversationError const& e) {
    return std::to_string(e.line()) + ": " + e.what();
  }
  return out.str();
}

TEST(SpeakerWordsTest, AConversationIsWithASpeakerFromItsFirstCommandOrNotAtAll) {
  EXPECT_EQ(outputOf("speaker"), "4: expected a command, not \"speaker\"");
  EXPECT_EQ(outputOf("start"), "4: expected a command, not \"start\"");
  try {
    Conversation("# S.\nstart\nspeaker\n");
    FAIL();
  } catch (ConversationError const& e) {
    EXPECT_EQ(e.line(), 3u);
    EXPECT_STREQ(e.what(), "expected \"speaker\" as the first command only");
  }
  EXPECT_THROW(Conversation("# S.\nhello from 10.0.0.2 on eth0\n"), ConversationError);
}

TEST(SpeakerWordsTest, AWrongWordIsRefusedWithWhatWasExpected) {
  struct {
    char const *command, *complaint;
  } const cases[] = {
      {"interface", "expected the name of an interface at the end of the line"},
      {"interface eth0 up down", "expected one of up, down and gone"},
      {"interface eth0 gone mtu 1500", "expected nothing beside gone"},
      {"interface eth0 hello 0", "expected a Hello period in seconds from 0.001 to 18724, not \"0\""},
      {"interface eth0 10.0.0.x",
       "expected an address such as 10.0.0.1/24, none, up, down, gone or a setting, "
       "not \"10.0.0.x\""},
      {"hello from 10.0.0.2 on eth0 hold 65536",
       "expected a hold time in seconds from 0 to 65535, not \"65536\""},
      {"hello from 10.0.0.2 on eth0 address 224.0.0.1",
       "expected a Hello that can be on the wire: 224.0.0.1 in the address list"},
      {"join (10.9.0.1,239.1.1.1,rpt) via 10.0.0.2",
       "expected an (S,G) or a (*,G): an (S,G,rpt) is pruned and unpruned"},
      {"join (*,239.1.1.1) via 10.0.0.2", "expected \"rp\", not \"via\""},
      {"join (10.9.0.1,239.1.1.1)", "expected \"via\" at the end of the line"},
      {"join (10.9.0.1,239.1.1.1) via fe80::2",
       "expected the address of an upstream neighbor of the group's family, perhaps with %INTERFACE, not "
       "\"fe80::2\""},
      {"prune (10.9.0.1,239.1.1.1)", "expected an (S,G,rpt)"},
      {"receive eth0 from fe80::2 upstream 10.0.0.1 hold 210 join (10.9.0.1,239.1.1.1)",
       "expected a sender and an upstream neighbor of one family"},
      {"show sets", "expected interfaces, neighbors, upstream, downstream or counters, not \"sets\""},
  };
  for (auto const& [command, complaint] : cases)
    EXPECT_EQ(outputOf(command), std::string("4: ") + complaint) << command;
}

TEST(SpeakerWordsTest, ACommandThatCannotBePerformedSaysWhyAndChangesNothing) {
  EXPECT_EQ(outputOf("interface eth1 up"), "4: there is no interface eth1: an address or \"none\" makes it");
  EXPECT_EQ(outputOf("interface eth1 gone"), "4: there is no interface eth1");
  EXPECT_EQ(outputOf("hello from 10.0.0.2 on eth1"), "4: there is no interface eth1");
  EXPECT_EQ(outputOf("leave (10.9.0.1,239.1.1.1)"), "4: (10.9.0.1,239.1.1.1) is not wanted");
  EXPECT_EQ(outputOf("unprune (10.9.0.1,239.1.1.1,rpt)"), "4: (10.9.0.1,239.1.1.1,rpt) is not pruned");
  EXPECT_EQ(outputOf("interface eth1 10.0.0.7/24\njoin (10.9.0.1,239.1.1.1) via 10.0.0.2"),
            "5: 10.0.0.2 may be on several interfaces or on none: name it as 10.0.0.2%INTERFACE");
}

TEST(SpeakerWordsTest, RangesAreManyRoutesAndALeaveNeedsNoRp) {
  auto const output =
      lines(outputOf("join 2 routes from (*,239.1.1.1) rp 10.0.0.9 via 10.0.0.2\n"
                     "prune 2 sources from (10.9.0.1,239.1.1.2,rpt)\n"
                     "show upstream\n"
                     "leave 2 routes from (*,239.1.1.1)\n"
                     "unprune 2 sources from (10.9.0.1,239.1.1.2,rpt)\n"
                     "show upstream"));
  EXPECT_THAT(output, testing::ElementsAre(
                          "0.000 show upstream (*,239.1.1.1) rp 10.0.0.9 via 10.0.0.2 on eth0: neighbor down",
                          "0.000 show upstream (*,239.1.1.2) rp 10.0.0.9 via 10.0.0.2 on eth0: neighbor down",
                          "0.000 show upstream (10.9.0.1,239.1.1.2,rpt) via 10.0.0.2 on eth0: neighbor down",
                          "0.000 show upstream (10.9.0.2,239.1.1.2,rpt) via 10.0.0.2 on eth0: neighbor down",
                          "0.000 show no upstream routes"));
}

TEST(SpeakerWordsTest, EachPacketOfASpeakerIsAlsoForTheCapture) {
  Speaker::CapturedPackets packets;
  outputOf("hello from 10.0.0.2 on eth0\njoin (10.9.0.1,239.1.1.1) via 10.0.0.2\nwait 1", &packets);
  ASSERT_EQ(packets.packets().size(), 2u);
  EXPECT_TRUE(Wire::isPimType(packets.packets()[0].bytes, Wire::PimType::hello));
  EXPECT_TRUE(Wire::isPimType(packets.packets()[1].bytes, Wire::PimType::joinPrune));
}

TEST(SpeakerWordsTest, TheReferenceNamesEachCommandToASpeaker) {
  auto const reference = speakerCommandReference();
  for (auto const* word : {"interface", "hello", "receive", "join", "leave", "prune", "unprune", "rp", "deny",
                           "wait", "busy", "cost", "packets", "trace", "show", "say"})
    EXPECT_THAT(reference, HasSubstr(std::string("  ") + word + " ")) << word;
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
