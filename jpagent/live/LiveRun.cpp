// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/LiveRun.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <optional>
#include <set>
#include <system_error>

#include "jpagent/common/Ending.h"
#include "jpagent/common/Output.h"
#include "jpagent/common/Progress.h"
#include "jpagent/live/Configuration.h"
#include "jpagent/live/ControlServer.h"
#include "jpagent/live/Interfaces.h"
#include "jpagent/live/LiveOutputs.h"
#include "jpagent/live/LiveSpeaker.h"
#include "jpagent/live/Notify.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

constexpr char dropCounter[] = "dropped_by_kernel";

constexpr Seconds quitPatience = 4;  // for prunes and goodbyes, which take 2 s at most

template <class Number>
Number randomNumber() {
  Number number;
  if (getrandom(&number, sizeof number, 0) != sizeof number)
    throw std::runtime_error(fmt::format("no random numbers: {}", std::strerror(errno)));
  return number;
}

void traceLevelsAre(std::vector<U32> const& levels) {
  auto& handle = Vel::TraceHandle::find("Pim::JoinPrune");
  handle.levelsDel();
  for (U32 const level : levels) handle.levelIs(level, true);
}

// From now on to the end of the process: what watched them is about to end, and a signal that asks for the
// end must not replace the exit status.
void keepSignalsOut() {
  sigset_t ending;
  sigemptyset(&ending);
  for (int const signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ending, signal);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
}

class LiveRun final : private LiveOutside, private InterfacesOwner {
 public:
  LiveRun(RunOptions const& options, LiveSettings settings, Configuration configuration);

  int run();

 private:
  // LiveOutside
  SendResult send(Speaker::Outgoing const& packet) override;
  void event(Event const& event) override;

  // InterfacesOwner
  void onInterface(KernelLink const& link) override;
  void onInterfaceRemoved(std::string const& name) override;
  void onPacket(Speaker::Incoming const& packet, std::span<U8 const> message) override;
  void onSocketFailed(std::string const& name, std::string const& reason) override;

  LiveSpeaker& speakerNow();
  void openControl(std::string const& path);
  std::string textOfEvent(Event const& event, bool json) const;
  void readInput();
  void command(ControlClient* client, std::string_view line, bool isWhole);
  std::optional<Reply> reply(ControlClient* client, std::string_view line, bool isWhole);
  void configure(Configuration const& next);
  void reload();
  void quit();
  void reportFailures();
  void beforeWaiting();

  RunOptions const options_;
  bool const json_;
  Configuration configuration_;
  Loop loop_;
  std::optional<LiveOutputs> outputs_;
  Interfaces interfaces_;
  std::optional<LiveSpeaker> speaker_;
  std::optional<ControlServer> server_;
  std::optional<Watch> stdin_;
  Lines stdinLines_;
  std::optional<SignalWatch> onInterrupt_, onTerminate_, onHangup_;
  std::optional<Ticker> watchdog_;
  std::optional<Seconds> quitBy_;
  U64 dropped_ = 0;         // as it was told last
  bool hasFailed_ = false;  // an output, when it was opened again
};

// --- The beginning -------------------------------------------------------------------------------

LiveRun::LiveRun(RunOptions const& options, LiveSettings settings, Configuration configuration)
    : options_(options), json_(options.json), loop_([this] { beforeWaiting(); }), interfaces_(loop_, *this) {
  settings.json = json_;
  // Who finds the control socket may send a signal.
  onInterrupt_.emplace(loop_.uv(), SIGINT, [this] { quit(); });
  onTerminate_.emplace(loop_.uv(), SIGTERM, [this] { quit(); });
  onHangup_.emplace(loop_.uv(), SIGHUP, [this] { reload(); });
  // Now what another process may have: its files must not be replaced.
  openControl(options_.control.empty() ? configuration.control : options_.control);
  outputs_.emplace(loop_, options_);
  if (outputs_->isRecording()) settings.record = [this](std::string_view line) { outputs_->record(line); };
  traceLevelsAre(options_.traceLevels);
  speaker_.emplace(monotonicSeconds(), static_cast<LiveOutside&>(*this), std::move(settings));
  speaker_->counterIs(dropCounter, 0);
  for (auto const& name : options_.interfaces) {
    interfaces_.add(name);
    speaker_->interfaceGiven(name);
  }
  configure(configuration);

  stdin_.emplace(loop_.uv(), STDIN_FILENO, [this] { readInput(); });
  stdin_->eventsAre(UV_READABLE);
  keepOnlyNetRaw();
  notifySystemd("READY=1");
  if (auto const period = watchdogPeriod())
    watchdog_.emplace(loop_.uv(), *period, [] { notifySystemd("WATCHDOG=1"); });
}

LiveSpeaker& LiveRun::speakerNow() {
  speaker_->nowIs(monotonicSeconds());
  return *speaker_;
}

void LiveRun::openControl(std::string const& path) {
  if (server_ ? server_->path() == path : path.empty()) return;
  server_.reset();
  if (path.empty()) return;
  server_.emplace(loop_.uv(), path, json_,
                  [this](ControlClient& client, std::string_view line, bool isWhole) {
                    command(&client, line, isWhole);
                  });
}

int LiveRun::run() {
  loop_.run();
  keepSignalsOut();
  notifySystemd("STOPPING=1");
  server_.reset();
  return outputs_->finish() && !hasFailed_ ? allFine : cannotDo;
}

// --- Packets, events, interfaces -----------------------------------------------------------------

SendResult LiveRun::send(Speaker::Outgoing const& packet) {
  int const error = interfaces_.send(packet);
  SendResult result{.sent = Speaker::Sent::done, .now = monotonicSeconds(), .reason = {}};
  if (error == 0) {
    outputs_->capture(
        {.intf = packet.intf.name(), .source = packet.source, .destination = packet.destination, .ttl = 1},
        packet.bytes);
  } else if (error == EAGAIN || error == ENOBUFS || error == ENOMEM || error == EINTR) {
    result.sent = Speaker::Sent::later;
  } else {
    result.sent = Speaker::Sent::failed;
    result.reason = std::strerror(error);
  }
  return result;
}

std::string LiveRun::textOfEvent(Event const& event, bool json) const {
  return (json ? jsonLine(event) : textOf(event)) + '\n';
}

void LiveRun::event(Event const& event) {
  outputs_->print(textOfEvent(event, json_));
  auto const kind = event.members.value("event", "");
  if (kind == "error" || kind == "warning")
    outputs_->log(kind == "error" ? LiveOutputs::error : LiveOutputs::warning, textOf(event));
  if (!server_) return;
  std::optional<std::string> texts[2];
  server_->tell([&](bool json) -> std::string_view {
    auto& text = texts[json];
    if (!text) text = textOfEvent(event, json);
    return *text;
  });
}

void LiveRun::onInterface(KernelLink const& link) { speakerNow().kernelInterfaceIs(link.name, link); }

void LiveRun::onInterfaceRemoved(std::string const& name) { speakerNow().kernelInterfaceDel(name); }

void LiveRun::onPacket(Speaker::Incoming const& packet, std::span<U8 const> message) {
  outputs_->capture(packet, message);
  speakerNow().receive(packet, message);
}

void LiveRun::onSocketFailed(std::string const& name, std::string const& reason) {
  speakerNow().error(fmt::format("socket on {}", name), reason);
}

// --- Commands ------------------------------------------------------------------------------------

void LiveRun::readInput() {
  char bytes[16 << 10];
  auto const size = read(STDIN_FILENO, bytes, sizeof bytes);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  auto const take = [this](std::string_view line, bool isWhole) { command(nullptr, line, isWhole); };
  if (size > 0) return stdinLines_.add({bytes, static_cast<std::size_t>(size)}, take);
  stdin_.reset();
  if (!stdinLines_.rest().empty()) stdinLines_.add("\n", take);  // a last line without its end
}

std::optional<Reply> LiveRun::reply(ControlClient* client, std::string_view line, bool isWhole) {
  auto& speaker = speakerNow();
  Asker const asker = client ? Asker::client : Asker::standardInput;
  if (!isWhole) {
    return speaker.refuseCommand(
        line.substr(0, 100),
        line.size() < Lines::longest ? "the line has no end" : "the line is longer than 64 KiB", asker);
  }
  if (client && (line == "json on" || line == "json off")) {
    // A matter of the connection alone.
    client->json = line == "json on";
    auto reply = speaker.command("help", asker);
    reply->event.members["command"] = line;
    reply->event.members.erase("result");
    return reply;
  }
  if (interfaces_.dropped() != dropped_) speaker.counterIs(dropCounter, dropped_ = interfaces_.dropped());
  return speaker.command(line, asker);
}

void LiveRun::command(ControlClient* client, std::string_view line, bool isWhole) {
  auto const answer = reply(client, line, isWhole);
  if (!answer) return;
  if (answer->traceLevels) traceLevelsAre(*answer->traceLevels);
  auto const text = textOfEvent(answer->event, client ? client->json : json_);
  if (!client) return outputs_->print(text);
  client->write(text);
  if (answer->events) client->wantsEvents = *answer->events;
}

// --- The configuration ---------------------------------------------------------------------------

// Takes over what differs. What the command line says stays.
void LiveRun::configure(Configuration const& next) {
  auto& speaker = speakerNow();
  auto both = [](std::vector<std::string> texts, std::vector<std::string> const& others) {
    texts.insert(texts.end(), others.begin(), others.end());
    return texts;
  };
  speaker.policyIs(both(options_.rps, next.rps), both(options_.denied, next.denied));
  for (auto const& [name, settings] : next.interfaces) {
    speaker.interfaceGiven(name);
    interfaces_.add(name);
  }
  auto const commands = commandsBetween(configuration_, next);
  U64 done = 0;
  for (auto const& command : commands) {
    Progress::at(done++, commands.size());
    auto const reply = speaker.command(command, Asker::configuration);
    if (reply && !reply->ok)
      speaker.error("configuration", command + ": " + reply->event.members.value("error", ""));
  }
  for (auto const& [name, settings] : configuration_.interfaces) {
    auto const& given = options_.interfaces;
    if (next.interfaces.contains(name) || std::find(given.begin(), given.end(), name) != given.end())
      continue;
    speaker.interfaceTaken(name);
    interfaces_.remove(name);
  }
  configuration_ = next;
  interfaces_.start();
}

void LiveRun::reload() {
  notifySystemd(fmt::format("RELOADING=1\nMONOTONIC_USEC={}", uv_hrtime() / 1000));
  try {
    outputs_->reopen();
  } catch (std::exception const& e) {
    speakerNow().error("output", e.what());
    hasFailed_ = true;
  }
  if (!options_.configFile.empty()) {
    try {
      auto const next = Configuration::fromFile(options_.configFile);
      check(next, options_.interfaces);
      if (options_.control.empty()) openControl(next.control);
      configure(next);
    } catch (std::exception const& e) {
      speakerNow().error("configuration", e.what());
    }
  }
  notifySystemd("READY=1");
}

// --- The loop, and the end -----------------------------------------------------------------------

// A second signal does not wait for the prunes.
void LiveRun::quit() { speakerNow().quit(speaker_->isQuitting()); }

void LiveRun::reportFailures() {
  outputs_->takeFailures([this](std::string const& name, std::string const& reason) {
    speakerNow().error(name, reason);
    cannot(fmt::format("{}: {}", name, reason));
  });
}

void LiveRun::beforeWaiting() {
  auto& speaker = speakerNow();
  if (speaker.timeMin() <= speaker.now()) speaker.expire();
  for (int round = 0; round < 2; ++round) {  // what a failure gives rise to is written at once, too
    outputs_->flush();
    reportFailures();
  }
  if (server_) server_->flush();
  if (speaker.isQuitting() && !quitBy_) quitBy_ = speaker.now() + quitPatience;
  if (speaker.isDone() || (quitBy_ && *quitBy_ <= speaker.now())) return loop_.stop();
  loop_.wakeAt(std::min(speaker.timeMin(), quitBy_.value_or(Vel::never)));
}

// -------------------------------------------------------------------------------------------------

std::vector<NamedFile> outputsOf(RunOptions const& options) {
  std::vector<NamedFile> files;
  if (!options.configFile.empty()) files.push_back({"the configuration", options.configFile});
  if (!options.pcapFile.empty()) files.push_back({"--pcap", options.pcapFile});
  if (!options.scrivoFile.empty()) files.push_back({"--scrivo", options.scrivoFile});
  if (!options.recordFile.empty()) files.push_back({"--record", options.recordFile});
  return files;
}

}  // namespace

int runLive(RunOptions const& options) {
  LiveSettings settings;
  settings.seed = randomNumber<U64>();
  settings.hashSeed = randomNumber<U64>();
  settings.randomSeed = static_cast<long>(randomNumber<U32>() >> 1);  // srand48() has no more bits
  settings.microseconds = static_cast<std::int64_t>(wallMicroseconds());
  seedProcess(settings);
  for (auto const& name : options.interfaces)
    if (!canBeInterface(name))
      throw std::runtime_error(fmt::format("\"{}\" cannot be the name of an interface", name));
  Configuration configuration;
  if (!options.configFile.empty()) {
    Progress const progress("run: checking the configuration", Progress::Beside::nothing);
    configuration = Configuration::fromFile(options.configFile);
    check(configuration, options.interfaces);
  }
  if (options.check) return allFine;
  if (options.interfaces.empty() && configuration.interfaces.empty())
    throw std::runtime_error("run needs an interface");
  refuseSharedFiles(outputsOf(options));
  requireRawSockets();
  std::optional<Progress> progress(std::in_place, "run: routes of the configuration",
                                   Progress::Beside::nothing);
  LiveRun run(options, std::move(settings), std::move(configuration));
  progress.reset();
  return run.run();
}

}  // namespace Routing::Pim::Jpagent::Live
