// SPDX-License-Identifier: Apache-2.0
#include "jpagent/replay/Report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace Routing::Pim::Jpagent {
namespace {

Entry wildcardJoin() {
  Entry entry;
  entry.kind = EntryKind::wildcardJoin;
  entry.source = IpGenAddr("0.0.0.0");
  entry.group = IpGenAddr("239.123.123.123");
  entry.upstreamNeighbor = IpGenAddr("10.0.0.13");
  entry.holdTime = 210;
  entry.flags = Packet::wildcardFlags;
  entry.rp = IpGenAddr("1.1.1.1");
  return entry;
}

Entry rptPrune() {
  Entry entry;
  entry.kind = EntryKind::sourceRptPrune;
  entry.source = IpGenAddr("2001:db8::1");
  entry.group = IpGenAddr("ff0e::101");
  entry.upstreamNeighbor = IpGenAddr("fe80::13");
  entry.holdTime = 65535;
  entry.flags = Packet::sgRptFlags;
  return entry;
}

std::string reported(Report& report, std::ostringstream const& out, Totals const* totals = nullptr) {
  report.entry({3, 10.848741}, wildcardJoin());
  report.entry({12, 31.5}, rptPrune());
  report.refusal({7, 12}, Wire::PimType::joinPrune, {Wire::Reason::badChecksum, "0x5ae5, computed 0x5ae6"});
  report.refusal({8, 13}, Wire::PimType::hello, {Wire::Reason::hopLimitNotOne, "64"});
  if (totals) report.totals(*totals);
  return out.str();
}

std::string reportedAsText(Totals const* totals = nullptr) {
  std::ostringstream out;
  TextReport report(out);
  return reported(report, out, totals);
}

TEST(ReportTest, EntriesAreAlignedLinesAndRefusalsSayWhy) {
  EXPECT_EQ(
      reportedAsText(),
      "frame 3         10.848741  join   (*,G)      (0.0.0.0,239.123.123.123)          upstream 10.0.0.13"
      "        hold   210  flags SWR  rp 1.1.1.1\n"
      "frame 12        31.500000  prune  (S,G,rpt)  (2001:db8::1,ff0e::101)            upstream fe80::13"
      "         hold 65535  flags SR\n"
      "frame 7  refused: bad checksum (0x5ae5, computed 0x5ae6)\n"
      "frame 8  Hello refused: TTL or hop limit not 1 (64)\n");
}

TEST(ReportTest, JsonIsOneObjectALineWithItsKeysInOrder) {
  Totals const totals;
  std::ostringstream out, beside;
  JsonReport report(out, beside);
  EXPECT_EQ(reported(report, out, &totals),
            R"x({"frame":3,"time":10.848741,"record":"join","kind":"(*,G)","source":"0.0.0.0",)x"
            R"x("group":"239.123.123.123","upstream":"10.0.0.13","holdtime":210,"flags":7,"rp":"1.1.1.1"})x"
            "\n"
            R"x({"frame":12,"time":31.5,"record":"prune","kind":"(S,G,rpt)","source":"2001:db8::1",)x"
            R"x("group":"ff0e::101","upstream":"fe80::13","holdtime":65535,"flags":5})x"
            "\n"
            R"x({"frame":7,"refused":"bad checksum"})x"
            "\n"
            R"x({"frame":8,"message":"Hello","refused":"TTL or hop limit not 1"})x"
            "\n");
  EXPECT_EQ(beside.str(), "");
}

TEST(ReportTest, BesideJsonALineTellsWhatWasPassedOver) {
  Totals totals;
  totals.frames = 20;
  totals.passedOver[static_cast<std::size_t>(PassedOver::notIp)] = 2;
  totals.passedOver[static_cast<std::size_t>(PassedOver::otherProtocol)] = 5;
  std::ostringstream out, beside;
  JsonReport(out, beside).totals(totals);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(beside.str(), "7 of 20 frames passed over: 2 not IP, 5 IP of another protocol\n");
}

TEST(ReportTest, TotalsCountEntriesByKindAndRefusalsByReason) {
  Totals totals;
  totals.frames = 20;
  totals.messages = 9;
  totals.entries = {1, 4, 2, 5, 3, 6};
  totals.refused[static_cast<std::size_t>(Wire::Reason::badChecksum)] = 2;
  totals.refused[static_cast<std::size_t>(Wire::Reason::leftOver)] = 1;
  EXPECT_EQ(totals.refusedMessages(), 3u);
  totals.hellos = 4;
  totals.passedOver[static_cast<std::size_t>(PassedOver::notIp)] = 5;
  totals.passedOver[static_cast<std::size_t>(PassedOver::laterFragment)] = 2;
  std::ostringstream out;
  TextReport(out).totals(totals);
  EXPECT_EQ(out.str(),
            "frames                                   20\n"
            "Join/Prune messages                       9\n"
            "(S,G) join                                1\n"
            "(*,G) join                                2\n"
            "(S,G,rpt) join                            3\n"
            "(S,G) prune                               4\n"
            "(*,G) prune                               5\n"
            "(S,G,rpt) prune                           6\n"
            "refused messages                          3\n"
            "  bad checksum                            2\n"
            "  bytes left over                         1\n"
            "Hello messages                            4\n"
            "frames passed over                        7\n"
            "  not IP                                  5\n"
            "  later fragment                          2\n");
  totals.lenient = 8;
  totals.strangers = 9;
  out.str("");
  TextReport(out).totals(totals);
  EXPECT_NE(out.str().find("taken because of --lenient                8\n"
                           "Hello messages                            4\n"
                           "without room for their sender             9\n"),
            std::string::npos);
}

TEST(ReportTest, AnEmptyLinePartsTheTotalsFromWhatCameBefore) {
  Totals const totals;
  EXPECT_NE(reportedAsText(&totals).find("not 1 (64)\n\nframes "), std::string::npos);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
