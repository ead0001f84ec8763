// SPDX-License-Identifier: Apache-2.0
#include <limits>

#include "tests/runtime/scrivo/TraceFixture.h"

namespace Scrivo::Test {
namespace {

using Dova::IpGenAddr;

class MessageTest : public TraceFixture {};

void sendTriggered(IpGenAddr const& neighbor, std::string const& intf, int groups) {
  SCRIVO_MESSAGE("JoinPruneSm", "JoinPruneNeighborSm: Sending triggered joins/prunes to ", neighbor,
                 ", Intf: ", intf, ", Groups: ", groups);
}

void count(int number) { SCRIVO_MESSAGE("Counter", "n=", number); }

struct Join {
  static char const* name() { return "join"; }
};
struct Prune {
  static char const* name() { return "prune"; }
};

template <class Kind>
void receive(int number) {
  SCRIVO_MESSAGE("Receiver", Kind::name(), " ", number);
}

TEST_F(MessageTest, IsItsPiecesAndArgumentsInTheOrderOfTheStatement) {
  TraceFile::open(path());
  sendTriggered(IpGenAddr("10.0.0.2"), "eth0", 3);
  sendTriggered(IpGenAddr("fe80::1"), "eth1", -1);
  EXPECT_THAT(
      messages(),
      ElementsAre("JoinPruneNeighborSm: Sending triggered joins/prunes to 10.0.0.2, Intf: eth0, Groups: 3",
                  "JoinPruneNeighborSm: Sending triggered joins/prunes to fe80::1, Intf: eth1, Groups: -1"));
}

TEST_F(MessageTest, CarriesSourceLineAndTypedArguments) {
  TraceFile::open(path());
  U32 const line = __LINE__ + 1;
  SCRIVO_MESSAGE("JoinPruneSm", IpGenAddr("10.0.0.2"), " on ", std::string("eth0"), " holds ", 210);
  TraceReader const reader(path());
  ASSERT_EQ(reader.events().size(), 1u);
  Event const& event = reader.events()[0];
  EXPECT_EQ(event.kind, EventKind::message);
  EXPECT_EQ(event.source, "JoinPruneSm");
  EXPECT_EQ(event.line, line);
  EXPECT_EQ(event.text, "10.0.0.2 on eth0 holds 210");
  EXPECT_EQ(event.elapsed, 0u);
  EXPECT_THAT(event.arguments, ElementsAre(Argument(IpGenAddr("10.0.0.2")), Argument(std::string("eth0")),
                                           Argument(std::int64_t(210))));
  std::vector<ArgumentKind> kinds;
  for (Argument const& argument : event.arguments) kinds.push_back(kindOf(argument));
  EXPECT_THAT(kinds, ElementsAre(ArgumentKind::address, ArgumentKind::string, ArgumentKind::integer));
}

TEST_F(MessageTest, MakesOneDescriptorPerCallSiteAndThenOnlyRecords) {
  TraceFile::open(path());
  for (int i = 0; i < 5; ++i) count(i);
  sendTriggered(IpGenAddr("10.0.0.2"), "eth0", 3);
  TraceReader const reader(path());
  std::vector<std::string> descriptors;
  for (Descriptor const& descriptor : reader.descriptors()) {
    std::string const text = toText(descriptor);
    descriptors.push_back(descriptor.source + text.substr(text.find(": ")));
  }
  EXPECT_THAT(descriptors, ElementsAre("Counter: n=<integer>",
                                       "JoinPruneSm: JoinPruneNeighborSm: Sending triggered joins/prunes to "
                                       "<address>, Intf: <string>, Groups: <integer>"));
  std::vector<U32> used;
  for (Event const& event : reader.events()) used.push_back(event.descriptor);
  EXPECT_THAT(used, ElementsAre(1, 1, 1, 1, 1, 2));
}

TEST_F(MessageTest, HasOneDescriptorPerTemplateInstanceWithItsOwnLiterals) {
  TraceFile::open(path());
  receive<Join>(1);
  receive<Prune>(2);
  receive<Join>(3);
  EXPECT_THAT(messages(), ElementsAre("join 1", "prune 2", "join 3"));
  EXPECT_EQ(TraceReader(path()).descriptors().size(), 2u);
}

TEST_F(MessageTest, EvaluatesNothingAndWritesNothingWhileNoFileIsOpen) {
  int evaluated = 0;
  auto const trace = [&evaluated] { SCRIVO_MESSAGE("Counter", "n=", ++evaluated); };
  trace();
  EXPECT_EQ(evaluated, 0);
  EXPECT_THAT(filesThere(), IsEmpty());

  TraceFile::open(path());
  EXPECT_THAT(TraceReader(path()).descriptors(), IsEmpty());
  trace();
  TraceFile::close();
  std::string const closed = bytesOf();
  trace();
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(bytesOf(), closed);
  EXPECT_THAT(messages(), ElementsAre("n=1"));
}

TEST_F(MessageTest, RegistersAgainInTheNextFile) {
  TraceFile::open(path("first"));
  receive<Prune>(1);
  count(1);
  TraceFile::open(path("second"));
  count(2);
  TraceFile::close();
  TraceFile::open(path("third"));
  receive<Prune>(3);
  EXPECT_THAT(messages("first"), ElementsAre("prune 1", "n=1"));
  EXPECT_THAT(messages("second"), ElementsAre("n=2"));
  EXPECT_THAT(messages("third"), ElementsAre("prune 3"));
  for (char const* name : {"first", "second", "third"}) EXPECT_EQ(TraceReader(path(name)).damaged(), 0u);
  EXPECT_EQ(TraceReader(path("second")).descriptors().size(), 1u);
}

TEST_F(MessageTest, RegistersAgainInAFileOfTheSameName) {
  TraceFile::open(path());
  receive<Join>(1);
  TraceFile::open(path());
  count(2);
  EXPECT_THAT(messages(), ElementsAre("n=2"));
}

TEST_F(MessageTest, TakesEveryIntegerAsSigned64Bits) {
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", std::numeric_limits<std::int64_t>::min(), " ",
                 std::numeric_limits<std::int64_t>::max());
  SCRIVO_MESSAGE("T", true, " ", U8(200), " ", short(-5), " ", 4000000000u, " ", ~U64(0));
  EXPECT_THAT(messages(), ElementsAre("-9223372036854775808 9223372036854775807", "1 200 -5 4000000000 -1"));
}

TEST_F(MessageTest, TakesAddressesOfEveryFamily) {
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", IpGenAddr("0.0.0.0"), " ", IpGenAddr("::"), " ", IpGenAddr());
  ASSERT_THAT(messages(), ElementsAre("0.0.0.0 :: unknown"));
  EXPECT_THAT(TraceReader(path()).events()[0].arguments,
              ElementsAre(Argument(IpGenAddr("0.0.0.0")), Argument(IpGenAddr("::")), Argument(IpGenAddr())));
}

TEST_F(MessageTest, TellsLiteralsFromStringArguments) {
  TraceFile::open(path());
  char const array[] = "array ";
  char const* const pointer = "pointer ";
  SCRIVO_MESSAGE("T", "literal ", array, pointer, std::string("string "), std::string_view("view"));
  TraceReader const reader(path());
  ASSERT_EQ(reader.events().size(), 1u);
  EXPECT_EQ(reader.events()[0].text, "literal array pointer string view");
  EXPECT_THAT(reader.events()[0].arguments,
              ElementsAre(Argument(std::string("string ")), Argument(std::string("view"))));
  EXPECT_THAT(reader.descriptors()[0].pieces,
              ElementsAre(Piece("literal "), Piece("array "), Piece("pointer "), Piece(ArgumentKind::string),
                          Piece(ArgumentKind::string)));
}

TEST_F(MessageTest, CutsStringsAt255Bytes) {
  TraceFile::open(path());
  for (std::size_t const size : {0, 1, 254, 255, 256, 100000})
    SCRIVO_MESSAGE("T", "<", std::string(size, 'x'), ">");
  EXPECT_THAT(messages(),
              ElementsAre("<>", "<x>", "<" + std::string(254, 'x') + ">", "<" + std::string(255, 'x') + ">",
                          "<" + std::string(255, 'x') + ">", "<" + std::string(255, 'x') + ">"));
}

TEST_F(MessageTest, MayConsistOfOneLiteralOrOneArgument) {
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", "nothing but this");
  SCRIVO_MESSAGE("T", 7);
  EXPECT_THAT(messages(), ElementsAre("nothing but this", "7"));
}

TEST_F(MessageTest, KeepsStringsWithAnyBytesAndIsStillOneLine) {
  TraceFile::open(path());
  std::string const odd("a\nb\0c\\\x1b", 7);
  SCRIVO_MESSAGE("T", odd, "!");
  TraceReader const reader(path());
  ASSERT_EQ(reader.events().size(), 1u);
  EXPECT_EQ(reader.events()[0].arguments[0], Argument(odd));
  std::string const line = toText(reader.events()[0]);
  EXPECT_EQ(line.substr(line.find(": ")), ": a\\nb\\000c\\\\\\033!");
}

TEST_F(MessageTest, MayTraceAndCloseTheFileWhileItsArgumentsAreEvaluated) {
  TraceFile::open(path());
  auto const inner = [] {
    count(1);
    return 2;
  };
  SCRIVO_MESSAGE("T", "outer ", inner());
  auto const closing = [] {
    TraceFile::close();
    return 3;
  };
  SCRIVO_MESSAGE("T", "never ", closing());
  auto const reopening = [this] {
    TraceFile::open(path("next"));
    return 4;
  };
  TraceFile::open(path("previous"));
  SCRIVO_MESSAGE("T", "moved ", reopening());
  EXPECT_THAT(messages(), ElementsAre("n=1", "outer 2"));
  EXPECT_THAT(messages("previous"), IsEmpty());
  EXPECT_THAT(messages("next"), ElementsAre("moved 4"));
}

TEST_F(MessageTest, CanBeComposedByHand) {
  TraceFile& file = TraceFile::open(path());
  MessageDescriptor descriptor(file, "Table", 17);
  descriptor << "group " << ArgumentKind::address << " has " << ArgumentKind::integer << nullptr;
  U32 const id = descriptor.finish();
  EXPECT_EQ(id, 1u);
  file.record(EventKind::message, id, cycleCounter(), IpGenAddr("239.1.1.1"), std::int64_t(4));
  TraceReader const reader(path());
  ASSERT_EQ(reader.events().size(), 1u);
  EXPECT_EQ(reader.events()[0].text, "group 239.1.1.1 has 4");
  EXPECT_EQ(toText(reader.descriptors()[0]), "Table 17: group <address> has <integer>");
}

TEST_F(MessageTest, IsSilentIfItsDescriptorFindsNoRoom) {
  TraceFile::open(path(), {.descriptorBytes = 0});
  count(1);
  count(2);
  receive<Join>(1);
  TraceReader const reader(path());
  EXPECT_THAT(reader.events(), IsEmpty());
  EXPECT_THAT(reader.descriptors(), IsEmpty());
  EXPECT_EQ(reader.refusedCallSites(), 2u);
  EXPECT_EQ(reader.damaged(), 0u);
}

template <int number>
void traceFrom0To() {
  if constexpr (number > 0) traceFrom0To<number - 1>();
  SCRIVO_MESSAGE("Series", "site ", number);
}

TEST_F(MessageTest, KeepsTheCallSitesThatCameBeforeTheDescriptorAreaWasFull) {
  // The header, "Series", "site " and the argument make 16 + 8 + 8 + 1 bytes: 40 with padding.
  TraceFile::open(path(), {.descriptorBytes = 3 * 40 + 32});
  traceFrom0To<20>();
  traceFrom0To<20>();
  EXPECT_THAT(messages(), ElementsAre("site 0", "site 1", "site 2", "site 0", "site 1", "site 2"));
  EXPECT_EQ(TraceReader(path()).refusedCallSites(), 18u);
}

TEST_F(MessageTest, IsSilentIfItsLiteralsAreLongerThanAnyDescriptor) {
  static std::string const endless(Format::maxDescriptorBytes, 'x'), wrapping(65536, 'y');
  TraceFile::open(path());
  SCRIVO_MESSAGE("T", endless.c_str(), 1);
  SCRIVO_MESSAGE("T", wrapping.c_str(), 2);
  SCRIVO_MESSAGE("T", "short ", 3);
  EXPECT_THAT(messages(), ElementsAre("short 3"));
  EXPECT_EQ(TraceReader(path()).refusedCallSites(), 2u);
}

}  // namespace
}  // namespace Scrivo::Test
