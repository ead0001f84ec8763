// SPDX-License-Identifier: Apache-2.0
// Attributes by name, and values in text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "runtime/vel/Text.h"
#include "tests/runtime/vel/Lamp.h"

namespace Vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ByNameTest : public testing::Test, protected LampWorld {
 protected:
  // The text of what setting an attribute throws.
  std::string refusal(std::string_view name, std::string_view text) {
    try {
      lamp->attributeIs(name, text);
    } catch (RangeException const& error) {
      return error.what();
    }
    return "not refused";
  }
};

TEST_F(ByNameTest, ValuesAreSetAndReadAndWatched) {
  auto const a = recorder("a");
  struct Row {
    char const* name;
    char const* before;
    char const* set;
    char const* after;
  } const rows[] = {
      {"brightness", "100", "4294967295", "4294967295"},
      {"warmth", "0.5", "1e-3", "0.001"},
      {"warmth", "0.001", "2.5", "2.5"},
      {"dimmed", "false", "true", "true"},
      {"dimmed", "true", "false", "false"},
      {"flashes", "0", "7", "7"},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(lamp->attribute(row.name), row.before);
    lamp->attributeIs(row.name, row.set);
    EXPECT_EQ(lamp->attribute(row.name), row.after);
    EXPECT_THAT(taken(log), ElementsAre(std::string("a: ") + row.name));
    lamp->attributeIs(row.name, row.set);
    EXPECT_THAT(log, IsEmpty());
  }
  EXPECT_EQ(lamp->brightness(), 4294967295u);
  EXPECT_EQ(lamp->warmth(), 2.5);
}

TEST_F(ByNameTest, CollectionsAndPointersAreReadAsTheirKeysAndAddresses) {
  EXPECT_EQ(lamp->attribute("bulb"), "");
  EXPECT_EQ(lamp->attribute("spare"), "0");
  lamp->bulbIs(address(1));
  EXPECT_EQ(lamp->attribute("bulb"), "10.0.0.1");
  lamp->seatIs(address(2));
  lamp->seatIs(address(1));
  EXPECT_EQ(lamp->attribute("seat"), "10.0.0.1, 10.0.0.2");
  lamp->spareIs(lamp->bulb(address(1)));
  EXPECT_EQ(lamp->attribute("spare"), inText(lamp->bulb(address(1))));
}

TEST_F(ByNameTest, AnUnknownNameIsRefused) {
  EXPECT_EQ(refusal("colour", "1"), "Vel::Lamp has no attribute \"colour\"");
  EXPECT_EQ(refusal("", "1"), "Vel::Lamp has no attribute \"\"");
  EXPECT_EQ(refusal("Brightness", "1"), "Vel::Lamp has no attribute \"Brightness\"");
  EXPECT_THROW(lamp->attribute("colour"), RangeException);
  EXPECT_THROW(create<Bulb>(address(1))->attribute("brightness"), RangeException);
}

TEST_F(ByNameTest, AnAttributeThatCannotBeSetIsRefused) {
  for (char const* name : {"serial", "bulb", "guest", "seat", "spare"})
    EXPECT_EQ(refusal(name, lamp->attribute(name)),
              "attribute \"" + std::string(name) + "\" of Vel::Lamp cannot be set");
}

TEST_F(ByNameTest, ATextThatDoesNotFitIsRefusedAndChangesNothing) {
  auto const a = recorder("a");
  std::pair<char const*, std::vector<std::string>> const bad[] = {
      {"brightness", {"", " 1", "1 ", "-1", "+1", "4294967296", "1.0", "0x10", "one", "1e3"}},
      {"warmth", {"", "warm", "1,5", "1.5s", "nan", "-nan", "1e999", "+1"}},
      {"dimmed", {"", "1", "True", "yes", "false "}},
      {"flashes", {"-1", "x"}},
  };
  for (auto const& [name, texts] : bad)
    for (std::string const& text : texts)
      EXPECT_EQ(refusal(name, text), "\"" + text + "\" does not fit attribute \"" + name + "\" of Vel::Lamp");
  EXPECT_THAT(log, IsEmpty());
  EXPECT_EQ(lamp->brightness(), 100u);
  EXPECT_EQ(lamp->warmth(), 0.5);
  EXPECT_FALSE(lamp->dimmed());
  EXPECT_EQ(lamp->flashes(), 0u);
}

TEST_F(ByNameTest, TheTableListsTheAttributesInOrderWithTheirNumbers) {
  std::vector<std::pair<std::string, AttributeId>> rows;
  for (AttributeRow const& row : lamp->attributeTable()) rows.emplace_back(row.name, row.id);
  using Row = std::pair<std::string, AttributeId>;
  EXPECT_THAT(rows, ElementsAre(Row("brightness", 130), Row("warmth", 131), Row("dimmed", 132),
                                Row("flashes", 133), Row("spare", 134), Row("bulb", 135), Row("guest", 137),
                                Row("seat", 138), Row("serial", 139)));
  EXPECT_TRUE(create<Bulb>(address(1))->attributeTable().empty());
}

TEST(TextTest, ValuesHaveTheirShortestForm) {
  EXPECT_EQ(textOf(0.1), "0.1");
  EXPECT_EQ(textOf(210.0), "210");
  EXPECT_EQ(textOf(1.0 / 3), "0.333333333333");
  EXPECT_EQ(textOf(true), "true");
  EXPECT_EQ(textOf(U32{7}), "7");
  EXPECT_EQ(textOf(never), "inf");
}

TEST(TextTest, NumbersAreParsedWholeOrNotAtAll) {
  U16 port = 1;
  EXPECT_TRUE(fromText("65535", port));
  EXPECT_EQ(port, 65535);
  EXPECT_FALSE(fromText("65536", port));
  EXPECT_FALSE(fromText("12x", port));
  EXPECT_EQ(port, 65535);
  double number = 1;
  EXPECT_TRUE(fromText("-2.5e3", number));
  EXPECT_EQ(number, -2500);
  EXPECT_TRUE(fromText("inf", number));
  EXPECT_EQ(number, never);
  EXPECT_FALSE(fromText("nan", number));
  EXPECT_EQ(number, never);
}

}  // namespace
}  // namespace Vel
