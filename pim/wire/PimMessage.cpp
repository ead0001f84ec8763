// SPDX-License-Identifier: Apache-2.0
#include "pim/wire/PimMessage.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string>

#include "pim/wire/Cursor.h"
#include "pim/wire/private/Encoding.h"
#include "pim/wire/private/Text.h"
#include "runtime/vel/Exception.h"

namespace Routing::Pim::Wire {

namespace {

std::size_t encodedGroupSize(AddressFamily family) { return 4 + addressSize(family); }
std::size_t encodedSourceSize(AddressFamily family) { return 4 + addressSize(family); }

void require(std::optional<Reason> fault) {
  if (fault) throw Vel::RangeException(std::string(text(*fault)));
}

}  // namespace

// Most messages are as they should be, so a group or a source is seen to be good at one look. What is not
// good is read again, field by field, so that the refusal says what is wrong with it.
class Decoder {
 public:
  Decoder(std::span<U8 const> bytes, AddressFamily family) : in_(bytes), family_(family) {}

  std::variant<JoinPrune, Refusal> message() {
    if (!decode()) result_ = std::move(refusal_);
    return std::move(result_);
  }

 private:
  using Result = std::variant<JoinPrune, Refusal>;

  bool decode() {
    if (!in_.skip(headerSize)) return truncated("PIM header");
    IpGenAddr upstream;
    if (!unicast("upstream neighbor", upstream)) return false;
    if (auto fault = upstreamFault(upstream)) return refuse(*fault, toText(upstream));
    U8 reserved, groups;
    U16 holdTime;
    if (!in_.read(reserved) || !in_.read(groups) || !in_.read(holdTime)) return truncated("hold time");
    JoinPrune& message = result_.emplace<JoinPrune>(upstream, holdTime);
    bool const whole =
        family_ == AddressFamily::ipv4 ? groupSets<4>(groups, message) : groupSets<16>(groups, message);
    if (!whole) return false;
    if (in_.left() != 0) return refuse(Reason::leftOver, concatenated(in_.left(), " at byte ", in_.offset()));
    return true;
  }

  template <std::size_t Size>
  bool groupSets(unsigned groups, JoinPrune& message) {
    constexpr std::size_t headSize = 8 + Size, sourceSize = 4 + Size;
    U8 const* at = in_.rest().data();
    U8 const* const end = at + in_.left();
    // What the message takes if all is well, and never more than the bytes that are there could hold.
    std::vector<JoinPrune::Set> sets(std::min<std::size_t>(groups, in_.left() / headSize));
    std::vector<Source> sources;
    sources.reserve((in_.left() - sets.size() * headSize) / sourceSize);
    for (auto& set : sets) {
      std::size_t const left = end - at;
      if (left < headSize || !isGroup<Size>(at)) [[unlikely]]
        return refuseGroup(left, &set - sets.data(), groups);
      U32 const joins = numberAt(at + Size + 4), prunes = numberAt(at + Size + 6);
      // Asked before the first source: with a count too high, what follows the sources would be taken for
      // one.
      if ((joins + prunes) * sourceSize > left - headSize) [[unlikely]]
        return refuseCounts(joins, prunes, left - headSize);
      set = {addressAt<Size>(at + 4), static_cast<U32>(sources.size()), joins, prunes};
      at += headSize;
      for (U32 n = 0; n < joins + prunes; ++n, at += sourceSize) {
        if (!isSource<Size>(at)) [[unlikely]]
          return refuseSource(end - at);
        sources.push_back({entryKindOf(at[2], n < joins), addressAt<Size>(at + 4)});
      }
    }
    std::size_t const left = end - at;
    if (sets.size() < groups) return refuseGroup(left, sets.size(), groups);
    message.sets_ = std::move(sets);
    message.sources_ = std::move(sources);
    return in_.skip(in_.left() - left);
  }

  static U32 numberAt(U8 const* bytes) {
    U16 number;
    std::memcpy(&number, bytes, sizeof number);
    return ntohs(number);
  }

  template <std::size_t Size>
  static IpGenAddr addressAt(U8 const* bytes) {
    return IpGenAddr::fromBytes({bytes, Size});
  }

  template <std::size_t Size>
  static bool isNative(U8 const* bytes) {
    // Family, encoding, (flags), mask length: compared at once.
    constexpr std::array<U8, 4> wanted = {Size == 4 ? wireIpv4 : wireIpv6, nativeEncoding, 0, 8 * Size};
    constexpr std::array<U8, 4> mask = {0xff, 0xff, 0, 0xff};
    U32 head;
    std::memcpy(&head, bytes, sizeof head);
    return (head & std::bit_cast<U32>(mask)) == std::bit_cast<U32>(wanted);
  }

  template <std::size_t Size>
  static bool isMulticastAt(U8 const* address) {
    return Size == 4 ? address[0] >> 4 == 0xe : address[0] == 0xff;
  }

  template <std::size_t Size>
  static bool isGroup(U8 const* bytes) {
    return isNative<Size>(bytes) && isMulticastAt<Size>(bytes + 4);
  }

  template <std::size_t Size>
  static bool isSource(U8 const* bytes) {
    static constexpr U8 zero[Size] = {};
    return isNative<Size>(bytes) && !isMulticastAt<Size>(bytes + 4) &&
           std::memcmp(bytes + 4, zero, Size) != 0 &&
           (bytes[2] & (EntryFlags::wildcard | EntryFlags::rpt)) != EntryFlags::wildcard;
  }

  // The group in front of the last `left` bytes is not as it should be.
  bool refuseGroup(std::size_t left, std::size_t number, unsigned groups) {
    if (left == 0) return refuse(Reason::wrongCount, concatenated(number, " of ", groups, " groups"));
    IpGenAddr group;
    if (!in_.skip(in_.left() - left) || !masked("group", Reason::groupMaskNotFull, group)) return false;
    if (auto fault = groupFault(group, family_)) return refuse(*fault, toText(group));
    return truncated("counts of sources");
  }

  bool refuseCounts(U32 joins, U32 prunes, std::size_t left) {
    return refuse(Reason::wrongCount,
                  concatenated(joins, " joins and ", prunes, " prunes in ", left, " bytes"));
  }

  // The source in front of the last `left` bytes is not as it should be; all its bytes are there.
  bool refuseSource(std::size_t left) {
    IpGenAddr address;
    if (!in_.skip(in_.left() - left) || !masked("source", Reason::sourceMaskNotFull, address)) return false;
    if (auto fault = sourceFault(address, family_)) return refuse(*fault, toText(address));
    return refuse(Reason::wildcardWithoutRpt, toText(address));
  }

  bool unicast(std::string_view what, IpGenAddr& address) {
    return familyAndEncoding(what) && addressBytes(what, address);
  }

  // Encoded-Group and Encoded-Source addresses have one layout.
  bool masked(std::string_view what, Reason notFull, IpGenAddr& address) {
    U8 flags, length;
    if (!familyAndEncoding(what)) return false;
    if (!in_.read(flags) || !in_.read(length)) return truncated(what);
    if (!addressBytes(what, address)) return false;
    if (length > address.width()) {
      return refuse(Reason::maskTooLong, concatenated(what, " ", toText(address), "/", length));
    }
    if (length < address.width()) return refuse(notFull, concatenated(toText(address), "/", length));
    return true;
  }

  bool familyAndEncoding(std::string_view what) {
    std::size_t const at = in_.offset();
    U8 family, encoding;
    if (!in_.read(family)) return truncated(what);
    if (family != wireIpv4 && family != wireIpv6) {
      return refuse(Reason::unknownFamily, concatenated(family, " of ", what, " at byte ", at));
    }
    if (!in_.read(encoding)) return truncated(what);
    if (encoding != nativeEncoding) {
      return refuse(Reason::unknownEncoding, concatenated(encoding, " of ", what, " at byte ", at + 1));
    }
    if (family == wireFamily(family_)) return true;
    return refuse(Reason::familiesDiffer, concatenated(family, " of ", what, " at byte ", at));
  }

  bool addressBytes(std::string_view what, IpGenAddr& address) {
    std::span<U8 const> bytes;
    if (!in_.read(addressSize(family_), bytes)) return truncated(what);
    address = IpGenAddr::fromBytes(bytes);
    return true;
  }

  bool truncated(std::string_view what) { return refuse(Reason::truncated, concatenated("in the ", what)); }

  bool refuse(Reason reason, std::string detail) {
    refusal_ = Refusal{reason, std::move(detail)};
    return false;
  }

  Cursor in_;
  AddressFamily const family_;
  Result result_{std::in_place_type<Refusal>};
  Refusal refusal_;
};

namespace {

// Into bytes that have room for all of a message of one family.
template <std::size_t Size>
class Writer {
 public:
  explicit Writer(U8* next) : next_(next) {}

  void u8(U8 value) { *next_++ = value; }
  void u16(std::size_t value) {
    U16 const bytes = htons(static_cast<U16>(value));
    std::memcpy(next_, &bytes, sizeof bytes);
    next_ += sizeof bytes;
  }

  void unicast(IpGenAddr const& address) {
    family();
    addressBytes(address);
  }

  void masked(U8 flags, IpGenAddr const& address) {
    U8 const head[] = {Size == 4 ? wireIpv4 : wireIpv6, nativeEncoding, flags, 8 * Size};
    std::memcpy(next_, head, sizeof head);
    next_ += sizeof head;
    addressBytes(address);
  }

  void sources(std::span<Source const> list) {
    for (auto const& entry : list) masked(flagsOf(entry.kind), entry.address);
  }

  void message(JoinPrune const& message) {
    u8(pimVersion << 4 | static_cast<U8>(PimType::joinPrune));
    u8(0);
    u16(0);  // The checksum, later.
    unicast(message.upstreamNeighbor());
    u8(0);
    u8(static_cast<U8>(message.groups().size()));
    u16(message.holdTime());
    for (auto const& group : message.groups()) {
      masked(0, group.group());
      u16(group.joins().size());
      u16(group.prunes().size());
      sources(group.sources());
    }
  }

 private:
  void family() {
    u8(Size == 4 ? wireIpv4 : wireIpv6);
    u8(nativeEncoding);
  }

  void addressBytes(IpGenAddr const& address) {
    auto const ip6 = address.ip6Addr().bytes();  // an IPv4 address is its end
    std::memcpy(next_, ip6.data() + ip6.size() - Size, Size);
    next_ += Size;
  }

  U8* next_;
};

}  // namespace

std::optional<Reason> upstreamFault(IpGenAddr const& address) {
  if (address.width() == 0) return Reason::unknownFamily;
  if (isMulticast(address)) return Reason::upstreamNotUnicast;
  return std::nullopt;
}

JoinPrune::JoinPrune(IpGenAddr const& upstreamNeighbor, U16 holdTime)
    : upstreamNeighbor_(upstreamNeighbor), holdTime_(holdTime) {
  require(upstreamFault(upstreamNeighbor));
}

void JoinPrune::reserve(std::size_t groups, std::size_t sources) {
  sets_.reserve(groups);
  sources_.reserve(sources);
}

void JoinPrune::groupAdd(IpGenAddr const& group) {
  require(groupFault(group, family()));
  if (sets_.size() == maxGroups) require(Reason::wrongCount);
  sets_.push_back({group, static_cast<U32>(sources_.size()), 0, 0});
}

void JoinPrune::entryAdd(EntryKind kind, IpGenAddr const& address) {
  Set& set = openSet();
  require(sourceFault(address, family()));
  U32& count = isJoin(kind) ? set.joins : set.prunes;
  if (count == maxSources) require(Reason::wrongCount);
  if (!isJoin(kind) || set.prunes == 0) [[likely]]
    sources_.push_back({kind, address});
  else
    sources_.insert(sources_.end() - set.prunes, {kind, address});
  ++count;
}

JoinPrune::Set& JoinPrune::openSet() {
  if (sets_.empty()) throw Vel::RangeException("a source needs a group");
  return sets_.back();
}

std::size_t JoinPrune::encodedSize() const {
  return headerSize + encodedUnicastSize(family()) + 4 + sets_.size() * (encodedGroupSize(family()) + 4) +
         sources_.size() * encodedSourceSize(family());
}

std::variant<JoinPrune, Refusal> decodeJoinPrune(std::span<U8 const> bytes, IpGenAddr const& source,
                                                 IpGenAddr const& destination) {
  if (auto fault = headerFault(bytes, PimType::joinPrune, source, destination)) return std::move(*fault);
  return Decoder(bytes, source.af()).message();
}

std::vector<U8> encodeJoinPrune(JoinPrune const& message, IpGenAddr const& source,
                                IpGenAddr const& destination) {
  if (source.af() != message.family() || destination.af() != message.family()) {
    require(Reason::familiesDiffer);
  }
  std::size_t const size = message.encodedSize();
  if (size > maxPayload) throw Vel::RangeException(concatenated(size, " bytes do not fit an IP datagram"));
  std::vector<U8> bytes(size);
  if (message.family() == AddressFamily::ipv4)
    Writer<4>(bytes.data()).message(message);
  else
    Writer<16>(bytes.data()).message(message);
  fillChecksum(bytes, source, destination);
  return bytes;
}

}  // namespace Routing::Pim::Wire
