// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/LiveOutputs.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>

#include "jpagent/common/Ending.h"
#include "jpagent/live/Notify.h"
#include "runtime/scrivo/TraceFile.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Jpagent::Live {

namespace {

constexpr Seconds patience = 2;  // with readers, at the end

}  // namespace

U64 wallMicroseconds() {
  auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<U64>(std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

LiveOutputs::LiveOutputs(Loop& loop, RunOptions const& options)
    : loop_(loop),
      options_(options),
      stdout_(loop, "standard output", STDOUT_FILENO),
      stderr_(loop, "standard error", STDERR_FILENO) {
  if (!options_.recordFile.empty()) record_.emplace(loop_, options_.recordFile, "");
  openPcap();
  openScrivo();
  Vel::traceSinkIs([this](Vel::TraceLine const& trace) {
    auto const line = fmt::format("{}[{}] {}", trace.handle, trace.level, trace.text);
    if (options_.log != "journald" || !writeToJournal(debug, line)) stderr_.add(line + '\n');
  });
}

LiveOutputs::~LiveOutputs() {
  Vel::traceSinkIs({});
  Scrivo::TraceFile::close();
}

void LiveOutputs::openPcap() {
  if (!options_.pcapFile.empty()) pcap_.emplace(loop_, options_.pcapFile, captureHeader());
}

void LiveOutputs::openScrivo() {
  if (options_.scrivoFile.empty()) return;
  traceFileIs(options_.scrivoFile);
  Scrivo::TraceFile::open(options_.scrivoFile);
}

void LiveOutputs::reopen() {
  if (pcap_ && !pcap_->close(0)) hasFailed_ = true;
  pcap_.reset();
  openPcap();
  openScrivo();
}

void LiveOutputs::log(int priority, std::string_view line) {
  if (options_.log.empty() || (options_.log == "journald" && writeToJournal(priority, line))) return;
  stderr_.add(std::string(line) + '\n');
}

void LiveOutputs::capture(Speaker::Incoming const& packet, std::span<U8 const> message) {
  if (pcap_) pcap_->output().add(capturedPacket(wallMicroseconds(), packet, message));
}

void LiveOutputs::record(std::string_view line) {
  record_->output().add(std::string(line) + '\n');
  record_->output().flush();
}

std::vector<LiveOutput*> LiveOutputs::all() {
  std::vector<LiveOutput*> outputs{&stdout_, &stderr_};
  for (auto* const file : {&pcap_, &record_})
    if (*file) outputs.push_back(&(*file)->output());
  return outputs;
}

void LiveOutputs::flush() {
  for (auto* const output : all()) output->flush();
}

void LiveOutputs::takeFailures(
    std::function<void(std::string const& name, std::string const& reason)> const& failed) {
  for (auto* const output : all()) {
    auto const reason = output->takeFailure();
    if (reason.empty()) continue;
    hasFailed_ = true;
    failed(output->name(), reason);
  }
}

bool LiveOutputs::finish() {
  for (auto* const file : {&pcap_, &record_})
    if (*file && !(*file)->close(patience)) hasFailed_ = true;
  for (auto* const output : {&stdout_, &stderr_})
    if (!output->finish(patience)) hasFailed_ = true;
  takeFailures([](std::string const& name, std::string const& reason) {
    cannot(fmt::format("{}: {}", name, reason));
  });
  return !hasFailed_;
}

}  // namespace Routing::Pim::Jpagent::Live
