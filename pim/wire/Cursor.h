// SPDX-License-Identifier: Apache-2.0
// A cursor over bytes from the network. It can stand before any bytes whatever; each read says whether there
// was enough left, and one that fails moves nothing.
//
//     Cursor in(bytes);
//     U8 type;
//     U16 length;
//     if (!in.read(type) || !in.read(length)) return truncated;
#pragma once

#include <cstddef>
#include <span>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Wire {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// A place in bytes that are read from front to back.
class Cursor {
 public:
  /// The bytes must outlive the cursor and the spans that it gives.
  explicit Cursor(std::span<U8 const> bytes) : bytes_(bytes) {}

  /// How many bytes are behind it.
  std::size_t offset() const { return offset_; }
  /// How many bytes are before it.
  std::size_t left() const { return bytes_.size() - offset_; }
  /// The bytes before it.
  std::span<U8 const> rest() const { return bytes_.subspan(offset_); }

  /// The next byte; false, and nothing is read, if there is none. So for all of these.
  [[nodiscard]] bool read(U8& value) {
    if (left() < 1) return false;
    value = bytes_[offset_++];
    return true;
  }

  /// In network order.
  [[nodiscard]] bool read(U16& value) {
    if (left() < 2) return false;
    value = static_cast<U16>(bytes_[offset_] << 8 | bytes_[offset_ + 1]);
    offset_ += 2;
    return true;
  }

  /// So many bytes, as a view of them.
  [[nodiscard]] bool read(std::size_t count, std::span<U8 const>& bytes) {
    if (left() < count) return false;
    bytes = bytes_.subspan(offset_, count);
    offset_ += count;
    return true;
  }

  /// Passes over so many bytes.
  [[nodiscard]] bool skip(std::size_t count) {
    if (left() < count) return false;
    offset_ += count;
    return true;
  }

 private:
  std::span<U8 const> bytes_;
  std::size_t offset_ = 0;
};

}  // namespace Routing::Pim::Wire
