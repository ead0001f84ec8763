// SPDX-License-Identifier: Apache-2.0
// examples/small_speaker.cpp, two of it, in network namespaces that a cable connects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "tests/Shell.h"

namespace {

using Routing::Outcome;
using Routing::shell;
using testing::HasSubstr;

// A folder that ends with the test.
struct Folder {
  Folder() {
    std::string name = std::filesystem::temp_directory_path() / "small-speaker-XXXXXX";
    if (!mkdtemp(name.data())) throw std::runtime_error("no folder for the test");
    path = name;
  }
  ~Folder() { std::filesystem::remove_all(path); }

  std::string text(char const* file) const {
    std::ostringstream all;
    all << std::ifstream(path + "/" + file).rdbuf();
    return all.str();
  }
  std::string path;
};

// The start of a script in two namespaces with a cable: its end "one" is here, "two" where in_second runs
// commands. `await FILE TEXT` waits at most 10 s.
std::string const namespaces = R"--(
  set -e
  await() {
    for i in $(seq 200); do grep -qF "$2" "$1" 2>/dev/null && return; sleep 0.05; done
    echo "no \"$2\" in $1:"; cat "$1"; exit 1
  }
  unshare --net sleep 60 & second=$!
  trap 'kill $second $capture' EXIT
  for i in $(seq 100); do
    test "$(readlink /proc/$second/ns/net)" != "$(readlink /proc/self/ns/net)" && break; sleep 0.05
  done
  in_second() { nsenter --target $second --net "$@"; }
  ip link add one type veth peer name two
  ip link set two netns $second
  ip address add 10.0.0.1/24 dev one; ip link set one up
  in_second ip address add 10.0.0.2/24 dev two; in_second ip link set two up
)--";

char const* const enter = "unshare --user --map-root-user --net ";

Outcome inNamespaces(Folder const& folder, std::string const& script) {
  std::ofstream(folder.path + "/script") << namespaces << "  cd " << folder.path << '\n' << script;
  return shell(enter + ("bash " + folder.path + "/script"));
}

TEST(SmallSpeakerTest, OneOfTwoJoinsFromTheOtherAndBothSayGoodbye) {
  if (Outcome const tried = shell(enter + std::string("ip link add one type veth")); tried.status != 0)
    GTEST_SKIP() << "no network namespaces here: " << tried.output;
  Folder const folder;

  bool const hasTshark = shell("command -v tshark dumpcap >/dev/null").status == 0;
  std::string const capture = R"--(
    dumpcap -q -i one -w packets 2>dumpcap.out & capture=$!
    await dumpcap.out File:
  )--";
  Outcome const run = inNamespaces(folder, (hasTshark ? capture : "") + R"--(
    mkfifo hold_first hold_second
    )--" SMALL_SPEAKER R"--( one 10.0.0.1/24 <hold_first >first 2>&1 & first_speaker=$!
    in_second )--" SMALL_SPEAKER R"--( two 10.0.0.2/24 10.9.0.1 239.1.1.1 10.0.0.1 <hold_second >second 2>&1 &
    second_speaker=$!
    exec 8>hold_first 9>hold_second
    await first '(10.9.0.1,239.1.1.1) joined by 10.0.0.2'
    await second 'neighbor 10.0.0.1 up'
    exec 9>&-
    wait $second_speaker
    await first 'neighbor 10.0.0.2 goodbye'
    exec 8>&-
    wait $first_speaker
  )--" + (hasTshark ? "sleep 0.5; kill -INT $capture; wait $capture || true\n" : ""));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_THAT(folder.text("first"), HasSubstr("neighbor 10.0.0.2 up\n"));
  EXPECT_THAT(folder.text("first"), HasSubstr("(10.9.0.1,239.1.1.1) joined by 10.0.0.2\n"));
  if (!hasTshark) return;

  // What tshark makes of the packets: a line for each, with its complaints.
  Outcome const decoded = shell("tshark -r " + folder.path +
                                "/packets -Y pim -T fields -e ip.src -e ip.dst -e ip.ttl -e pim.type "
                                "-e pim.cksum.status -e _ws.malformed -e _ws.expert.message 2>/dev/null");
  ASSERT_EQ(decoded.status, 0) << decoded.output;
  int hellos = 0, joins = 0;
  std::istringstream lines(decoded.output);
  for (std::string line; std::getline(lines, line);) {
    std::smatch fields;
    ASSERT_TRUE(std::regex_match(line, fields, std::regex("10.0.0.[12]\t224.0.0.13\t1\t([03])\t1\t\t")))
        << line;
    ++(fields[1] == "0" ? hellos : joins);
  }
  EXPECT_GE(hellos, 4) << decoded.output;  // two that come first, two goodbyes
  EXPECT_GE(joins, 1) << decoded.output;
}

TEST(SmallSpeakerTest, WhatItCannotDoItSays) {
  Outcome const run = shell(SMALL_SPEAKER " no-such-intf 10.0.0.1/24 </dev/null");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, HasSubstr("small_speaker: PIM socket on no-such-intf: "));
  EXPECT_THAT(shell(SMALL_SPEAKER " one 10.0.0.300/24 </dev/null").output, HasSubstr("10.0.0.300"));
  EXPECT_THAT(shell(SMALL_SPEAKER).output, HasSubstr("INTERFACE ADDRESS/LENGTH"));
}

TEST(SmallSpeakerTest, ItIsOnePage) {
  std::ifstream source(SMALL_SPEAKER_SOURCE);
  ASSERT_TRUE(source);
  int lines = 0;
  std::regex const blankOrComment("\\s*(//.*)?");
  for (std::string line; std::getline(source, line);) lines += !std::regex_match(line, blankOrComment);
  EXPECT_GT(lines, 30);
  EXPECT_LE(lines, 60);
}

}  // namespace
