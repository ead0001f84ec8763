#include "agent/Capture.h"

#include <fmt/format.h>
#include <pcap/pcap.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>

namespace Routing::Pim::Agent {

namespace {

constexpr int snapLength = 65535;

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
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
  if (!file) failWithErrno(path);
  struct stat status;
  if (fstat(fileno(file.get()), &status) != 0) failWithErrno(path);
  if (S_ISDIR(status.st_mode)) fail(path, std::strerror(EISDIR));
  if (S_ISREG(status.st_mode) && status.st_size == 0) fail(path, "the file is empty");

  char error[PCAP_ERRBUF_SIZE] = "";
  pcap_.reset(pcap_fopen_offline_with_tstamp_precision(file.get(), PCAP_TSTAMP_PRECISION_NANO, error));
  if (!pcap_) fail(path, fmt::format("not a capture: {}", error));
  file.release();

  auto const link = linkOf(pcap_datalink(pcap_.get()));
  if (!link) fail(path, fmt::format("link type {} is not supported", linkName(pcap_datalink(pcap_.get()))));
  link_ = *link;
}

Capture::~Capture() = default;

bool Capture::next(Frame& frame) {
  pcap_pkthdr* header = nullptr;
  u_char const* bytes = nullptr;
  int const result = pcap_next_ex(pcap_.get(), &header, &bytes);
  if (result == PCAP_ERROR_BREAK) return false;
  if (result != 1) fail(path_, fmt::format("after frame {}: {}", number_, pcap_geterr(pcap_.get())));
  if (number_ == 0) {
    firstSeconds_ = header->ts.tv_sec;
    firstNanoseconds_ = header->ts.tv_usec;
  }
  frame.number = ++number_;
  frame.time = elapsed(header->ts.tv_sec, header->ts.tv_usec, firstSeconds_, firstNanoseconds_);
  frame.bytes = {bytes, header->caplen};
  frame.link = link_;
  return true;
}

CaptureWriter::CaptureWriter(std::string const& path)
    : path_(path),
      pcap_(pcap_open_dead(DLT_EN10MB, snapLength), pcap_close),
      dumper_(nullptr, pcap_dump_close) {
  if (!pcap_) fail(path, "out of memory");
  dumper_.reset(pcap_dump_open(pcap_.get(), path.c_str()));
  if (!dumper_) throw CaptureError(pcap_geterr(pcap_.get()));
}

CaptureWriter::~CaptureWriter() = default;

void CaptureWriter::frameAdd(U64 microseconds, std::span<U8 const> bytes) {
  pcap_pkthdr header = {};
  header.ts.tv_sec = static_cast<time_t>(microseconds / 1'000'000);
  header.ts.tv_usec = static_cast<suseconds_t>(microseconds % 1'000'000);
  header.caplen = header.len = static_cast<bpf_u_int32>(bytes.size());
  pcap_dump(reinterpret_cast<u_char*>(dumper_.get()), &header, bytes.data());
}

void CaptureWriter::close() {
  // pcap_dump() tells nobody that the disk is full; the stream remembers.
  bool const written = pcap_dump_flush(dumper_.get()) == 0 && !std::ferror(pcap_dump_file(dumper_.get()));
  int const error = errno;
  dumper_.reset();
  if (!written) fail(path_, std::strerror(error));
}

}  // namespace Routing::Pim::Agent
