// SPDX-License-Identifier: Apache-2.0
// Packets from a pcapng file, block by block. libpcap stops at an interface whose link type or snap length
// differs from the first one's; here each packet has the link type of its own.
//
//     PcapngReader reader(std::move(file));
//     PcapngReader::Packet packet;
//     while (reader.next(packet)) show(packet.linkType, packet.bytes);
//
// Sections of either byte order; enhanced, simple and obsolete packet blocks; the resolution and offset of
// each interface's clock. Blocks of other kinds are skipped.
#pragma once

#include <cstdio>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "runtime/vel/Types.h"

namespace Routing::Pim::Jpagent {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// What is wrong with the file, in a few words that do not name it.
class PcapngError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class PcapngReader {
 public:
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

  struct Packet {
    U16 linkType = 0;                        ///< As the file has it: a LINKTYPE number.
    bool hasTime = false;                    ///< A simple packet block has none.
    long long seconds = 0, nanoseconds = 0;  ///< Since 1970, nanoseconds below 10^9.
    std::span<U8 const> bytes;               ///< Valid until the next packet is read.
  };

  /// From the beginning of the file. Throws PcapngError if it does not begin with a section of pcapng.
  explicit PcapngReader(File file);

  /// False after the last packet. Throws PcapngError if the file is damaged there, or cannot be read.
  bool next(Packet& packet);

  /// In the file, in bytes; negative in a pipe.
  long position() const { return std::ftell(file_.get()); }

 private:
  struct Interface {
    U16 linkType;
    U32 snapLength;  // 0: no limit
    U64 stepsPerSecond = 1'000'000;
    U64 offset = 0;  // in seconds, modulo 2^64
  };

  bool readBlock();
  void readBody(std::size_t size);
  bool readBytes(U8* bytes, std::size_t size);
  void beginSection();
  void addInterface();
  void enhancedPacket(Packet& packet, U32 interface) const;
  void simplePacket(Packet& packet) const;
  Interface const& interfaceAt(U32 number) const;
  std::span<U8 const> bytesAt(std::size_t at, U32 count) const;
  void requireBody(std::size_t size) const;

  U16 half(std::size_t at) const;
  U32 word(U8 const* bytes) const;
  U32 word(std::size_t at) const { return word(body_.data() + at); }

  File file_;
  bool inSection_ = false;
  bool bigEndian_ = false;             // the section
  U32 type_ = 0;                       // the block that was read last
  std::vector<U8> body_;               // its bytes between the two lengths
  std::vector<Interface> interfaces_;  // of the section
};

}  // namespace Routing::Pim::Jpagent
