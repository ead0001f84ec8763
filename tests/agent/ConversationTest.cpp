#include "agent/Conversation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/Support.h"

namespace Routing::Pim::Agent {
namespace {

using namespace Test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

template <class Wanted>
Wanted parsed(std::string_view text) {
  return std::get<Wanted>(commandFromText(text));
}

/// What is said of a command that is not understood.
std::string complaint(std::string_view text) {
  try {
    commandFromText(text, 7);
  } catch (ConversationError const& e) {
    EXPECT_EQ(e.line(), 7u);
    return e.what();
  }
  return "none";
}

std::string fileComplaint(std::string_view text) {
  try {
    Conversation conversation(text);
  } catch (ConversationError const& e) {
    return std::to_string(e.line()) + ": " + e.what();
  }
  return "none";
}

std::vector<std::string> texts(std::vector<RouteEntry> const& entries) {
  std::vector<std::string> result;
  for (auto const& entry : entries) result.push_back(toText(entry));
  return result;
}

TEST(ConversationTest, EachKindOfRouteIsReadAndWrittenInTheSameForm) {
  auto const command = parsed<DataCommand>(
      "triggered 10.0.0.2 join (10.9.0.1,239.1.1.1) (*,239.1.1.1) rp 10.0.0.9 prune "
      "(10.9.0.2,239.1.1.1,rpt)");
  EXPECT_EQ(command.channel, Channel::triggered);
  EXPECT_EQ(command.target, IpGenAddr("10.0.0.2"));
  EXPECT_FALSE(command.remove);
  EXPECT_THAT(texts(command.entries),
              ElementsAre("join (10.9.0.1,239.1.1.1)", "join (*,239.1.1.1) rp 10.0.0.9",
                          "prune (10.9.0.2,239.1.1.1,rpt)"));
  auto const again = parsed<DataCommand>("override fe80::2 remove prune (2001:db8::1,ff3e::1)");
  EXPECT_EQ(again.channel, Channel::override);
  EXPECT_TRUE(again.remove);
  EXPECT_THAT(texts(again.entries), ElementsAre("prune (2001:db8::1,ff3e::1)"));
}

TEST(ConversationTest, RoutesAreCountedUpwardsByGroupAndSourcesBySource) {
  EXPECT_THAT(
      texts(parsed<DataCommand>("periodic 10.0.0.2 join 3 routes from (10.9.0.1,239.1.0.255)").entries),
      ElementsAre("join (10.9.0.1,239.1.0.255)", "join (10.9.0.1,239.1.1.0)", "join (10.9.0.1,239.1.1.1)"));
  EXPECT_THAT(
      texts(parsed<DataCommand>("periodic 10.0.0.2 prune 2 sources from (10.9.0.255,239.1.1.1,rpt)").entries),
      ElementsAre("prune (10.9.0.255,239.1.1.1,rpt)", "prune (10.9.1.0,239.1.1.1,rpt)"));
  EXPECT_THAT(
      texts(parsed<DataCommand>("periodic 10.0.0.2 join 2 routes from (*,ff0e::ffff) rp ::9 "
                                "prune (10.9.0.1,239.1.1.1)")
                .entries),
      ElementsAre("join (*,ff0e::ffff) rp ::9", "join (*,ff0e::1:0) rp ::9", "prune (10.9.0.1,239.1.1.1)"));
}

TEST(ConversationTest, RoutesThatRunOutOfAddressesAreRefused) {
  EXPECT_EQ(complaint("periodic 10.0.0.2 join 2 routes from (10.9.0.1,239.255.255.255)"),
            "expected fewer: there is no join (10.9.0.1,240.0.0.0)");
  EXPECT_EQ(complaint("periodic 10.0.0.2 join 2 sources from (223.255.255.255,239.1.1.1)"),
            "expected fewer: there is no join (224.0.0.0,239.1.1.1)");
  EXPECT_EQ(complaint("periodic 10.0.0.2 join 0 routes from (10.9.0.1,239.1.1.1)"),
            "expected a number of routes from 1 to 1000000, not \"0\"");
  EXPECT_EQ(complaint("periodic 10.0.0.2 join 2 sources from (*,239.1.1.1) rp 10.0.0.9"),
            "expected sources, and (*,G) has none");
  EXPECT_EQ(complaint("periodic 10.0.0.2 join 2 groups from (10.9.0.1,239.1.1.1)"),
            "expected \"routes\" or \"sources\", not \"groups\"");
}

TEST(ConversationTest, AnInterfaceTakesItsWordsInAnyOrder) {
  auto const command =
      parsed<IntfCommand>("intf eth0 hold 105 10.0.0.1/24 mtu 576 interval 30 override 0.5 notify");
  EXPECT_EQ(command.name, "eth0");
  EXPECT_EQ(command.address, IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
  EXPECT_EQ(command.holdTime, 105);
  EXPECT_EQ(command.interval, 30u);
  EXPECT_EQ(command.overrideInterval, 0.5);
  EXPECT_EQ(command.mtu, 576u);
  EXPECT_TRUE(command.notify);
  EXPECT_FALSE(command.down);
  auto const bare = parsed<IntfCommand>("intf eth1");
  EXPECT_FALSE(bare.address || bare.holdTime || bare.interval || bare.overrideInterval || bare.mtu);
  EXPECT_EQ(parsed<IntfCommand>("intf eth1 none").address, IpGenPrefix());
  EXPECT_TRUE(parsed<IntfCommand>("intf eth1 down").down);
}

TEST(ConversationTest, AReceivedMessageHasEachGroupOnce) {
  auto const command = parsed<ReceiveCommand>(
      "receive eth0 upstream 10.0.0.1 hold 210 join (10.9.0.1,239.1.1.1) (10.9.0.1,239.1.1.2) "
      "prune (10.9.0.2,239.1.1.1)");
  EXPECT_EQ(command.intf, "eth0");
  WireMessage expected(IpGenAddr("10.0.0.1"), 210);
  expected.groupAdd(IpGenAddr("239.1.1.1"));
  expected.joinAdd(SourceKind::source, IpGenAddr("10.9.0.1"));
  expected.pruneAdd(SourceKind::source, IpGenAddr("10.9.0.2"));
  expected.groupAdd(IpGenAddr("239.1.1.2"));
  expected.joinAdd(SourceKind::source, IpGenAddr("10.9.0.1"));
  EXPECT_EQ(command.message, expected);
}

TEST(ConversationTest, AMessageWithTooMuchForOneIsRefusedAtOnce) {
  EXPECT_THAT(
      complaint("receive eth0 upstream 10.0.0.1 hold 210 join 1000000 routes from (10.9.0.1,239.1.1.1)"),
      HasSubstr("expected a message that can be on the wire: 1000000 entries"));
  EXPECT_THAT(complaint("receive eth0 upstream 10.0.0.1 hold 210 join 256 routes from (10.9.0.1,239.1.1.1)"),
              HasSubstr("expected a message that can be on the wire: more than 255 groups"));
  EXPECT_THAT(
      complaint("receive eth0 upstream 10.0.0.1 hold 210 join 9000 sources from (10.9.0.1,239.1.1.1)"),
      HasSubstr("expected a message that can be on the wire: 9000 entries"));
  EXPECT_THAT(
      complaint("receive eth0 upstream fe80::1 hold 210 join 4000 sources from (2001:db8::1,ff0e::1)"),
      HasSubstr("expected a message that can be on the wire: 80050 bytes"));
}

TEST(ConversationTest, TheOtherCommandsSayWhatTheySay) {
  EXPECT_EQ(parsed<NeighborCommand>("neighbor 10.0.0.2 on eth0").intf, "eth0");
  EXPECT_TRUE(parsed<NeighborCommand>("neighbor 10.0.0.2 down").down);
  EXPECT_FALSE(parsed<NeighborCommand>("neighbor 10.0.0.2 up").down);
  EXPECT_EQ(parsed<RpCommand>("rp 239.0.0.0/8=10.0.0.9").text, "239.0.0.0/8=10.0.0.9");
  EXPECT_EQ(parsed<PolicyCommand>("deny 239.1.0.0/16").policy, Policy::deny);
  EXPECT_EQ(parsed<PolicyCommand>("filter 239.1.0.0/16").policy, Policy::filter);
  EXPECT_TRUE(parsed<PolicyCommand>("suppress 239.1.0.0/16 off").off);
  EXPECT_EQ(parsed<WaitCommand>("wait 0.25").time, 0.25);
  EXPECT_TRUE(parsed<WaitCommand>("wait until 3").until);
  EXPECT_EQ(parsed<SeedCommand>("seed 7").seed, 7);
  EXPECT_EQ(parsed<CostCommand>("cost 0.03").perMessage, 0.03);
  EXPECT_EQ(parsed<SetCommand>("set 10.0.0.2 loopQuantum 0").attribute, "loopQuantum");
  EXPECT_TRUE(parsed<ShowCommand>("show sets").sets);
  EXPECT_FALSE(parsed<ShowCommand>("show").sets);
  EXPECT_THAT(parsed<TraceCommand>("trace 1-2,7").levels, ElementsAre(1, 2, 7));
  EXPECT_THAT(parsed<TraceCommand>("trace off").levels, IsEmpty());
  EXPECT_TRUE(parsed<PacketsCommand>("packets brief").brief);
  EXPECT_EQ(parsed<SayCommand>("say  two  blanks").text, "two  blanks");
}

TEST(ConversationTest, AMistakeIsAnsweredWithWhatWasExpected) {
  EXPECT_EQ(complaint("jion 10.0.0.2"), "expected a command, not \"jion\"");
  EXPECT_EQ(complaint("wait soon"), "expected seconds from 0 to 1000000, not \"soon\"");
  EXPECT_EQ(complaint("wait -1"), "expected seconds from 0 to 1000000, not \"-1\"");
  EXPECT_EQ(complaint("wait nan"), "expected seconds from 0 to 1000000, not \"nan\"");
  EXPECT_EQ(complaint("wait 1 2"), "expected the end of the line, not \"2\"");
  EXPECT_EQ(complaint("intf"), "expected the name of an interface at the end of the line");
  EXPECT_EQ(complaint("intf eth0 interval 0"),
            "expected an interval in whole seconds from 1 to 65535, not \"0\"");
  EXPECT_EQ(
      complaint("intf eth0 224.0.0.1/24"),
      "expected an address such as 10.0.0.1/24, none, hold, interval, override, mtu, notify or down, not "
      "\"224.0.0.1/24\"");
  EXPECT_EQ(complaint("neighbor 10.0.0.2"), "expected \"on\", \"down\" or \"up\" at the end of the line");
  EXPECT_EQ(complaint("neighbor unknown on eth0"), "expected the address of a neighbor, not \"unknown\"");
  EXPECT_EQ(complaint("say"), "expected a text at the end of the line");
  EXPECT_EQ(complaint("neighbor eth0 up"), "expected the address of a neighbor, not \"eth0\"");
  EXPECT_EQ(complaint("deny 10.0.0.0/8"), "expected groups such as 239.1.0.0/16, not \"10.0.0.0/8\"");
  EXPECT_THAT(complaint("rp 239.0.0.0/8"), HasSubstr("expected GROUP/LEN=ADDRESS: "));
  EXPECT_EQ(complaint("triggered 10.0.0.2"), "expected \"join\" or \"prune\" at the end of the line");
  EXPECT_THAT(complaint("triggered 10.0.0.2 join"), HasSubstr("expected a number of routes"));
  EXPECT_THAT(complaint("triggered 10.0.0.2 join (10.9.0.1)"), HasSubstr("expected a route such as "));
  EXPECT_THAT(complaint("triggered 10.0.0.2 join (10.9.0.1,239.1.1.1,spt)"), HasSubstr("expected a route"));
  EXPECT_EQ(complaint("triggered 10.0.0.2 join (10.9.0.1,10.9.0.2)"),
            "expected a route to a multicast group, not \"(10.9.0.1,10.9.0.2)\"");
  EXPECT_EQ(complaint("triggered 10.0.0.2 join (*,239.1.1.1)"), "expected \"rp\" at the end of the line");
  EXPECT_EQ(complaint("triggered 10.0.0.2 join (2001:db8::1,239.1.1.1)"),
            "expected a source of the group's family that is unicast, not 2001:db8::1");
  EXPECT_THAT(complaint("receive eth0 upstream 239.1.1.1 hold 210 join (10.9.0.1,239.1.1.1)"),
              HasSubstr("expected a message that can be on the wire: "));
  EXPECT_EQ(complaint("set machine diagUpJoinCount"),
            "expected TARGET, INTF or machine, an attribute and its value at the end of the line");
  EXPECT_EQ(complaint("trace all"),
            "expected trace levels from 1 to 30, such as 1,2,7, or \"off\", not \"all\"");
  EXPECT_EQ(complaint("packets"), "expected \"brief\" or \"full\" at the end of the line");
}

TEST(ConversationTest, AFileHasAStoryCommandsAndWhatIsExpected) {
  Conversation const conversation(
      "# The story.\n"
      "\n"
      "start\n"
      "# a comment\n"
      "  wait 1\t\r\n"
      "------\n"
      "1.000 something\n");
  EXPECT_EQ(conversation.story(), "The story.");
  ASSERT_THAT(conversation.steps(), SizeIs(2));
  EXPECT_EQ(conversation.steps()[0].line, 3u);
  EXPECT_TRUE(std::holds_alternative<StartCommand>(conversation.steps()[0].command));
  EXPECT_EQ(conversation.steps()[1].line, 5u);
  EXPECT_TRUE(conversation.hasRule());
  EXPECT_EQ(conversation.difference("f", "1.000 something\n"), "");
}

TEST(ConversationTest, AFileWithoutAStoryOrCommandsIsRefusedAndALineIsNamed) {
  EXPECT_EQ(fileComplaint(""), "1: expected a comment (#) that tells the story in one sentence");
  EXPECT_EQ(fileComplaint("start\n"), "1: expected a comment (#) that tells the story in one sentence");
  EXPECT_EQ(fileComplaint("#\nstart\n"), "1: expected a comment (#) that tells the story in one sentence");
  EXPECT_EQ(fileComplaint("# Nothing.\n----\n"), "0: expected commands");
  EXPECT_EQ(fileComplaint("# Too short.\nstart\n---\n"), "3: expected a command, not \"---\"");
  EXPECT_THROW(Conversation::fromFile("/nonexistent"), ConversationError);
  EXPECT_THROW(Conversation::fromFile("/"), ConversationError);
}

TEST(ConversationTest, TheFirstDifferenceIsShownWithTheLinesAroundIt) {
  Conversation const conversation("# S.\nstart\n----\na\nb\nc\nd\ne\n");
  EXPECT_EQ(conversation.difference("f", "a\nb\nc\nd\nX\nY\n"),
            "f:8: something else came out\n  b\n  c\n  d\n- e\n+ X\n+ Y\n");
  EXPECT_EQ(conversation.difference("f", "a\nb\nc\nd\n"),
            "f:8: something else came out\n  b\n  c\n  d\n- e\n+ (the end)\n");
  EXPECT_EQ(conversation.difference("f", "a\nb\nc\nd\ne\nf\n"),
            "f:9: something else came out\n  c\n  d\n  e\n- (the end)\n+ f\n");
  EXPECT_EQ(
      conversation.difference("f", "1\n2\n3\n4\n5\n6\n7\n8\n"),
      "f:4: something else came out\n- a\n- b\n- c\n- d\n- e\n+ 1\n+ 2\n+ 3\n+ 4\n+ 5\n+ 6\n+ (2 more)\n");
  EXPECT_EQ(conversation.difference("f", ""),
            "f:4: something else came out\n- a\n- b\n- c\n- d\n- e\n+ (the end)\n");
}

TEST(ConversationTest, ALineThatIsEmptyIsALine) {
  Conversation const conversation("# S.\nstart\n----\na\n\n");
  EXPECT_EQ(conversation.difference("f", "a\n\n"), "");
  EXPECT_NE(conversation.difference("f", "a\n"), "");
}

TEST(ConversationTest, AnotherExpectedHalfLeavesTheCommandsAsTheyAre) {
  std::string const commands = "# S.\n\n  start  \n# why\n";
  EXPECT_EQ(Conversation(commands + "------\nold\n").withExpected("new\n"), commands + "------\nnew\n");
  EXPECT_EQ(Conversation(commands).withExpected("new\n"), commands + "----\nnew\n");
  EXPECT_EQ(Conversation("# S.\nstart").withExpected(""), "# S.\nstart\n----\n");
}

TEST(ConversationTest, TheReferenceNamesEveryCommand) {
  auto const reference = commandReference();
  for (auto const* word : {"intf", "neighbor",  "rp",       "deny",     "filter",  "suppress", "start",
                           "drop", "triggered", "override", "periodic", "receive", "wait",     "seed",
                           "cost", "set",       "packets",  "trace",    "show",    "say"})
    EXPECT_THAT(reference, HasSubstr(std::string("  ") + word));
  EXPECT_EQ(std::count(reference.begin(), reference.end(), '\n'), 2 * 20);
}

}  // namespace
}  // namespace Routing::Pim::Agent
