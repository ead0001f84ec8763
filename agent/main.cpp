// jpagent, the reference agent: see --help.
#include <fmt/format.h>
#include <sys/random.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iostream>
#include <sstream>

#include "agent/Ending.h"
#include "agent/Output.h"
#include "agent/PacketSinks.h"
#include "agent/Replay.h"
#include "agent/Sample.h"
#include "agent/Simulation.h"
#include "agent/TraceExport.h"
#include "runtime/scrivo/TraceFile.h"
#include "runtime/scrivo/TraceReader.h"
#include "runtime/vel/Hash.h"
#include "runtime/vel/Trace.h"

namespace {

using namespace Routing::Pim::Agent;

constexpr int allFine = 0, somethingRefused = 1, somethingDiffers = 1;

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
    "Exit status: 0 all fine, 1 something was passed over, 2 the call or the file is wrong, memory is short,\n"
    "or an output fails.";

constexpr char moreAboutSimulate[] =
    "FILE begins with a comment (#) that tells the story; commands follow, and under a rule (----) "
    "everything "
    "that is to come out. Times are in seconds.\n"
    "Exit status: 0 all fine, 1 something else came out, 2 the call or the file is wrong, memory is short,\n"
    "or an output fails.\n"
    "Commands:\n";

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

int cannot(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::cerr << "jpagent: " << text << '\n';
  return cannotDo;
}

class ScrivoRecording {
 public:
  explicit ScrivoRecording(std::string const& path) {
    if (path.empty()) return;
    traceFileIs(path);
    Scrivo::TraceFile::open(path);
  }
  ~ScrivoRecording() { Scrivo::TraceFile::close(); }
  ScrivoRecording(ScrivoRecording const&) = delete;
  ScrivoRecording& operator=(ScrivoRecording const&) = delete;
};

// Senders choose the addresses in a capture, and must not be able to choose such as collide.
void seedHash() {
  U64 seed;
  if (getrandom(&seed, sizeof seed, 0) != sizeof seed)
    throw std::runtime_error(fmt::format("no random numbers: {}", std::strerror(errno)));
  Vel::hashSeedIs(seed);
}

int replay(std::string const& file, ReplayOptions const& options, Report& report) {
  seedHash();
  std::vector<NamedFile> files = {{"the capture", file}};
  if (!options.scrivoFile.empty()) files.push_back({"--scrivo", options.scrivoFile});
  refuseSharedFiles(files);
  Capture capture(file);
  ScrivoRecording const scrivo(options.scrivoFile);
  for (Vel::U32 const level : options.traceLevels)
    Vel::TraceHandle::find("Pim::JoinPrune").levelIs(level, true);
  Replay machine(options, report);
  std::string damage;
  try {
    Frame frame;
    while (std::cout && capture.next(frame)) machine.frameIs(frame);
  } catch (CaptureError const& e) {
    damage = e.what();
  }
  report.totals(machine.totals());
  if (!damage.empty()) {
    std::cout.flush();
    return cannot(damage);
  }
  return machine.totals().refusedMessages() ? somethingRefused : allFine;
}

struct SimulateOptions {
  bool check = false, rewrite = false;
  std::string pcapFile, scrivoFile;
};

int simulateFile(std::string const& file, SimulateOptions const& options) {
  std::vector<NamedFile> files = {{"the conversation", file}};
  if (!options.pcapFile.empty()) files.push_back({"--pcap", options.pcapFile});
  if (!options.scrivoFile.empty()) files.push_back({"--scrivo", options.scrivoFile});
  refuseSharedFiles(files);
  std::ostringstream output;
  bool const toFile = options.check || options.rewrite;
  try {
    auto const conversation = Conversation::fromFile(file);
    if (options.check && !conversation.hasRule())
      throw ConversationError(0, "expected a rule (----) and under it what is to come out");
    std::optional<FileOutput> rewritten;
    if (options.rewrite) rewritten.emplace(file, Scrivo::OutputFile::Use::file);
    ScrivoRecording const scrivo(options.scrivoFile);
    Simulation const* clock = nullptr;
    auto const microseconds = [&clock] { return static_cast<U64>(std::llround(clock->now() * 1e6)); };
    std::optional<PcapPackets> packets;
    if (!options.pcapFile.empty()) packets.emplace(options.pcapFile, microseconds);
    {
      Simulation simulation(toFile ? output : std::cout, packets ? &*packets : nullptr);
      clock = &simulation;
      simulate(conversation, simulation);
    }
    if (packets) packets->close();
    if (rewritten) {
      *rewritten << conversation.withExpected(output.view());
      rewritten->close();
    }
    if (!options.check) return allFine;
    auto const difference = conversation.difference(file, output.view());
    std::cout << difference;
    return difference.empty() ? allFine : somethingDiffers;
  } catch (ConversationError const& e) {
    std::cout.flush();
    return cannot(e.line() ? fmt::format("{}:{}: {}", file, e.line(), e.what())
                           : fmt::format("{}: {}", file, e.what()));
  }
}

enum class TraceForm { text, json, chrome };

int printTrace(std::string const& file, TraceForm form) {
  refuseSharedFiles({{"the trace file", file}});
  traceFileIs(file);
  Scrivo::TraceReader const reader(file);
  switch (form) {
    case TraceForm::text:
      exportText(reader, std::cout);
      break;
    case TraceForm::json:
      exportJson(reader, std::cout);
      break;
    case TraceForm::chrome:
      exportChrome(reader, std::cout);
      break;
  }
  if (!std::cout.flush()) return allFine;  // main() says so.
  auto const first = reader.damages().empty()
                         ? std::string()
                         : fmt::format("{} damaged part{} passed over, the first at byte {}: {}",
                                       reader.damaged(), reader.damaged() == 1 ? " was" : "s were",
                                       reader.damages()[0].offset, reader.damages()[0].what);
  if (reader.missingBytes() != 0)
    return cannot(fmt::format("{}: cut off, the last {} bytes are missing{}{}", file, reader.missingBytes(),
                              first.empty() ? "" : "; ", first));
  if (first.empty()) return allFine;
  std::cerr << fmt::format("jpagent: {}: {}\n", file, first);
  return somethingRefused;
}

int run(int argc, char** argv) {
  CLI::App app(about, "jpagent");
  app.require_subcommand(1);
  app.set_version_flag("--version", "jpagent " JPAGENT_VERSION, "Print the version and exit");
  std::string file;
  bool json = false;
  ReplayOptions options;

  auto* const replayCommand = app.add_subcommand("replay", aboutReplay);
  replayCommand->footer(moreAboutReplay);
  replayCommand->add_option("FILE", file, "The capture")->required()->type_name("");
  replayCommand->add_flag("--json", json, "One JSON object a line, for each entry and each refused message");
  // CLI11 keeps a list only to tell how often an option came; the parsed values go into `options`.
  std::vector<std::string> rps, denied;
  replayCommand
      ->add_option("--rp", rps,
                   "The RP of these groups; the longest prefix decides. A group that "
                   "none has: the one in the message. Repeatable")
      ->type_name("GROUP/LEN=ADDRESS")
      ->allow_extra_args(false)
      ->each(checked([&options](std::string const& text) { options.rps.add(text); }));
  replayCommand->add_option("--deny", denied, "Groups that the filter denies. Repeatable")
      ->type_name("GROUP/LEN")
      ->allow_extra_args(false)
      ->each(checked(
          [&options](std::string const& text) { options.denied.push_back(groupPrefixFromText(text)); }));
  replayCommand->add_flag(
      "--lenient", options.lenient,
      "Take Join/Prune messages and Hellos also from a source that is not unicast (IPv6: not "
      "link-local), to another destination than 224.0.0.13 or ff02::d, or with another TTL "
      "or hop limit than 1; they are refused otherwise");
  std::string levels;
  replayCommand
      ->add_option("--trace", levels, "Levels of the engine's trace lines, to standard error: 1,2,7 or 1-8")
      ->type_name("LEVELS")
      ->each(
          checked([&options](std::string const& text) { options.traceLevels = traceLevelsFromText(text); }));
  replayCommand
      ->add_option("--scrivo", options.scrivoFile, "Write the engine's ring trace file; see jpagent trace")
      ->check(fileNamed)
      ->type_name("FILE");

  bool traceJson = false, traceChrome = false;
  auto* const traceCommand =
      app.add_subcommand("trace", "Prints a ring trace file, as lines of text or for other programs");
  traceCommand->footer(moreAboutTrace);
  auto* const asJson = traceCommand->add_flag("--json", traceJson, "One JSON object a line, for each event");
  traceCommand
      ->add_flag("--chrome", traceChrome,
                 "Trace events for Perfetto, chrome://tracing and the trace-viewer.html that comes along")
      ->excludes(asJson);
  traceCommand->add_option("FILE", file, "What --scrivo or another process wrote")->required()->type_name("");

  auto* const sampleCommand = app.add_subcommand(
      "sample",
      "Writes a small capture to try replay on: every kind of entry over IPv4 and IPv6, Hellos, VLAN tags, "
      "and two broken messages. The same bytes every time");
  sampleCommand->add_option("FILE", file, "The capture to write")->required()->type_name("");

  SimulateOptions simulateOptions;
  auto* const simulateCommand = app.add_subcommand(
      "simulate",
      "Performs a conversation: the commands of a file, on a virtual clock, and everything "
      "that the engine does about them");
  simulateCommand->footer(moreAboutSimulate + commandReference());
  simulateCommand->add_option("FILE", file, "The conversation")->required()->type_name("");
  auto* const check = simulateCommand->add_flag(
      "--check", simulateOptions.check, "Print nothing but the first difference from what is expected");
  simulateCommand
      ->add_flag("--rewrite", simulateOptions.rewrite, "Expect from now on what comes out: rewrites FILE")
      ->excludes(check);
  simulateCommand->add_option("--pcap", simulateOptions.pcapFile, "Write a capture of what was sent")
      ->check(fileNamed)
      ->type_name("FILE");
  simulateCommand
      ->add_option("--scrivo", simulateOptions.scrivoFile,
                   "Write the engine's ring trace file; see jpagent trace")
      ->check(fileNamed)
      ->type_name("FILE");

  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    // For a word that is no command, CLI11 only says that there should have been one.
    auto const extras = app.get_subcommands().empty() ? app.remaining() : std::vector<std::string>();
    auto const what = extras.empty() ? e.what() : fmt::format("\"{}\" is no command", extras.front());
    return cannot(fmt::format("{} (see jpagent --help)", what));
  }
  subjectIs(file);
  if (*traceCommand) {
    return printTrace(file, traceJson ? TraceForm::json : traceChrome ? TraceForm::chrome : TraceForm::text);
  }
  if (*sampleCommand) {
    refuseSharedFiles({{"the capture", file}});
    writeSample(file);
    return allFine;
  }
  if (*simulateCommand) return simulateFile(file, simulateOptions);
  TextReport textReport(std::cout);
  JsonReport jsonReport(std::cout, std::cerr);
  return replay(file, options, json ? static_cast<Report&>(jsonReport) : textReport);
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
