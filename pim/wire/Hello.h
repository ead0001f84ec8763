// SPDX-License-Identifier: Apache-2.0
// The wire form of PIM version 2 Hello messages (RFC 7761, 4.9.2).
//
//     Hello hello;
//     hello.holdTimeIs(105);
//     hello.generationIdIs(0x5eed);
//     hello.addressAdd(IpGenAddr("10.0.1.1"));
//     std::vector<U8> bytes = encodeHello(hello, ownAddress, allPimRouters(AddressFamily::ipv4));
//
//     auto decoded = decodeHello(bytes, ownAddress, allPimRouters(AddressFamily::ipv4));
//     if (auto* again = std::get_if<Hello>(&decoded)) assert(*again == hello);
//
// HelloOptions shows the options of any bytes, one after another; a Hello is a value that can only be valid.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "pim/wire/Cursor.h"
#include "pim/wire/PimHeader.h"
#include "pim/wire/Refusal.h"

namespace Routing::Pim::Wire {

/// The options that have a meaning here.
enum class HelloOption : U16 {
  holdTime = 1,
  lanPruneDelay = 2,
  drPriority = 19,
  generationId = 20,
  addressList = 24,
};

/// Whether an option of this number is none of those; a Hello keeps it as bytes.
constexpr bool isUnknownOption(U16 type) {
  switch (static_cast<HelloOption>(type)) {
    case HelloOption::holdTime:
    case HelloOption::lanPruneDelay:
    case HelloOption::drPriority:
    case HelloOption::generationId:
    case HelloOption::addressList:
      return false;
  }
  return true;
}

/// The options of a Hello, as they are in any bytes.
///
///     HelloOptions options(bytes);
///     while (options.next()) print(options.type(), options.value());
///     if (options.isCut()) print("cut at byte ", options.offset());
class PIM_SPEAKER_API HelloOptions {
 public:
  /// Of a whole PIM message. The bytes must outlive this and the spans that it gives.
  explicit HelloOptions(std::span<U8 const> message);

  /// To the first or the next option; false if there is none, or not all of it.
  bool next();

  /// The number of the option. REQUIRES: next() was true last. So for value().
  U16 type() const { return type_; }
  /// Its bytes, without number and length.
  std::span<U8 const> value() const { return value_; }
  /// At which byte of the message the option begins, or the bytes that are not a whole one.
  std::size_t offset() const { return offset_; }
  /// Whether the message ends within an option, or within its header.
  bool isCut() const { return isCut_; }

 private:
  Cursor in_;
  std::size_t offset_;
  U16 type_ = 0;
  std::span<U8 const> value_;
  bool isCut_;
};

/// Option 2 (RFC 7761, 4.3.3).
struct LanPruneDelay {
  bool tracking = false;         ///< The T bit: the sender can disable join suppression.
  U16 propagationDelay = 500;    ///< In milliseconds, 15 bits.
  U16 overrideInterval = 2'500;  ///< In milliseconds.

  friend bool operator==(LanPruneDelay const& a, LanPruneDelay const& b) = default;
};

/// A Hello as it is on the wire, except for the order of the options. Each option that is known is there at
/// most once, the unknown ones in their order with their repetitions. What would break the form throws
/// Vel::RangeException and changes nothing.
class PIM_SPEAKER_API Hello {
 public:
  /// What the hold time is without option 1: 3.5 times the Hello_Period of 30 s (RFC 7761, 4.11).
  static constexpr U16 defaultHoldTime = 105;
  /// The largest propagation delay, in milliseconds.
  static constexpr U16 maxPropagationDelay = 32'767;

  /// An option that has no meaning here.
  struct Unknown {
    U16 type;               ///< Its number.
    std::vector<U8> value;  ///< Its bytes.

    friend bool operator==(Unknown const& a, Unknown const& b) = default;
  };

  /// Option 1, in seconds: 0 ends the neighbor, 65535 never ends.
  std::optional<U16> holdTime() const { return holdTime_; }
  /// Nothing leaves the option out.
  void holdTimeIs(std::optional<U16> seconds) { holdTime_ = seconds; }
  /// The same, or the default without the option.
  U16 effectiveHoldTime() const { return holdTime_.value_or(defaultHoldTime); }

  /// Option 2.
  std::optional<LanPruneDelay> lanPruneDelay() const { return lanPruneDelay_; }
  /// A propagation delay over the largest throws "propagation delay of 40000 ms".
  void lanPruneDelayIs(std::optional<LanPruneDelay> const& delay);

  /// Option 19; the largest wins.
  std::optional<U32> drPriority() const { return drPriority_; }
  /// Nothing leaves the option out.
  void drPriorityIs(std::optional<U32> priority) { drPriority_ = priority; }

  /// Option 20: another one says that the sender has restarted.
  std::optional<U32> generationId() const { return generationId_; }
  /// Nothing leaves the option out.
  void generationIdIs(std::optional<U32> id) { generationId_ = id; }

  /// Option 24: the sender's other addresses, in order. An empty list is the same as none. They may be of
  /// another family than the packet: some routers list all that they have.
  std::vector<IpGenAddr> const& addresses() const { return addresses_; }
  /// One that is not unicast throws "224.0.0.1 in the address list".
  void addressAdd(IpGenAddr const& address);

  /// The other options.
  std::vector<Unknown> const& unknownOptions() const { return unknownOptions_; }
  /// One that is known throws "option 20 is known", one that is too long "65536 bytes of option 4242".
  void unknownOptionAdd(U16 type, std::span<U8 const> value);

  /// Bytes on the wire, the PIM header included.
  std::size_t encodedSize() const;

  friend bool operator==(Hello const& a, Hello const& b) = default;

 private:
  friend class HelloDecoder;

  std::optional<U16> holdTime_;
  std::optional<LanPruneDelay> lanPruneDelay_;
  std::optional<U32> drPriority_;
  std::optional<U32> generationId_;
  std::vector<IpGenAddr> addresses_;
  std::vector<Unknown> unknownOptions_;
};

/// "hold 105, delay 500 ms, override 2500 ms, tracking, DR priority 1, generation ID 0x00005eed, also
/// 10.0.1.1, option 4242 (3 bytes)": the options that are there; "no options" without any.
PIM_SPEAKER_API std::string toText(Hello const& hello);

/// Checks the whole message before it gives any of it. Of several options with the same number the last one
/// counts. An option that is known and has another length than it must have is a refusal. The arguments are
/// those of decodeJoinPrune(). REQUIRES: both addresses are of one known family.
PIM_SPEAKER_API std::variant<Hello, Refusal> decodeHello(std::span<U8 const> bytes, IpGenAddr const& source,
                                                         IpGenAddr const& destination);

/// The bytes of a message, checksum filled in; options in the order of their numbers, then those that are
/// unknown. Throws Vel::RangeException if no IP datagram could hold them, or if the two addresses are not of
/// one known family.
PIM_SPEAKER_API std::vector<U8> encodeHello(Hello const& hello, IpGenAddr const& source,
                                            IpGenAddr const& destination);

}  // namespace Routing::Pim::Wire
