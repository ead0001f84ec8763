// SPDX-License-Identifier: Apache-2.0
// Bytes as a trace file. Of an input that does not begin like one, a file is made whose header is mostly
// right, so that inputs reach the descriptors and the rings; then it is torn.
#include "runtime/scrivo/TraceReader.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "fuzz/Fuzz.h"
#include "runtime/scrivo/detail/Format.h"
#include "runtime/vel/Exception.h"

namespace {

using namespace Scrivo;
using Fuzz::Input;

std::vector<U8> fileFrom(Input& input) {
  constexpr U64 ringBytes = Format::minRingBytes;
  auto const descriptors = input.bytes(input.u16());
  std::span<U8 const> const rings[2] = {input.bytes(input.u16()), input.bytes(input.u16())};
  U64 const descriptorBytes = Format::roundUp8(descriptors.size());

  Format::FileHeader header = {};
  std::memcpy(header.magic, Format::magic, sizeof header.magic);
  header.version = Format::version;
  header.byteOrder = Format::byteOrder;
  header.fileBytes = Format::headerBytes + descriptorBytes + 2 * ringBytes;
  header.descriptors = {Format::headerBytes, descriptorBytes};
  header.countsPerSecond = 1'000'000'000;
  header.descriptorCount = input.u8();
  std::vector<U8> file(header.fileBytes);
  U64 offset = Format::headerBytes;
  std::copy(descriptors.begin(), descriptors.end(), file.begin() + static_cast<std::ptrdiff_t>(offset));
  offset += descriptorBytes;
  for (int i = 0; i < 2; ++i) {
    header.rings[i] = {offset, ringBytes};
    // The contents begin anywhere in the ring and run over its end.
    U64 const tail = U64{input.u16()} * 8, length = std::min<U64>(rings[i].size() / 8 * 8, ringBytes);
    for (U64 at = 0; at < length; ++at) file[offset + (tail + at) % ringBytes] = rings[i][at];
    header.ringStates[i] = {tail + length, tail, input.u8()};
    offset += ringBytes;
  }
  std::memcpy(file.data(), &header, sizeof header);

  // Damage: bytes anywhere, the header included, and an end that is too early.
  for (U32 hits = input.below(8); hits > 0; --hits) {
    std::size_t const at = input.flag() ? input.u16() % sizeof header : input.u16() % file.size();
    file[at] = input.u8();
  }
  if (input.flag()) file.resize(input.u16() % (file.size() + 1));
  return file;
}

void requireOneLine(std::string const& text) {
  for (char const c : text) FUZZ_REQUIRE(static_cast<U8>(c) >= 0x20 && c != 0x7f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* data, std::size_t size) {
  Input input(data, size);
  bool const asItIs =
      size >= sizeof Format::magic && std::memcmp(data, Format::magic, sizeof Format::magic) == 0;
  Fuzz::File const file(asItIs ? std::vector<U8>(data, data + size) : fileFrom(input));
  try {
    TraceReader const reader(file.path());
    U64 before = 0;
    for (auto const& event : reader.events()) {
      FUZZ_REQUIRE(event.counter >= before);
      before = event.counter;
      FUZZ_REQUIRE(std::isfinite(event.seconds) && std::isfinite(event.elapsedSeconds));
      requireOneLine(toText(event));
    }
    U32 id = 0;
    for (auto const& descriptor : reader.descriptors()) {
      FUZZ_REQUIRE(descriptor.id > id);
      id = descriptor.id;
      requireOneLine(toText(descriptor));
    }
  } catch (Vel::RangeException const& error) {
    FUZZ_REQUIRE(std::string_view(error.what()).starts_with(file.path()));
  }
  return 0;
}
