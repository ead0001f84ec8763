// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Performance.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <ostream>

#include "jpagent/common/Progress.h"
#include "jpagent/live/Recording.h"
#include "jpagent/simulate/CommandTable.h"
#include "jpagent/simulate/Inside.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

// Ten years, so that microseconds of them are far from the end of their type.
constexpr Seconds mostSeconds = 3e8;
constexpr std::int64_t mostMicroseconds = 4'000'000'000'000'000;
// How many routes may be looked at as a whole: what a recording makes a speaker do is not bounded by its
// size.
constexpr U64 mostRoutesLookedAt = 200'000'000;

// Performs the lines of a recording; what the LiveSpeaker asks of its outside is in the lines that follow.
class Performance final : public LiveOutside {
 public:
  Performance(Conversation const& recording, std::ostream& out, Speaker::PacketSink* alsoTo,
              U64& microseconds)
      : steps_(recording.steps()), out_(out), alsoTo_(alsoTo), microseconds_(microseconds) {}

  void perform();

  // What the lines say.
  void begin(Seconds now, LiveSettings const& settings);
  LiveSpeaker& speaker() {
    if (!speaker_) refuse("expected \"live\" as the first command");
    return *speaker_;
  }
  void at(Seconds now) {
    speaker().nowIs(now);
    clock();
  }
  void print(std::optional<Reply> const& reply, Asker asker) {
    if (reply && asker == Asker::standardInput) event(reply->event);
  }

  SendResult send(Speaker::Outgoing const& packet) override;
  void event(Event const& event) override { out_ << (isJson_ ? jsonLine(event) : textOf(event)) << '\n'; }

 private:
  void clock() {
    microseconds_ = static_cast<U64>(began_ + std::llround((speaker_->now() - beganAt_) * 1e6));
  }

  std::vector<Conversation::Step> const& steps_;
  std::ostream& out_;
  Speaker::PacketSink* const alsoTo_;
  U64& microseconds_;  // the time of what is sent
  std::size_t next_ = 0;
  U32 wrong_ = 0;  // the line where the result of sending should have been
  bool isJson_ = false;
  std::int64_t began_ = 0;
  Seconds beganAt_ = 0;
  std::unique_ptr<LiveSpeaker> speaker_;
};

// A line. Either it is an input, or what became of a packet.
struct Recorded final : ExtraCommand {
  void perform(Simulation&) const override { refuse("a recording is no conversation with an engine"); }

  std::function<void(Performance&)> input;
  std::optional<SendResult> result;
};

Command inputOf(std::function<void(Performance&)> input) {
  auto recorded = std::make_shared<Recorded>();
  recorded->input = std::move(input);
  return OwnCommand(std::move(recorded));
}

std::shared_ptr<Recorded const> recordedOf(Conversation::Step const& step) {
  return std::static_pointer_cast<Recorded const>(std::get<OwnCommand>(step.command()));
}

void Performance::begin(Seconds now, LiveSettings const& settings) {
  if (speaker_) refuse("expected \"live\" as the first command only");
  seedProcess(settings);
  isJson_ = settings.json;
  began_ = settings.microseconds;
  beganAt_ = now;
  speaker_ = std::make_unique<LiveSpeaker>(now, *this, settings);
  clock();
}

void Performance::perform() {
  while (next_ < steps_.size()) {
    auto const& step = steps_[next_];
    if (interrupted()) throw ConversationError(step.line, "interrupted");
    Progress::at(next_++, steps_.size());
    try {
      auto const recorded = recordedOf(step);
      if (recorded->result) refuse("expected an input: nothing was sent before this line");
      recorded->input(*this);
      if (wrong_ != 0) throw ConversationError(wrong_, "expected what became of a packet, \"sent ...\"");
      if (speaker().routesLookedAt() > mostRoutesLookedAt)
        refuse("more than {} routes have been looked at as a whole", mostRoutesLookedAt);
      if (speaker().routesWanted() > mostRoutesOfFile)
        refuse("expected at most {} routes that are wanted at a time", mostRoutesOfFile);
    } catch (std::range_error const& e) {
      throw ConversationError(step.line, e.what());
    } catch (OptionError const& e) {
      throw ConversationError(step.line, e.what());
    }
  }
}

// A process that was killed has no line on what its last input sent.
SendResult Performance::send(Speaker::Outgoing const& packet) {
  SendResult result{.sent = Speaker::Sent::done, .now = speaker_->now(), .reason = {}};
  if (next_ < steps_.size() && wrong_ == 0) {
    auto const recorded = recordedOf(steps_[next_]);
    if (recorded->result)
      result = *recorded->result;
    else
      wrong_ = steps_[next_].line;
    ++next_;
  }
  if (alsoTo_ != nullptr && result.sent == Speaker::Sent::done) {
    auto const decoded = Wire::decodeJoinPrune(packet.bytes, packet.source, packet.destination);
    auto const* const message = std::get_if<Wire::JoinPrune>(&decoded);
    alsoTo_->send({.intf = packet.intf,
                   .source = packet.source,
                   .destination = packet.destination,
                   .message = message ? *message : Wire::JoinPrune(packet.source, 0),
                   .bytes = {packet.bytes.begin(), packet.bytes.end()}});
  }
  return result;
}

// --- The words

std::vector<U8> takeBytes(Words& words) {
  constexpr std::string_view expected = "bytes in hexadecimal digits, or - for none";
  std::vector<U8> bytes;
  if (words.taken("-")) return bytes;
  auto const word = words.peek();
  if (word.empty() || word.size() % 2 != 0) words.fail(expected);
  for (auto const* at = word.data(); at != word.data() + word.size(); at += 2)
    if (std::from_chars(at, at + 2, bytes.emplace_back(), 16).ptr != at + 2) words.fail(expected);
  words.take();
  return bytes;
}

std::string takeHexText(Words& words) {
  auto const bytes = takeBytes(words);
  return {bytes.begin(), bytes.end()};
}

std::string takeName(Words& words) {
  if (!words) words.fail("the name of an interface");
  return std::string(words.take());
}

Seconds takeTime(Words& words) { return words.number<Seconds>(0, mostSeconds, "seconds"); }

Command liveBegins(Words& words) {
  constexpr U64 most = ~U64{0};
  LiveSettings settings;
  words.require("seed");
  settings.seed = words.number<U64>(0, most, "a number");
  words.require("hash");
  settings.hashSeed = words.number<U64>(0, most, "a number");
  words.require("random");
  settings.randomSeed = words.number<long>(0, 0xffffffff, "a number");
  words.require("clock");
  Seconds const now = takeTime(words);
  words.require("time");
  settings.microseconds = words.number<std::int64_t>(0, mostMicroseconds, "microseconds");
  settings.json = words.taken("json");
  if (!settings.json) words.require("text");
  return inputOf([now, settings](Performance& performance) { performance.begin(now, settings); });
}

using Input = std::function<void(LiveSpeaker&)>;

Input takeKernel(Words& words) {
  auto const name = takeName(words);
  KernelInterface kernel;
  words.require("mtu");
  kernel.mtu = words.number<U32>(0, 0xffffffff, "an MTU in bytes");
  kernel.isRunning = words.taken("running");
  if (!kernel.isRunning) words.require("stopped");
  kernel.pointToPoint = words.taken("point-to-point");
  while (words) {
    auto const address = IpGenPrefix::fromText(words.peek());
    if (!address) words.fail("an address such as 10.0.0.1/24");
    kernel.addresses.push_back(*address);
    words.take();
  }
  return [name, kernel](LiveSpeaker& speaker) { speaker.kernelInterfaceIs(name, kernel); };
}

Input takePacket(Words& words) {
  auto const name = takeName(words);
  words.require("from");
  auto const source = words.address("the source of the packet");
  words.require("to");
  auto const destination = words.address("the destination of the packet");
  words.require("ttl");
  auto const ttl = words.number<U32>(0, 255, "a TTL");
  return [name, source, destination, ttl, bytes = takeBytes(words)](LiveSpeaker& speaker) {
    speaker.receive({.intf = name, .source = source, .destination = destination, .ttl = ttl}, bytes);
  };
}

Input takePolicy(Words& words) {
  std::vector<std::string> rps, denied;
  while (words) {
    bool const isRp = words.taken("rp");
    if (!isRp) words.require("deny");
    (isRp ? rps : denied).emplace_back(words.take());
  }
  return [rps, denied](LiveSpeaker& speaker) { speaker.policyIs(rps, denied); };
}

// What the system and the outside say, or nothing.
Input takeOutside(Words& words) {
  if (words.taken("expire")) return [](LiveSpeaker& speaker) { speaker.expire(); };
  if (words.taken("packet")) return takePacket(words);
  if (words.taken("kernel")) return takeKernel(words);
  if (words.taken("removed"))
    return [name = takeName(words)](LiveSpeaker& speaker) { speaker.kernelInterfaceDel(name); };
  if (words.taken("given"))
    return [name = takeName(words)](LiveSpeaker& speaker) { speaker.interfaceGiven(name); };
  if (words.taken("taken"))
    return [name = takeName(words)](LiveSpeaker& speaker) { speaker.interfaceTaken(name); };
  if (words.taken("policy")) return takePolicy(words);
  if (words.taken("quit")) return [now = words.taken("now")](LiveSpeaker& speaker) { speaker.quit(now); };
  if (words.taken("counter")) {
    auto const value = words.number<U64>(0, ~U64{0}, "a number");
    return [value, name = std::string(words.takeRest())](LiveSpeaker& speaker) {
      speaker.counterIs(name, value);
    };
  }
  if (!words.taken("error")) return {};
  auto const what = takeHexText(words), reason = takeHexText(words);
  return [=](LiveSpeaker& speaker) { speaker.error(what, reason); };
}

std::optional<Asker> takenAsker(Words& words) {
  for (std::size_t i = 0; i < askerNames.size(); ++i)
    if (words.taken(askerNames[i])) return static_cast<Asker>(i);
  return std::nullopt;
}

Command recordedAt(Words& words) {
  Seconds const now = takeTime(words);
  if (auto const asker = takenAsker(words)) {
    return inputOf([=, line = std::string(words.takeRest())](Performance& performance) {
      performance.at(now);
      performance.print(performance.speaker().command(line, *asker), *asker);
    });
  }
  if (words.taken("refuse")) {
    auto const asker = takenAsker(words);
    if (!asker) words.fail("who has asked");
    auto const line = takeHexText(words), error = takeHexText(words);
    return inputOf([=](Performance& performance) {
      performance.at(now);
      performance.print(performance.speaker().refuseCommand(line, error, *asker), *asker);
    });
  }
  auto input = takeOutside(words);
  if (!input) words.fail("an input");
  return inputOf([now, input = std::move(input)](Performance& performance) {
    performance.at(now);
    input(performance.speaker());
  });
}

Command resultOfSending(Words& words) {
  auto recorded = std::make_shared<Recorded>();
  SendResult result;
  if (words.taken("done"))
    result.sent = Speaker::Sent::done;
  else if (words.taken("later"))
    result.sent = Speaker::Sent::later;
  else if (words.taken("failed"))
    result.sent = Speaker::Sent::failed;
  else
    words.fail("done, later or failed");
  result.now = takeTime(words);
  if (result.sent == Speaker::Sent::failed) result.reason = takeHexText(words);
  recorded->result = std::move(result);
  return OwnCommand(std::move(recorded));
}

constexpr Form ofRecordings[] = {
    {"live", liveBegins, "seed N hash N random N clock S time MICROSECONDS json | text",
     "the first command: what jpagent run began with"},
    {"at", recordedAt, "S INPUT", "an input, and the clock at it"},
    {"sent", resultOfSending, "done S | later S | failed S HEX",
     "what became of the next packet, and the clock after it"},
};

}  // namespace

OtherConversations recordings() {
  return {.areThese = isRecording,
          .forms = ofRecordings,
          .perform = [](Conversation const& recording, std::ostream& out, Speaker::PacketSink* alsoTo,
                        U64& microseconds) { Performance(recording, out, alsoTo, microseconds).perform(); }};
}

}  // namespace Routing::Pim::Jpagent::Live
