// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/Conversation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "tests/conversations/own/OwnCommands.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
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

/// One of the commands that only the tests have.
template <class Wanted>
Wanted ownParsed(std::string_view text) {
  return dynamic_cast<Wanted const&>(*std::get<OwnCommand>(commandFromText(text, 0, ownForms())));
}

/// What is said of a command that is not understood.
std::string complaint(std::string_view text) {
  try {
    commandFromText(text, 7, ownForms());
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

std::vector<std::string> texts(Routes const& entries) {
  std::vector<std::string> result;
  for (auto const& entry : entries) result.push_back(toText(entry));
  return result;
}

TEST(ConversationTest, EachKindOfRouteIsReadAndWrittenInTheSameForm) {
  auto const command = parsed<DataCommand>(
      "triggered 10.0.0.2 join (10.9.0.1,239.1.1.1) (*,239.1.1.1) rp 10.0.0.9 prune "
      "(10.9.0.2,239.1.1.1,rpt)");
  EXPECT_EQ(command.sendKind, SendKind::triggered);
  EXPECT_EQ(command.target, IpGenAddr("10.0.0.2"));
  EXPECT_EQ(command.change, Change::add);
  EXPECT_THAT(texts(command.entries),
              ElementsAre("join (10.9.0.1,239.1.1.1)", "join (*,239.1.1.1) rp 10.0.0.9",
                          "prune (10.9.0.2,239.1.1.1,rpt)"));
  auto const again = parsed<DataCommand>("override fe80::2 remove prune (2001:db8::1,ff3e::1)");
  EXPECT_EQ(again.sendKind, SendKind::override);
  EXPECT_EQ(again.change, Change::remove);
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

std::string times(U32 count, std::string_view text) {
  std::string all;
  for (U32 i = 0; i < count; ++i) all += text;
  return all;
}

TEST(ConversationTest, ARangeTakesTheRoomOfOneRoute) {
  auto const entries =
      parsed<DataCommand>("periodic 10.0.0.2 join 1000000 routes from (10.9.0.1,239.1.0.1)").entries;
  EXPECT_THAT(entries.ranges(), SizeIs(1));
  EXPECT_EQ(entries.size(), 1'000'000u);
  EXPECT_FALSE(entries.empty());
  std::size_t count = 0;
  IpGenAddr last;
  for (auto const& entry : entries) {
    ++count;
    last = entry.group;
  }
  EXPECT_EQ(count, 1'000'000u);
  EXPECT_EQ(last, IpGenAddr("239.16.66.64"));
}

TEST(ConversationTest, TheRangesOfALineHaveALimitTogether) {
  std::string const half = " 500000 sources from (10.0.0.1,239.1.1.1)";
  EXPECT_EQ(parsed<DataCommand>("periodic 10.0.0.2 join" + half + half).entries.size(), 1'000'000u);
  EXPECT_EQ(complaint("periodic 10.0.0.2 join" + half + half + " 3 routes from (10.9.0.1,239.1.0.1)"),
            "expected at most 1000000 routes in the ranges of a line, not 1000003");
  EXPECT_EQ(complaint("periodic 10.0.0.2 join 1000001 routes from (10.9.0.1,239.1.0.1)"),
            "expected a number of routes from 1 to 1000000, not \"1000001\"");
  // The commands of a temper are in one line.
  EXPECT_EQ(complaint("temper on first of 1 do periodic 10.0.0.2 join" + half + half +
                      " ; periodic 10.0.0.2 prune" + half),
            "expected at most 1000000 routes in the ranges of a line, not 1500000");
  // Single routes take their room in the file.
  EXPECT_EQ(parsed<DataCommand>("periodic 10.0.0.2 join (10.9.0.1,239.1.1.1)" + half + half).entries.size(),
            1'000'001u);
}

TEST(ConversationTest, TheRangesOfAFileHaveALimitTogether) {
  std::string const million = "periodic 10.0.0.2 join 1000000 routes from (10.9.0.1,239.1.0.1)\n";
  EXPECT_EQ(fileComplaint("# S.\n" + million + "wait 1\n" + million), "none");
  EXPECT_EQ(fileComplaint("# S.\n" + million + "wait 1\n" + million +
                          "receive eth0 upstream 10.0.0.1 hold 1 join 2 routes from (10.9.0.1,239.1.1.1)\n"),
            "5: expected at most 2000000 routes in the ranges of all lines up to here, not 2000002");
}

TEST(ConversationTest, ALineOfManyRangesIsReadInNoTimeOrRefused) {
  std::clock_t const begin = std::clock();
  EXPECT_EQ(complaint("receive eth0 upstream 10.0.0.1 hold 1 join" +
                      times(29, " 1000000 routes from (10.9.0.1,239.1.0.1)")),
            "expected at most 1000000 routes in the ranges of a line, not 2000000");
  EXPECT_EQ(
      parsed<DataCommand>("periodic 10.0.0.2 join" + times(100, " 10000 routes from (10.9.0.1,239.1.0.1)"))
          .entries.ranges()
          .size(),
      100u);
  EXPECT_LT(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC, 1.0);
}

TEST(ConversationTest, ARangeThatRunsOutOfAddressesNamesTheFirstThatIsMissing) {
  auto const missing = [](std::string const& range) { return complaint("periodic 10.0.0.2 join " + range); };
  EXPECT_EQ(missing("1000000 routes from (10.9.0.1,239.255.255.0)"),
            "expected fewer: there is no join (10.9.0.1,240.0.0.0)");
  EXPECT_EQ(missing("257 routes from (10.9.0.1,239.255.255.0)"),
            "expected fewer: there is no join (10.9.0.1,240.0.0.0)");
  EXPECT_EQ(missing("256 routes from (10.9.0.1,239.255.255.0)"), "none");
  EXPECT_EQ(missing("1000000 routes from (2001:db8::1,ffff:ffff:ffff:ffff:ffff:ffff:ffff:fff0)"),
            "expected fewer: there is no join (2001:db8::1,::)");
  EXPECT_EQ(missing("17 sources from (255.255.255.240,239.1.1.1)"),
            "expected fewer: there is no join (0.0.0.0,239.1.1.1)");
  EXPECT_EQ(missing("1000000 sources from (feff:ffff:ffff:ffff:ffff:ffff:ffff:ff00,ff0e::1)"),
            "expected fewer: there is no join (ff00::,ff0e::1)");
}

TEST(ConversationTest, ATemperHoldsNoOtherAndNoWait) {
  EXPECT_EQ(complaint("temper on first of 1 do temper on first of 1 do drop"),
            "expected no temper inside a temper");
  EXPECT_EQ(complaint("temper on first of 1 do drop ; wait 1"),
            "expected no wait inside another command: time passes while nothing is sent");
  EXPECT_EQ(complaint(times(100'000, "temper on first of 1 do ") + "drop"),
            "expected no temper inside a temper");
  EXPECT_THAT(ownParsed<TemperCommand>("temper on first of 1 do temper off ; busy 1").commands,
              ElementsAre("temper off", "busy 1"));
}

TEST(ConversationTest, ALongWordIsQuotedByItsBeginning) {
  EXPECT_EQ(complaint("wait " + times(60, "x")),
            "expected seconds from 0 to 1000000, not \"" + times(60, "x") + "\"");
  EXPECT_EQ(complaint("wait " + times(1'000'000, "x")),
            "expected seconds from 0 to 1000000, not \"" + times(60, "x") + "...\"");
  EXPECT_THAT(complaint("triggered 10.0.0.2 join (" + times(1'000'000, ",") + ")"),
              testing::EndsWith("not \"(" + times(59, ",") + "...\""));
}

TEST(ConversationTest, ACopyIsAConversationOfItsOwn) {
  auto conversation = std::make_unique<Conversation>("# S.\nsay a\n----\n0.000 -- a\n");
  Conversation const copy(*conversation);
  conversation.reset();
  EXPECT_EQ(std::get<SayCommand>(copy.steps()[0].command()).text, "a");
  EXPECT_EQ(copy.difference("f", "0.000 -- a\n"), "");
}

TEST(ConversationTest, AnInterfaceTakesItsWordsInAnyOrder) {
  auto const command =
      parsed<InterfaceCommand>("interface eth0 hold 105 10.0.0.1/24 mtu 576 interval 30 override 0.5 notify");
  EXPECT_EQ(command.name, "eth0");
  EXPECT_EQ(command.address, IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
  EXPECT_EQ(command.holdTime, 105);
  EXPECT_EQ(command.interval, 30u);
  EXPECT_EQ(command.overrideInterval, 0.5);
  EXPECT_EQ(command.mtu, 576u);
  EXPECT_TRUE(command.notify);
  EXPECT_FALSE(command.down);
  auto const bare = parsed<InterfaceCommand>("interface eth1");
  EXPECT_FALSE(bare.address || bare.holdTime || bare.interval || bare.overrideInterval || bare.mtu);
  EXPECT_EQ(parsed<InterfaceCommand>("interface eth1 none").address, IpGenPrefix());
  EXPECT_TRUE(parsed<InterfaceCommand>("interface eth1 down").down);
  EXPECT_FALSE(bare.renew);
  auto const same = ownParsed<OwnInterfaceCommand>("interface eth1 again renew stay");
  EXPECT_TRUE(same.stay && same.command.renew && same.again);
}

TEST(ConversationTest, DataChangesInMoreWaysThanByRoutes) {
  auto const changeOf = [](std::string const& rest) {
    return parsed<DataCommand>("triggered 10.0.0.2 " + rest).change;
  };
  EXPECT_EQ(changeOf("make"), Change::make);
  EXPECT_EQ(changeOf("gone"), Change::gone);
  EXPECT_EQ(changeOf("group 239.1.1.1"), Change::group);
  EXPECT_EQ(changeOf("ungroup 239.1.1.1"), Change::ungroup);
  auto const wildcard = parsed<DataCommand>("override 10.0.0.2 remove wildcard 239.1.1.1");
  EXPECT_EQ(wildcard.change, Change::removeWildcard);
  EXPECT_EQ(wildcard.group, IpGenAddr("239.1.1.1"));
}

TEST(ConversationTest, GroupsThatArriveFilledAndWhatIsToldOfAgainAreOwnCommandsOfTheTests) {
  auto const filled = ownParsed<OwnDataCommand>("periodic 10.0.0.2 filled all join (10.9.0.1,239.1.1.1)");
  EXPECT_TRUE(filled.filled && filled.all);
  EXPECT_THAT(texts(filled.command.entries), ElementsAre("join (10.9.0.1,239.1.1.1)"));
  auto const again = ownParsed<OwnDataCommand>("periodic 10.0.0.2 again join (10.9.0.1,239.1.1.1)");
  EXPECT_FALSE(again.filled || again.all);
  EXPECT_THAT(texts(again.command.entries), ElementsAre("join (10.9.0.1,239.1.1.1)"));
  EXPECT_TRUE(ownParsed<OwnDataCommand>("triggered 10.0.0.2 again").command.entries.empty());
  for (auto const* command :
       {"temper off", "interface eth0 stay", "interface eth0 again", "neighbor 10.0.0.2 again",
        "triggered 10.0.0.2 again", "triggered 10.0.0.2 filled join (10.9.0.1,239.1.1.1)"})
    EXPECT_THROW(commandFromText(command), ConversationError) << command;
}

TEST(ConversationTest, ATemperTakesItsWordsInAnyOrderAndItsCommandsLast) {
  using Moment = TemperCommand::Moment;
  auto const temper = ownParsed<TemperCommand>(
      "temper on cost 0.5 tidy take 3 suppressed 2 filtered 1 throws last report 7 8 9 middle of 2 do drop ; "
      "busy 1");
  EXPECT_TRUE(temper.on && temper.tidy);
  EXPECT_EQ(temper.take, 3u);
  EXPECT_EQ(temper.filtered, 1u);
  EXPECT_EQ(temper.suppressed, 2u);
  EXPECT_EQ(temper.report, (TemperCommand::Report{7, 8, 9}));
  EXPECT_EQ(temper.throws, Moment::last);
  EXPECT_EQ(temper.cost, 0.5);
  EXPECT_EQ(temper.moment, Moment::middle);
  EXPECT_EQ(temper.message, 2u);
  EXPECT_THAT(temper.commands, ElementsAre("drop", "busy 1"));
  auto const even = ownParsed<TemperCommand>("temper on");
  EXPECT_TRUE(even.on);
  EXPECT_FALSE(even.report || even.tidy);
  EXPECT_EQ(even.take, ~0u);
  EXPECT_THAT(even.commands, IsEmpty());
  EXPECT_FALSE(ownParsed<TemperCommand>("temper off").on);
}

TEST(ConversationTest, AReceivedMessageHasEachGroupOnce) {
  auto const command = parsed<ReceiveCommand>(
      "receive eth0 upstream 10.0.0.1 hold 210 join (10.9.0.1,239.1.1.1) (10.9.0.1,239.1.1.2) "
      "prune (10.9.0.2,239.1.1.1)");
  EXPECT_EQ(command.intf, "eth0");
  Wire::JoinPrune expected(IpGenAddr("10.0.0.1"), 210);
  expected.groupAdd(IpGenAddr("239.1.1.1"));
  expected.entryAdd(EntryKind::sourceJoin, IpGenAddr("10.9.0.1"));
  expected.entryAdd(EntryKind::sourcePrune, IpGenAddr("10.9.0.2"));
  expected.groupAdd(IpGenAddr("239.1.1.2"));
  expected.entryAdd(EntryKind::sourceJoin, IpGenAddr("10.9.0.1"));
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
  EXPECT_EQ(parsed<BusyCommand>("busy 0.25").time, 0.25);
  EXPECT_EQ(ownParsed<NeighborAgainCommand>("neighbor 10.0.0.2 again").address, IpGenAddr("10.0.0.2"));
  EXPECT_EQ(parsed<KeepCommand>("keep 10.0.0.2").target, IpGenAddr("10.0.0.2"));
  EXPECT_FALSE(parsed<KeepCommand>("keep nothing").target);
  EXPECT_TRUE(parsed<RecordCommand>("record on").on);
  EXPECT_FALSE(parsed<RecordCommand>("record off").on);
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
  EXPECT_EQ(complaint("interface"), "expected the name of an interface at the end of the line");
  EXPECT_EQ(complaint("interface eth0 interval 0"),
            "expected an interval in whole seconds from 1 to 65535, not \"0\"");
  EXPECT_EQ(complaint("interface eth0 224.0.0.1/24"),
            "expected an address such as 10.0.0.1/24, none, hold, interval, override, mtu, notify, renew or "
            "down, not \"224.0.0.1/24\"");
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
            "expected TARGET, NAME or machine, an attribute and its value at the end of the line");
  EXPECT_EQ(complaint("trace all"),
            "expected trace levels from 1 to 30, such as 1,2,7, or \"off\", not \"all\"");
  EXPECT_EQ(complaint("packets"), "expected \"brief\" or \"full\" at the end of the line");
  EXPECT_EQ(complaint("triggered 10.0.0.2 group 10.0.0.1"), "expected a multicast group");
  EXPECT_EQ(complaint("triggered 10.0.0.2 ungroup"), "expected a group's address at the end of the line");
  EXPECT_EQ(complaint("triggered 10.0.0.2 filled"), "expected \"join\" or \"prune\" at the end of the line");
  EXPECT_EQ(complaint("triggered 10.0.0.2 again all of it"), "expected \"join\" or \"prune\", not \"of\"");
  EXPECT_EQ(complaint("keep eth0"),
            "expected the address of an upstream target, or \"nothing\", not \"eth0\"");
  EXPECT_EQ(complaint("record"), "expected \"on\" or \"off\" at the end of the line");
  EXPECT_EQ(complaint("temper bad"), "expected \"on\" or \"off\", not \"bad\"");
  EXPECT_EQ(
      complaint("temper on bad"),
      "expected take, filtered, suppressed, tidy, report, throws, cost, first, middle or last, not \"bad\"");
  EXPECT_EQ(complaint("temper on throws up"), "expected \"first\", \"middle\" or \"last\", not \"up\"");
  EXPECT_EQ(complaint("temper on report 1 2"),
            "expected a number of entries from 0 to 4294967295 at the end of the line");
  EXPECT_EQ(complaint("temper on first of 0 do drop"), "expected a message from 1 to 4294967295, not \"0\"");
  EXPECT_EQ(complaint("temper on first of 1 do drop ; jion"), "expected a command, not \"jion\"");
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
  EXPECT_TRUE(std::holds_alternative<StartCommand>(conversation.steps()[0].command()));
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
  for (auto const* word :
       {"interface", "neighbor", "rp",       "deny",    "filter", "suppress", "start",  "drop",
        "triggered", "override", "periodic", "receive", "wait",   "seed",     "cost",   "set",
        "packets",   "trace",    "show",     "say",     "busy",   "keep",     "record", "speaker"})
    EXPECT_THAT(reference, HasSubstr(std::string("  ") + word));
  EXPECT_EQ(std::count(reference.begin(), reference.end(), '\n'), 2 * 24);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
