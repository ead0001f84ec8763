// SPDX-License-Identifier: Apache-2.0
// The codec: encoding and decoding a Join/Prune message, checksum included, in nanoseconds an entry (a
// source). The floor is a straight-line loop that does the same into and out of the same kind of structure
// and believes every byte: no family, mask length, count or address is looked at.
#include <arpa/inet.h>

#include <cstring>
#include <vector>

#include "bench/Bench.h"
#include "pim/wire/PimMessage.h"

namespace {

using namespace Routing::Pim::Wire;

struct FloorSet {
  IpGenAddr group;
  U32 first, joins, prunes;
};

// What a message is made of, without a promise.
struct FloorMessage {
  std::vector<FloorSet> sets;
  std::vector<Source> sources;
};

U32 checksum(std::vector<U8> const& bytes) {
  U64 sum = 0;
  std::size_t i = 0;
  for (; i + 4 <= bytes.size(); i += 4) {
    U32 word;
    std::memcpy(&word, &bytes[i], 4);
    sum += word;
  }
  if (i < bytes.size()) {
    U32 word = 0;
    std::memcpy(&word, &bytes[i], bytes.size() - i);
    sum += word;
  }
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<U32>(sum);
}

template <std::size_t Size>
struct Wire {
  static constexpr std::size_t head = 10 + Size, group = 8 + Size, source = 4 + Size;
  static constexpr U8 family = Size == 4 ? 1 : 2;

  static U8* put(U8* to, U8 flags, IpGenAddr const& address) {
    to[0] = family;
    to[1] = 0;
    to[2] = flags;
    to[3] = 8 * Size;
    auto const ip6 = address.ip6Addr().bytes();
    std::memcpy(to + 4, ip6.data() + 16 - Size, Size);
    return to + source;
  }

  static std::vector<U8> encode(FloorMessage const& message, std::vector<U8> const& start) {
    std::vector<U8> bytes(head + message.sets.size() * group + message.sources.size() * source);
    std::memcpy(bytes.data(), start.data(), head);
    U8* to = bytes.data() + head;
    for (auto const& set : message.sets) {
      to = put(to, 0, set.group);
      U16 const counts[] = {htons(static_cast<U16>(set.joins)), htons(static_cast<U16>(set.prunes))};
      std::memcpy(to, counts, 4);
      to += 4;
      for (U32 i = set.first; i < set.first + set.joins + set.prunes; ++i)
        to = put(to, flagsOf(message.sources[i].kind), message.sources[i].address);
    }
    U32 const sum = ~checksum(bytes);
    std::memcpy(&bytes[2], &sum, 2);
    return bytes;
  }

  static FloorMessage decode(std::vector<U8> const& bytes, std::size_t sets, std::size_t sources) {
    Bench::keep(checksum(bytes));
    FloorMessage message;
    message.sets.reserve(sets);
    message.sources.reserve(sources);
    U8 const* from = bytes.data() + head;
    for (unsigned set = 0; set < bytes[head - 3]; ++set) {
      U8 const* const counts = from + source;
      U32 const joins = counts[0] << 8 | counts[1], prunes = counts[2] << 8 | counts[3];
      message.sets.push_back(
          {IpGenAddr::fromBytes({from + 4, Size}), static_cast<U32>(message.sources.size()), joins, prunes});
      from += group;
      for (U32 i = 0; i < joins + prunes; ++i, from += source)
        message.sources.push_back(
            {Routing::Pim::entryKindOf(from[2], i < joins), IpGenAddr::fromBytes({from + 4, Size})});
    }
    return message;
  }
};

template <std::size_t Size>
IpGenAddr address(U8 first, U32 number) {
  U8 bytes[Size] = {first, 1};
  bytes[Size - 2] = static_cast<U8>(number >> 8);
  bytes[Size - 1] = static_cast<U8>(number);
  return IpGenAddr::fromBytes(bytes);
}

template <std::size_t Size>
void measure(U32 groups, U32 sources) {
  constexpr int rounds = 100;
  constexpr U8 firstOfGroup = Size == 4 ? 239 : 0xff, firstOfSource = Size == 4 ? 10 : 0x20;
  auto const host = [](U32 number) { return address<Size>(firstOfSource, number); };

  JoinPrune message(host(65000), 210);
  FloorMessage plain;
  for (U32 g = 0; g < groups; ++g) {
    IpGenAddr const group = address<Size>(firstOfGroup, g);
    message.groupAdd(group);
    plain.sets.push_back({group, static_cast<U32>(plain.sources.size()), sources, 0});
    for (U32 s = 0; s < sources; ++s) {
      message.entryAdd(Routing::Pim::EntryKind::sourceJoin, host(1 + g * sources + s));
      plain.sources.push_back({Routing::Pim::EntryKind::sourceJoin, host(1 + g * sources + s)});
    }
  }
  IpGenAddr const source = host(65001), destination = allPimRouters(source.af());
  std::vector<U8> const bytes = encodeJoinPrune(message, source, destination);
  double const entries = groups * sources;
  std::string const shape =
      std::string(Size == 4 ? "IPv4, " : "IPv6, ") + std::to_string(groups) + " x " + std::to_string(sources);

  std::string const encode = "codec/encode " + shape, decode = "codec/decode " + shape;
  Bench::timed(encode + "/ours", [=](Bench::Stopwatch& watch) {
    watch.start();
    for (int i = 0; i < rounds; ++i) Bench::keep(encodeJoinPrune(message, source, destination).data());
    watch.stop(rounds * entries);
  });
  Bench::timed(encode + "/floor", [=](Bench::Stopwatch& watch) {
    watch.start();
    for (int i = 0; i < rounds; ++i) Bench::keep(Wire<Size>::encode(plain, bytes).data());
    watch.stop(rounds * entries);
  });
  Bench::timed(decode + "/ours", [=](Bench::Stopwatch& watch) {
    watch.start();
    for (int i = 0; i < rounds; ++i) {
      auto const decoded = decodeJoinPrune(bytes, source, destination);
      Bench::keep(std::get<JoinPrune>(decoded).groups().size());
    }
    watch.stop(rounds * entries);
  });
  Bench::timed(decode + "/floor", [=](Bench::Stopwatch& watch) {
    watch.start();
    for (int i = 0; i < rounds; ++i)
      Bench::keep(Wire<Size>::decode(bytes, groups, groups * sources).sources.data());
    watch.stop(rounds * entries);
  });
  for (auto const* const what : {"encode ", "decode "})
    Bench::row({.subject = "codec", .what = what + shape, .reference = "floor", .atMost = 1.5});
}

bool const registered = [] {
  measure<4>(70, 1);
  measure<4>(1, 180);
  measure<16>(30, 1);
  measure<16>(1, 70);
  return true;
}();

}  // namespace
