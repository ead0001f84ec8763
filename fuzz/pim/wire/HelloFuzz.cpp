// Bytes into the decoder of Hellos. What is taken for a Hello is the same Hello again after it was encoded,
// and the view of the options shows as many as are in it.
#include "pim/wire/Hello.h"

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  Input input(data, size);
  U8 const how = input.u8();
  bool const ipv6 = how & 1, asItIs = how & 2;
  IpGenAddr const source(ipv6 ? "fe80::14" : "10.0.0.14");
  IpGenAddr const destination = allPimRouters(source.af());
  auto const rest = input.rest();
  auto const bytes = asItIs ? std::vector<U8>(rest.begin(), rest.end()) : mended(rest, source, destination);

  std::size_t end = 4, unknown = 0;
  HelloOptions options(bytes);
  while (options.next()) {
    FUZZ_REQUIRE(options.offset() == end);
    end += 4 + options.value().size();
    unknown += isUnknownOption(options.type());
  }

  auto const decoded = decodeHello(bytes, source, destination);
  if (auto const* const refusal = std::get_if<Refusal>(&decoded)) {
    FUZZ_REQUIRE(!toText(*refusal).empty());
    return 0;
  }
  FUZZ_REQUIRE(!options.isCut() && end == bytes.size());
  auto const& hello = std::get<Hello>(decoded);
  FUZZ_REQUIRE(hello.unknownOptions().size() == unknown);
  FUZZ_REQUIRE(!toText(hello).empty());
  FUZZ_REQUIRE(hello.encodedSize() <= bytes.size());
  if (bytes.size() > 65'515) return 0;
  auto const encoded = encodeHello(hello, source, destination);
  FUZZ_REQUIRE(encoded.size() == hello.encodedSize());
  FUZZ_REQUIRE(pimChecksum(encoded, source, destination) == 0);
  auto const again = decodeHello(encoded, source, destination);
  FUZZ_REQUIRE(std::holds_alternative<Hello>(again));
  FUZZ_REQUIRE(std::get<Hello>(again) == hello);
  return 0;
}
