// SPDX-License-Identifier: Apache-2.0
#include "jpagent/capture/Pcapng.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Routing::Pim::Jpagent {

namespace {

namespace Block {
// The type of a section reads the same in both byte orders.
constexpr U32 section = 0x0a0d0d0a, interface = 1, obsoletePacket = 2, simplePacket = 3, enhancedPacket = 6;
}  // namespace Block

constexpr U32 frameSize = 12;  // the type and the two lengths of a block
constexpr U32 longestBlock = 16u << 20;
constexpr std::size_t packetHeadSize = 20;

bool isKept(U32 type) {
  return type == Block::section || type == Block::interface || type == Block::obsoletePacket ||
         type == Block::simplePacket || type == Block::enhancedPacket;
}

[[noreturn]] void fail(std::string const& what) { throw PcapngError(what); }

// Of an if_tsresol option: a power of 10, or with the highest bit of 2.
U64 stepsPerSecond(U8 resolution) {
  unsigned const exponent = resolution & 0x7f;
  if (resolution & 0x80) {
    if (exponent < 64) return U64{1} << exponent;
  } else if (exponent < 20) {
    U64 steps = 1;
    for (unsigned i = 0; i < exponent; ++i) steps *= 10;
    return steps;
  }
  fail(fmt::format("an interface has a clock of 1/{}^{} seconds, which is too fine",
                   resolution & 0x80 ? 2 : 10, exponent));
}

}  // namespace

PcapngReader::PcapngReader(File file) : file_(std::move(file)) {
  if (!readBlock()) fail("the file is empty");
}

bool PcapngReader::next(Packet& packet) {
  while (readBlock()) {
    switch (type_) {
      case Block::enhancedPacket:
        requireBody(packetHeadSize);
        enhancedPacket(packet, word(std::size_t{0}));
        return true;
      case Block::obsoletePacket:
        // The same, but for the upper half of the interface's number, which counts dropped packets.
        requireBody(packetHeadSize);
        enhancedPacket(packet, half(0));
        return true;
      case Block::simplePacket:
        requireBody(4);
        simplePacket(packet);
        return true;
      default:
        break;
    }
  }
  return false;
}

// False at the end of the file.
bool PcapngReader::readBlock() {
  U8 head[8], tail[4];
  if (std::size_t const read = std::fread(head, 1, sizeof head, file_.get()); read != sizeof head) {
    if (std::ferror(file_.get())) fail(std::strerror(errno));
    if (read == 0) return false;
    fail(fmt::format("the file ends in a block header, after {} of {} bytes", read, sizeof head));
  }
  type_ = word(head);
  if (!inSection_ && type_ != Block::section) fail("unknown file format");
  body_.clear();
  if (type_ == Block::section) {
    // Its byte order must be known before its length is.
    readBody(4);
    static constexpr U8 big[] = {0x1a, 0x2b, 0x3c, 0x4d};
    bigEndian_ = std::equal(body_.begin(), body_.end(), big);
    if (!bigEndian_ && !std::equal(body_.rbegin(), body_.rend(), big)) fail("unknown file format");
  }
  U32 const length = word(head + 4);
  if (length < frameSize + body_.size() || length % 4 != 0) fail(fmt::format("a block of {} bytes", length));
  if (isKept(type_)) {
    if (length > longestBlock) fail(fmt::format("a block of {} bytes is too long", length));
    readBody(length - frameSize);
  } else {
    for (std::size_t left = length - frameSize; left != 0;) {
      U8 skipped[4096];
      std::size_t const part = std::min(left, sizeof skipped);
      if (!readBytes(skipped, part)) fail("the file ends in a block");
      left -= part;
    }
  }
  if (!readBytes(tail, sizeof tail)) fail("the file ends in a block");
  if (word(tail) != length)
    fail(fmt::format("a block begins with {} as its length and ends with {}", length, word(tail)));
  if (type_ == Block::section) beginSection();
  if (type_ == Block::interface) addInterface();
  return true;
}

// Up to this size, in steps: memory is not taken for what is promised, but for what is there.
void PcapngReader::readBody(std::size_t size) {
  constexpr std::size_t step = 65536;
  while (body_.size() < size) {
    std::size_t const have = body_.size();
    body_.resize(std::min(size, have + step));
    if (!readBytes(body_.data() + have, body_.size() - have)) fail("the file ends in a block");
  }
}

bool PcapngReader::readBytes(U8* bytes, std::size_t size) {
  if (std::fread(bytes, 1, size, file_.get()) == size) return true;
  if (std::ferror(file_.get())) fail(std::strerror(errno));
  return false;
}

void PcapngReader::beginSection() {
  requireBody(16);
  if (half(4) != 1) fail(fmt::format("version {}.{} of pcapng is not supported", half(4), half(6)));
  inSection_ = true;
  interfaces_.clear();
}

void PcapngReader::addInterface() {
  constexpr U16 endOfOptions = 0, resolution = 9, offset = 14;
  requireBody(8);
  Interface added{half(0), word(4)};
  for (std::size_t at = 8; at + 4 <= body_.size();) {
    U16 const option = half(at);
    std::size_t const length = half(at + 2);
    at += 4;
    if (option == endOfOptions) break;
    if (length > body_.size() - at) fail(fmt::format("option {} of an interface exceeds its block", option));
    if ((option == resolution && length != 1) || (option == offset && length != 8))
      fail(fmt::format("option {} of an interface has {} bytes", option, length));
    if (option == resolution) added.stepsPerSecond = stepsPerSecond(body_[at]);
    if (option == offset) {
      U64 const first = word(at), second = word(at + 4);
      added.offset = bigEndian_ ? first << 32 | second : second << 32 | first;
    }
    at += std::min((length + 3) / 4 * 4, body_.size() - at);
  }
  interfaces_.push_back(added);
}

void PcapngReader::enhancedPacket(Packet& packet, U32 interface) const {
  Interface const& from = interfaceAt(interface);
  U64 const time = U64{word(4)} << 32 | word(8);
  packet.linkType = from.linkType;
  packet.hasTime = true;
  packet.seconds = static_cast<long long>(time / from.stepsPerSecond + from.offset);
  __extension__ using U128 = unsigned __int128;
  packet.nanoseconds =
      static_cast<long long>(U128{time % from.stepsPerSecond} * 1'000'000'000 / from.stepsPerSecond);
  packet.bytes = bytesAt(packetHeadSize, word(12));
}

void PcapngReader::simplePacket(Packet& packet) const {
  Interface const& from = interfaceAt(0);
  U32 const length = word(std::size_t{0});
  packet.linkType = from.linkType;
  packet.hasTime = false;
  packet.seconds = packet.nanoseconds = 0;
  packet.bytes = bytesAt(4, from.snapLength ? std::min(length, from.snapLength) : length);
}

PcapngReader::Interface const& PcapngReader::interfaceAt(U32 number) const {
  if (number >= interfaces_.size()) {
    fail(fmt::format("a packet of interface {}, but {} are described", number, interfaces_.size()));
  }
  return interfaces_[number];
}

std::span<U8 const> PcapngReader::bytesAt(std::size_t at, U32 count) const {
  if (count > body_.size() - at) {
    fail(fmt::format("a packet of {} bytes in a block that has {}", count, body_.size() - at));
  }
  return std::span(body_).subspan(at, count);
}

void PcapngReader::requireBody(std::size_t size) const {
  if (body_.size() < size) {
    fail(fmt::format("a block of type {} has {} bytes and needs {}", type_, body_.size(), size));
  }
}

U16 PcapngReader::half(std::size_t at) const {
  U8 const a = body_[at], b = body_[at + 1];
  return static_cast<U16>(bigEndian_ ? a << 8 | b : b << 8 | a);
}

U32 PcapngReader::word(U8 const* bytes) const {
  U32 value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | bytes[bigEndian_ ? i : 3 - i];
  return value;
}

}  // namespace Routing::Pim::Jpagent
