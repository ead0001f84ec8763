// SPDX-License-Identifier: Apache-2.0
// Bytes into the decoder. What is accepted as a message is encoded to the same bytes, but for
// those that a receiver ignores, and is again the same message.
#include "pim/wire/PimMessage.h"

#include "fuzz/pim/wire/Message.h"

namespace {

using namespace Routing::Pim::Wire;

// Clears what says nothing: reserved bits, B and Z of a group, S of a source, and the checksum over them.
std::vector<U8> withoutIgnored(std::vector<U8> bytes, std::size_t addressSize) {
  bytes[1] = bytes[2] = bytes[3] = 0;
  std::size_t at = 4 + 2 + addressSize;
  bytes[at] = 0;
  unsigned const groups = bytes[at + 1];
  at += 4;
  for (unsigned i = 0; i < groups; ++i) {
    bytes[at + 2] = 0;
    at += 4 + addressSize;
    unsigned const sources = (bytes[at] << 8 | bytes[at + 1]) + (bytes[at + 2] << 8 | bytes[at + 3]);
    at += 4;
    for (unsigned j = 0; j < sources; ++j, at += 4 + addressSize) {
      bytes[at + 2] &= 3;
      if (bytes[at + 2] == 2) bytes[at + 2] = 3;
    }
  }
  FUZZ_REQUIRE(at == bytes.size());
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  auto const [source, destination, bytes] = Fuzz::takeMessage(data, size);

  auto const decoded = decodeJoinPrune(bytes, source, destination);
  if (auto const* const refusal = std::get_if<Refusal>(&decoded)) {
    FUZZ_REQUIRE(!toText(*refusal).empty());
    return 0;
  }
  auto const& message = std::get<JoinPrune>(decoded);
  FUZZ_REQUIRE(message.encodedSize() == bytes.size());
  auto const encoded = encodeJoinPrune(message, source, destination);
  FUZZ_REQUIRE(pimChecksum(encoded, source, destination) == 0);
  FUZZ_REQUIRE(withoutIgnored(encoded, source.isIpv6() ? 16 : 4) ==
               withoutIgnored(bytes, source.isIpv6() ? 16 : 4));
  auto const again = decodeJoinPrune(encoded, source, destination);
  FUZZ_REQUIRE(std::holds_alternative<JoinPrune>(again));
  FUZZ_REQUIRE(std::get<JoinPrune>(again) == message);
  return 0;
}
