// SPDX-License-Identifier: Apache-2.0
// The cases of Hellos, neighbors and messages that are refused, and the run of all cases.
#include "tests/jpagent/live/FakeLab.h"

namespace Routing::Pim::Jpagent::Live::Test {
namespace {

Hellos with(U16 hold, U32 generation = 1) {
  auto said = FakeLan::usual();
  said.hold = hold;
  said.generation = generation;
  return said;
}

// Where the fields of a Join/Prune of one (S,G) join are, behind the PIM header.
struct Places {
  explicit Places(FakeLan const& lan) : address(lan.isIpv4() ? 4 : 16) {}
  std::size_t const address;
  std::size_t upstreamFamily = 4, upstreamEncoding = 5;
  std::size_t groups() const { return 4 + 2 + address + 1; }
  std::size_t group() const { return groups() + 3; }  // family, encoding, flags, mask length, address
  std::size_t groupMask() const { return group() + 3; }
  std::size_t joins() const { return group() + 4 + address + 1; }
  std::size_t source() const { return joins() + 3; }
  std::size_t sourceFlags() const { return source() + 2; }
  std::size_t sourceMask() const { return source() + 3; }
};

// A message of two groups, the second of which is changed in one place, is refused whole.
FakeCase refusedWhole(std::string const& what, std::string const& reason,
                      std::function<std::size_t(Places const&)> const& place, U8 byte) {
  return {what + " is refused with all of its message", [=](FakeLan& lan) {
            lan.hello('B');
            Places const places(lan);
            lan.packet('B', lan.changed('B', lan.message("B", "join (S,G)"), place(places), byte));
            lan.refused(reason);
            lan.quiet(0.2);
            lan.equal(lan.show("downstream").size(), 0u);
          }};
}

}  // namespace

std::vector<FakeCase> helloCases() {
  return {
      {"The first Hello has all options and hold times follow their periods",
       [](FakeLan& lan) {
         auto const& first = lan.latestHello();
         lan.equal(first.holdTime().value_or(0), 105);
         lan.equal(first.generationId().has_value(), true);
         lan.equal(first.drPriority().value_or(0), 1u);
         lan.equal(first.lanPruneDelay()->overrideInterval, 400);
         lan.equal(first.lanPruneDelay()->propagationDelay, 100);
         lan.equal(first.lanPruneDelay()->tracking, false);
         lan.say("interface I hello 0.4");
         for (int i = 0; i < 3; ++i) lan.equal(lan.next(), "hello");
         lan.equal(lan.latestHello().holdTime().value_or(0), 1);
       }},
      {"A new neighbor and one that restarts are answered, and one that is heard again is not",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.equal(lan.next(), "hello");
         lan.neighbor("up B");
         lan.hello('B', with(105, 2));
         lan.equal(lan.next(), "hello");
         lan.neighbor("restarted B");
         lan.hello('B', with(105, 2));
         lan.packet('B', lan.changed('B', lan.message("B", "join (S,G)"), 0, 0x24));  // of no meaning
         lan.quiet(0.3);
         lan.equal(lan.show("neighbors").size(), 1u);
       }},
      {"An answer comes within Triggered_Hello_Delay and no later than the next Hello",
       [](FakeLan& lan) {
         lan.say("interface I hello-delay 0.5");
         lan.hello('B');
         lan.equal(lan.next(), "hello");
         lan.hello('C');
         lan.equal(lan.next(), "hello");
       }},
      {"Other settings are announced at once",
       [](FakeLan& lan) {
         lan.say("interface I priority 7 tracking on override 0.5 hello-hold 60");
         lan.equal(lan.next(), "hello");
         lan.equal(lan.latestHello().drPriority().value_or(0), 7u);
         lan.equal(lan.latestHello().lanPruneDelay()->tracking, true);
         lan.equal(lan.latestHello().holdTime().value_or(0), 60);
       }},
      {"Down is a goodbye and up a Hello with another generation ID",
       [](FakeLan& lan) {
         auto const generation = lan.latestHello().generationId();
         lan.hello('B');
         lan.equal(lan.next(), "hello");
         lan.say("interface I down");
         lan.equal(lan.next(), "goodbye");
         lan.neighbor("up B");
         lan.neighbor("down B");
         lan.say("interface I up");
         lan.equal(lan.next(), "hello");
         lan.equal(lan.latestHello().generationId() == generation, false);
         lan.equal(lan.show("neighbors").size(), 0u);
       }},
      {"A neighbor without option 1 has 105 s, and null is shown for what it did not send",
       [](FakeLan& lan) {
         lan.hello('B', {});
         auto const up = lan.neighbor("up B");
         lan.equal(up["hold"], 105);
         lan.equal(up["generation"], nullptr);
         lan.equal(up["dr_priority"], nullptr);
       }},
      {"Hold time 0 ends a neighbor, which has its last values, and that of a stranger is nothing",
       [](FakeLan& lan) {
         lan.hello('B', with(77));
         lan.neighbor("up B");
         lan.hello('C', {.hold = 0});
         lan.hello('B', {.hold = 0});
         lan.equal(lan.neighbor("down B")["hold"], 77);
         lan.equal(lan.show("neighbors").size(), 0u);
       }},
      {"A neighbor expires with its hold time",
       [](FakeLan& lan) {
         lan.hello('B', with(1));
         lan.neighbor("up B");
         lan.equal(lan.neighbor("expired B")["generation"], 1);
       }},
      {"A neighbor with hold time 65535 never expires",
       [](FakeLan& lan) {
         lan.hello('B', with(65535));
         lan.neighbor("up B");
         lan.equal(lan.shown("neighbors", "expires"), nullptr);
       }},
      {"The options of the latest Hello count, and one that it lacks is as never sent",
       [](FakeLan& lan) {
         auto said = FakeLan::usual();
         said.priority = 9;
         said.addresses = {"E"};
         lan.hello('B', said);
         lan.neighbor("up B");
         lan.equal(lan.shown("neighbors", "addresses").size(), 1u);
         lan.hello('B');
         lan.quiet(0.2);
         lan.equal(lan.shown("neighbors", "dr_priority"), nullptr);
         lan.equal(lan.shown("neighbors", "addresses").size(), 0u);
       }},
      {"An unknown option is passed over",
       [](FakeLan& lan) {
         auto hello = helloOf(IpGenAddr(lan.address('B')), FakeLan::usual());
         for (U8 const byte : {0x10, 0x92, 0, 3, 1, 2, 3}) hello.push_back(byte);
         lan.packet('B', lan.changed('B', hello, 1, 0));
         lan.neighbor("up B");
       }},
      {"The highest address is designated where a neighbor sends no priority, else the highest priority",
       [](FakeLan& lan) {
         auto said = FakeLan::usual();
         said.priority = 1;
         lan.hello('B', said);
         lan.neighbor("up B");
         lan.equal(lan.shown("interfaces", "dr"), lan.address('B'));
         lan.say("interface I priority 5");
         lan.equal(lan.shown("interfaces", "dr"), lan.address('A'));
         lan.hello('C');
         lan.neighbor("up C");
         lan.equal(lan.shown("interfaces", "dr"), lan.address('C'));
       }},
      {"The effective delays are the largest, and the defaults if a neighbor sends none",
       [](FakeLan& lan) {
         auto said = FakeLan::usual();
         said.delay = {.tracking = false, .propagationDelay = 300, .overrideInterval = 1700};
         lan.hello('B', said);
         lan.hello('C');
         lan.neighbor("up B");
         lan.neighbor("up C");
         lan.equal(lan.shown("interfaces", "effective_override"), 1.7);
         lan.equal(lan.shown("interfaces", "effective_propagation"), 0.3);
         said.delay = {};
         lan.hello('D', said);
         lan.neighbor("up D");
         lan.equal(lan.shown("interfaces", "effective_override"), 2.5);
         lan.equal(lan.shown("interfaces", "effective_propagation"), 0.5);
       }},
      {"A hold time of zero seconds becomes one",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.say("interface I hold 0 hello-hold 0.4");
         lan.equal(lan.shown("interfaces", "hold"), 1);
         lan.equal(lan.shown("interfaces", "hello_hold"), 1);
         lan.say("join (S,G) via B%I");
         lan.sends("B: join (S,G) hold 1");
       }},

      // --- What is refused

      {"A Join/Prune of a router that has sent no Hello is refused",
       [](FakeLan& lan) {
         lan.send("B", "join (S,G)");
         lan.refused("not from a neighbor");
         lan.hello('B', with(1));
         lan.neighbor("up B");
         lan.neighbor("expired B");
         lan.send("B", "join (S,G)");
         lan.refused("not from a neighbor");
         lan.quiet(0.2);
       }},
      {"A TTL or hop limit other than 1 is refused",
       [](FakeLan& lan) {
         lan.hello('B');
         lan.packet('B', lan.message("B", "join (S,G)"), 2);
         lan.refused("TTL or hop limit not 1 (2)");
         lan.packet('C', helloOf(IpGenAddr(lan.address('C')), {}), 64);
         lan.refused("TTL or hop limit not 1 (64)");
         lan.equal(lan.show("neighbors").size(), 1u);
       }},
      {"Another destination than all PIM routers is refused",
       [](FakeLan& lan) {
         IpGenAddr const own(lan.address('A')), from(lan.address('B'));
         auto hello = Wire::encodeHello(Wire::Hello(), from, own);
         lan.packet('B', own, hello);
         lan.refused("destination not ALL-PIM-ROUTERS");
       }},
      {"A wrong checksum is refused",
       [](FakeLan& lan) {
         lan.hello('B');
         auto message = lan.message("B", "join (S,G)");
         message[2] ^= 1;
         lan.packet('B', message);
         lan.refused("bad checksum");
         auto hello = helloOf(IpGenAddr(lan.address('C')), {});
         hello[3] ^= 1;
         lan.packet('C', hello);
         lan.refused("bad checksum");
         lan.quiet(0.2);
       }},
      {"A packet from the own address is a warning and no neighbor",
       [](FakeLan& lan) {
         lan.hello('A');
         auto const text = lan.event("warning")["reason"].get<std::string>();
         lan.equal(text.find("own") != text.npos, true);
         lan.equal(lan.show("neighbors").size(), 0u);
       }},
      {"Of refused messages ten a second are told, and how many were left out",
       [](FakeLan& lan) {
         lan.hello('B');
         auto message = lan.message("B", "join (S,G)");
         message[2] ^= 1;
         for (int i = 0; i < 25; ++i) lan.packet('B', message);
         for (int i = 0; i < 10; ++i) lan.refused("bad checksum");
         pause(1.2);
         lan.packet('B', message);
         auto const next = lan.event("refused");
         lan.equal(next.value("left_out", 0), 15);
       }},
      {"An option of a wrong length is refused",
       [](FakeLan& lan) {
         auto hello = helloOf(IpGenAddr(lan.address('B')), {.hold = 105});
         lan.packet('B', lan.changed('B', hello, 7, 1));
         lan.refused("");
         lan.equal(lan.show("neighbors").size(), 0u);
       }},
      {"Bytes that are cut off are refused",
       [](FakeLan& lan) {
         lan.hello('B');
         auto message = lan.message("B", "join (S,G)");
         message.resize(message.size() - 3);
         lan.packet('B', lan.changed('B', message, 1, 0));
         lan.event("refused");
         lan.quiet(0.2);
       }},
      refusedWhole(
          "A mask length of a group that is not full", "group mask length not full",
          [](Places const& at) { return at.groupMask(); }, 24),
      refusedWhole(
          "A mask length of a source that is not full", "source mask length not full",
          [](Places const& at) { return at.sourceMask(); }, 24),
      refusedWhole(
          "A mask length that is too long", "mask length over the address width",
          [](Places const& at) { return at.sourceMask(); }, 200),
      refusedWhole(
          "A group that is no multicast address", "group not multicast",
          [](Places const& at) { return at.group() + 4; }, 10),
      {"A source that is multicast or unspecified is refused with all of its message",
       [](FakeLan& lan) {
         lan.hello('B');
         Places const places(lan);
         auto const message = lan.message("B", "join (S,G)");
         lan.packet('B', lan.changed('B', message, places.source() + 4,
                                     static_cast<U8>(lan.isIpv4() ? 0xe8 : 0xff)));
         lan.refused("source not unicast");
         auto zeros = message;
         std::fill_n(zeros.begin() + static_cast<long>(places.source() + 4), places.address, U8{0});
         lan.packet('B', lan.changed('B', zeros, 1, 0));
         lan.refused("source not unicast");
         lan.quiet(0.2);
       }},
      refusedWhole(
          "An unknown address family", "unknown address family", [](Places const& at) { return at.group(); },
          3),
      refusedWhole(
          "Another family than that of the packet", "", [](Places const& at) { return at.source(); }, 9),
      refusedWhole(
          "An unknown encoding", "unknown encoding type", [](Places const& at) { return at.group() + 1; }, 1),
      refusedWhole(
          "An unknown encoding of the upstream neighbor", "unknown encoding type",
          [](Places const& at) { return at.upstreamEncoding; }, 1),
      refusedWhole(
          "A count of groups beyond the packet", "", [](Places const& at) { return at.groups(); }, 2),
      refusedWhole(
          "A count of joins beyond the packet", "wrong count", [](Places const& at) { return at.joins(); },
          200),
      refusedWhole(
          "The wildcard bit without the RPT bit", "wildcard without the RPT bit",
          [](Places const& at) { return at.sourceFlags(); }, 6),
  };
}

// All at once: most of their time they wait.
TEST(FakeNeighborTest, EachRuleHoldsInBothFamiliesByPacketsAlone) {
  if (!noNamespaces().empty()) GTEST_SKIP() << noNamespaces();
  auto cases = helloCases();
  for (auto const& more : {upstreamCases(), downstreamCases()})
    cases.insert(cases.end(), more.begin(), more.end());
  runCases(cases);
}

}  // namespace Routing::Pim::Jpagent::Live::Test
