// SPDX-License-Identifier: Apache-2.0
// Bytes into the decoder of Hellos. What is taken for a Hello is the same Hello again after it was encoded,
// and the view of the options shows as many as are in it.
#include "pim/wire/Hello.h"

#include "fuzz/pim/wire/Message.h"

using namespace Routing::Pim::Wire;

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  auto const [source, destination, bytes] = Fuzz::takeMessage(data, size);

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
