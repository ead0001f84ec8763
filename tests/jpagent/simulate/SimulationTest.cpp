// SPDX-License-Identifier: Apache-2.0
#include "jpagent/simulate/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>

#include "tests/Thorough.h"
#include "tests/conversations/own/OwnSimulation.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

/// A router with an interface and a neighbor on it, started; what has come out of it line by line.
class SimulationTest : public testing::Test {
 protected:
  SimulationTest() {
    run({"interface eth0 10.0.0.1/24", "neighbor 10.0.0.2 on eth0", "start"});
    take();
  }

  void run(std::vector<std::string> const& commands) {
    for (auto const& command : commands) simulation_.perform(commandFromText(command, 0, ownForms()));
  }
  /// What came out since the last time.
  std::vector<std::string> take() {
    auto const text = out_.str();
    out_.str({});
    return lines(text);
  }
  std::vector<std::string> outputOf(std::vector<std::string> const& commands) {
    run(commands);
    return take();
  }
  std::string complaint(std::string const& command) {
    try {
      run({command});
    } catch (std::range_error const& e) {
      return e.what();
    }
    return "none";
  }

  std::ostringstream out_;
  Speaker::CapturedPackets packets_;
  OwnSimulation simulation_{out_, &packets_};
};

constexpr char join[] = "triggered 10.0.0.2 join (10.9.0.1,239.1.1.1)";

TEST_F(SimulationTest, ATimerFiresAtItsTimeWithinTheWait) {
  EXPECT_THAT(outputOf({join}), ElementsAre("0.000 timer 10.0.0.2 triggered armed for 0.100"));
  EXPECT_THAT(outputOf({"wait 0.09"}), IsEmpty());
  EXPECT_THAT(
      outputOf({"wait 0.5"}),
      ElementsAre("0.100 timer 10.0.0.2 triggered fires",
                  "0.100 sent on eth0 from 10.0.0.1, upstream 10.0.0.2, triggered, hold 210, 34 bytes",
                  "0.100   join (10.9.0.1,239.1.1.1)"));
  EXPECT_DOUBLE_EQ(simulation_.now(), 0.59);
}

TEST_F(SimulationTest, ATimerThatIsDueAtTheEndOfAWaitFiresInIt) {
  // 0.1 + 0.2 is not 0.3 in doubles.
  run({"wait 0.2", join});
  take();
  EXPECT_THAT(outputOf({"wait until 0.3"}), SizeIs(3));
}

TEST_F(SimulationTest, ATimerThatBecomesDueWhileSendingFiresLate) {
  run({"cost 0.3", "neighbor 10.0.0.3 on eth0", join, "wait 0.05",
       "triggered 10.0.0.3 join (10.9.0.1,239.1.1.1)", "wait 0.1"});
  EXPECT_THAT(take(), testing::Contains("0.400 timer 10.0.0.3 triggered fires, due 0.150"));
  EXPECT_DOUBLE_EQ(simulation_.now(), 0.7);
}

TEST_F(SimulationTest, WhatBecameDueWhileSendingBeyondTheWaitFiresInTheNext) {
  run({"cost 0.3", "neighbor 10.0.0.3 on eth0", join, "wait 0.05",
       "triggered 10.0.0.3 join (10.9.0.1,239.1.1.1)", "wait 0.05"});
  EXPECT_DOUBLE_EQ(simulation_.now(), 0.4);
  take();
  EXPECT_EQ(outputOf({"wait 0"})[0], "0.400 timer 10.0.0.3 triggered fires, due 0.150");
}

TEST_F(SimulationTest, TimersOfOneTimeFireInTheOrderInWhichTheyWereArmed) {
  run({"neighbor 10.0.0.3 on eth0", "neighbor 10.0.0.4 on eth0",
       "triggered 10.0.0.4 join (10.9.0.1,239.1.1.1)", join, "triggered 10.0.0.3 join (10.9.0.1,239.1.1.1)",
       "triggered 10.0.0.4 remove join (10.9.0.1,239.1.1.1)"});
  take();
  std::vector<std::string> fired;
  for (auto const& line : outputOf({"wait 1"}))
    if (line.find(" fires") != line.npos) fired.push_back(line);
  EXPECT_THAT(fired,
              ElementsAre("0.100 timer 10.0.0.4 triggered fires", "0.100 timer 10.0.0.2 triggered fires",
                          "0.100 timer 10.0.0.3 triggered fires"));
}

TEST_F(SimulationTest, TracesThatAreOffAreNotShownWhenSeveralTimersFireAtOnce) {
  run({"neighbor 10.0.0.3 on eth0", join, "triggered 10.0.0.3 join (10.9.0.1,239.1.1.1)", "wait 1"});
  EXPECT_THAT(take(), testing::Each(Not(HasSubstr("trace"))));
  EXPECT_THAT(outputOf({"trace 7", join}), testing::Contains(HasSubstr("trace 7 ")));
  EXPECT_THAT(outputOf({"trace off", "triggered 10.0.0.2 prune (10.9.0.1,239.1.1.1)"}),
              testing::Each(Not(HasSubstr("trace"))));
}

TEST_F(SimulationTest, AClockThatStandsStillForEverIsNoticed) {
  run({"set 10.0.0.2 triggeredInterval 0", join, "interface eth0 none"});
  EXPECT_EQ(complaint("wait 1"), "timers fire for ever at 0.000");
}

TEST(SimulationRepeatedTest, TheSameCommandsGiveTheSameOutput) {
  std::vector<std::string> const commands = {"interface eth0 10.0.0.1/24",
                                             "neighbor 10.0.0.2 on eth0",
                                             "trace 1-8",
                                             "start",
                                             "override 10.0.0.2 join 40 routes from (10.9.0.1,239.1.1.1)",
                                             "wait 3",
                                             "neighbor 10.0.0.2 down",
                                             "neighbor 10.0.0.2 up",
                                             "periodic 10.0.0.2 join 5 sources from (10.9.0.1,239.1.1.1)",
                                             "wait 100",
                                             "drop",
                                             "start",
                                             "wait 100"};
  std::string outputs[2];
  std::vector<std::unique_ptr<int[]>> heap;
  for (auto& output : outputs) {
    heap.push_back(std::make_unique<int[]>(1000));  // objects come to lie elsewhere
    std::ostringstream out;
    Simulation simulation(out);
    for (auto const& command : commands) simulation.perform(commandFromText(command, 0, ownForms()));
    output = out.str();
  }
  EXPECT_EQ(outputs[0], outputs[1]);
  EXPECT_THAT(outputs[0], HasSubstr("::@1::"));
  EXPECT_THAT(outputs[0], Not(HasSubstr("0x")));
}

TEST_F(SimulationTest, TheAddressOfAnObjectIsReplacedByItsNumber) {
  run({"trace 8"});
  // A handler whose name continues in hexadecimal digits does not become part of the address.
  run({"periodic 10.0.0.2 join (10.9.0.1,239.1.1.1)", "wait 60"});
  auto const seen = take();
  EXPECT_THAT(seen, testing::Contains("0.000 trace 8 @1interval()"));
  EXPECT_THAT(seen, testing::Contains(HasSubstr("JoinPruneNeighborSm(eth0::10.0.0.2)::@2::")));
  EXPECT_THAT(seen, testing::Contains("60.000 trace 8 @1doResetHoldTime()"));
}

TEST_F(SimulationTest, AnotherMachineHasAnotherNumber) {
  run({"trace 2"});
  std::vector<std::string> made;
  for (int i = 0; i < 3; ++i) {
    for (auto const& line : outputOf({"neighbor 10.0.0.2 down", "neighbor 10.0.0.2 up"}))
      if (line.find("@") != line.npos) made.push_back(line.substr(line.find("@"), 2));
  }
  EXPECT_THAT(made, ElementsAre("@1", "@2", "@3"));
}

TEST_F(SimulationTest, MachinesAreToldOfAsTheyComeAndGo) {
  EXPECT_THAT(outputOf({"neighbor 10.0.0.3 on eth0"}),
              ElementsAre("0.000 machine 10.0.0.3 made on eth0, for the neighbor"));
  EXPECT_THAT(outputOf({"neighbor 10.0.0.3 down"}), ElementsAre("0.000 machine 10.0.0.3 gone"));
  EXPECT_THAT(outputOf({"drop"}),
              testing::UnorderedElementsAre("0.000 machine 10.0.0.1 gone", "0.000 machine 10.0.0.2 gone"));
  EXPECT_THAT(outputOf({"start"}), ElementsAre("0.000 machine 10.0.0.1 made on eth0, for the interface",
                                               "0.000 machine 10.0.0.2 made on eth0, for the neighbor"));
}

TEST_F(SimulationTest, RecordsAreToldOfEntryByEntry) {
  EXPECT_THAT(
      outputOf({"receive eth0 upstream 10.0.0.1 hold 70 join (*,239.1.1.1) rp 10.0.0.9 "
                "prune (10.9.0.1,239.1.1.1,rpt)"}),
      ElementsAre("0.000 rxJoin 1: (*,239.1.1.1), Flags: SWR, Intf: , Neighbor: 10.0.0.1, Holdtime: 70, "
                  "RP: 10.0.0.9",
                  "0.000 rxPrune 1: (10.9.0.1,239.1.1.1), Flags: SR, Intf: , Neighbor: 10.0.0.1, "
                  "Holdtime: 70"));
}

TEST_F(SimulationTest, PacketsGoToTheOtherSinkToo) {
  run({join, "wait 1"});
  ASSERT_THAT(packets_.packets(), SizeIs(1));
  EXPECT_EQ(packets_.packets()[0].source, IpGenAddr("10.0.0.1"));
  EXPECT_EQ(packets_.packets()[0].message.upstreamNeighbor(), IpGenAddr("10.0.0.2"));
}

TEST_F(SimulationTest, BriefPacketsHaveTheFirstAndTheLastEntry) {
  run({"packets brief", "triggered 10.0.0.2 join (10.9.0.1,239.1.1.1) prune (10.9.0.2,239.1.1.1)"});
  take();
  EXPECT_EQ(outputOf({"wait 1"}).back(),
            "0.100   2 routes in 1 group: join (10.9.0.1,239.1.1.1) ... prune (10.9.0.2,239.1.1.1)");
}

TEST_F(SimulationTest, ShowTellsMachinesTimersAndWhatIsPending) {
  run({join, "periodic 10.0.0.2 join 2 routes from (10.9.0.1,239.1.1.1)"});
  take();
  EXPECT_THAT(outputOf({"show"}),
              ElementsAre("0.000 show 10.0.0.1 on eth0, interface; triggered 0 groups; override 0 groups; "
                          "periodic 0 groups, 0 routes",
                          "0.000 show 10.0.0.2 on eth0, neighbor; triggered 1 group, at 0.100; override 0 "
                          "groups; periodic 2 groups, 2 routes, at 60.000, then 2 every 60.000"));
  EXPECT_THAT(outputOf({"show sets"}), ElementsAre("0.000 show 10.0.0.2 triggered join (10.9.0.1,239.1.1.1)",
                                                   "0.000 show 10.0.0.2 periodic join (10.9.0.1,239.1.1.1)",
                                                   "0.000 show 10.0.0.2 periodic join (10.9.0.1,239.1.1.2)"));
  run({"drop"});
  take();
  EXPECT_THAT(outputOf({"show"}),
              ElementsAre("0.000 show 10.0.0.2 without a machine; triggered 1 group; override 0 groups; "
                          "periodic 2 groups"));
}

TEST_F(SimulationTest, WithoutAMachineTheLastEntryThatIsRemovedTakesItsGroupAlong) {
  run({"periodic 10.0.0.2 join 2 sources from (10.9.0.1,239.1.1.1)", "drop",
       "periodic 10.0.0.2 remove join (10.9.0.1,239.1.1.1)"});
  take();
  EXPECT_THAT(outputOf({"show"}).back(), HasSubstr("periodic 1 group"));
  run({"periodic 10.0.0.2 remove join (10.9.0.2,239.1.1.1)"});
  EXPECT_THAT(outputOf({"show"}).back(), HasSubstr("periodic 0 groups"));
}

TEST_F(SimulationTest, WhatCannotBeDoneIsRefusedWithTheReason) {
  EXPECT_EQ(complaint("triggered 10.0.0.9 join (10.9.0.1,239.1.1.1)"), "10.0.0.9 is no upstream target");
  EXPECT_EQ(complaint("triggered 10.0.0.2 remove join (10.9.0.1,239.1.1.1)"),
            "10.0.0.2 has no triggered join (10.9.0.1,239.1.1.1)");
  run({"triggered 10.0.0.2 join (*,239.1.1.1) rp 10.0.0.9"});
  EXPECT_EQ(complaint("triggered 10.0.0.2 remove prune (*,239.1.1.1) rp 10.0.0.9"),
            "10.0.0.2 has no triggered prune (*,239.1.1.1) rp 10.0.0.9");
  EXPECT_EQ(complaint("neighbor 10.0.0.9 on eth9"), "there is no interface eth9");
  EXPECT_EQ(complaint("neighbor 10.0.0.9 down"), "there is no neighbor 10.0.0.9");
  EXPECT_EQ(complaint("interface eth9 down"), "interface eth9 is not up");
  EXPECT_EQ(complaint("receive eth9 upstream 10.0.0.1 hold 1 join (10.9.0.1,239.1.1.1)"),
            "there is no interface eth9");
  EXPECT_EQ(complaint("deny 239.1.0.0/16 off"), "these groups were not named before");
  EXPECT_EQ(complaint("set 10.0.0.9 loopQuantum 1"), "there is no machine or interface 10.0.0.9");
  EXPECT_THAT(complaint("set 10.0.0.2 loopQuntum 1"), HasSubstr("loopQuntum"));
  EXPECT_THAT(complaint("set 10.0.0.2 loopQuantum much"), HasSubstr("much"));
  EXPECT_EQ(complaint("set eth0 joinPruneInterval 0"), "the interval must not be 0");
  EXPECT_EQ(complaint("start"), "the machine is there already");
  run({"wait 2", "drop"});
  EXPECT_EQ(complaint("drop"), "there is no machine");
  EXPECT_EQ(complaint("wait until 1"), "it is 2.000 already");
  run({"rp 239.0.0.0/8=10.0.0.9", "neighbor 10.0.0.2 down", "interface eth1"});
  EXPECT_THAT(complaint("rp 239.0.0.0/8=10.0.0.8"), HasSubstr("again"));
  EXPECT_EQ(complaint("neighbor 10.0.0.2 down"), "neighbor 10.0.0.2 is not up");
  run({"neighbor 10.0.0.2 up"});
  EXPECT_EQ(complaint("neighbor 10.0.0.2 on eth1"), "neighbor 10.0.0.2 is on eth0");
}

TEST_F(SimulationTest, ARemovalThatCannotBeDoneWholeRemovesNothing) {
  run({join, "triggered 10.0.0.2 join (10.9.0.2,239.1.1.1)"});
  constexpr char both[] = "triggered 10.0.0.2 remove join (10.9.0.1,239.1.1.1) (10.9.0.3,239.1.1.1)";
  constexpr char twice[] = "triggered 10.0.0.2 remove join (10.9.0.1,239.1.1.1) (10.9.0.1,239.1.1.1)";
  take();
  EXPECT_EQ(complaint(both), "10.0.0.2 has no triggered join (10.9.0.3,239.1.1.1)");
  EXPECT_EQ(complaint(twice), "10.0.0.2 has no second triggered join (10.9.0.1,239.1.1.1)");
  EXPECT_THAT(outputOf({"show sets"}),
              ElementsAre("0.000 show 10.0.0.2 triggered join (10.9.0.1,239.1.1.1)",
                          "0.000 show 10.0.0.2 triggered join (10.9.0.2,239.1.1.1)"));
}

TEST_F(SimulationTest, ANeighborThatCouldNotMoveReturnsWhereItWas) {
  run({"interface eth1"});
  EXPECT_EQ(complaint("neighbor 10.0.0.2 on eth1"), "neighbor 10.0.0.2 is on eth0");
  run({"neighbor 10.0.0.2 down"});
  take();
  EXPECT_THAT(outputOf({"neighbor 10.0.0.2 up"}),
              ElementsAre("0.000 machine 10.0.0.2 made on eth0, for the neighbor"));
}

TEST_F(SimulationTest, AttributesAreSetByName) {
  run({"set 10.0.0.2 triggeredInterval 0.5", "set eth0 joinPruneHoldTime 35",
       "set machine diagUpJoinCount true", join});
  EXPECT_THAT(take(), ElementsAre("0.000 timer 10.0.0.2 triggered armed for 0.500"));
  EXPECT_THAT(outputOf({"wait 1"})[1], HasSubstr("hold 35"));
}

TEST_F(SimulationTest, AFailingCommandNamesItsLine) {
  Conversation const conversation("# S.\ninterface eth7\n\ntriggered 10.0.0.9 join (10.9.0.1,239.1.1.1)\n");
  try {
    simulate(conversation, simulation_);
    FAIL() << "nothing was refused";
  } catch (ConversationError const& e) {
    EXPECT_EQ(e.line(), 4u);
    EXPECT_STREQ(e.what(), "10.0.0.9 is no upstream target");
  }
}

// --- The program

class SimulateTest : public testing::Test {
 protected:
  std::string file(std::string const& content) const {
    return folder_.with("story.txt", Bytes(content.begin(), content.end()));
  }
  static Outcome simulate(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "simulate");
    return run(JPAGENT, arguments);
  }

  TemporaryFolder folder_;
  std::string const commands_ =
      "# A story.\ninterface eth0 10.0.0.1/24\nneighbor 10.0.0.2 on eth0\nstart\n"
      "triggered 10.0.0.2 join (10.9.0.1,239.1.1.1)\nwait 0.25\n";
  std::string const output_ =
      "0.000 machine 10.0.0.1 made on eth0, for the interface\n"
      "0.000 machine 10.0.0.2 made on eth0, for the neighbor\n"
      "0.000 timer 10.0.0.2 triggered armed for 0.100\n"
      "0.100 timer 10.0.0.2 triggered fires\n"
      "0.100 sent on eth0 from 10.0.0.1, upstream 10.0.0.2, triggered, hold 210, 34 bytes\n"
      "0.100   join (10.9.0.1,239.1.1.1)\n";
};

TEST_F(SimulateTest, TheOutputIsPrinted) {
  auto const outcome = simulate({file(commands_)});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, output_);
  EXPECT_EQ(outcome.err, "");
}

TEST_F(SimulateTest, CheckIsSilentIfWhatIsExpectedComesOut) {
  auto const outcome = simulate({"--check", file(commands_ + "----\n" + output_)});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
}

TEST_F(SimulateTest, CheckShowsTheFirstDifference) {
  auto const path = file(commands_ + "----\n" + output_ + "0.200 more\n");
  auto const outcome = simulate({"--check", path});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.out, HasSubstr(path + ":14: something else came out\n"));
  EXPECT_THAT(outcome.out, HasSubstr("\n- 0.200 more\n+ (the end)\n"));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(SimulateTest, CheckNeedsARule) {
  auto const path = file(commands_);
  auto const outcome = simulate({"--check", path});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.err, "jpagent: " + path + ": expected a rule (----) and under it what is to come out\n");
}

TEST_F(SimulateTest, RewriteTakesOverWhatComesOut) {
  auto const path = file(commands_ + "-----\nold\n");
  auto const outcome = simulate({"--rewrite", path});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out + outcome.err, "");
  EXPECT_EQ(readText(path), commands_ + "-----\n" + output_);
}

TEST_F(SimulateTest, AMistakeIsNamedWithItsLineAndNothingIsRewritten) {
  for (auto const& [line, why] :
       {std::pair("wiat 1\n", "expected a command, not \"wiat\""),
        std::pair("periodic 10.0.0.7 join (10.9.0.1,239.1.1.1)\n", "10.0.0.7 is no upstream target")}) {
    auto const content = commands_ + line + "----\n";
    auto const path = file(content);
    auto const outcome = simulate({"--rewrite", path});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "jpagent: " + path + ":7: " + why + "\n");
    EXPECT_EQ(readText(path), content);
  }
}

TEST_F(SimulateTest, WhatIsNoConversationOrNoCallIsRefused) {
  EXPECT_EQ(simulate({folder_.file("none")}).status, 2);
  EXPECT_EQ(simulate({}).status, 2);
  EXPECT_EQ(simulate({"--check", "--rewrite", file(commands_)}).status, 2);
  auto const path = file(commands_);
  for (auto const* option : {"--pcap", "--scrivo"}) {
    auto const outcome = simulate({option, path, path});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "jpagent: " + std::string(option) + ": " + path + " is the conversation\n");
  }
  EXPECT_EQ(readText(path), commands_);
}

TEST_F(SimulateTest, TheCaptureReplaysToWhatWasSent) {
  auto const capture = folder_.file("sent.pcap");
  EXPECT_EQ(simulate({"--pcap", capture, file(commands_)}).status, 0);
  auto const outcome = run(JPAGENT, {"replay", "--json", capture});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(
      outcome.out,
      R"x({"frame":1,"time":0.0,"record":"join","kind":"(S,G)","source":"10.9.0.1","group":"239.1.1.1",)x"
      R"x("upstream":"10.0.0.2","holdtime":210,"flags":4})x"
      "\n");
}

TEST_F(SimulateTest, TheRingTraceHasTheSending) {
  auto const trace = folder_.file("ring");
  EXPECT_EQ(simulate({"--scrivo", trace, file(commands_)}).status, 0);
  auto const outcome = run(JPAGENT, {"trace", trace});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("Sending triggered joins/prunes to 10.0.0.2, Intf: eth0, Groups: 1"));
}

TEST_F(SimulateTest, HelpHasTheCommands) {
  auto const outcome = simulate({"--help"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out, HasSubstr("neighbor ADDRESS on NAME | down | up"));
  EXPECT_THAT(outcome.out, HasSubstr("--rewrite"));
}

// --- What breaks the rules, and packet managers with a temper

TEST_F(SimulationTest, AnInterfaceThatStaysIsChangedWhereItIs) {
  EXPECT_THAT(outputOf({"interface eth1 10.0.1.1/24 stay"}), IsEmpty());
  EXPECT_THAT(outputOf({"interface eth1"}),
              ElementsAre("0.000 machine 10.0.1.1 made on eth1, for the interface"));
  EXPECT_THAT(outputOf({"interface eth1 again stay"}), IsEmpty());
  EXPECT_THAT(
      outputOf({"interface eth1 renew"}),
      ElementsAre("0.000 machine 10.0.1.1 gone", "0.000 machine 10.0.1.1 made on eth1, for the interface"));
}

TEST_F(SimulationTest, ANeighborThatIsToldOfAgainIsLookedAtAgain) {
  EXPECT_THAT(outputOf({"trace 2", "neighbor 10.0.0.2 again"}),
              ElementsAre(HasSubstr("Neighbor up"), HasSubstr("Not creating SM")));
}

TEST_F(SimulationTest, WhileNobodyLooksAtTheTimersTheyBecomeLate) {
  EXPECT_THAT(outputOf({join, "busy 1", "wait 0"}),
              ElementsAre("0.000 timer 10.0.0.2 triggered armed for 0.100",
                          "1.000 timer 10.0.0.2 triggered fires, due 0.100", HasSubstr("1.000 sent on"),
                          "1.000   join (10.9.0.1,239.1.1.1)"));
}

TEST_F(SimulationTest, DataSetsAndGroupsComeAndGo) {
  EXPECT_EQ(complaint("triggered 10.0.0.3 group 239.1.1.1"), "10.0.0.3 is no upstream target");
  EXPECT_THAT(outputOf({"triggered 10.0.0.3 make", "triggered 10.0.0.3 filled join (10.9.0.1,239.1.1.1)",
                        "triggered 10.0.0.3 group 239.1.1.2", "show"}),
              Contains(HasSubstr("show 10.0.0.3 without a machine; triggered 2 groups")));
  EXPECT_EQ(complaint("triggered 10.0.0.3 filled join (10.9.0.2,239.1.1.1)"),
            "group 239.1.1.1 is there already");
  EXPECT_THAT(outputOf({"triggered 10.0.0.3 ungroup 239.1.1.1", "show"}),
              Contains(HasSubstr("show 10.0.0.3 without a machine; triggered 1 group;")));
  EXPECT_THAT(outputOf({"triggered 10.0.0.3 gone", "show"}), Not(Contains(HasSubstr("10.0.0.3"))));
}

TEST_F(SimulationTest, AnEmptyGroupIsShownBecauseItKeepsTheTimerArmed) {
  EXPECT_THAT(outputOf({"triggered 10.0.0.2 group 239.1.1.2", "triggered 10.0.0.2 join (10.9.0.1,239.1.1.1)",
                        "wait 1", "show sets", "show"}),
              AllOf(Contains("1.000 show 10.0.0.2 triggered group 239.1.1.2 without entries"),
                    Contains(HasSubstr("triggered 1 group, at 1.100"))));
}

TEST_F(SimulationTest, WhatIsToldOfWithoutAChangeIsCountedAgain) {
  run({"periodic 10.0.0.2 join (10.9.0.1,239.1.1.1)", "periodic 10.0.0.2 again join (10.9.0.1,239.1.1.1)",
       "periodic 10.0.0.2 again all join (10.9.0.1,239.1.1.1)", "periodic 10.0.0.2 again"});
  EXPECT_THAT(outputOf({"show"}), Contains(HasSubstr("periodic 1 group, 2 routes")));
  EXPECT_EQ(complaint("periodic 10.0.0.2 again join (10.9.0.1,239.1.1.2)"), "there is no group 239.1.1.2");
}

TEST_F(SimulationTest, AWildcardIsRemovedWhateverItSays) {
  run({"drop", "periodic 10.0.0.2 prune (*,239.1.1.1) rp 10.0.0.9",
       "periodic 10.0.0.2 remove wildcard 239.1.1.1"});
  EXPECT_THAT(outputOf({"show"}), Contains(HasSubstr("periodic 0 groups")));
  EXPECT_EQ(complaint("periodic 10.0.0.2 remove wildcard 239.1.1.1"),
            "10.0.0.2 has no periodic (*,239.1.1.1)");
}

TEST_F(SimulationTest, ATemperTakesAndReportsWhatItIsTold) {
  EXPECT_THAT(
      outputOf({"temper on take 1 filtered 1 report 0 0 0", join,
                "triggered 10.0.0.2 prune (10.9.0.2,239.1.1.1)", "wait 0.15", "temper off", "wait 0.1"}),
      ElementsAre("0.000 timer 10.0.0.2 triggered armed for 0.100", "0.100 timer 10.0.0.2 triggered fires",
                  "0.100 taken on eth0, upstream 10.0.0.2, triggered, hold 210, of 2: 0 sources, 0 "
                  "suppressed, 1 filtered",
                  "0.100   join (10.9.0.1,239.1.1.1)", "0.100 timer 10.0.0.2 triggered armed for 0.200",
                  "0.200 timer 10.0.0.2 triggered fires", HasSubstr("0.200 sent on eth0"),
                  "0.200   prune (10.9.0.2,239.1.1.1)"));
}

TEST_F(SimulationTest, ATemperPerformsCommandsInsideASend) {
  EXPECT_THAT(
      outputOf({"temper on first of 1 do say now ; interface eth9 down ; drop", join, "wait 1"}),
      ElementsAre("0.000 timer 10.0.0.2 triggered armed for 0.100", "0.100 timer 10.0.0.2 triggered fires",
                  "0.100 -- now", "0.100 cannot interface eth9 down: interface eth9 is not up",
                  "0.100 machine 10.0.0.1 gone", "0.100 machine 10.0.0.2 gone",
                  HasSubstr("0.100 taken on eth0"), "0.100   join (10.9.0.1,239.1.1.1)"));
}

TEST_F(SimulationTest, ATemperThatThrowsOrLiesIsAskedAgainButNotForEver) {
  EXPECT_THAT(outputOf({"temper on throws first", join, "wait 0.15"}),
              ElementsAre(HasSubstr("armed"), HasSubstr("fires"), "0.100 the packet manager throws",
                          "0.100 timer 10.0.0.2 triggered armed for 0.200"));
  auto const lines = outputOf({"temper on take 0 report 1 0 0", "wait 0.1"});
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](auto const& line) { return line.find("taken on") != line.npos; }),
            41);
}

TEST_F(SimulationTest, WithoutATransmitRecordNothingIsSentUntilItIsThereAgain) {
  EXPECT_THAT(outputOf({"record off", join, "wait 0.15"}),
              ElementsAre(HasSubstr("armed"), HasSubstr("fires"), HasSubstr("armed for 0.200")));
  EXPECT_THAT(outputOf({"record on", "wait 0.1"}), Contains(HasSubstr("0.200 sent on eth0")));
}

TEST_F(SimulationTest, AMachineThatIsKeptIsSilentOnceItIsGone) {
  EXPECT_THAT(outputOf({"keep 10.0.0.2", join, "neighbor 10.0.0.2 down", "wait 1", "keep nothing"}),
              ElementsAre(HasSubstr("armed"), "0.000 machine 10.0.0.2 gone"));
  EXPECT_EQ(complaint("keep 10.0.0.2"), "10.0.0.2 has no machine");
}

// --- What it costs

/// A router with so many neighbors, each with a periodic route, started.
class Crowd {
 public:
  explicit Crowd(U32 neighbors) {
    perform("interface eth0 10.0.0.1/8");
    perform("start");
    for (U32 i = 0; i < neighbors; ++i) {
      auto const address = toText(IpGenAddr::ipv4(0x0a010000 + i));
      perform("neighbor " + address + " on eth0");
      perform("periodic " + address + " join (10.9.0.1,239.1.1.1)");
    }
  }

  void perform(std::string const& command) {
    out_.str({});
    simulation_.perform(commandFromText(command, 0, ownForms()));
  }
  void performAll() {
    for (auto const* command :
         {"triggered 10.1.0.7 join (10.9.0.1,239.1.1.1)", "cost 0", "wait 0.2", "say so", "trace 1",
          "override 10.1.0.7 prune (10.9.0.1,239.1.1.1)", "set 10.1.0.7 loopQuantum 0.2", "wait 3",
          "receive eth0 upstream 10.0.0.1 hold 9 join (10.9.0.1,239.1.1.1)", "neighbor 10.1.0.8 again"})
      perform(command);
  }
  /// The shortest time of some, in seconds of this process.
  double timeOfAll() {
    double least = 1e9;
    for (int i = 0; i < 5; ++i) {
      std::clock_t const begin = std::clock();
      performAll();
      least = std::min(least, static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC);
    }
    return least;
  }
  std::size_t machinesLookedAt() const { return simulation_.machinesLookedAt(); }

 private:
  std::ostringstream out_;
  OwnSimulation simulation_{out_};
};

TEST(SimulationCostTest, ACommandLooksAtTheMachinesThatItTouchesHoweverManyThereAre) {
  std::size_t looked[2] = {};
  for (std::size_t i = 0; i < 2; ++i) {
    Crowd crowd(i == 0 ? 20 : 1000);
    auto const before = crowd.machinesLookedAt();
    crowd.performAll();
    looked[i] = crowd.machinesLookedAt() - before;
  }
  EXPECT_EQ(looked[0], looked[1]);
  EXPECT_LE(looked[1], 10u);
}

TEST(SimulationCostTest, ACommandCostsAsMuchWithTenTimesAsManyMachines) {
  U32 const size = thorough() ? 2'000 : 1'000;
  Crowd few(size), many(10 * size);
  double const little = few.timeOfAll(), much = many.timeOfAll();
  EXPECT_LT(much, 3 * little + 0.001) << little;
}

TEST(SimulationCostTest, EveryTimerIsToldAfterEachCommandOfTheConversations) {
  std::size_t count = 0;
  for (auto const& file : std::filesystem::directory_iterator(JOINPRUNE_SOURCE_DIR "/tests/conversations")) {
    if (file.is_directory()) continue;
    auto const conversation = Conversation::fromFile(file.path().string());
    std::ostringstream out;
    Simulation simulation(out);
    for (auto const& step : conversation.steps()) {
      simulation.perform(step.command());
      ASSERT_TRUE(simulation.everyTimerIsTold()) << file.path() << ":" << step.line;
      ++count;
    }
  }
  EXPECT_GT(count, 100u);
}

/// A router like the others, with little patience.
class ImpatientSimulationTest : public testing::Test {
 protected:
  ImpatientSimulationTest() {
    for (auto const* command : {"interface eth0 10.0.0.1/24", "neighbor 10.0.0.2 on eth0", "start"})
      run(command);
  }
  void run(std::string const& command) { simulation_.perform(commandFromText(command, 0, ownForms())); }
  /// Whether it is refused since too much has been looked at.
  bool isTooMuch(std::string const& command) {
    try {
      run(command);
    } catch (std::range_error const& e) {
      EXPECT_STREQ(
          e.what(),
          "too much has been looked at as a whole: more than 10000 interfaces, data sets, groups and routes");
      return true;
    }
    return false;
  }
  /// How often it can be done; at most 20,000 times.
  U32 timesDone(std::vector<std::string> const& commands) {
    U32 times = 0;
    while (times < 20'000 && std::none_of(commands.begin(), commands.end(),
                                          [this](auto const& command) { return isTooMuch(command); }))
      ++times;
    return times;
  }

  std::ostringstream out_;
  OwnSimulation simulation_{out_, nullptr, 10'000};
};

TEST_F(ImpatientSimulationTest, WhatIsToldOfAgainAsAWholeHasALimit) {
  run("periodic 10.0.0.2 join 1000 routes from (10.9.0.1,239.1.0.1)");
  U32 const times = timesDone({"periodic 10.0.0.2 again"});
  EXPECT_GE(times, 10u);
  EXPECT_LE(times, 11u);
  EXPECT_TRUE(isTooMuch("say so"));
}

TEST_F(ImpatientSimulationTest, InterfacesThatAreToldOfAgainHaveALimit) {
  for (U32 i = 1; i < 100; ++i) run("interface eth" + std::to_string(i));
  U32 const times = timesDone({"interface eth0 again"});
  EXPECT_GE(times, 90u);
  EXPECT_LE(times, 101u);
}

TEST_F(ImpatientSimulationTest, MachinesThatAreMadeAgainOverManyGroupsHaveALimit) {
  run("triggered 10.0.0.2 join 1000 routes from (10.9.0.1,239.1.0.1)");
  run("periodic 10.0.0.2 join 1000 routes from (10.9.0.1,239.1.0.1)");
  U32 const times = timesDone({"drop", "start"});
  EXPECT_GE(times, 4u);
  EXPECT_LE(times, 5u);
}

TEST_F(ImpatientSimulationTest, DataSetsWithoutANeighborThatAStartPassesHaveALimit) {
  for (U32 i = 0; i < 1000; ++i) run("triggered " + toText(IpGenAddr::ipv4(0x0a020000 + i)) + " make");
  U32 const times = timesDone({"drop", "start"});
  EXPECT_GE(times, 9u);
  EXPECT_LE(times, 10u);
}

TEST_F(ImpatientSimulationTest, DataSetsThatNeverShowAnythingHaveALimit) {
  for (U32 i = 0; i < 1000; ++i) run("triggered " + toText(IpGenAddr::ipv4(0x0a020000 + i)) + " make");
  U32 const times = timesDone({"show sets"});
  EXPECT_GE(times, 9u);
  EXPECT_LE(times, 10u);
}

TEST_F(ImpatientSimulationTest, WhatHasLinesMayBeShownForEver) {
  run("triggered 10.0.0.2 join 1000 routes from (10.9.0.1,239.1.0.1)");
  for (U32 i = 0; i < 100; ++i) EXPECT_FALSE(isTooMuch("show sets")) << i;
}

TEST_F(ImpatientSimulationTest, TheCheckOfEachRouteOfALongRangeIsRefusedBeforeAnythingIsChanged) {
  run("set machine diagUpJoinCount true");
  run("periodic 10.0.0.2 join 3 routes from (10.9.0.1,239.1.0.1)");
  out_.str({});
  EXPECT_TRUE(isTooMuch("periodic 10.0.0.2 join 100 routes from (10.9.0.1,239.2.0.1)"));
  EXPECT_EQ(out_.str(), "");
}

TEST_F(ImpatientSimulationTest, AManagerThatTakesNothingCannotWalkAllRoutesForEver) {
  run("interface eth0 interval 1");
  run("periodic 10.0.0.2 join 1000 routes from (10.9.0.1,239.1.0.1)");
  run("temper on take 0");
  EXPECT_TRUE(isTooMuch("wait 1000000"));
  EXPECT_LT(simulation_.now(), 1000);
}

TEST_F(ImpatientSimulationTest, AWaitEndsAfterTooManyExpiries) {
  run("periodic 10.0.0.2 join (10.9.0.1,239.1.1.1)");  // a refresh every 60 s
  EXPECT_FALSE(isTooMuch("wait 24000"));
  EXPECT_TRUE(isTooMuch("wait 24000"));
  EXPECT_GT(simulation_.now(), 29000);
}

TEST_F(ImpatientSimulationTest, ATemperCannotDoWhatIsTooMuchEither) {
  run("periodic 10.0.0.2 join 1000 routes from (10.9.0.1,239.1.0.1)");
  std::string again = "temper on first of 1 do periodic 10.0.0.2 again";
  for (U32 i = 0; i < 100; ++i) again += " ; periodic 10.0.0.2 again";
  run(again);
  run("triggered 10.0.0.2 join (10.9.0.1,239.1.1.1)");
  EXPECT_TRUE(isTooMuch("wait 1"));
  auto const lines = out_.str();
  EXPECT_THAT(lines, HasSubstr("cannot periodic 10.0.0.2 again: too much has been looked at"));
}

TEST_F(SimulationTest, GroupsAreDeniedByAnyOfManyPrefixes) {
  std::string const joined = "receive eth0 upstream 10.0.0.1 hold 9 join (*,239.1.2.3) rp 10.0.0.9";
  EXPECT_THAT(outputOf({joined}), SizeIs(1));
  EXPECT_THAT(outputOf({"deny 239.1.2.9/24", "deny 239.0.0.0/8", "deny ff0e::/16", joined}), IsEmpty());
  // One is named off in the words in which it was named.
  EXPECT_EQ(complaint("deny 239.1.2.0/24 off"), "these groups were not named before");
  EXPECT_THAT(outputOf({"deny 239.0.0.0/8 off", joined}), IsEmpty());
  EXPECT_THAT(outputOf({"deny 239.1.2.9/24 off", joined}), SizeIs(1));
  EXPECT_EQ(complaint("deny 239.1.2.9/24 off"), "these groups were not named before");
  EXPECT_THAT(outputOf({"deny 239.1.2.3/32", joined}), IsEmpty());
  EXPECT_THAT(outputOf({"deny 239.1.2.3/32 off", "deny 239.1.2.2/31", joined}), IsEmpty());
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
