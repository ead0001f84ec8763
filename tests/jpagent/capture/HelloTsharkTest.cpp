// SPDX-License-Identifier: Apache-2.0
// What tshark reads in our Hellos, option by option.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>

#include "jpagent/capture/FrameBuilder.h"
#include "pim/wire/Hello.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;
using OrderedJson = nlohmann::ordered_json;  // The order of the options counts.

// What a Hello says, each option on its own, the bytes of an unknown one included.
std::vector<std::string> optionsOf(Wire::Hello const& hello) {
  std::vector<std::string> told;
  if (auto const holdTime = hello.holdTime()) told.push_back("hold " + std::to_string(*holdTime));
  if (auto const delay = hello.lanPruneDelay()) {
    told.push_back("delay " + std::to_string(delay->propagationDelay) + " override " +
                   std::to_string(delay->overrideInterval) + " tracking " + std::to_string(delay->tracking));
  }
  if (auto const priority = hello.drPriority()) told.push_back("priority " + std::to_string(*priority));
  if (auto const id = hello.generationId()) told.push_back("generation " + std::to_string(*id));
  for (auto const& address : hello.addresses()) told.push_back("address " + Dova::toText(address));
  for (auto const& option : hello.unknownOptions()) {
    std::string text = "option " + std::to_string(option.type) + " ";
    char digits[4];
    for (U8 const byte : option.value) {
      std::snprintf(digits, sizeof digits, "%02x:", byte);
      text += digits;
    }
    text.pop_back();
    told.push_back(text);
  }
  return told;
}

std::vector<OrderedJson> orderedListOf(OrderedJson const& value) {
  return value.is_array() ? value.get<std::vector<OrderedJson>>() : std::vector<OrderedJson>{value};
}

// tshark names an option by its text, so options that say the same are a list.
void tellOption(OrderedJson const& option, std::vector<std::string>& told) {
  auto const text = [&option](char const* field) { return option.value(field, "none"); };
  switch (std::stoi(text("pim.optiontype"))) {
    case 1:
      told.push_back("hold " + text("pim.holdtime"));
      break;
    case 2:
      told.push_back("delay " + text("pim.propagation_delay") + " override " + text("pim.override_interval") +
                     " tracking " + text("pim.t"));
      break;
    case 19:
      told.push_back("priority " + text("pim.dr_priority"));
      break;
    case 20:
      told.push_back("generation " + text("pim.generation_id"));
      break;
    case 24:
      for (auto const* field : {"pim.address_list", "pim.address_list_ip6"}) {
        auto const& list = option["Address List (24)"];
        if (!list.contains(field)) continue;
        for (auto const& address : orderedListOf(list[field]))
          told.push_back("address " + address.get<std::string>());
      }
      break;
    default:
      told.push_back("option " + text("pim.optiontype") + " " + text("pim.optionvalue"));
  }
}

std::vector<std::vector<std::string>> hellosToldByTshark(std::string const& path) {
  auto const outcome =
      run("tshark", {"-r", path, "-T", "json", "--no-duplicate-keys", "-Y", "pim.type == 0"});
  std::vector<std::vector<std::string>> packets;
  for (auto const& packet : OrderedJson::parse(outcome.out)) {
    auto const& layers = packet["_source"]["layers"];
    auto& told = packets.emplace_back();
    if (layers.contains("_ws.malformed")) told.push_back("malformed");
    if (layers["pim"].value("pim.cksum.status", "") != "1") told.push_back("bad checksum");
    if (!layers["pim"].contains("pim.option")) continue;
    for (auto const& options : layers["pim"]["pim.option"])
      for (auto const& option : orderedListOf(options)) tellOption(option, told);
  }
  return packets;
}

Wire::Hello randomHello(std::mt19937& random, bool ipv6) {
  auto const u16 = [&random] { return static_cast<U16>(random()); };
  Wire::Hello hello;
  if (random() % 8) hello.holdTimeIs(random() % 4 ? u16() : random() % 2 ? 0xffff : 0);
  if (random() % 2) {
    hello.lanPruneDelayIs(Wire::LanPruneDelay{
        random() % 2 == 0, static_cast<U16>(u16() & Wire::Hello::maxPropagationDelay), u16()});
  }
  if (random() % 2) hello.drPriorityIs(static_cast<U32>(random()));
  if (random() % 2) hello.generationIdIs(static_cast<U32>(random()));
  for (unsigned n = random() % 4; n; --n)
    hello.addressAdd(IpGenAddr((ipv6 ? "2001:db8::" : "10.0.1.") + std::to_string(1 + random() % 99)));
  // Numbers that tshark has no meaning for either.
  for (unsigned n = random() % 3; n; --n)
    hello.unknownOptionAdd(static_cast<U16>(1000 + 100 * n + random() % 100),
                           Bytes(1 + random() % 9, static_cast<U8>(random())));
  return hello;
}

TEST(HelloTsharkTest, TsharkReadsEveryOptionAsItWasWritten) {
  if (run("sh", {"-c", "command -v tshark"}).status != 0) GTEST_SKIP() << "tshark is not installed";
  std::mt19937 random(4392);
  std::vector<TimedFrame> frames;
  std::vector<std::vector<std::string>> sent;
  for (U64 n = 0; n < 200; ++n) {
    bool const ipv6 = random() % 2;
    IpGenAddr const from(ipv6 ? "fe80::14" : "10.0.0.14"), to = Wire::allPimRouters(from.af());
    auto const hello = randomHello(random, ipv6);
    frames.push_back({n * 1000, ethernetFrame(ipDatagram(from, to, Wire::pimProtocol,
                                                         Wire::encodeHello(hello, from, to)))});
    sent.push_back(optionsOf(hello));
  }
  TemporaryFolder const folder;
  EXPECT_EQ(hellosToldByTshark(writeCapture(folder, DLT_EN10MB, frames)), sent);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
