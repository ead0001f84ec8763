#include "agent/PimMessage.h"

#include <fmt/format.h>

#include <algorithm>

#include "agent/Cursor.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Agent {

namespace {

constexpr U8 pimVersion = 2;
constexpr std::size_t headerSize = 4;
constexpr std::size_t maxPayload = 65535 - 20;  // What an IPv4 datagram leaves after its smallest header.

// The numbers of address families on the wire (RFC 7761, 4.9.1).
constexpr U8 wireIpv4 = 1, wireIpv6 = 2;
constexpr U8 nativeEncoding = 0;

constexpr U8 wildcardBit = 2, rptBit = 1;

U8 wireFamily(AddressFamily family) { return family == AddressFamily::ipv4 ? wireIpv4 : wireIpv6; }
std::size_t addressSize(AddressFamily family) { return family == AddressFamily::ipv4 ? 4 : 16; }
std::size_t encodedUnicastSize(AddressFamily family) { return 2 + addressSize(family); }
std::size_t encodedGroupSize(AddressFamily family) { return 4 + addressSize(family); }
std::size_t encodedSourceSize(AddressFamily family) { return 4 + addressSize(family); }

void require(std::optional<Reason> fault) {
  if (fault) throw Vel::RangeException(std::string(text(*fault)));
}

// The ones' complement sum of 16-bit words, an odd byte padded with zero.
U64 sumOf(std::span<U8 const> bytes) {
  U64 sum = 0;
  std::size_t const even = bytes.size() & ~std::size_t{1};
  for (std::size_t i = 0; i < even; i += 2) sum += static_cast<U32>(bytes[i] << 8 | bytes[i + 1]);
  if (even != bytes.size()) sum += static_cast<U32>(bytes[even] << 8);
  return sum;
}

class Decoder {
 public:
  Decoder(std::span<U8 const> bytes, AddressFamily family) : in_(bytes), family_(family) {}

  std::variant<WireMessage, Refusal> message() {
    if (!decode()) return std::move(*refusal_);
    return std::move(*message_);
  }

 private:
  bool decode() {
    if (!in_.skip(headerSize)) return truncated("PIM header");
    IpGenAddr upstream;
    if (!unicast("upstream neighbor", upstream)) return false;
    if (auto fault = upstreamFault(upstream)) return refuse(*fault, toText(upstream));
    U8 reserved, groups;
    U16 holdTime;
    if (!in_.read(reserved) || !in_.read(groups) || !in_.read(holdTime)) return truncated("hold time");
    message_.emplace(upstream, holdTime);
    for (unsigned i = 0; i < groups; ++i) {
      if (in_.left() == 0) return refuse(Reason::wrongCount, fmt::format("{} of {} groups", i, groups));
      if (!groupSet()) return false;
    }
    if (in_.left() != 0)
      return refuse(Reason::leftOver, fmt::format("{} at byte {}", in_.left(), in_.offset()));
    return true;
  }

  bool groupSet() {
    IpGenAddr group;
    U8 flags;
    if (!masked("group", Reason::groupMaskNotFull, flags, group)) return false;
    if (auto fault = groupFault(group, family_)) return refuse(*fault, toText(group));
    U16 joins, prunes;
    if (!in_.read(joins) || !in_.read(prunes)) return truncated("counts of sources");
    // Asked before the first source: with a count too high, what follows the sources would be taken for one.
    if ((std::size_t{joins} + prunes) * encodedSourceSize(family_) > in_.left()) {
      return refuse(Reason::wrongCount,
                    fmt::format("{} joins and {} prunes in {} bytes", joins, prunes, in_.left()));
    }
    message_->groupAdd(group);
    return sources(joins, &WireMessage::joinAdd) && sources(prunes, &WireMessage::pruneAdd);
  }

  bool sources(U16 count, void (WireMessage::*add)(SourceKind, IpGenAddr const&)) {
    for (unsigned i = 0; i < count; ++i) {
      IpGenAddr address;
      U8 flags;
      if (!masked("source", Reason::sourceMaskNotFull, flags, address)) return false;
      if (auto fault = sourceFault(address, family_)) return refuse(*fault, toText(address));
      bool const wildcard = flags & wildcardBit, rpt = flags & rptBit;
      if (wildcard && !rpt) return refuse(Reason::wildcardWithoutRpt, toText(address));
      ((*message_).*add)(wildcard ? SourceKind::wildcard
                         : rpt    ? SourceKind::sourceRpt
                                  : SourceKind::source,
                         address);
    }
    return true;
  }

  bool unicast(std::string_view what, IpGenAddr& address) {
    return familyAndEncoding(what) && addressBytes(what, address);
  }

  // Encoded-Group and Encoded-Source addresses have one layout.
  bool masked(std::string_view what, Reason notFull, U8& flags, IpGenAddr& address) {
    U8 length;
    if (!familyAndEncoding(what)) return false;
    if (!in_.read(flags) || !in_.read(length)) return truncated(what);
    if (!addressBytes(what, address)) return false;
    if (length > address.width()) {
      return refuse(Reason::maskTooLong, fmt::format("{} {}/{}", what, toText(address), length));
    }
    if (length < address.width()) return refuse(notFull, fmt::format("{}/{}", toText(address), length));
    return true;
  }

  bool familyAndEncoding(std::string_view what) {
    std::size_t const at = in_.offset();
    U8 family, encoding;
    if (!in_.read(family)) return truncated(what);
    if (family != wireIpv4 && family != wireIpv6) {
      return refuse(Reason::unknownFamily, fmt::format("{} of {} at byte {}", family, what, at));
    }
    if (!in_.read(encoding)) return truncated(what);
    if (encoding != nativeEncoding) {
      return refuse(Reason::unknownEncoding, fmt::format("{} of {} at byte {}", encoding, what, at + 1));
    }
    if (family == wireFamily(family_)) return true;
    return refuse(Reason::familiesDiffer, fmt::format("{} of {} at byte {}", family, what, at));
  }

  bool addressBytes(std::string_view what, IpGenAddr& address) {
    std::span<U8 const> bytes;
    if (!in_.read(addressSize(family_), bytes)) return truncated(what);
    address = IpGenAddr::fromBytes(bytes);
    return true;
  }

  bool truncated(std::string_view what) { return refuse(Reason::truncated, fmt::format("in the {}", what)); }

  bool refuse(Reason reason, std::string detail) {
    refusal_ = Refusal{reason, std::move(detail)};
    return false;
  }

  Cursor in_;
  AddressFamily family_;
  std::optional<WireMessage> message_;
  std::optional<Refusal> refusal_;
};

class Writer {
 public:
  explicit Writer(std::size_t size) { bytes_.reserve(size); }

  void u8(U8 value) { bytes_.push_back(value); }
  void u16(std::size_t value) {
    u8(static_cast<U8>(value >> 8));
    u8(static_cast<U8>(value));
  }

  void unicast(IpGenAddr const& address) {
    family(address);
    addressBytes(address);
  }

  void masked(U8 flags, IpGenAddr const& address) {
    family(address);
    u8(flags);
    u8(address.width());
    addressBytes(address);
  }

  std::vector<U8>& bytes() { return bytes_; }

 private:
  void family(IpGenAddr const& address) {
    u8(wireFamily(address.af()));
    u8(nativeEncoding);
  }

  void addressBytes(IpGenAddr const& address) {
    auto const raw = address.bytes();
    bytes_.insert(bytes_.end(), raw.begin(), raw.end());
  }

  std::vector<U8> bytes_;
};

}  // namespace

IpGenAddr allPimRouters(AddressFamily family) {
  return IpGenAddr(family == AddressFamily::ipv4 ? "224.0.0.13" : "ff02::d");
}

bool isMulticast(IpGenAddr const& address) {
  if (address.isIpv4()) return address.bytes()[0] >> 4 == 0xe;
  return address.isIpv6() && address.bytes()[0] == 0xff;
}

std::optional<Reason> upstreamFault(IpGenAddr const& address) {
  if (address.width() == 0) return Reason::unknownFamily;
  if (isMulticast(address)) return Reason::upstreamNotUnicast;
  return std::nullopt;
}

std::optional<Reason> groupFault(IpGenAddr const& group, AddressFamily family) {
  if (group.af() != family) return Reason::familiesDiffer;
  if (!isMulticast(group)) return Reason::groupNotMulticast;
  return std::nullopt;
}

std::optional<Reason> sourceFault(IpGenAddr const& address, AddressFamily family) {
  if (address.af() != family) return Reason::familiesDiffer;
  if (address.isZero() || isMulticast(address)) return Reason::sourceNotUnicast;
  return std::nullopt;
}

WireMessage::WireMessage(IpGenAddr const& upstreamNeighbor, U16 holdTime)
    : upstreamNeighbor_(upstreamNeighbor), holdTime_(holdTime) {
  require(upstreamFault(upstreamNeighbor));
}

void WireMessage::groupAdd(IpGenAddr const& group) {
  require(groupFault(group, family()));
  if (groups_.size() == maxGroups) require(Reason::wrongCount);
  groups_.push_back(WireGroup(group));
}

void WireMessage::joinAdd(SourceKind kind, IpGenAddr const& address) {
  sourceAdd(openGroup().joins_, kind, address);
}

void WireMessage::pruneAdd(SourceKind kind, IpGenAddr const& address) {
  sourceAdd(openGroup().prunes_, kind, address);
}

WireGroup& WireMessage::openGroup() {
  if (groups_.empty()) throw Vel::RangeException("a source needs a group");
  return groups_.back();
}

void WireMessage::sourceAdd(std::vector<WireSource>& list, SourceKind kind, IpGenAddr const& address) {
  require(sourceFault(address, family()));
  if (list.size() == maxSources) require(Reason::wrongCount);
  list.push_back({kind, address});
}

std::size_t WireMessage::encodedSize() const {
  std::size_t size = headerSize + encodedUnicastSize(family()) + 4;
  for (auto const& group : groups_) {
    size += encodedGroupSize(family()) + 4 +
            (group.joins_.size() + group.prunes_.size()) * encodedSourceSize(family());
  }
  return size;
}

U16 pimChecksum(std::span<U8 const> message, IpGenAddr const& source, IpGenAddr const& destination) {
  U64 sum = sumOf(message);
  if (source.isIpv6())
    sum += sumOf(source.bytes()) + sumOf(destination.bytes()) + message.size() + pimProtocol;
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U16>(~sum);
}

bool isPimType(std::span<U8 const> message, PimType type) {
  return !message.empty() && message[0] == (pimVersion << 4 | static_cast<U8>(type));
}

std::variant<WireMessage, Refusal> decodeJoinPrune(std::span<U8 const> bytes, IpGenAddr const& source,
                                                   IpGenAddr const& destination) {
  if (bytes.size() < headerSize) return Refusal{Reason::truncated, "in the PIM header"};
  if (!isPimType(bytes, PimType::joinPrune)) {
    return Refusal{Reason::notJoinPrune, fmt::format("version {}, type {}", bytes[0] >> 4, bytes[0] & 15)};
  }
  if (pimChecksum(bytes, source, destination) != 0) {
    std::vector<U8> zeroed(bytes.begin(), bytes.end());
    zeroed[2] = zeroed[3] = 0;
    return Refusal{Reason::badChecksum, fmt::format("0x{:02x}{:02x}, computed 0x{:04x}", bytes[2], bytes[3],
                                                    pimChecksum(zeroed, source, destination))};
  }
  return Decoder(bytes, source.af()).message();
}

std::vector<U8> encodeJoinPrune(WireMessage const& message, IpGenAddr const& source,
                                IpGenAddr const& destination) {
  if (source.af() != message.family() || destination.af() != message.family()) {
    require(Reason::familiesDiffer);
  }
  std::size_t const size = message.encodedSize();
  if (size > maxPayload) throw Vel::RangeException(fmt::format("{} bytes do not fit an IP datagram", size));
  Writer out(size);
  out.u8(pimVersion << 4 | static_cast<U8>(PimType::joinPrune));
  out.u8(0);
  out.u16(0);  // The checksum, below.
  out.unicast(message.upstreamNeighbor());
  out.u8(0);
  out.u8(static_cast<U8>(message.groups().size()));
  out.u16(message.holdTime());
  for (auto const& group : message.groups()) {
    out.masked(0, group.group());
    out.u16(group.joins().size());
    out.u16(group.prunes().size());
    for (auto const* list : {&group.joins(), &group.prunes()}) {
      for (auto const& entry : *list) {
        out.masked(sourceKindFlags[static_cast<std::size_t>(entry.kind)], entry.address);
      }
    }
  }
  U16 const checksum = pimChecksum(out.bytes(), source, destination);
  out.bytes()[2] = static_cast<U8>(checksum >> 8);
  out.bytes()[3] = static_cast<U8>(checksum);
  return std::move(out.bytes());
}

}  // namespace Routing::Pim::Agent
