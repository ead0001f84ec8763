// SPDX-License-Identifier: Apache-2.0
#include "jpagent/capture/Capture.h"

#include <fmt/format.h>
#include <pcap/pcap.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace Routing::Pim::Jpagent {

namespace {

constexpr int snapLength = 65535;

constexpr int linkTypeRaw = 101;

// What a section of pcapng begins with. No pcap file begins with this byte.
constexpr int firstOfPcapng = 0x0a;

struct KnownLink {
  int number;
  LinkType link;
};

constexpr KnownLink knownLinks[] = {
    {DLT_EN10MB, LinkType::ethernet},
    {DLT_RAW, LinkType::rawIp},
    {DLT_IPV4, LinkType::rawIp},
    {DLT_IPV6, LinkType::rawIp},
    {DLT_LINUX_SLL, LinkType::linuxCooked},
    {DLT_LINUX_SLL2, LinkType::linuxCooked2},
    {DLT_PPP, LinkType::ppp},
    {DLT_PPP_SERIAL, LinkType::ppp},
    // In pcapng files, where libpcap does not translate it.
    {linkTypeRaw, LinkType::rawIp},
};

std::optional<LinkType> linkOf(int number) {
  for (auto const& known : knownLinks) {
    if (known.number == number) return known.link;
  }
  return std::nullopt;
}

std::string linkName(int number) {
  char const* const name = pcap_datalink_val_to_name(number);
  return name ? fmt::format("{} ({})", name, number) : fmt::format("{}", number);
}

[[noreturn]] void fail(std::string const& path, std::string const& what) {
  throw CaptureError(fmt::format("{}: {}", path, what));
}

[[noreturn]] void failOfLink(std::string const& path, int number) {
  fail(path, fmt::format("link type {} is not supported", linkName(number)));
}

[[noreturn]] void failWithErrno(std::string const& path) { fail(path, std::strerror(errno)); }

// Seconds are any 64 bits in a damaged file, so the difference must not overflow, and for sane ones must be
// exact to the nanosecond: a sum of two rounded numbers would not print as it was written.
Vel::Seconds elapsed(long long seconds, long long nanoseconds, long long firstSeconds,
                     long long firstNanoseconds) {
  constexpr long long perSecond = 1'000'000'000;
  long long difference;
  if (__builtin_sub_overflow(seconds, firstSeconds, &difference) ||
      __builtin_mul_overflow(difference, perSecond, &difference) ||
      __builtin_add_overflow(difference, nanoseconds - firstNanoseconds, &difference)) {
    return static_cast<double>(seconds) - static_cast<double>(firstSeconds);
  }
  return static_cast<double>(difference) / perSecond;
}

}  // namespace

Capture::Capture(std::string const& path) : path_(path), pcap_(nullptr, pcap_close) {
  PcapngReader::File file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) failWithErrno(path);
  struct stat status;
  if (fstat(fileno(file.get()), &status) != 0) failWithErrno(path);
  if (S_ISDIR(status.st_mode)) fail(path, std::strerror(EISDIR));
  if (S_ISREG(status.st_mode) && status.st_size == 0) fail(path, "the file is empty");

  if (S_ISREG(status.st_mode)) size_ = static_cast<U64>(status.st_size);

  int const firstByte = std::fgetc(file.get());
  if (firstByte != EOF) std::ungetc(firstByte, file.get());
  if (firstByte == firstOfPcapng) {
    try {
      pcapng_ = std::make_unique<PcapngReader>(std::move(file));
    } catch (PcapngError const& e) {
      fail(path, fmt::format("not a capture: {}", e.what()));
    }
    return;
  }

  char error[PCAP_ERRBUF_SIZE] = "";
  errno = 0;
  pcap_.reset(pcap_fopen_offline_with_tstamp_precision(file.get(), PCAP_TSTAMP_PRECISION_NANO, error));
  if (!pcap_ && errno == ENOMEM) failWithErrno(path);
  if (!pcap_) fail(path, fmt::format("not a capture: {}", error));
  file.release();

  auto const link = linkOf(pcap_datalink(pcap_.get()));
  if (!link) failOfLink(path, pcap_datalink(pcap_.get()));
  link_ = *link;
}

Capture::~Capture() = default;

U64 Capture::bytesRead() const {
  long const at = pcapng_ ? pcapng_->position() : std::ftell(pcap_file(pcap_.get()));
  return at < 0 ? 0 : static_cast<U64>(at);
}

bool Capture::next(Frame& frame) { return pcapng_ ? nextOfPcapng(frame) : nextOfPcap(frame); }

bool Capture::nextOfPcap(Frame& frame) {
  pcap_pkthdr* header = nullptr;
  u_char const* bytes = nullptr;
  errno = 0;
  int const result = pcap_next_ex(pcap_.get(), &header, &bytes);
  if (result == PCAP_ERROR_BREAK) return false;
  if (result != 1 && errno == ENOMEM) failWithErrno(path_);
  if (result != 1) fail(path_, fmt::format("after frame {}: {}", number_, pcap_geterr(pcap_.get())));
  frame.number = ++number_;
  frame.time = sinceFirst(header->ts.tv_sec, header->ts.tv_usec);
  frame.bytes = {bytes, header->caplen};
  frame.link = link_;
  return true;
}

bool Capture::nextOfPcapng(Frame& frame) {
  PcapngReader::Packet packet;
  try {
    if (!pcapng_->next(packet)) {
      if (unknownLink_ && !anyKnownLink_) failOfLink(path_, *unknownLink_);
      return false;
    }
  } catch (PcapngError const& e) {
    fail(path_, fmt::format("after frame {}: {}", number_, e.what()));
  }
  auto const link = linkOf(packet.linkType);
  if (link)
    anyKnownLink_ = true;
  else
    unknownLink_ = packet.linkType;
  frame.number = ++number_;
  // A packet without a time is taken to come with the one before it.
  if (packet.hasTime) time_ = sinceFirst(packet.seconds, packet.nanoseconds);
  frame.time = time_;
  frame.bytes = packet.bytes;
  frame.link = link.value_or(LinkType::unknown);
  return true;
}

Vel::Seconds Capture::sinceFirst(long long seconds, long long nanoseconds) {
  if (!hasFirstTime_) {
    hasFirstTime_ = true;
    firstSeconds_ = seconds;
    firstNanoseconds_ = nanoseconds;
  }
  return elapsed(seconds, nanoseconds, firstSeconds_, firstNanoseconds_);
}

namespace {

template <class Value>
void put(std::ostream& out, Value const& value) {
  out.write(reinterpret_cast<char const*>(&value), sizeof value);
}

}  // namespace

CaptureWriter::CaptureWriter(std::string const& path) : output_(path) {
  constexpr bpf_u_int32 microsecondCapture = 0xa1b2c3d4;
  put(output_, pcap_file_header{microsecondCapture, PCAP_VERSION_MAJOR, PCAP_VERSION_MINOR, 0, 0, snapLength,
                                DLT_EN10MB});
}

void CaptureWriter::frameAdd(U64 microseconds, std::span<U8 const> bytes) {
  // In a file the header of a frame has four numbers of 32 bits: the time, and twice the length.
  auto const length = static_cast<bpf_u_int32>(bytes.size());
  for (U64 const number : {microseconds / 1'000'000, microseconds % 1'000'000})
    put(output_, static_cast<bpf_u_int32>(number));
  put(output_, length);
  put(output_, length);
  output_.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace Routing::Pim::Jpagent
