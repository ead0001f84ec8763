#include "agent/PimMessage.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

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

// The ones' complement sum of 16-bit words, an odd byte padded with zero. Summed in 32-bit words of the machine, which
// comes to the same once it is folded and put into network order (RFC 1071).
U64 sumOf(std::span<U8 const> bytes) {
  U64 sum = 0;
  std::size_t i = 0;
  for (; i + 4 <= bytes.size(); i += 4) {
    U32 word;
    std::memcpy(&word, bytes.data() + i, 4);
    sum += word;
  }
  if (i < bytes.size()) {
    U32 word = 0;
    std::memcpy(&word, bytes.data() + i, bytes.size() - i);
    sum += word;
  }
  return sum;
}

U16 folded(U64 sum) {
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return ntohs(static_cast<U16>(sum));
}

}  // namespace

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
    // No more than what is left could hold, whatever the counts say.
    message_->sets_.reserve(std::min<std::size_t>(groups, in_.left() / (encodedGroupSize(family_) + 4)));
    message_->sources_.reserve(in_.left() / encodedSourceSize(family_));
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
    U16 joins, prunes;
    std::size_t const size = addressSize(family_);
    std::span<U8 const> const head = in_.rest();
    if (head.size() >= size + 8 && head[0] == wireFamily(family_) && head[1] == nativeEncoding &&
        head[3] == 8 * size && (size == 4 ? head[4] >> 4 == 0xe : head[4] == 0xff)) [[likely]] {
      group = IpGenAddr::fromBytes(head.subspan(4, size));
      joins = static_cast<U16>(head[size + 4] << 8 | head[size + 5]);
      prunes = static_cast<U16>(head[size + 6] << 8 | head[size + 7]);
      if (!in_.skip(size + 8)) return truncated("group");
    } else {
      U8 flags;
      if (!masked("group", Reason::groupMaskNotFull, flags, group)) return false;
      if (auto fault = groupFault(group, family_)) return refuse(*fault, toText(group));
      if (!in_.read(joins) || !in_.read(prunes)) return truncated("counts of sources");
    }
    // Asked before the first source: with a count too high, what follows the sources would be taken for one.
    if ((std::size_t{joins} + prunes) * encodedSourceSize(family_) > in_.left()) {
      return refuse(Reason::wrongCount,
                    fmt::format("{} joins and {} prunes in {} bytes", joins, prunes, in_.left()));
    }
    message_->sets_.push_back({group, static_cast<U32>(message_->sources_.size()), joins, prunes});
    return sources(unsigned{joins} + prunes);
  }

  bool sources(unsigned count) {
    return family_ == AddressFamily::ipv4 ? sources<4>(count) : sources<16>(count);
  }

  // Nearly every source is as it should be, which is seen at one look. One that is not goes through the checks one by
  // one, so that the refusal says what is wrong with it.
  template <std::size_t Size>
  bool sources(unsigned count) {
    std::vector<WireSource>& list = message_->sources_;
    U8 const family = wireFamily(family_);
    U8 const* entry = in_.rest().data();  // the count was checked: all of them are there
    for (unsigned i = 0; i < count; ++i, entry += 4 + Size) {
      U8 const flags = entry[2];
      if (entry[0] == family && entry[1] == nativeEncoding && entry[3] == 8 * Size &&
          isUnicast<Size>(entry + 4) && (flags & (wildcardBit | rptBit)) != wildcardBit) [[likely]] {
        list.push_back({kindOf(flags), IpGenAddr::fromBytes({entry + 4, Size})});
      } else {
        return in_.skip(i * (4 + Size)) ? refuseSource() : truncated("source");
      }
    }
    return in_.skip(count * (4 + Size));
  }

  // The source at the cursor is not as it should be.
  bool refuseSource() {
    IpGenAddr address;
    U8 flags;
    if (!masked("source", Reason::sourceMaskNotFull, flags, address)) return false;
    if (auto fault = sourceFault(address, family_)) return refuse(*fault, toText(address));
    return refuse(Reason::wildcardWithoutRpt, toText(address));
  }

  static SourceKind kindOf(U8 flags) {
    return flags & wildcardBit ? SourceKind::wildcard
           : flags & rptBit    ? SourceKind::sourceRpt
                               : SourceKind::source;
  }

  template <std::size_t Size>
  static bool isUnicast(U8 const* bytes) {
    if constexpr (Size == 4) {
      U32 word;
      std::memcpy(&word, bytes, 4);
      return word != 0 && bytes[0] >> 4 != 0xe;
    } else {
      U64 high, low;
      std::memcpy(&high, bytes, 8);
      std::memcpy(&low, bytes + 8, 8);
      return (high | low) != 0 && bytes[0] != 0xff;
    }
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

namespace {

class Writer {
 public:
  explicit Writer(std::size_t size) : bytes_(size), next_(bytes_.data()) {}

  void u8(U8 value) { *next_++ = value; }
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
    U8 const* const raw = address.bytes().data();
    if (address.isIpv4())
      std::memcpy(next_, raw, 4), next_ += 4;
    else
      std::memcpy(next_, raw, 16), next_ += 16;
  }

  std::vector<U8> bytes_;  // of the message's whole size from the start
  U8* next_;
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
  if (sets_.size() == maxGroups) require(Reason::wrongCount);
  sets_.push_back({group, static_cast<U32>(sources_.size()), 0, 0});
}

void WireMessage::joinAdd(SourceKind kind, IpGenAddr const& address) {
  Set& set = openSet();
  require(sourceFault(address, family()));
  if (set.joins == maxSources) require(Reason::wrongCount);
  sources_.insert(sources_.end() - set.prunes, {kind, address});
  ++set.joins;
}

void WireMessage::pruneAdd(SourceKind kind, IpGenAddr const& address) {
  Set& set = openSet();
  require(sourceFault(address, family()));
  if (set.prunes == maxSources) require(Reason::wrongCount);
  sources_.push_back({kind, address});
  ++set.prunes;
}

WireMessage::Set& WireMessage::openSet() {
  if (sets_.empty()) throw Vel::RangeException("a source needs a group");
  return sets_.back();
}

std::size_t WireMessage::encodedSize() const {
  return headerSize + encodedUnicastSize(family()) + 4 + sets_.size() * (encodedGroupSize(family()) + 4) +
         sources_.size() * encodedSourceSize(family());
}

U16 pimChecksum(std::span<U8 const> message, IpGenAddr const& source, IpGenAddr const& destination) {
  U64 sum = sumOf(message);
  if (source.isIpv6()) {
    U32 const lengthAndProtocol[] = {htonl(static_cast<U32>(message.size())), htonl(pimProtocol)};
    sum += sumOf(source.bytes()) + sumOf(destination.bytes()) + lengthAndProtocol[0] + lengthAndProtocol[1];
  }
  return static_cast<U16>(~folded(sum));
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
    for (auto const list : {group.joins(), group.prunes()}) {
      for (auto const& entry : list) {
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
