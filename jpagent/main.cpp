// SPDX-License-Identifier: Apache-2.0
// jpagent, the reference agent: reads the command line, and runs what it asks for. See --help.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <functional>
#include <iostream>
#include <memory>
#include <new>

#include "jpagent/capture/Sample.h"
#include "jpagent/common/Ending.h"
#include "jpagent/common/Output.h"
#include "jpagent/live/LiveRun.h"
#include "jpagent/live/LiveWords.h"
#include "jpagent/live/Performance.h"
#include "jpagent/live/Tell.h"
#include "jpagent/replay/ReplayRun.h"
#include "jpagent/simulate/Conversation.h"
#include "jpagent/simulate/SimulateRun.h"
#include "jpagent/trace/TraceRun.h"

namespace {

using namespace Routing::Pim::Jpagent;

constexpr char about[] = "Reference agent of the PIM sparse mode Join/Prune engine (RFC 7761).";

constexpr char aboutReplay[] =
    "Hands the Join/Prune messages of a capture to the engine and prints what it records, entry by entry";

constexpr char moreAboutReplay[] =
    "FILE is a pcap or pcapng capture. Its PIM version 2 Join/Prune messages are checked and handed to the "
    "engine; "
    "what the engine records is printed, then totals. A message that is not well formed is refused as a "
    "whole, with "
    "the reason; so is a Hello. A sender is a neighbor until the hold time of its last message has passed by "
    "the clock of the capture. Frames with neither are passed over and counted; with --json, a line on "
    "standard error tells how many.\n"
    "Entries of one message are sorted by group, kind and source. The engine's trace lines about them come "
    "in an order of their own, which differs from run to run.\n"
    "Not printed, since the engine does not record it: a (*,G) join whose RP is not the one that --rp gives "
    "for the "
    "group, and the (*,G) and (S,G,rpt) entries of a group that --deny names.\n"
    "Exit status: 0 all fine, 1 something refused, 2 the call or the file is wrong, memory is short,\n"
    "or an output fails.";

constexpr char moreAboutTrace[] =
    "FILE may be open in another process, or be what a killed one left. What is damaged is passed over, and "
    "of "
    "a file that was cut off, what is whole is printed, with status 2.\n"
    "Exit status: 0 all fine, 1 something was passed over, 2 the call or the file is wrong, memory is "
    "short,\n"
    "or an output fails.";

constexpr char moreAboutSimulate[] =
    "FILE begins with a comment (#) that tells the story; commands follow, and under a rule (----) "
    "everything "
    "that is to come out. Times are in seconds.\n"
    "Exit status: 0 all fine, 1 something else came out, 2 the call or the file is wrong, memory is short,\n"
    "or an output fails.\n"
    "Commands:\n";

constexpr char aboutRun[] =
    "Speaks PIM Join/Prune on interfaces: sends and receives Hellos and Join/Prune messages, takes commands "
    "from standard input and prints a line for every event";

constexpr char moreAboutRun[] =
    "Addresses, MTU and link state come from the kernel and are followed; an interface may appear later. "
    "IPv4 "
    "and "
    "IPv6 are served. It needs CAP_NET_RAW, and gives up all other capabilities. \"quit\", SIGINT and "
    "SIGTERM "
    "send prunes for all that is joined and then goodbyes; a second signal the goodbyes alone. SIGHUP reads "
    "the configuration again and opens --pcap and --scrivo again.\n"
    "Exit status: 0 it was told to end and all was written, 2 the call or a file is wrong, memory is short,\n"
    "or an output fails.\n"
    "Commands, one a line:\n";

constexpr char moreAboutTell[] =
    "Exit status: 0 all fine, 1 the command failed, 2 the call is wrong or no \"jpagent run\" answers.";

// Runs a parser of option texts, whose complaint becomes the option's.
template <class Parse>
std::function<void(std::string const&)> checked(Parse parse) {
  return [parse](std::string const& text) {
    try {
      parse(text);
    } catch (OptionError const& e) {
      throw CLI::ValidationError(e.what());  // CLI11 puts the option before it
    }
  };
}

// An empty name is no name, and not that there is to be no file.
std::string fileNamed(std::string const& name) { return name.empty() ? "needs the name of a file" : ""; }

// The command line: its commands, and what it says. CLI11 writes into it.
struct CommandLine {
  CLI::App app{about, "jpagent"};
  CLI::App* replay = nullptr;
  CLI::App* trace = nullptr;
  CLI::App* sample = nullptr;
  CLI::App* simulate = nullptr;
  CLI::App* run = nullptr;
  CLI::App* tell = nullptr;

  std::string file;
  bool json = false;
  ReplayOptions replayOptions;
  // CLI11 keeps a list only to tell how often an option came; the parsed values are in `replayOptions`.
  std::vector<std::string> rps, denied;
  std::string levels;
  bool traceJson = false, traceChrome = false;
  SimulateOptions simulateOptions;
  Live::RunOptions runOptions;
  std::string checkFile;
};

// --rp, --deny and --trace, which more than one command has.
void addPolicy(CLI::App& command, std::vector<std::string>& rps, std::vector<std::string>& denied,
               std::function<void(std::string const&)> const& rp,
               std::function<void(std::string const&)> const& deny) {
  command
      .add_option("--rp", rps,
                  "The RP of these groups; the longest prefix decides. A group that "
                  "none has: the one in the message. Repeatable")
      ->type_name("GROUP/LEN=ADDRESS")
      ->allow_extra_args(false)
      ->each(checked(rp));
  command.add_option("--deny", denied, "Groups that the filter denies. Repeatable")
      ->type_name("GROUP/LEN")
      ->allow_extra_args(false)
      ->each(checked(deny));
}

void addTraceOptions(CLI::App& command, std::string& texts, std::vector<Vel::U32>& levels,
                     std::string& scrivoFile) {
  command.add_option("--trace", texts, "Levels of the engine's trace lines, to standard error: 1,2,7 or 1-8")
      ->type_name("LEVELS")
      ->each(checked([&levels](std::string const& text) { levels = traceLevelsFromText(text); }));
  command.add_option("--scrivo", scrivoFile, "Write the engine's ring trace file; see jpagent trace")
      ->check(fileNamed)
      ->type_name("FILE");
}

void addReplay(CommandLine& line) {
  ReplayOptions& options = line.replayOptions;
  auto* const command = line.replay = line.app.add_subcommand("replay", aboutReplay);
  command->footer(moreAboutReplay);
  command->add_option("FILE", line.file, "The capture")->required()->type_name("");
  command->add_flag("--json", line.json, "One JSON object a line, for each entry and each refused message");
  addPolicy(
      *command, line.rps, line.denied, [&options](std::string const& text) { options.rps.add(text); },
      [&options](std::string const& text) { options.denied.push_back(groupPrefixFromText(text)); });
  command->add_flag("--lenient", options.lenient,
                    "Take Join/Prune messages and Hellos also from a source that is not unicast (IPv6: not "
                    "link-local), to another destination than 224.0.0.13 or ff02::d, or with another TTL "
                    "or hop limit than 1; they are refused otherwise");
  addTraceOptions(*command, line.levels, options.traceLevels, options.scrivoFile);
}

void addTrace(CommandLine& line) {
  auto* const command = line.trace =
      line.app.add_subcommand("trace", "Prints a ring trace file, as lines of text or for other programs");
  command->footer(moreAboutTrace);
  auto* const asJson = command->add_flag("--json", line.traceJson, "One JSON object a line, for each event");
  command
      ->add_flag("--chrome", line.traceChrome,
                 "Trace events for Perfetto, chrome://tracing and the trace-viewer.html that comes along")
      ->excludes(asJson);
  command->add_option("FILE", line.file, "What --scrivo or another process wrote")->required()->type_name("");
}

void addSample(CommandLine& line) {
  line.sample = line.app.add_subcommand(
      "sample",
      "Writes a small capture to try replay on: every kind of entry over IPv4 and IPv6, Hellos, VLAN tags, "
      "and two broken messages. The same bytes every time");
  line.sample->add_option("FILE", line.file, "The capture to write")->required()->type_name("");
}

void addSimulate(CommandLine& line) {
  auto* const command = line.simulate = line.app.add_subcommand(
      "simulate",
      "Performs a conversation: the commands of a file, on a virtual clock, and everything "
      "that the engine does about them");
  command->footer(moreAboutSimulate + commandReference() + "Commands after \"speaker\":\n" +
                  speakerCommandReference());
  command->add_option("FILE", line.file, "The conversation")->required()->type_name("");
  auto* const check = command->add_flag("--check", line.simulateOptions.check,
                                        "Print nothing but the first difference from what is expected");
  command
      ->add_flag("--rewrite", line.simulateOptions.rewrite,
                 "Expect from now on what comes out: rewrites FILE")
      ->excludes(check);
  command->add_option("--pcap", line.simulateOptions.pcapFile, "Write a capture of what was sent")
      ->check(fileNamed)
      ->type_name("FILE");
  command
      ->add_option("--scrivo", line.simulateOptions.scrivoFile,
                   "Write the engine's ring trace file; see jpagent trace")
      ->check(fileNamed)
      ->type_name("FILE");
}

void addRun(CommandLine& line) {
  Live::RunOptions& options = line.runOptions;
  auto* const command = line.run = line.app.add_subcommand("run", aboutRun);
  command->footer(moreAboutRun + Live::liveCommandReference());
  command->add_option("INTERFACE", options.interfaces, "Interfaces, there or yet to appear")->type_name("");
  command->add_flag("--json", options.json, "Events and replies as one JSON object a line");
  auto const file = [command](char const* name, std::string& to, char const* what) {
    return command->add_option(name, to, what)->check(fileNamed)->type_name("FILE");
  };
  file("--control", options.control, "A UNIX socket for commands, with mode 0600; see jpagent tell")
      ->type_name("PATH");
  auto* const config = file("--config", options.configFile, "Interfaces, settings, RPs and routes, in TOML");
  file("--check", line.checkFile, "Only check such a file")->excludes(config);
  file("--pcap", options.pcapFile, "Write a capture of what is sent and received");
  file("--record", options.recordFile, "Write all that comes in as a conversation; see jpagent simulate");
  auto const rps = std::make_shared<RpTable>();
  addPolicy(
      *command, options.rps, options.denied, [rps](std::string const& text) { rps->add(text); },
      [](std::string const& text) { groupPrefixFromText(text); });
  addTraceOptions(*command, line.levels, options.traceLevels, options.scrivoFile);
  command->add_option("--log", options.log, "Errors and warnings also to the journal or to standard error")
      ->check(CLI::IsMember({"journald", "stderr"}))
      ->type_name("journald|stderr");
}

void addTell(CommandLine& line) {
  auto* const command = line.tell = line.app.add_subcommand(
      "tell", "Gives a command to a \"jpagent run --control PATH\" and prints the reply");
  command->footer(moreAboutTell);
  command->prefix_command();  // WORDS may begin with dashes
  command->add_flag("--json", line.json, "The reply as one JSON object");
  command->add_option("PATH", line.file, "The UNIX socket")->required()->type_name("");
}

int performTell(CommandLine const& line) {
  std::string words;
  for (auto const& word : line.tell->remaining()) words += (words.empty() ? "" : " ") + word;
  if (words.empty()) return cannot("tell needs a command (see jpagent tell --help)");
  return Live::runTell(line.file, words, line.json);
}

int performRun(CommandLine const& line) {
  auto options = line.runOptions;
  options.check = !line.checkFile.empty();
  if (options.check) options.configFile = line.checkFile;
  if (!options.check && options.configFile.empty() && options.interfaces.empty())
    return cannot("run needs an interface (see jpagent run --help)");
  return Live::runLive(options);
}

int perform(CommandLine const& line) {
  if (*line.run) return performRun(line);
  if (*line.tell) return performTell(line);
  subjectIs(line.file);
  if (*line.trace) {
    return runTrace(line.file, line.traceJson     ? TraceForm::json
                               : line.traceChrome ? TraceForm::chrome
                                                  : TraceForm::text);
  }
  if (*line.sample) {
    refuseSharedFiles({{"the capture", line.file}});
    writeSample(line.file);
    return allFine;
  }
  if (*line.simulate) return runSimulate(line.file, line.simulateOptions, Live::recordings());
  TextReport textReport(std::cout);
  JsonReport jsonReport(std::cout, std::cerr);
  return runReplay(line.file, line.replayOptions, line.json ? static_cast<Report&>(jsonReport) : textReport);
}

int run(int argc, char** argv) {
  CommandLine line;
  CLI::App& app = line.app;
  app.require_subcommand(1);
  app.set_version_flag("--version", "jpagent " JPAGENT_VERSION, "Print the version and exit");
  addReplay(line);
  addTrace(line);
  addSample(line);
  addSimulate(line);
  addRun(line);
  addTell(line);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    // For a word that is no command, CLI11 only says that there should have been one.
    auto const extras = app.get_subcommands().empty() ? app.remaining() : std::vector<std::string>();
    auto const what = extras.empty() ? e.what() : fmt::format("\"{}\" is no command", extras.front());
    return cannot(fmt::format("{} (see jpagent --help)", what));
  }
  return perform(line);
}

}  // namespace

int main(int argc, char** argv) {
  endWithReasons();
  std::ios::sync_with_stdio(false);
  StandardOutput standardOutput;
  int status = cannotDo;
  try {
    status = run(argc, argv);
  } catch (std::bad_alloc const&) {
    endAtOnce(ENOMEM);
  } catch (std::exception const& e) {
    std::cout.flush();
    cannot(e.what());
  }
  try {
    standardOutput.close();
  } catch (OutputError const& e) {
    status = cannot(e.what());
  }
  // Trace lines were asked for, and there is no place left to say more.
  return std::cerr ? status : cannotDo;
}
