// SPDX-License-Identifier: Apache-2.0
// Progress on a terminal, and Ctrl-C there.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "jpagent/capture/Capture.h"
#include "tests/Thorough.h"

namespace Routing::Pim::Jpagent {
namespace {

using testing::HasSubstr;

// A folder, and commands there whose standard error is a terminal and whose standard output is a file.
class ProgressTest : public testing::Test {
 protected:
  ProgressTest() {
    folder_ = std::filesystem::temp_directory_path() / "progress-XXXXXX";
    if (!mkdtemp(folder_.data())) throw std::runtime_error("no folder for the test");
  }
  ~ProgressTest() override { std::filesystem::remove_all(folder_); }

  std::string path(std::string const& name) const { return folder_ + "/" + name; }

  // Ctrl-C is typed once this is on the terminal, or when nothing has come for half a minute.
  void onTerminal(std::vector<std::string> words, std::string const& typedAt = "") {
    std::vector<char*> arguments;
    for (auto& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    auto const output = path("output");
    int terminal = -1;
    pid_t const process = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (process == 0) {
      std::signal(SIGINT, SIG_DFL);
      dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    bool hasTyped = typedAt.empty();
    char bytes[4096];
    for (;;) {
      pollfd ready{terminal, POLLIN, 0};
      bool const isQuiet = poll(&ready, 1, 30'000) == 0;
      if (!isQuiet) {
        ssize_t const size = read(terminal, bytes, sizeof bytes);
        if (size <= 0) break;  // EIO at the end
        screen_.append(bytes, static_cast<std::size_t>(size));
      }
      if (!isQuiet && (hasTyped || screen_.find(typedAt) == screen_.npos)) continue;
      hasTyped = write(terminal, "\003", 1) == 1;
    }
    close(terminal);
    int status = 0;
    waitpid(process, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    std::ostringstream text;
    text << std::ifstream(output).rdbuf();
    output_ = text.str();
  }

  // It has shown how far it was, and ended with whole lines of output.
  void expectInterrupted(std::string const& progress) const {
    EXPECT_EQ(status_, 2) << screen_;
    EXPECT_THAT(screen_, HasSubstr(progress));
    EXPECT_FALSE(output_.empty());
    EXPECT_THAT(output_, testing::EndsWith("\n"));
  }

  // A conversation that takes seconds.
  void writeConversation() const {
    std::ofstream file(path("story"));
    file << "# A story.\ninterface eth0 10.0.0.1/24\nneighbor 10.0.0.2 on eth0\nstart\n";
    for (int i = 0; i < 60'000; ++i)
      file << "triggered 10.0.0.2 join (10.9.0." << 1 + i % 200 << ",239.1.1.1)\nwait 1\n";
  }
  void writeCapture() const {
    CaptureWriter capture(path("pcap"));
    std::vector<U8> frame(60);
    for (U64 i = 0; i < 3'000'000; ++i) capture.frameAdd(i, frame);
    capture.close();
  }

  std::string folder_, screen_, output_;
  int status_ = 0;
};

TEST_F(ProgressTest, CtrlCEndsAReplayAfterAFrameWithItsTotals) {
  writeCapture();
  onTerminal({JPAGENT, "replay", path("pcap")}, " a second");
  expectInterrupted("replay: ");
  EXPECT_THAT(screen_, HasSubstr(" s left"));
  EXPECT_THAT(screen_, HasSubstr("\r\033[K"));
  EXPECT_THAT(screen_, HasSubstr("interrupted after frame "));
}

TEST_F(ProgressTest, CtrlCEndsASimulationAfterWholeLines) {
  writeConversation();
  onTerminal({JPAGENT, "simulate", path("story")}, " a second");
  expectInterrupted("simulate: ");
  EXPECT_THAT(screen_, HasSubstr(": interrupted"));
}

TEST_F(ProgressTest, TheStartOfRunWithManyRoutesShowsHowFarItIs) {
  // As many as take longer than the time after which progress is shown; scripts/prove has a faster build.
  int const routes = thorough() ? 60'000 : 3'000;
  {
    std::ofstream file(path("toml"));
    file << "[interface.nowhere]\n";
    for (int i = 0; i < routes; ++i)
      file << "[[route]]\njoin = \"(10.9.0.1,239.1." << i / 256 << "." << i % 256
           << ")\"\nvia = \"10.0.0.2%nowhere\"\n";
  }
  onTerminal({JPAGENT, "run", "--check", path("toml")});
  EXPECT_EQ(status_, 0) << screen_;
  EXPECT_THAT(screen_, HasSubstr("run: checking the configuration: "));
  EXPECT_THAT(screen_, testing::EndsWith("\r\033[K"));
  // Without a terminal there is nothing on standard error.
  auto const command = std::string(JPAGENT) + " run --check " + path("toml") + " 2>" + path("error");
  EXPECT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(std::filesystem::file_size(path("error")), 0u);

  std::vector<std::string> words = {"unshare", "--user", "--map-root-user", "--net"};
  if (std::system("unshare --user --map-root-user --net true") != 0) GTEST_SKIP() << "no namespaces here";
  words.insert(words.end(), {JPAGENT, "run", "--config", path("toml")});
  onTerminal(words, "run: routes of the configuration: ");
  EXPECT_EQ(status_, 0) << screen_;  // quits once it has started
  EXPECT_THAT(screen_, HasSubstr(" of " + std::to_string(routes) + ", "));
}

TEST_F(ProgressTest, WhatIsDoneAtOnceAndWhatHasNoTerminalShowsNone) {
  std::ofstream(path("story")) << "# A story.\ninterface eth0 10.0.0.1/24\nstart\nwait 1\n";
  onTerminal({JPAGENT, "simulate", path("story")});
  EXPECT_EQ(screen_, "");
  EXPECT_EQ(status_, 0);
  writeCapture();
  auto const command =
      std::string(JPAGENT) + " replay " + path("pcap") + " 2>" + path("error") + " >" + path("output");
  EXPECT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(std::filesystem::file_size(path("error")), 0u);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
