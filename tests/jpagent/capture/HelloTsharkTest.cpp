// SPDX-License-Identifier: Apache-2.0
// What tshark reads in our Hellos, option by option.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "jpagent/capture/FrameBuilder.h"
#include "tests/jpagent/TsharkPackets.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;

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
  if (!hasTshark()) GTEST_SKIP() << "tshark is not installed";
  std::mt19937 random(4392);
  std::vector<TimedFrame> frames;
  std::vector<Fields> sent;
  for (U64 n = 0; n < 200; ++n) {
    bool const ipv6 = random() % 2;
    IpGenAddr const from(ipv6 ? "fe80::14" : "10.0.0.14"), to = Wire::allPimRouters(from.af());
    auto const hello = randomHello(random, ipv6);
    frames.push_back({n * 1000, ethernetFrame(ipDatagram(from, to, Wire::pimProtocol,
                                                         Wire::encodeHello(hello, from, to)))});
    sent.push_back(fieldsOf(from, to, hello));
  }
  TemporaryFolder const folder;
  EXPECT_EQ(readByTshark(writeCapture(folder, DLT_EN10MB, frames)), sent);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
