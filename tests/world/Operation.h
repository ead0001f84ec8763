// SPDX-License-Identifier: Apache-2.0
// What can be done to a world: one structure for all operations, so that they can be drawn at random, cut out
// of a sequence, and written down.
#pragma once

#include <string>
#include <vector>

#include "pim/model/packet/JoinPruneMessage.h"
#include "tests/world/Names.h"

namespace Routing::Pim::Worlds {

using Packet::JoinPruneMessage;

enum class SendKind : U8 { triggered, override, periodic };
inline constexpr U32 sendKinds = 3;

/// The five kinds of entries that a group can have.
enum class Kind : U8 { join, prune, rptJoin, rptPrune, wildcard };
inline constexpr U32 sourceKinds = 4;

enum class Do : U8 {
  // The surroundings.
  intfUp,         // intf
  intfDown,       // intf
  intfAddress,    // intf, source: which of the interface addresses, length in n
  intfNotify,     // intf
  intfHold,       // intf, n
  intfInterval,   // intf, n
  intfOverride,   // intf, x
  intfRenew,      // intf: another object takes its place
  neighborUp,     // which, intf
  neighborDown,   // which
  neighborAgain,  // which: told of without a change
  resync,         // the status tells of its interfaces as a whole
  // Data: target, send kind, group, kind, source (or RP, and n for a wildcard join).
  add,
  remove,
  groupAdd,      // an empty group
  groupDel,      // whatever is in it
  groupFilled,   // arrives with the sources of kind whose bits are set in n
  groupsAgain,   // told of as a whole
  sourceAgain,   // told of without a change
  sourcesAgain,  // told of as a whole
  dataMake,      // target, send kind
  dataDel,       // target, send kind
  // Receipt.
  receive,  // upstream target, n: bits of the entries, x: hold time
  rp,       // group, source: which of the RPs, or none at all; a group is given one once
  deny,     // group, n: on or off
  // Time.
  wait,      // x
  waitNext,  // until the next timer
  busy,      // x: time passes, and no timer is called
  // The machines.
  seed,      // n
  quantum,   // target, x
  interval,  // target, x: the triggered one
  diag,      // n
  start,
  drop,
  hold,     // target: a reference to the machine is held
  release,  // it is held no more
  // The packet manager.
  temper,  // the temper below
  record,  // n: the transmit record is there or not
  count_
};

struct Operation;

/// How the packet manager behaves for each message.
struct Temper {
  enum class Lie : U8 { honest, nothing, one, filtered, suppressed, huge, count_ };
  enum class Throws : U8 { never, first, last, count_ };
  enum class Moment : U8 { first, middle, last, count_ };

  U8 take = 255;      ///< entries per message
  U8 filtered = 0;    ///< of those, how many it calls filtered
  U8 suppressed = 0;  ///< of the rest, how many it calls suppressed
  bool tidy = false;  ///< removes groups that are empty
  Lie lie = Lie::honest;
  Throws throws = Throws::never;
  Seconds cost = 0;  ///< the time that a message takes
  Moment moment = Moment::first;
  U8 message = 0;  ///< the message from now on that is sent while `meanwhile` is done; then no more
};

struct Operation {
  Do what = Do::resync;
  U8 a = 0;  // interface, neighbor or target
  SendKind sendKind = SendKind::triggered;
  U8 group = 0;
  Kind kind = Kind::join;
  U8 source = 0;
  U32 n = 0;
  Seconds x = 0;
  Temper temper;
  std::vector<Operation> meanwhile;  // done inside a send
};

/// One line for people. Lines for the conversation runner are in Paste.h.
std::string toText(Operation const& operation);

/// The entries of a received message, of two groups at most: bit by bit from a number.
struct ReceivedEntry {
  U8 group;
  Kind kind;
  U8 source;
  bool join;  // of wildcards
};
std::vector<ReceivedEntry> receivedEntries(U32 bits);

/// What happens in a world, in order.
struct Event {
  U8 level;  // of a trace; 0 for anything else
  std::string text;
  friend bool operator==(Event const&, Event const&) = default;
};

/// More messages than these are not served while one operation is performed; more expiries not waited for.
inline constexpr U32 mostMessages = 40;
inline constexpr U32 mostExpiries = 24;

}  // namespace Routing::Pim::Worlds
