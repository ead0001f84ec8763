// SPDX-License-Identifier: Apache-2.0
// The wire form of PIM version 2 Join/Prune messages (RFC 7761, 4.9.5). Hello.h has that of Hellos.
//
// Bytes are looked at through a Cursor; what comes out is a JoinPrune, which can only be valid, or the
// reason why there is none. The same value can be encoded again, and nothing is lost:
//
//     JoinPrune message(upstreamNeighbor, 210);
//     message.groupAdd(IpGenAddr("239.1.1.1"));
//     message.entryAdd(EntryKind::wildcardJoin, rp);
//     message.entryAdd(EntryKind::sourceRptPrune, IpGenAddr("10.9.0.1"));
//     std::vector<U8> bytes = encodeJoinPrune(message, ownAddress, allPimRouters(AddressFamily::ipv4));
//
//     auto decoded = decodeJoinPrune(bytes, ownAddress, allPimRouters(AddressFamily::ipv4));
//     if (auto* again = std::get_if<JoinPrune>(&decoded)) assert(*again == message);
//
// Which file of this folder does what:
//
//   PimMessage.h        Join/Prune messages, encoded and decoded
//   Hello.h             Hellos, encoded and decoded
//   PimHeader.h         the four bytes before every PIM message, and the checksum
//   Refusal.h           why a message is refused
//   Cursor.h            bytes that are read from front to back
//   private/Encoding.h  the numbers and sizes of encoded addresses; the beginning and end of a message
//   private/Text.h      texts made of values without a formatting library
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "pim/entry/EntryKind.h"
#include "pim/wire/PimHeader.h"
#include "pim/wire/Refusal.h"

namespace Routing::Pim::Wire {

/// One entry of a list: a source, or the RP of a (*,G) entry.
struct Source {
  EntryKind kind;     ///< What the entry means.
  IpGenAddr address;  ///< Unicast.

  friend bool operator==(Source const& a, Source const& b) = default;
};

/// One group set, as seen in a message: valid while the message exists and does not change. Several of a
/// message may name the same group, and a list may repeat itself.
class GroupSet {
 public:
  /// The group's address.
  IpGenAddr const& group() const { return *group_; }
  /// The joined sources, in order.
  std::span<Source const> joins() const { return {first_, joins_}; }
  /// The pruned sources, in order.
  std::span<Source const> prunes() const { return {first_ + joins_, prunes_}; }
  /// The joins and then the prunes.
  std::span<Source const> sources() const { return {first_, joins_ + prunes_}; }

 private:
  friend class JoinPrune;
  GroupSet(IpGenAddr const* group, Source const* first, std::size_t joins, std::size_t prunes)
      : group_(group), first_(first), joins_(joins), prunes_(prunes) {}

  IpGenAddr const* group_;
  Source const* first_;
  std::size_t joins_, prunes_;
};

/// Why a message of a family cannot have such an upstream neighbor, group, or source; nothing if it can.
PIM_SPEAKER_API std::optional<Reason> upstreamFault(IpGenAddr const& address);
/// For a group of a message of this family.
inline std::optional<Reason> groupFault(IpGenAddr const& group, AddressFamily family) {
  if (group.af() != family) return Reason::familiesDiffer;
  if (!isMulticast(group)) return Reason::groupNotMulticast;
  return std::nullopt;
}
/// For a source or an RP in a message of this family.
inline std::optional<Reason> sourceFault(IpGenAddr const& address, AddressFamily family) {
  if (address.af() != family) return Reason::familiesDiffer;
  if (address.isZero() || isMulticast(address)) return Reason::sourceNotUnicast;
  return std::nullopt;
}

/// A Join/Prune message as it is on the wire, order and repetitions included. All addresses are of one
/// family, groups are multicast, sources and RPs unicast; what would break this throws Vel::RangeException
/// with the text of the reason, and changes nothing.
///
/// Bits that a receiver must ignore are not kept: the reserved ones, B and Z of a group, S of a source.
class PIM_SPEAKER_API JoinPrune {
 public:
  /// How many groups, and sources in one list, the counts on the wire can name.
  static constexpr std::size_t maxGroups = 255;
  /// In one list of one group set.
  static constexpr std::size_t maxSources = 65535;

  /// The hold time is in seconds; 65535 means without end.
  JoinPrune(IpGenAddr const& upstreamNeighbor, U16 holdTime);

  /// Takes memory for so many, so that adding them takes none.
  void reserve(std::size_t groups, std::size_t sources);

  /// Opens another group set, into which the following joins and prunes go.
  void groupAdd(IpGenAddr const& group);

  /// Into the group set opened last, behind its other joins or prunes; without one, throws
  /// Vel::RangeException "a source needs a group". A join that comes after a prune of its group costs moving
  /// the prunes.
  void entryAdd(EntryKind kind, IpGenAddr const& address);

  /// A group set with all of these as (S,G) joins, or nothing and false if the group or one of them cannot be
  /// in this message. `Sources` is a set of addresses with a cursor, as in Collection.h.
  template <class Sources>
  bool joinsAdd(IpGenAddr const& group, Sources const& joins) {
    if (groupFault(group, family()) || sets_.size() == maxGroups || joins.size() > maxSources) return false;
    std::size_t const first = sources_.size();
    typename Sources::Cursor join;
    bool more = join.first(joins);
    // Counted, so that the end need not be searched.
    for (U32 left = joins.size(); more; more = --left != 0 && join.next(joins)) {
      if (sourceFault(join.key(), family())) {
        sources_.resize(first);
        return false;
      }
      sources_.push_back({EntryKind::sourceJoin, join.key()});
    }
    sets_.push_back({group, static_cast<U32>(first), joins.size(), 0});
    return true;
  }

  /// The family of all its addresses.
  AddressFamily family() const { return upstreamNeighbor_.af(); }
  /// The router that the message is for.
  IpGenAddr const& upstreamNeighbor() const { return upstreamNeighbor_; }
  /// In seconds.
  U16 holdTime() const { return holdTime_; }

  /// The group sets in order: a range of GroupSet, by value.
  class Groups {
   public:
    /// Over the group sets.
    class Iterator {
     public:
      /// The group set at this place.
      GroupSet operator*() const { return message_->group(index_); }
      /// To the next one.
      Iterator& operator++() {
        ++index_;
        return *this;
      }
      /// Whether both are at the same place of one message.
      bool operator==(Iterator const& other) const { return index_ == other.index_; }

     private:
      friend class Groups;
      Iterator(JoinPrune const* message, std::size_t index) : message_(message), index_(index) {}
      JoinPrune const* message_;
      std::size_t index_;
    };

    /// How many group sets there are.
    std::size_t size() const { return message_->sets_.size(); }
    /// Whether there is none.
    bool empty() const { return size() == 0; }
    /// REQUIRES: an index below size().
    GroupSet operator[](std::size_t index) const { return message_->group(index); }
    /// The last one. REQUIRES: there is one.
    GroupSet back() const { return message_->group(size() - 1); }
    /// The first place.
    Iterator begin() const { return {message_, 0}; }
    /// The place behind the last.
    Iterator end() const { return {message_, size()}; }

   private:
    friend class JoinPrune;
    explicit Groups(JoinPrune const* message) : message_(message) {}
    JoinPrune const* message_;
  };
  /// Valid while the message is.
  Groups groups() const { return Groups(this); }

  /// Bytes on the wire, the PIM header included.
  std::size_t encodedSize() const;

  friend bool operator==(JoinPrune const& a, JoinPrune const& b) = default;

 private:
  friend class Decoder;

  // A group and where its sources are: the joins and then the prunes, from `first` on.
  struct Set {
    IpGenAddr group;
    U32 first;
    U32 joins;
    U32 prunes;

    friend bool operator==(Set const& a, Set const& b) = default;
  };

  GroupSet group(std::size_t index) const {
    Set const& set = sets_[index];
    return {&set.group, sources_.data() + set.first, set.joins, set.prunes};
  }
  Set& openSet();

  IpGenAddr upstreamNeighbor_;
  U16 holdTime_;
  std::vector<Set> sets_;
  std::vector<Source> sources_;  // of all groups; one block of memory, however many groups there are
};

/// Checks the whole message before it gives any of it. `bytes` is the whole IP payload, no more; source and
/// destination are those of the IP header. REQUIRES: both addresses are of one known family.
PIM_SPEAKER_API std::variant<JoinPrune, Refusal> decodeJoinPrune(std::span<U8 const> bytes,
                                                                 IpGenAddr const& source,
                                                                 IpGenAddr const& destination);

/// The bytes of a message, checksum filled in. Throws Vel::RangeException if no IP datagram could hold them,
/// or if the addresses are not of the message's family.
PIM_SPEAKER_API std::vector<U8> encodeJoinPrune(JoinPrune const& message, IpGenAddr const& source,
                                                IpGenAddr const& destination);

}  // namespace Routing::Pim::Wire
