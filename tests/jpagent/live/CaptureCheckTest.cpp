// SPDX-License-Identifier: Apache-2.0
// The check by tshark of what agents sent in the tests of this program.
#include <gmock/gmock.h>
#include <pcap/pcap.h>

#include <filesystem>
#include <regex>

#include "jpagent/capture/FrameBuilder.h"
#include "pim/wire/Hello.h"
#include "tests/jpagent/Support.h"
#include "tests/jpagent/live/Lab.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

using Dova::IpGenAddr;
using Jpagent::Test::TimedFrame;

constexpr int rawIp = 101;  // what jpagent writes; libpcap has another number for it in memory

std::vector<TimedFrame>& kept() {
  static std::vector<TimedFrame> frames;
  return frames;
}

std::string sourceOf(Jpagent::Test::Bytes const& packet) {
  bool const isIpv4 = packet[0] >> 4 == 4;
  std::span<Vel::U8 const> const bytes(packet);
  return toText(IpGenAddr::fromBytes(isIpv4 ? bytes.subspan(12, 4) : bytes.subspan(8, 16)));
}

bool isCapture(std::string const& path) {
  constexpr std::string_view magic = "\xd4\xc3\xb2\xa1";
  return Jpagent::Test::readText(path).starts_with(magic);
}

// What tshark finds to be wrong in these packets, a line for each; nothing without tshark.
std::string complaints(std::vector<TimedFrame> const& frames) {
  if (shell("command -v tshark").status != 0) return "";
  Jpagent::Test::TemporaryFolder const folder;
  auto const path = Jpagent::Test::writeCapture(folder, DLT_RAW, frames);
  auto const decoded =
      shell("tshark -r " + path +
            " -o ip.check_checksum:TRUE -T fields -E separator=, -e ip.ttl -e ipv6.hlim -e ip.dsfield "
            "-e ip.checksum.status -e pim.cksum.status -e frame.protocols -e _ws.expert.message 2>/dev/null");
  static std::regex const good("1,,0xc0,1,1,raw:ip:pim,|,1,,,1,raw:ipv6:pim,");
  std::istringstream lines(decoded.output);
  std::string wrong;
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count)
    if (!std::regex_match(line, good)) wrong += line + '\n';
  if (count != frames.size()) wrong += std::to_string(count) + " packets were decoded\n" + decoded.output;
  return wrong;
}

class CaptureCheck final : public testing::Environment {
 public:
  void TearDown() override {
    if (kept().empty()) return;
    EXPECT_EQ(complaints(kept()), "");
  }
};

auto* const captureCheck = testing::AddGlobalTestEnvironment(new CaptureCheck);

}  // namespace

void keepCaptures(std::string const& folder, std::string const& sources) {
  std::regex const isAgent(sources);
  for (auto const& file : std::filesystem::directory_iterator(folder)) {
    if (!file.is_regular_file() || !isCapture(file.path())) continue;
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const capture = pcap_open_offline(file.path().c_str(), error);
    ASSERT_TRUE(capture) << error;
    EXPECT_THAT(pcap_datalink(capture), testing::AnyOf(DLT_RAW, rawIp));
    pcap_pkthdr* header;
    u_char const* bytes;
    while (pcap_next_ex(capture, &header, &bytes) == 1) {
      TimedFrame frame{.bytes = {bytes, bytes + header->caplen}};
      if (std::regex_match(sourceOf(frame.bytes), isAgent)) kept().push_back(std::move(frame));
    }
    pcap_close(capture);
  }
}

TEST(CaptureCheckTest, APacketThatIsNotInOrderIsFound) {
  if (shell("command -v tshark").status != 0) GTEST_SKIP() << "tshark is not installed";
  IpGenAddr const from("10.0.0.1"), to("224.0.0.13");
  auto const datagram = [&](Jpagent::Test::Bytes const& message) {
    return TimedFrame{.bytes = ipDatagram(from, to, Wire::pimProtocol, message)};
  };
  Wire::Hello hello;
  hello.holdTimeIs(105);
  auto const good = Wire::encodeHello(hello, from, to);
  auto badChecksum = good, badOption = good;
  badChecksum[3] ^= 1;
  badOption[7] = 9;  // longer than what there is
  auto badTtl = datagram(good);
  badTtl.bytes[8] = 2;
  auto const badHello = datagram(Jpagent::Test::withChecksum(badOption, from, to));
  auto const found = complaints({datagram(good), datagram(badChecksum), datagram(good), badHello, badTtl});
  EXPECT_EQ(Jpagent::Test::lines(found).size(), 3u) << found;
}

}  // namespace Routing::Pim::Jpagent::Live
