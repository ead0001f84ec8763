// SPDX-License-Identifier: Apache-2.0
// Inputs of a live speaker that are chosen one by one, and their recording: by random numbers in a test, by
// the bytes of an input of a fuzz target.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "jpagent/live/LiveSpeaker.h"

namespace Routing::Pim::Jpagent::Live::Test {

/// A run with any inputs, as a process has one: its own seeds, what is recorded and what is printed.
class ChosenRun final : public LiveOutside {
 public:
  /// A number from 0 to bound - 1, which makes each choice.
  using Choose = std::function<U32(U32 bound)>;

  /// What is written is flushed line by line.
  ChosenRun(Choose choose, bool isJson, std::ostream& record, std::ostream& printed)
      : choose_(std::move(choose)), isJson_(isJson), record_(record), printed_(printed) {
    constexpr U32 most = 0xffffffff;
    LiveSettings settings{.seed = choose_(most),
                          .hashSeed = choose_(most),
                          .randomSeed = static_cast<long>(choose_(most)),
                          .microseconds = 1'795'327'200'123'456,
                          .json = isJson,
                          .record = [this](std::string_view line) { record_ << line << std::endl; }};
    seedProcess(settings);
    now_ = 0.1 * static_cast<double>(choose_(1000));
    speaker_ = std::make_unique<LiveSpeaker>(now_, *this, std::move(settings));
  }

  /// Inputs for as long as there are more, and then the end.
  void play(std::function<bool()> const& more) {
    speaker_->interfaceGiven("eth0");
    speaker_->interfaceGiven("eth1");
    kernel("eth0");
    tell("interface eth0 hello-delay 0.3 interval 2 hello 3");
    while (more()) {
      now_ += static_cast<double>(choose_(1000)) / 1777;
      while (speaker_->timeMin() <= now_) {
        speaker_->nowIs(std::max(speaker_->now(), speaker_->timeMin()));
        speaker_->expire();
      }
      speaker_->nowIs(now_);
      input();
    }
    speaker_->quit(false);
    while (!speaker_->isDone()) {
      speaker_->nowIs(speaker_->timeMin());
      speaker_->expire();
    }
  }

  // Sending takes time, and a system is not always ready.
  SendResult send(Speaker::Outgoing const&) override {
    double const now = speaker_->now() + static_cast<double>(choose_(100)) / 33333;
    switch (choose_(12)) {
      case 0:
        return {.sent = Speaker::Sent::later, .now = now, .reason = {}};
      case 1:
        return {.sent = Speaker::Sent::failed, .now = now, .reason = "Message too long"};
      case 2:
        throw std::runtime_error("the system says \"no\"");
      default:
        return {.sent = Speaker::Sent::done, .now = now, .reason = {}};
    }
  }
  void event(Event const& event) override { print(event); }

 private:
  void print(Event const& event) { printed_ << (isJson_ ? jsonLine(event) : textOf(event)) << std::endl; }

  template <class... One>
  std::string one(One... of) {
    std::string const all[] = {of...};
    return all[choose_(sizeof...(of))];
  }
  void tell(std::string const& line) {
    auto const asker = static_cast<Asker>(choose_(4) % 3);
    auto const reply = speaker_->command(line, asker);
    if (reply && asker == Asker::standardInput) print(reply->event);
  }
  void kernel(std::string const& name) {
    KernelInterface kernel{.addresses = {}, .mtu = choose_(2) ? 1500u : 576u, .isRunning = choose_(5) != 0};
    int const interface = name == "eth0" ? 0 : 1;
    for (auto const& address : {fmt::format("10.0.{}.{}/24", interface, choose_(8) ? 1 : 7),
                                fmt::format("fe80::{}/64", choose_(8) ? 1 : 7), std::string("10.7.0.1/24")})
      if (choose_(6) != 0) kernel.addresses.push_back(*IpGenPrefix::fromText(address));
    speaker_->kernelInterfaceIs(name, kernel);
  }
  void command() {
    auto const group = fmt::format("239.1.1.{}", choose_(20));
    auto const via = one("10.0.0.2", "10.0.0.3", "10.0.1.2", "10.7.0.2", "10.0.0.2%eth0");
    auto const route = one("(10.9.0.1," + group + ")", "(*," + group + ") rp 10.255.0.1",
                           "9 routes from (10.9.0.2," + group + ")");
    auto const rpt = "(10.9.0.1," + group + ",rpt)";
    tell(one("join " + route + " via " + via, "join " + route + " via " + via, "leave " + route,
             "prune " + rpt, "unprune " + rpt, "show upstream", "show downstream", "show neighbors",
             "show interfaces", "show counters",
             "interface eth0 " + one("up", "down", "hello 2", "interval 1", "tracking on"),
             "join (2001:db8::9,ff0e::1) via fe80::2%eth0", "jion \xff \"x\"  y", "# comment", "help",
             "events on"));
  }
  void packet() {
    bool const isIpv4 = choose_(4) != 0;
    auto const name = one("eth0", "eth0", "eth1");
    int const interface = name == "eth0" ? 0 : 1;
    unsigned const host = 2 + choose_(3);
    IpGenAddr const source(isIpv4 ? fmt::format("10.0.{}.{}", interface, host)
                                  : fmt::format("fe80::{}", host));
    IpGenAddr const destination = Wire::allPimRouters(source.af());
    std::vector<U8> bytes;
    if (choose_(2)) {
      Wire::Hello hello;
      if (choose_(2)) hello.generationIdIs(choose_(5) ? 7 : choose_(1000));
      if (choose_(2)) hello.lanPruneDelayIs(Wire::LanPruneDelay{});
      if (choose_(8) == 0) hello.holdTimeIs(static_cast<U16>(choose_(3)));
      if (choose_(4) == 0 && isIpv4) hello.addressAdd(IpGenAddr("10.7.0.2"));
      bytes = Wire::encodeHello(hello, source, destination);
    } else {
      Wire::JoinPrune message(
          IpGenAddr(isIpv4 ? fmt::format("10.0.{}.{}", interface, 1 + choose_(3)) : "fe80::1"),
          static_cast<U16>(1 + choose_(20)));
      message.groupAdd(IpGenAddr(isIpv4 ? fmt::format("239.1.1.{}", choose_(20)) : "ff0e::1"));
      for (int left = 3; left > 0; --left) {
        auto const kind = static_cast<EntryKind>(choose_(6));
        message.entryAdd(kind, IpGenAddr(isIpv4 ? fmt::format("10.9.0.{}", 1 + choose_(3)) : "2001:db8::9"));
      }
      bytes = Wire::encodeJoinPrune(message, source, destination);
    }
    if (choose_(10) == 0) bytes.resize(choose_(static_cast<U32>(bytes.size())));
    speaker_->receive(
        {.intf = name, .source = source, .destination = destination, .ttl = choose_(20) ? 1u : 2u}, bytes);
  }
  void input() {
    switch (choose_(12)) {
      case 0:
        return kernel(one("eth0", "eth1"));
      case 1:
        switch (choose_(7)) {
          case 0:
            return speaker_->kernelInterfaceDel("eth1");
          case 1:
            return speaker_->policyIs({"239.1.0.0/16=10.255.0.1"}, {"239.1.1.3"});
          case 2:
            return speaker_->error("--pcap\nfile", "No space left on device");
          case 3:
            return speaker_->counterIs("drops of eth0", choose_(1000));
          case 4: {
            auto const reply = speaker_->refuseCommand("long\x01", "too long");
            return print(reply.event);
          }
          case 5:
            return speaker_->interfaceTaken("eth1");
          default:
            return speaker_->interfaceGiven("eth1");
        }
      case 2:
      case 3:
      case 4:
      case 5:
        return command();
      default:
        return packet();
    }
  }

  Choose const choose_;
  bool const isJson_;
  std::ostream& record_;
  std::ostream& printed_;
  Seconds now_ = 0;
  std::unique_ptr<LiveSpeaker> speaker_;
};

}  // namespace Routing::Pim::Jpagent::Live::Test
