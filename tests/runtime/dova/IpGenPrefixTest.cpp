// SPDX-License-Identifier: Apache-2.0
#include "runtime/dova/IpGenPrefix.h"

#include <gtest/gtest.h>

#include <sstream>

#include "runtime/vel/Exception.h"

namespace Dova {
namespace {

std::string streamed(IpGenPrefix const& prefix) {
  std::ostringstream text;
  text << prefix;
  return text.str();
}

IpGenPrefix prefix(std::string_view text) { return IpGenPrefix::fromText(text).value(); }

TEST(IpGenPrefixTest, AnAddressKeepsItsHostBits) {
  IpGenPrefix const own = prefix("10.0.0.1/24");
  EXPECT_EQ(own.ipGenAddr(), IpGenAddr("10.0.0.1"));
  EXPECT_EQ(own.length(), 24);
  EXPECT_EQ(streamed(own), "10.0.0.1/24");
  EXPECT_EQ(own, IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
  EXPECT_FALSE(own == prefix("10.0.0.0/24"));
  EXPECT_FALSE(own == prefix("10.0.0.1/25"));
}

TEST(IpGenPrefixTest, TheTextReadsBack) {
  for (char const* text : {"10.0.0.1/24", "0.0.0.0/0", "2001:db8::1/128"}) {
    EXPECT_EQ(toText(prefix(text)), text);
    EXPECT_EQ(streamed(prefix(text)), text);
  }
  EXPECT_EQ(prefix(toText(IpGenPrefix())), IpGenPrefix());
}

TEST(IpGenPrefixTest, TheDefaultIsTheUnspecifiedAddress) {
  EXPECT_EQ(IpGenPrefix().ipGenAddr(), IpGenAddr());
  EXPECT_EQ(IpGenPrefix().length(), 0);
  EXPECT_EQ(streamed(IpGenPrefix()), "unknown");
  EXPECT_EQ(prefix("unknown"), IpGenPrefix());
}

TEST(IpGenPrefixTest, AnAddressAloneMeansItsFullWidth) {
  EXPECT_EQ(streamed(prefix("10.0.0.1")), "10.0.0.1/32");
  EXPECT_EQ(streamed(prefix("2001:db8::1")), "2001:db8::1/128");
}

TEST(IpGenPrefixTest, OtherTextsAreRefused) {
  for (char const* text :
       {"", "/", "/24", "10.0.0.1/", "10.0.0.1/33", "10.0.0.1/256", "10.0.0.1/-1", "10.0.0.1/+8",
        "10.0.0.1/24 ", "10.0.0.1/24/8", "10.0.0.1/a", "10.0.0/8", "::/129", "unknown/1", "10.0.0.1 /24"}) {
    EXPECT_FALSE(IpGenPrefix::fromText(text)) << text;
    IpGenPrefix kept = prefix("10.0.0.9/8");
    EXPECT_FALSE(fromText(text, kept)) << text;
    EXPECT_EQ(streamed(kept), "10.0.0.9/8");
  }
}

TEST(IpGenPrefixTest, ALengthBeyondTheFamilysWidthIsRefused) {
  EXPECT_NO_THROW(IpGenPrefix(IpGenAddr("10.0.0.1"), 32));
  EXPECT_NO_THROW(IpGenPrefix(IpGenAddr("::1"), 128));
  EXPECT_NO_THROW(IpGenPrefix(IpGenAddr(), 0));
  EXPECT_THROW(IpGenPrefix(IpGenAddr("::1"), 129), Vel::RangeException);
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Vel::RangeException);
  try {
    IpGenPrefix const bad(IpGenAddr("10.0.0.1"), 33);
    ADD_FAILURE() << bad;
  } catch (Vel::RangeException const& error) {
    EXPECT_STREQ(error.what(), "mask length 33 exceeds the 32 bits of 10.0.0.1");
  }
}

TEST(IpGenPrefixTest, ContainmentLooksAtTheMaskedBitsAndTheFamily) {
  struct Row {
    char const* prefix;
    char const* address;
    bool contained;
  } const rows[] = {
      {"10.0.0.1/24", "10.0.0.255", true},
      {"10.0.0.1/24", "10.0.1.0", false},
      {"10.0.0.1/32", "10.0.0.1", true},
      {"10.0.0.1/32", "10.0.0.0", false},
      {"10.0.0.1/31", "10.0.0.0", true},
      {"10.0.0.1/31", "10.0.0.2", false},
      {"10.0.0.1/0", "255.255.255.255", true},
      {"10.0.0.1/1", "127.0.0.0", true},
      {"10.0.0.1/1", "128.0.0.0", false},
      {"224.0.0.0/4", "239.255.255.255", true},
      {"224.0.0.0/4", "240.0.0.0", false},
      {"10.0.0.1/0", "::", false},
      {"10.0.0.1/0", "unknown", false},
      {"::/0", "ffff::", true},
      {"::/0", "10.0.0.1", false},
      {"::ffff:10.0.0.0/104", "10.0.0.1", false},
      {"2001:db8::/33", "2001:db8:7fff::", true},
      {"2001:db8::/33", "2001:db8:8000::", false},
      {"::1/128", "::1", true},
      {"::1/127", "::", true},
      {"::1/128", "::", false},
      {"unknown", "unknown", true},
      {"unknown", "0.0.0.0", false},
      {"unknown", "::", false},
  };
  for (Row const& row : rows)
    EXPECT_EQ(prefix(row.prefix).contains(IpGenAddr(row.address)), row.contained)
        << row.prefix << " and " << row.address;
}

}  // namespace
}  // namespace Dova
