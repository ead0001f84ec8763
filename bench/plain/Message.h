// SPDX-License-Identifier: Apache-2.0
// The messages of the plain engine (Engine.h): a straight encoder of RFC 7761, 4.9.5, into one buffer.
#pragma once

#include <array>
#include <cstring>
#include <span>
#include <vector>

#include "bench/plain/Groups.h"

namespace Plain {

/// One message at a time. Groups are begun, filled and ended; one without an entry leaves no trace.
class Message {
 public:
  void begin(IpGenAddr const& source, IpGenAddr const& upstreamNeighbor, U16 holdTime, U32 mtu) {
    source_ = source;
    bool const isIpv4 = source.isIpv4();
    addressSize_ = isIpv4 ? 4 : 16;
    limit_ = std::min<std::size_t>(mtu, maxPacket) - (isIpv4 ? 20 : 40);
    bytes_.resize(limit_);
    groups_ = 0;
    U8 const version = 0x23;
    U8* to = put(bytes_.data(), {version, 0, 0, 0});
    *to++ = family();
    *to++ = 0;
    to = put(to, upstreamNeighbor);
    to_ = put(to, {0, 0, static_cast<U8>(holdTime >> 8), static_cast<U8>(holdTime)});
    most_ = (limit_ - used() - groupSize()) / sourceSize();
    counts_ = nullptr;
  }

  bool empty() const { return groups_ == 0; }
  /// Whether there is room for so many more entries of the group.
  bool fits(std::size_t entries) const {
    return taken() + entries * sourceSize() <= limit_ && (counts_ || groups_ < 255);
  }
  /// For how many more entries of the group there is room.
  std::size_t room() const { return fits(0) ? (limit_ - taken()) / sourceSize() : 0; }
  /// How many entries a message of one group can have.
  std::size_t most() const { return most_; }

  void groupIs(IpGenAddr const& group) { group_ = &group; }
  /// REQUIRES: room.
  void add(EntryKind kind, IpGenAddr const& source) {
    if (!counts_) {
      counts_ = put(put(to_, {family(), 0, 0, prefix()}), *group_);
      to_ = counts_ + 4;
      joins_ = 0;
      ++groups_;
    }
    if (isJoin(kind)) {
      putEntry(kind, source);
      ++joins_;
    } else {
      prunes_.push_back({source, kind});
    }
  }
  void endGroup() {
    if (!counts_) return;
    for (Entry const& prune : prunes_) putEntry(prune.kind, prune.address);
    put(counts_, {static_cast<U8>(joins_ >> 8), static_cast<U8>(joins_), static_cast<U8>(prunes_.size() >> 8),
                  static_cast<U8>(prunes_.size())});
    prunes_.clear();
    counts_ = nullptr;
  }

  /// Fills in the number of groups and the checksum. Valid until the next message.
  std::span<U8 const> finish() {
    bytes_[4 + 2 + addressSize_ + 1] = static_cast<U8>(groups_);
    std::span<U8> const whole(bytes_.data(), used());
    U64 sum = sumOf(whole);
    if (addressSize_ == 16) {
      static constexpr std::array<U8, 16> allPimRouters{0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 13};
      std::array<U8, 8> const lengthAndProtocol{
          0, 0, static_cast<U8>(used() >> 8), static_cast<U8>(used()), 0, 0, 0, 103};
      sum += sumOf(source_.bytes()) + sumOf(allPimRouters) + sumOf(lengthAndProtocol);
    }
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    U16 const folded = static_cast<U16>(~sum);
    std::memcpy(&whole[2], &folded, 2);  // the sum of words of the machine is in the order of the machine
    return whole;
  }

 private:
  static constexpr std::size_t maxPacket = 65535;

  U8 family() const { return addressSize_ == 4 ? 1 : 2; }
  U8 prefix() const { return static_cast<U8>(addressSize_ * 8); }
  std::size_t sourceSize() const { return 4 + addressSize_; }
  std::size_t groupSize() const { return 8 + addressSize_; }
  std::size_t used() const { return static_cast<std::size_t>(to_ - bytes_.data()); }
  // With the prunes of the group, and the head of one that has not begun.
  std::size_t taken() const { return used() + (counts_ ? prunes_.size() * sourceSize() : groupSize()); }
  static U8* put(U8* to, std::array<U8, 4> const& bytes) {
    std::memcpy(to, bytes.data(), 4);
    return to + 4;
  }
  U8* put(U8* to, IpGenAddr const& address) const {
    if (addressSize_ == 4)
      std::memcpy(to, address.bytes().data(), 4);
    else
      std::memcpy(to, address.bytes().data(), 16);
    return to + addressSize_;
  }
  void putEntry(EntryKind kind, IpGenAddr const& source) {
    to_ = put(put(to_, {family(), 0, flagsOf(kind), prefix()}), source);
  }

  // All that is summed is made of whole 32-bit words.
  static U64 sumOf(std::span<U8 const> bytes) {
    U64 sum = 0;
    for (std::size_t at = 0; at + 4 <= bytes.size(); at += 4) {
      U32 word;
      std::memcpy(&word, &bytes[at], 4);
      sum += word;
    }
    if (bytes.size() % 4 == 2) {
      U16 word;
      std::memcpy(&word, &bytes[bytes.size() - 2], 2);
      sum += word;
    }
    return sum;
  }

  IpGenAddr source_;
  std::vector<U8> bytes_;
  U8* to_ = nullptr;
  std::size_t limit_ = 0, addressSize_ = 4, groups_ = 0, most_ = 0;
  IpGenAddr const* group_ = nullptr;
  U8* counts_ = nullptr;  // where those of the group are; null until it has an entry
  std::size_t joins_ = 0;
  std::vector<Entry> prunes_;  // of the group; a message has its joins first
};

}  // namespace Plain
