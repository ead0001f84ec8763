// SPDX-License-Identifier: Apache-2.0
// Bytes as a capture file.
#include "jpagent/capture/Capture.h"

#include <cmath>

#include "fuzz/Fuzz.h"

using namespace Routing::Pim::Jpagent;

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  Fuzz::File const file({data, size});
  try {
    Capture capture(file.path());
    Frame frame;
    for (U64 number = 1; capture.next(frame); ++number) {
      FUZZ_REQUIRE(frame.number == number && std::isfinite(frame.time));
      auto const found = findDatagram(frame.link, frame.bytes);
      if (auto const* const datagram = std::get_if<Datagram>(&found)) {
        unsigned sum = 0;
        for (U8 const byte : datagram->payload) sum += byte;  // they are all there
        FUZZ_REQUIRE(sum <= 255 * frame.bytes.size());
      }
    }
  } catch (CaptureError const& error) {
    FUZZ_REQUIRE(std::string_view(error.what()).starts_with(file.path()));
  }
  return 0;
}
