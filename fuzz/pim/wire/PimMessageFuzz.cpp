// Bytes into the decoder. What is accepted as a message is encoded to the same bytes, but for
// those that a receiver ignores, and is again the same message.
#include "pim/wire/PimMessage.h"

#include "fuzz/Fuzz.h"

namespace {

using namespace Routing::Pim::Wire;
using Fuzz::Input;

std::vector<U8> mended(std::span<U8 const> bytes, IpGenAddr const& source, IpGenAddr const& destination) {
  std::vector<U8> message(bytes.begin(), bytes.end());
  if (message.size() < 4) return message;
  message[2] = message[3] = 0;
  U16 const checksum = pimChecksum(message, source, destination);
  message[2] = static_cast<U8>(checksum >> 8);
  message[3] = static_cast<U8>(checksum);
  return message;
}

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
  Input input(data, size);
  U8 const how = input.u8();
  bool const ipv6 = how & 1, asItIs = how & 2;
  IpGenAddr const source(ipv6 ? "fe80::14" : "10.0.0.14");
  IpGenAddr const destination = allPimRouters(source.af());
  auto const rest = input.rest();
  auto const bytes = asItIs ? std::vector<U8>(rest.begin(), rest.end()) : mended(rest, source, destination);

  auto const decoded = decodeJoinPrune(bytes, source, destination);
  if (auto const* const refusal = std::get_if<Refusal>(&decoded)) {
    FUZZ_REQUIRE(!toText(*refusal).empty());
    return 0;
  }
  auto const& message = std::get<JoinPrune>(decoded);
  FUZZ_REQUIRE(message.encodedSize() == bytes.size());
  auto const encoded = encodeJoinPrune(message, source, destination);
  FUZZ_REQUIRE(pimChecksum(encoded, source, destination) == 0);
  FUZZ_REQUIRE(withoutIgnored(encoded, ipv6 ? 16 : 4) == withoutIgnored(bytes, ipv6 ? 16 : 4));
  auto const again = decodeJoinPrune(encoded, source, destination);
  FUZZ_REQUIRE(std::holds_alternative<JoinPrune>(again));
  FUZZ_REQUIRE(std::get<JoinPrune>(again) == message);
  return 0;
}
