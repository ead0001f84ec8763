// SPDX-License-Identifier: Apache-2.0
// A live speaker in a test: its clock, what it sends, its events and its recording. Each event and reply is
// also kept for the check against docs/live-events.schema.json at the end of the program.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "jpagent/live/LiveSpeaker.h"
#include "tests/jpagent/live/Messages.h"

namespace Routing::Pim::Jpagent::Live::Test {

/// Keeps a line for the check.
void schemaLineIs(std::string const& line);

class LiveScene : public testing::Test, public LiveOutside {
 protected:
  static constexpr Seconds beginning = 1000;

  LiveScene() { start(); }

  void start(U64 seed = 1) {
    now_ = beginning;
    events_.clear();
    record_.clear();
    // 2026-11-22T06:00:00Z.
    LiveSettings settings{.seed = seed,
                          .microseconds = 1'795'327'200'000'000,
                          .json = true,
                          .record = [this](std::string_view line) { record_.emplace_back(line); }};
    speaker_ = std::make_unique<LiveSpeaker>(now_, *this, std::move(settings));
  }

  // --- What happens

  void kernel(std::string const& name, std::vector<std::string> const& addresses, U32 mtu = 1500,
              bool isRunning = true) {
    KernelInterface kernel{.addresses = {}, .mtu = mtu, .isRunning = isRunning};
    for (auto const& text : addresses) kernel.addresses.push_back(*IpGenPrefix::fromText(text));
    speaker_->kernelInterfaceIs(name, kernel);
  }
  /// An interface that was given, is up, and whose first Hello was sent.
  void interface(std::string const& name = "eth0",
                 std::vector<std::string> const& addresses = {"10.0.0.1/24"}) {
    speaker_->interfaceGiven(name);
    ok("interface " + name + " hello-delay 0");
    kernel(name, addresses);
    pass(0.001);
  }
  void passTo(Seconds time) {
    while (speaker_->timeMin() <= time) {
      now_ = std::max(now_, speaker_->timeMin());
      speaker_->nowIs(now_);
      speaker_->expire();
    }
    now_ = std::max(now_, time);
    speaker_->nowIs(now_);
  }
  void pass(Seconds seconds) { passTo(now_ + seconds); }

  Speaker::Verdict receive(std::string_view intf, std::string_view from, std::span<U8 const> bytes,
                           unsigned ttl = 1) {
    IpGenAddr const source(from);
    return speaker_->receive(
        {.intf = intf, .source = source, .destination = Wire::allPimRouters(source.af()), .ttl = ttl}, bytes);
  }
  void hello(std::string_view from, Hellos const& said = {}, std::string_view intf = "eth0") {
    receive(intf, from, helloOf(IpGenAddr(from), said));
  }
  void joinPrune(std::string_view from, std::string_view to, std::vector<Entry> const& entries,
                 U16 hold = 210, std::string_view intf = "eth0") {
    receive(intf, from, joinPruneOf(IpGenAddr(from), IpGenAddr(to), entries, hold));
  }

  // --- Commands

  Json command(std::string_view line) {
    auto const reply = speaker_->command(line);
    if (!reply) return nullptr;
    schemaLineIs(jsonLine(reply->event));
    EXPECT_EQ(reply->ok, reply->event.members["ok"].get<bool>());
    return reply->event.members;
  }
  void ok(std::string_view line) {
    Json const reply = command(line);
    EXPECT_TRUE(reply["ok"].get<bool>()) << reply;
  }
  std::string error(std::string_view line) {
    Json const reply = command(line);
    EXPECT_FALSE(reply["ok"].get<bool>()) << reply;
    return reply.value("error", "");
  }
  Json show(std::string_view what) { return command("show " + std::string(what))["result"]; }
  U64 counter(std::string_view name) {
    for (auto const& row : show("counters"))
      if (row["name"] == name) return row["value"];
    ADD_FAILURE() << "no counter " << name;
    return 0;
  }

  // --- What comes out

  /// The events since the last time, without their times; of one kind only if it is named.
  std::vector<std::string> take(std::string_view kind = {}) {
    std::vector<std::string> taken;
    for (auto const& event : std::exchange(events_, {})) {
      if (!kind.empty() && event["event"] != kind) continue;
      Json one = event;
      one.erase("time");
      taken.push_back(one.dump());
    }
    return taken;
  }
  /// The packets since the last time: "eth0 10.0.0.1: hello", "goodbye", "join/prune".
  std::vector<std::string> takeSent() { return std::exchange(sent_, {}); }

  SendResult send(Speaker::Outgoing const& packet) override {
    SendResult const result =
        onSend_ ? onSend_(packet) : SendResult{.sent = Speaker::Sent::done, .now = now_, .reason = {}};
    std::string what = "join/prune";
    if (Wire::isPimType(packet.bytes, Wire::PimType::hello)) {
      auto const decoded = Wire::decodeHello(packet.bytes, packet.source, packet.destination);
      latestHello_ = std::get<Wire::Hello>(decoded);
      what = latestHello_.holdTime() == 0 ? "goodbye" : "hello";
    }
    if (result.sent == Speaker::Sent::done)
      sent_.push_back(packet.intf.name() + " " + toText(packet.source) + ": " + what);
    return result;
  }
  void event(Event const& event) override {
    schemaLineIs(jsonLine(event));
    EXPECT_EQ(textOf(event).find('\n'), std::string::npos);
    events_.push_back(event.members);
  }

  Seconds now_ = beginning;
  std::vector<Json> events_;
  std::vector<std::string> sent_, record_;
  Wire::Hello latestHello_;
  std::function<SendResult(Speaker::Outgoing const&)> onSend_;
  std::unique_ptr<LiveSpeaker> speaker_;
};

}  // namespace Routing::Pim::Jpagent::Live::Test
