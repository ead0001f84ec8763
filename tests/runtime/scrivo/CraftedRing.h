// SPDX-License-Identifier: Apache-2.0
// Trace files that Scrivo would not write, byte by byte.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include "runtime/scrivo/detail/Format.h"

namespace Scrivo::Test {

/// Descriptors and records one after the other, as many as the caller likes; both are padded here.
class CraftedRing {
 public:
  /// A piece: a literal.
  static std::string literal(std::string_view text) {
    return std::string(1, '\0') + length(text) + std::string(text);
  }
  /// A piece: the place of an argument.
  static std::string place(ArgumentKind kind) { return std::string(1, static_cast<char>(kind)); }

  /// Returns the identifier.
  U32 descriptor(EventKind kind, std::string_view source, std::string const& pieces, unsigned count) {
    std::string const rest = length(source) + std::string(source) + pieces;
    Format::DescriptorHeader header = {};
    header.bytes = static_cast<U32>(Format::roundUp8(sizeof header + rest.size()));
    header.id = ++descriptors_;
    header.kind = static_cast<U8>(kind);
    header.pieces = static_cast<Format::U16>(count);
    append(descriptorArea_, header, rest, header.bytes);
    return header.id;
  }

  void record(EventKind kind, U32 id, U64 counter, std::string const& arguments) {
    Format::RecordHeader header = {};
    header.bytes = static_cast<U32>(Format::roundUp8(sizeof header + arguments.size()));
    header.id = id;
    header.counter = counter;
    append(rings_[Format::ringIndex(kind)], header, arguments, header.bytes);
  }

  /// The file.
  std::string bytes(U64 countsPerSecond = 1'000'000'000) const {
    std::string rings[2];
    for (int i : {0, 1}) {
      rings[i] = rings_[i];
      rings[i].resize(std::max<std::size_t>(rings[i].size(), Format::minRingBytes));
    }
    Format::FileHeader header = {};
    std::memcpy(header.magic, Format::magic, sizeof header.magic);
    header.version = Format::version;
    header.byteOrder = Format::byteOrder;
    header.descriptors = {Format::headerBytes, descriptorArea_.size()};
    header.rings[0] = {Format::headerBytes + descriptorArea_.size(), rings[0].size()};
    header.rings[1] = {header.rings[0].offset + rings[0].size(), rings[1].size()};
    header.fileBytes = header.rings[1].offset + rings[1].size();
    header.countsPerSecond = countsPerSecond;
    header.descriptorCount = descriptors_;
    for (int i : {0, 1}) header.ringStates[i] = {rings_[i].size(), 0, 0};
    std::string start(Format::headerBytes, '\0');
    std::memcpy(start.data(), &header, sizeof header);
    return start + descriptorArea_ + rings[0] + rings[1];
  }

 private:
  static std::string length(std::string_view text) {
    auto const size = static_cast<Format::U16>(text.size());
    std::string two(sizeof size, '\0');
    std::memcpy(two.data(), &size, sizeof size);
    return two;
  }

  template <class Header>
  static void append(std::string& area, Header const& header, std::string const& rest, std::size_t bytes) {
    std::size_t const start = area.size();
    area.append(reinterpret_cast<char const*>(&header), sizeof header);
    area.append(rest).resize(start + bytes);
  }

  std::string descriptorArea_, rings_[2];
  U32 descriptors_ = 0;
};

}  // namespace Scrivo::Test
