// SPDX-License-Identifier: Apache-2.0
// Captured frames in files: pcap and pcapng to read, pcap to write.
//
//     Capture capture("lan.pcap");
//     Frame frame;
//     while (capture.next(frame)) show(frame.number, frame.time, frame.bytes);
//
// Which file of this folder does what:
//
//   Capture.h       frames from a file
//   Pcapng.h        the blocks of a pcapng file
//   Datagram.h      from a frame to the IP datagram in it, through tunnels too
//   FrameBuilder.h  IP datagrams and Ethernet frames around PIM messages
//   PcapPackets.h   a sink that writes packets to a pcap file
//   Sample.h        `jpagent sample`: a capture to try the program with
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "jpagent/capture/Datagram.h"
#include "jpagent/capture/Pcapng.h"
#include "jpagent/common/Output.h"
#include "runtime/vel/Types.h"

struct pcap;

namespace Routing::Pim::Jpagent {

using Vel::U64;

/// A file that cannot be read. `what()` is one line that names the file and what is wrong with it.
class CaptureError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Frame {
  U64 number = 0;             ///< In the file, from 1.
  Vel::Seconds time = 0;      ///< Since the file's first frame; negative if the clock was set back.
  std::span<U8 const> bytes;  ///< What the capture kept. Valid until the next frame is read.
  LinkType link = LinkType::ethernet;
};

/// Reads a file frame by frame. The interfaces of a pcapng file are read as one, though their link types and
/// snap lengths may differ.
class Capture {
 public:
  /// Throws CaptureError if the file is missing, empty, no capture, or a pcap file of a link type that
  /// nothing here here can take apart.
  explicit Capture(std::string const& path);
  ~Capture();

  /// False after the last frame. Throws CaptureError if the file is damaged there; what came before was good.
  /// Frames of a pcapng interface whose link type is not known here come as `LinkType::unknown`; if
  /// all frames are such, CaptureError is thrown at the end.
  bool next(Frame& frame);

  /// How many bytes of the file have been read, and how many there are; 0 if it is no regular file.
  U64 bytesRead() const;
  U64 size() const { return size_; }

 private:
  bool nextOfPcap(Frame& frame);
  bool nextOfPcapng(Frame& frame);
  Vel::Seconds sinceFirst(long long seconds, long long nanoseconds);

  std::string path_;
  U64 size_ = 0;
  std::unique_ptr<pcap, void (*)(pcap*)> pcap_;  // null for a pcapng file
  std::unique_ptr<PcapngReader> pcapng_;
  LinkType link_ = LinkType::ethernet;
  U64 number_ = 0;
  bool hasFirstTime_ = false;
  long long firstSeconds_ = 0, firstNanoseconds_ = 0;
  Vel::Seconds time_ = 0;  // of the frame before
  // Of a pcapng file: whether a frame had a link type that is known, and one that is not.
  bool anyKnownLink_ = false;
  std::optional<int> unknownLink_;
};

/// Writes an Ethernet capture with time stamps in microseconds.
class CaptureWriter {
 public:
  /// Throws OutputError if the file cannot be made. A device or a FIFO is written in place.
  explicit CaptureWriter(std::string const& path);

  /// The time is in microseconds since 1970; not before.
  void frameAdd(U64 microseconds, std::span<U8 const> bytes);

  /// Brings everything to the file and gives it its name. Throws OutputError if that fails, or if frameAdd()
  /// has failed. Without this call there is no file.
  void close() { output_.close(); }

 private:
  FileOutput output_;
};

}  // namespace Routing::Pim::Jpagent
