// SPDX-License-Identifier: Apache-2.0
// The coder of Hellos against bytes written by hand from RFC 7761, 4.9.2, and against itself.
#include "pim/wire/Hello.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <random>

#include "runtime/vel/Exception.h"
#include "tests/pim/wire/Bytes.h"

namespace Routing::Pim::Wire {

// For failure messages.
static void PrintTo(Hello const& hello, std::ostream* os) { *os << toText(hello); }

namespace {

using namespace Test;
using testing::ThrowsMessage;

// The header, and a checksum that is right.
Bytes helloBytes(std::string_view options, IpGenAddr const& from = sender, IpGenAddr const& to = routers) {
  return withChecksum(hex("20000000") + hex(options), from, to);
}

/// What the bytes say, or why they are refused.
std::string told(Bytes const& bytes, IpGenAddr const& from = sender, IpGenAddr const& to = routers) {
  auto const decoded = decodeHello(bytes, from, to);
  if (auto const* refusal = std::get_if<Refusal>(&decoded)) return toText(*refusal);
  return toText(std::get<Hello>(decoded));
}

std::string told(std::string_view options) { return told(helloBytes(options)); }

Hello fullHello() {
  Hello hello;
  hello.holdTimeIs(105);
  hello.lanPruneDelayIs(LanPruneDelay{.tracking = true, .propagationDelay = 500, .overrideInterval = 2'500});
  hello.drPriorityIs(1);
  hello.generationIdIs(0x01020304);
  hello.addressAdd(IpGenAddr("10.0.1.14"));
  hello.addressAdd(IpGenAddr("10.0.2.14"));
  hello.unknownOptionAdd(4242, hex("aabbcc"));
  return hello;
}

constexpr std::string_view fullOptions = R"(
    0001 0002 0069
    0002 0004 81f4 09c4
    0013 0004 00000001
    0014 0004 01020304
    0018 000c 0100 0a00010e 0100 0a00020e
    1092 0003 aabbcc)";

TEST(HelloTest, BytesBecomeTheirHelloAndAHelloItsBytes) {
  auto const bytes = helloBytes(fullOptions);
  auto const decoded = decodeHello(bytes, sender, routers);
  ASSERT_TRUE(std::holds_alternative<Hello>(decoded)) << told(bytes);
  EXPECT_EQ(std::get<Hello>(decoded), fullHello());
  EXPECT_EQ(encodeHello(fullHello(), sender, routers), bytes);
  EXPECT_EQ(fullHello().encodedSize(), bytes.size());
  EXPECT_EQ(toText(fullHello()),
            "hold 105, delay 500 ms, override 2500 ms, tracking, DR priority 1, generation ID 0x01020304, "
            "also 10.0.1.14, 10.0.2.14, option 4242 (3 bytes)");
}

TEST(HelloTest, AddressesOverIpv6AreIpv6) {
  Hello hello;
  hello.addressAdd(IpGenAddr("2001:db8::14"));
  auto const bytes = encodeHello(hello, sender6, routers6);
  EXPECT_EQ(bytes, helloBytes("0018 0012 0200 20010db8000000000000000000000014", sender6, routers6));
  EXPECT_EQ(told(bytes, sender6, routers6), "also 2001:db8::14");
}

TEST(HelloTest, EachOptionIsReadAndWhatIsMissingStaysOut) {
  struct {
    char const* options;
    char const* told;
  } const rows[] = {
      {"", "no options"},
      {"0001 0002 0069", "hold 105"},
      {"0001 0002 0000", "hold 0"},
      {"0001 0002 ffff", "hold 65535"},
      {"0002 0004 01f4 09c4", "delay 500 ms, override 2500 ms"},
      {"0002 0004 ffff ffff", "delay 32767 ms, override 65535 ms, tracking"},
      {"0002 0004 8000 0000", "delay 0 ms, override 0 ms, tracking"},
      {"0013 0004 ffffffff", "DR priority 4294967295"},
      {"0014 0004 00000000", "generation ID 0x00000000"},
      {"0018 0000", "no options"},
      {"0018 0006 0100 0a00010e", "also 10.0.1.14"},
      {"0018 0018 0200 20010db8000000000000000000000014 0100 0a00010e", "also 2001:db8::14, 10.0.1.14"},
      {"0014 0004 01020304  0001 0002 000a  0013 0004 00000001",
       "hold 10, DR priority 1, generation ID 0x01020304"},
  };
  for (auto const& row : rows) EXPECT_EQ(told(row.options), row.told) << row.options;
}

TEST(HelloTest, OfARepeatedOptionTheLastOneCounts) {
  struct {
    char const* options;
    char const* told;
  } const rows[] = {
      {"0001 0002 000a  0001 0002 0014", "hold 20"},
      {"0002 0004 8001 0002  0002 0004 0003 0004", "delay 3 ms, override 4 ms"},
      {"0013 0004 00000001  0013 0004 00000002", "DR priority 2"},
      {"0014 0004 00000001  0001 0002 0014  0014 0004 00000002", "hold 20, generation ID 0x00000002"},
      {"0018 0006 0100 0a00010e  0018 0006 0100 0a00020e", "also 10.0.2.14"},
      {"0018 0006 0100 0a00010e  0018 0000", "no options"},
  };
  for (auto const& row : rows) EXPECT_EQ(told(row.options), row.told) << row.options;
}

TEST(HelloTest, UnknownOptionsAreKeptInTheirOrderWithTheirBytes) {
  auto const bytes = helloBytes("ffff 0000  0003 0001 07  0001 0002 0069  0003 0002 0809  0100 0000");
  auto const hello = std::get<Hello>(decodeHello(bytes, sender, routers));
  EXPECT_THAT(hello.unknownOptions(),
              testing::ElementsAre(Hello::Unknown{0xffff, {}}, Hello::Unknown{3, {7}},
                                   Hello::Unknown{3, {8, 9}}, Hello::Unknown{0x100, {}}));
  EXPECT_EQ(encodeHello(hello, sender, routers),
            helloBytes("0001 0002 0069  ffff 0000  0003 0001 07  0003 0002 0809  0100 0000"));
}

TEST(HelloTest, WhatIsNotAHelloIsRefusedWithItsPlace) {
  struct {
    char const* options;
    char const* reason;
  } const rows[] = {
      {"00", "truncated (in the Hello option at byte 4)"},
      {"0001 00", "truncated (in the Hello option at byte 4)"},
      {"0001 0002", "truncated (in the Hello option at byte 4)"},
      {"0001 0002 00", "truncated (in the Hello option at byte 4)"},
      {"0001 0002 0069 00", "truncated (in the Hello option at byte 10)"},
      {"1092 ffff 00", "truncated (in the Hello option at byte 4)"},
      {"0001 0001 69", "bad Hello option (a hold time of 1 bytes at byte 4)"},
      {"0001 0004 00000069", "bad Hello option (a hold time of 4 bytes at byte 4)"},
      {"1092 0000 0001 0000", "bad Hello option (a hold time of 0 bytes at byte 8)"},
      {"0002 0003 01f409", "bad Hello option (a LAN prune delay of 3 bytes at byte 4)"},
      {"0002 0005 01f409c400", "bad Hello option (a LAN prune delay of 5 bytes at byte 4)"},
      {"0013 0002 0001", "bad Hello option (a DR priority of 2 bytes at byte 4)"},
      {"0013 0008 0000000000000001", "bad Hello option (a DR priority of 8 bytes at byte 4)"},
      {"0014 0000", "bad Hello option (a generation ID of 0 bytes at byte 4)"},
      {"0018 0001 01", "bad Hello option (an address list that is cut at byte 8)"},
      {"0018 0005 0100 0a0001", "bad Hello option (an address list that is cut at byte 8)"},
      {"0018 0007 0100 0a00010e 01", "bad Hello option (an address list that is cut at byte 14)"},
      {"0018 0006 0300 0a00010e", "unknown address family (3 of secondary address at byte 8)"},
      {"0018 0006 0101 0a00010e", "unknown encoding type (1 of secondary address at byte 9)"},
      {"0018 0006 0100 e0000001", "bad Hello option (224.0.0.1 in the address list at byte 8)"},
      {"0018 0006 0100 00000000", "bad Hello option (0.0.0.0 in the address list at byte 8)"},
  };
  for (auto const& row : rows) EXPECT_EQ(told(row.options), row.reason) << row.options;
}

TEST(HelloTest, TheHeaderIsCheckedBeforeTheOptions) {
  EXPECT_EQ(told(hex("20 00 00")), "truncated (in the PIM header)");
  EXPECT_EQ(told(hex("2000 0000")), "bad checksum (0x0000, computed 0xdfff)");
  EXPECT_EQ(told(withChecksum(hex("23000000"), sender, routers)),
            "not a PIM version 2 Hello (version 2, type 3)");
  EXPECT_EQ(told(withChecksum(hex("10000000"), sender, routers)),
            "not a PIM version 2 Hello (version 1, type 0)");
}

TEST(HelloTest, TheChecksumOverIpv6TakesThePseudoHeaderIn) {
  auto const bytes = encodeHello(fullHello(), sender6, routers6);
  EXPECT_EQ(pimChecksum(bytes, sender6, routers6), 0);
  EXPECT_THAT(told(bytes, IpGenAddr("fe80::15"), routers6), testing::StartsWith("bad checksum"));
}

TEST(HelloTest, WithoutAHoldTimeItIsThatOfTheRfc) {
  EXPECT_EQ(Hello().effectiveHoldTime(), 105);
  Hello goodbye;
  goodbye.holdTimeIs(0);
  EXPECT_EQ(goodbye.effectiveHoldTime(), 0);
}

TEST(HelloTest, AHelloCannotBecomeInvalid) {
  Hello hello = fullHello();
  EXPECT_THAT([&] { hello.lanPruneDelayIs(LanPruneDelay{.propagationDelay = 40'000}); },
              ThrowsMessage<Vel::RangeException>("propagation delay of 40000 ms"));
  for (auto const* address : {"224.0.0.1", "0.0.0.0", "::", "ff02::d", "unknown"}) {
    EXPECT_THAT([&] { hello.addressAdd(IpGenAddr(address)); },
                ThrowsMessage<Vel::RangeException>(std::string(address) + " in the address list"));
  }
  for (U16 const known : {1, 2, 19, 20, 24}) {
    EXPECT_THAT([&] { hello.unknownOptionAdd(known, {}); },
                ThrowsMessage<Vel::RangeException>("option " + std::to_string(known) + " is known"));
  }
  EXPECT_THAT([&] { hello.unknownOptionAdd(4242, Bytes(65'536)); },
              ThrowsMessage<Vel::RangeException>("65536 bytes of option 4242"));
  EXPECT_EQ(hello, fullHello());
}

TEST(HelloTest, TheLargestDatagramIsEncodedAndOneLargerIsNot) {
  Hello hello;
  hello.unknownOptionAdd(4242, Bytes(65'535 - 20 - 8));
  EXPECT_EQ(encodeHello(hello, sender, routers).size(), 65'515u);
  hello.holdTimeIs(1);
  EXPECT_THAT([&] { (void)encodeHello(hello, sender, routers); },
              ThrowsMessage<Vel::RangeException>("65521 bytes do not fit an IP datagram"));
  EXPECT_THAT([&] { (void)encodeHello(Hello(), sender, routers6); },
              ThrowsMessage<Vel::RangeException>("address families differ"));
}

TEST(HelloTest, TheOptionsOfAnyBytesCanBeShown) {
  auto const bytes = hex("ffffffff 0001 0001 07 0014 0004 0102");
  HelloOptions options(bytes);
  ASSERT_TRUE(options.next());
  EXPECT_EQ(options.type(), 1);
  EXPECT_EQ(options.offset(), 4u);
  EXPECT_THAT(options.value(), testing::ElementsAre(7));
  EXPECT_FALSE(options.next());
  EXPECT_TRUE(options.isCut());
  EXPECT_EQ(options.offset(), 9u);
  EXPECT_FALSE(options.next());

  HelloOptions none(std::span<U8 const>(bytes).first(3));
  EXPECT_FALSE(none.next());
  EXPECT_TRUE(none.isCut());
}

Hello randomHello(std::mt19937& random, bool ipv6) {
  auto const u16 = [&random] { return static_cast<U16>(random()); };
  Hello hello;
  if (random() % 4) hello.holdTimeIs(random() % 4 ? u16() : random() % 2 ? 0xffff : 0);
  if (random() % 2)
    hello.lanPruneDelayIs(LanPruneDelay{random() % 2 == 0, static_cast<U16>(u16() & 0x7fff), u16()});
  if (random() % 2) hello.drPriorityIs(static_cast<U32>(random()));
  if (random() % 2) hello.generationIdIs(static_cast<U32>(random()));
  for (unsigned n = random() % 4; n; --n)
    hello.addressAdd(IpGenAddr((ipv6 ? "2001:db8::" : "10.0.1.") + std::to_string(1 + random() % 99)));
  for (unsigned n = random() % 3; n; --n)
    hello.unknownOptionAdd(static_cast<U16>(100 + random() % 1000), Bytes(random() % 9, static_cast<U8>(n)));
  return hello;
}

TEST(HelloTest, RandomHellosSurviveTheWireAndNoCutOfThemIsTakenForAnother) {
  std::mt19937 random(7761);
  for (int n = 0; n < 500; ++n) {
    bool const ipv6 = random() % 2;
    auto const& from = ipv6 ? sender6 : sender;
    auto const& to = ipv6 ? routers6 : routers;
    Hello const hello = randomHello(random, ipv6);
    auto bytes = encodeHello(hello, from, to);
    ASSERT_EQ(bytes.size(), hello.encodedSize());
    auto const again = decodeHello(bytes, from, to);
    ASSERT_TRUE(std::holds_alternative<Hello>(again)) << told(bytes, from, to);
    ASSERT_EQ(std::get<Hello>(again), hello);
    // Cut at any byte, with a checksum that is right again, it says less or is refused.
    bytes.resize(random() % bytes.size());
    if (bytes.size() < 4) {
      EXPECT_EQ(told(bytes, from, to), "truncated (in the PIM header)");
      continue;
    }
    bytes = withChecksum(bytes, from, to);
    auto const cut = decodeHello(bytes, from, to);
    if (auto const* less = std::get_if<Hello>(&cut)) {
      EXPECT_EQ(less->encodedSize(), bytes.size());
    }
  }
}

TEST(HelloTest, EverySingleBitCounts) {
  auto const bytes = helloBytes(fullOptions);
  for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    auto wrong = bytes;
    wrong[bit / 8] ^= static_cast<U8>(1 << bit % 8);
    EXPECT_TRUE(std::holds_alternative<Refusal>(decodeHello(wrong, sender, routers))) << bit;
  }
}

}  // namespace
}  // namespace Routing::Pim::Wire
