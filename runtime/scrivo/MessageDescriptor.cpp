// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/MessageDescriptor.h"

#include <limits>

namespace Scrivo {

static_assert(Format::maxDescriptorBytes <= std::numeric_limits<Format::U16>::max(),
              "lengths and the number of pieces have 16 bits");

MessageDescriptor::MessageDescriptor(TraceFile& file, std::string_view source, U32 line,
                                     EventKind kind) noexcept
    : file_(file) {
  header_.line = line;
  header_.kind = static_cast<U8>(kind);
  appendText(source);
}

MessageDescriptor& MessageDescriptor::operator<<(char const* literal) noexcept {
  if (literal == nullptr) return *this;
  append(&Format::literalPiece, 1);
  appendText(literal);
  ++header_.pieces;
  return *this;
}

MessageDescriptor& MessageDescriptor::operator<<(ArgumentKind kind) noexcept {
  append(&kind, 1);
  ++header_.pieces;
  return *this;
}

U32 MessageDescriptor::finish() noexcept {
  static constexpr U8 zeros[8] = {};
  append(zeros, Format::roundUp8(used_) - used_);
  if (tooLong_) {
    file_.refuseDescriptor();
    return 0;
  }
  header_.bytes = used_;
  std::memcpy(bytes_, &header_, sizeof header_);
  return file_.registerDescriptor({bytes_, used_});
}

void MessageDescriptor::append(void const* bytes, std::size_t size) noexcept {
  tooLong_ = tooLong_ || size > sizeof bytes_ - used_;
  if (tooLong_ || size == 0) return;
  std::memcpy(bytes_ + used_, bytes, size);
  used_ += static_cast<U32>(size);
}

void MessageDescriptor::appendText(std::string_view text) noexcept {
  // A length that does not fit 16 bits belongs to a text that does not fit the descriptor.
  Format::U16 const length = static_cast<Format::U16>(text.size());
  append(&length, sizeof length);
  append(text.data(), text.size());
}

}  // namespace Scrivo
