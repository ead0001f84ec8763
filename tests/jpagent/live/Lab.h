// SPDX-License-Identifier: Apache-2.0
// Network namespaces with cables between them, and agents that run there.
//
//     Lab lab({"one", "two"});
//     lab.cable("one", "va", "two", "vb");                       // up, without addresses
//     lab.in("one", "ip address add 10.0.0.1/24 dev va");
//     Agent agent(lab, "one", {"va"});
//     agent.await({{"event", "neighbor"}, {"state", "up"}});   // at most 10 s
//     EXPECT_TRUE(agent.ask("show neighbors")["ok"]);
//     EXPECT_EQ(agent.end(), 0);
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tests/Shell.h"

namespace Routing::Pim::Jpagent::Live {

using Json = nlohmann::ordered_json;
using Routing::Outcome;
using Routing::shell;

inline void pause(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

/// Why there can be no namespaces here, or nothing.
inline std::string const& noNamespaces() {
  static std::string const reason = [] {
    auto const tried = shell("unshare --user --map-root-user --net ip link add one type veth peer name two");
    return tried.status == 0 ? std::string() : "no network namespaces here: " + tried.output;
  }();
  return reason;
}

/// A process that was started without a shell, with pipes to it.
class Process {
 public:
  explicit Process(std::vector<std::string> const& words, bool withOutput = true) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("no pipes");
    std::vector<char*> arguments;
    for (auto const& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    process_ = fork();
    if (process_ == 0) {
      dup2(in[0], STDIN_FILENO);
      if (withOutput) dup2(out[1], STDOUT_FILENO);
      execvp(arguments[0], arguments.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  ~Process() {
    if (process_ > 0) signal(SIGKILL), wait();
    closeInput();
    closeOutput();
  }
  Process(Process const&) = delete;
  Process& operator=(Process const&) = delete;

  pid_t id() const { return process_; }
  void signal(int number) const { kill(process_, number); }
  void closeInput() {
    if (in_ >= 0) close(std::exchange(in_, -1));
  }
  void closeOutput() {
    if (out_ >= 0) close(std::exchange(out_, -1));
  }
  void write(std::string_view text) const {
    while (!text.empty()) {
      auto const written = ::write(in_, text.data(), text.size());
      if (written <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  // What is there within so many seconds; empty at the end of the output or if there is nothing.
  std::string read(double patience) const {
    pollfd ready{out_, POLLIN, 0};
    char bytes[64 << 10];
    if (poll(&ready, 1, static_cast<int>(patience * 1000)) <= 0) return "";
    auto const size = ::read(out_, bytes, sizeof bytes);
    return size > 0 ? std::string(bytes, static_cast<std::size_t>(size)) : "";
  }
  // The exit status, or minus the number of the signal.
  int wait() {
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t process_ = -1;
  int in_ = -1, out_ = -1;
};

/// Keeps the packets of all captures in a folder whose IP source fits a regular expression; tshark must
/// decode each of them at the end of the program.
void keepCaptures(std::string const& folder, std::string const& sources);

/// Namespaces, which end with this, and a folder. Captures in the folder are checked.
class Lab {
 public:
  /// `prepare` is what a shell does first in each of them.
  explicit Lab(std::vector<std::string> const& names, std::string const& prepare = "true") {
    std::string folder = std::filesystem::temp_directory_path() / "live-XXXXXX";
    if (!mkdtemp(folder.data())) throw std::runtime_error("no folder for the test");
    folder_ = folder;
    for (auto const& name : names) spaceIs(name, "ip link set lo up && " + prepare + " && exec cat");
  }
  ~Lab() {
    spaces_.clear();
    keepCaptures(folder_, agents_);
    std::filesystem::remove_all(folder_);
  }

  std::string path(std::string const& name) const { return folder_ + "/" + name; }
  /// Of a file that is not there yet.
  std::string newPath(std::string const& name) const {
    static int number = 0;
    return path(name + std::to_string(++number));
  }
  /// The addresses of agents, as a regular expression; what others send may be broken.
  void agentsAre(std::string const& addresses) { agents_ = addresses; }
  /// Of a process in the namespace.
  pid_t idOf(std::string const& name) const { return spaces_.at(name)->id(); }
  std::string text(std::string const& name) const { return shell("cat " + path(name)).output; }

  std::vector<std::string> entering(std::string const& name) const {
    auto const process = std::to_string(spaces_.at(name)->id());
    return {"nsenter", "--target", process, "--user", "--net", "--preserve-credentials", "--"};
  }
  // Has a shell perform commands there.
  Outcome in(std::string const& name, std::string const& script) const {
    std::string command;
    for (auto const& word : entering(name)) command += word + " ";
    auto const outcome = shell(command + "sh -e <<'SCRIPT'\n" + script + "\nSCRIPT");
    EXPECT_EQ(outcome.status, 0) << script << '\n' << outcome.output;
    return outcome;
  }
  /// What "ip" takes to make a cable to an interface of another namespace. The ends have different indexes:
  /// the kernel takes one with the index of its other end for a link of its own, of whose carrier it tells
  /// only once a second.
  std::string newCable(std::string const& a, std::string const& two, std::string const& b) const {
    static int index = 1000;
    index += 2;
    return "link add " + a + " index " + std::to_string(index) + " type veth peer name " + b + " index " +
           std::to_string(index + 1) + " netns " + std::to_string(idOf(two));
  }
  /// Between two interfaces, whose addresses may follow.
  void cable(std::string const& one, std::string const& a, std::string const& two, std::string const& b,
             std::string const& addressOfA = "", std::string const& addressOfB = "") const {
    auto const up = [](std::string const& intf, std::string const& address) {
      return (address.empty() ? "" : "ip address add " + address + " dev " + intf + "\n") + "ip link set " +
             intf + " up";
    };
    in(one, "ip " + newCable(a, two, b) + "\n" + up(a, addressOfA));
    in(two, up(b, addressOfB));
  }

 private:
  // The first has a user namespace of its own, in which the others are.
  void spaceIs(std::string const& name, std::string const& script) {
    std::vector<std::string> words;
    if (first_.empty()) {
      first_ = name;
      words = {"unshare", "--user", "--map-root-user", "--net", "sh", "-c", script};
    } else {
      words = entering(first_);
      words.insert(words.end(), {"unshare", "--net", "sh", "-c", script});
    }
    spaces_[name] = std::make_unique<Process>(words);
    // In the end the process is "cat", which waits for the end of this.
    auto const isReady = [id = idOf(name)] {
      std::string program;
      std::ifstream file("/proc/" + std::to_string(id) + "/comm");
      return std::getline(file, program) && program == "cat";
    };
    for (int i = 0; i < 1000 && !isReady(); ++i) pause(0.005);
    if (!isReady()) throw std::runtime_error("no namespace after " + script);
  }

  std::string folder_, first_, agents_ = ".*";
  std::map<std::string, std::unique_ptr<Process>> spaces_;
};

/// `jpagent run --json` in a namespace.
class Agent {
 public:
  Agent(Lab const& lab, std::string const& space, std::vector<std::string> const& arguments)
      : process_(wordsOf(lab, space, arguments)) {}
  /// By a command that has it run in the end.
  explicit Agent(std::vector<std::string> const& words) : process_(words) {}

  Process& process() { return process_; }
  void say(std::string const& line) { process_.write(line + "\n"); }

  /// The reply to a command, or null after 10 s.
  Json ask(std::string const& command) {
    auto const begin = events_.size();
    say(command);
    return await({{"event", "reply"}, {"command", command}}, begin);
  }
  /// The first event, from number `begin` on, that has these members, or null after 10 s.
  Json await(Json const& members, std::size_t begin = 0, double patience = 10) {
    if (hasMissed_) patience = 0.2;  // the test has failed, and is to end soon
    auto const until = std::chrono::steady_clock::now() + std::chrono::duration<double>(patience);
    for (std::size_t at = begin;; ++at) {
      while (at >= events_.size()) {
        if (std::chrono::steady_clock::now() >= until || isAtEnd_) {
          hasMissed_ = true;
          ADD_FAILURE() << "no event " << members << " among:\n" << allText();
          return nullptr;
        }
        take(0.05);
      }
      if (has(events_[at], members)) return events_[at];
    }
  }
  /// How many events have these members, of those that have come so far.
  int count(Json const& members) {
    take(0);
    return static_cast<int>(std::count_if(events_.begin(), events_.end(),
                                          [&](Json const& event) { return has(event, members); }));
  }
  std::size_t eventCount() {
    take(0);
    return events_.size();
  }
  std::vector<Json> const& events() const { return events_; }
  /// What it wrote that is no JSON.
  std::string const& other() const { return other_; }

  /// Ends it as SIGTERM does, and returns the exit status.
  int end() {
    process_.signal(SIGTERM);
    return wait();
  }
  int wait() {
    while (!isAtEnd_) take(1);
    return process_.wait();
  }
  /// Everything that it has written.
  std::string const& text() const { return text_; }
  std::string allText() const {
    std::string text = other_;
    for (auto const& event : events_) text += event.dump() + "\n";
    return text;
  }

 private:
  static std::vector<std::string> wordsOf(Lab const& lab, std::string const& space,
                                          std::vector<std::string> const& arguments) {
    auto words = lab.entering(space);
    words.insert(words.end(), {JPAGENT, "run", "--json"});
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }
  static bool has(Json const& event, Json const& members) {
    for (auto const& [key, value] : members.items())
      if (!event.contains(key) || event[key] != value) return false;
    return true;
  }
  void take(double patience) {
    for (auto bytes = process_.read(patience); !bytes.empty(); bytes = process_.read(0)) rest_ += bytes;
    std::size_t begin = 0;
    for (auto at = rest_.find('\n'); at != rest_.npos; at = rest_.find('\n', begin)) {
      auto const line = rest_.substr(begin, at - begin);
      begin = at + 1;
      text_ += line + "\n";
      auto event = Json::parse(line, nullptr, false);
      if (event.is_object())
        events_.push_back(std::move(event));
      else
        other_ += line + "\n";
    }
    rest_.erase(0, begin);
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(process_.id()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        info.si_pid != 0 && process_.read(0).empty())
      isAtEnd_ = true;
  }

  Process process_;
  std::string rest_, other_, text_;
  std::vector<Json> events_;
  bool isAtEnd_ = false, hasMissed_ = false;
};

}  // namespace Routing::Pim::Jpagent::Live
