// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/LiveOutput.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "jpagent/capture/FrameBuilder.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Jpagent::Live {

LiveOutput::LiveOutput(Loop& loop, std::string name, int descriptor, bool isOwnFile)
    : loop_(loop), name_(std::move(name)), descriptor_(descriptor), isOwnFile_(isOwnFile) {}

void LiveOutput::add(std::string_view bytes) {
  if (hasFailed() || bytes.empty()) return;
  if (pending_.size() > mostPending) return fail("the reader does not read");
  pending_.add(bytes);
  added_ += bytes.size();
  ends_.push_back(added_);
}

void LiveOutput::flush() {
  if (hasFailed()) return;
  int const error = pending_.writeTo(descriptor_);
  U64 const written = added_ - pending_.size();
  for (; !ends_.empty() && ends_.front() <= written; ends_.pop_front()) whole_ = ends_.front();
  if (error != 0) return fail(std::strerror(error));
  if (pending_.size() == 0) return watch_.reset();
  if (watch_) return;
  watch_.emplace(loop_.uv(), descriptor_, [this] { flush(); });
  watch_->eventsAre(UV_WRITABLE);
}

void LiveOutput::fail(std::string reason) {
  reason_ = std::move(reason);
  watch_.reset();
  // A reader of a file finds whole records only.
  struct stat status;
  if (isOwnFile_ && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode)) {
    [[maybe_unused]] int const cut = ftruncate(descriptor_, static_cast<off_t>(whole_));
  }
  pending_ = {};
}

std::string LiveOutput::takeFailure() { return std::exchange(isTold_, hasFailed()) ? "" : reason_; }

bool LiveOutput::finish(Seconds patience) {
  Seconds const until = monotonicSeconds() + patience;
  for (flush(); pending_.size() > 0 && monotonicSeconds() < until; flush()) {
    pollfd ready{descriptor_, POLLOUT, 0};
    poll(&ready, 1, 100);
  }
  watch_.reset();
  if (pending_.size() > 0) fail("the reader does not read");
  return !hasFailed();
}

LiveFile::LiveFile(Loop& loop, std::string const& path, std::string_view first)
    : file_(path, Scrivo::OutputFile::Use::stream), output_(loop, path, file_.descriptor(), true) {
  output_.add(first);
  output_.flush();
  if (output_.hasFailed()) throw Vel::RangeException(path + ": " + output_.takeFailure());
  file_.name();
}

bool LiveFile::close(Seconds patience) {
  if (!output_.finish(patience)) return false;
  file_.commit();
  return true;
}

namespace {

template <class Value>
void put(std::string& to, Value const& value) {
  to.append(reinterpret_cast<char const*>(&value), sizeof value);
}

}  // namespace

std::string captureHeader() {
  constexpr bpf_u_int32 microsecondCapture = 0xa1b2c3d4, snapLength = 65536, rawIp = 101;
  std::string header;
  put(header,
      pcap_file_header{microsecondCapture, PCAP_VERSION_MAJOR, PCAP_VERSION_MINOR, 0, 0, snapLength, rawIp});
  return header;
}

std::string capturedPacket(U64 microseconds, Speaker::Incoming const& packet, std::span<U8 const> message) {
  auto const datagram =
      ipDatagram(packet.source, packet.destination, Wire::pimProtocol, message, static_cast<U8>(packet.ttl));
  std::string record;
  for (U64 const number :
       {microseconds / 1'000'000, microseconds % 1'000'000, U64{datagram.size()}, U64{datagram.size()}})
    put(record, static_cast<bpf_u_int32>(number));
  return record.append(reinterpret_cast<char const*>(datagram.data()), datagram.size());
}

}  // namespace Routing::Pim::Jpagent::Live
