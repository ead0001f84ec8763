// Bytes as a capture file.
#include "agent/Capture.h"

#include <cmath>

#include "fuzz/Fuzz.h"

using namespace Routing::Pim::Agent;

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  Fuzz::File const file({data, size});
  try {
    Capture capture(file.path());
    Frame frame;
    for (U64 number = 1; capture.next(frame); ++number) {
      FUZZ_REQUIRE(frame.number == number && std::isfinite(frame.time));
      if (auto const datagram = findDatagram(frame.link, frame.bytes)) {
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
