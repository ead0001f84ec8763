// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/Recording.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "jpagent/simulate/Words.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

constexpr std::string_view sentNames[] = {"done", "later", "failed"};

}  // namespace

std::vector<std::string> recordingHead(Seconds now, LiveSettings const& settings) {
  return {"# Recorded by jpagent run.",
          fmt::format("live seed {} hash {} random {} clock {} time {} {}", settings.seed, settings.hashSeed,
                      settings.randomSeed, now, settings.microseconds, settings.json ? "json" : "text")};
}

std::string kernelInput(std::string_view name, KernelInterface const& kernel) {
  auto text = fmt::format("kernel {} mtu {} {}{}", name, kernel.mtu, kernel.isRunning ? "running" : "stopped",
                          kernel.pointToPoint ? " point-to-point" : "");
  for (auto const& prefix : kernel.addresses)
    text += fmt::format(" {}/{}", toText(prefix.ipGenAddr()), prefix.length());
  return text;
}

std::string packetInput(Speaker::Incoming const& packet, std::span<U8 const> bytes) {
  return fmt::format("packet {} from {} to {} ttl {} {}", packet.intf, toText(packet.source),
                     toText(packet.destination), packet.ttl, hexOf(bytes));
}

std::string commandInput(std::string_view line, Asker asker) {
  return fmt::format("{} {}", askerNames[static_cast<std::size_t>(asker)], line);
}

std::string policyInput(std::vector<std::string> const& rps, std::vector<std::string> const& denied) {
  std::string text = "policy";
  for (auto const& rp : rps) text += " rp " + rp;
  for (auto const& groups : denied) text += " deny " + groups;
  return text;
}

std::string resultInput(SendResult const& result, Seconds now) {
  auto text = fmt::format("sent {} {}", sentNames[static_cast<std::size_t>(result.sent)], now);
  if (result.sent == Speaker::Sent::failed) text += ' ' + hexOf(result.reason);
  return text;
}

bool isRecording(std::string_view text) {
  while (!text.empty()) {
    auto const end = std::min(text.find('\n'), text.size());
    auto const line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == '#') continue;
    return line == "live" || line.starts_with("live ");
  }
  return false;
}

std::string hexOf(std::span<U8 const> bytes) {
  return bytes.empty() ? "-" : fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string hexOf(std::string_view text) {
  return hexOf(std::span<U8 const>(reinterpret_cast<U8 const*>(text.data()), text.size()));
}

}  // namespace Routing::Pim::Jpagent::Live
