// SPDX-License-Identifier: Apache-2.0
// Where what jpagent writes ends up: standard output, and files that are named on the command line. A stream
// here knows the system's reason when writing fails, and says it when it is closed.
//
//     refuseSharedFiles({{"--pcap", "sent.pcap"}, {"the conversation", "story.txt"}});
//     FileOutput file("sent.pcap");
//     file << "...";
//     file.close();   // throws if not everything was written; without this call the file never gets its name
#pragma once

#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "runtime/scrivo/OutputFile.h"

namespace Routing::Pim::Jpagent {

/// Output that cannot be written. `what()` is one line that names it and gives the reason.
class OutputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Writes to a file descriptor, without memory from the heap. After the first failure all else is dropped.
class OutputBuffer final : public std::streambuf {
 public:
  /// The descriptor stays the caller's.
  explicit OutputBuffer(int descriptor);

  /// Writes what is kept back. Async-signal-safe.
  bool flush() noexcept;
  /// The errno of the first failure, 0 without one.
  int error() const { return error_; }

 protected:
  int_type overflow(int_type character) override;
  int sync() override { return flush() ? 0 : -1; }

 private:
  int const descriptor_;
  int error_ = 0;
  char bytes_[16 << 10];
};

/// As long as it lives, std::cout writes by an OutputBuffer. One at a time.
class StandardOutput {
 public:
  StandardOutput();
  ~StandardOutput();
  StandardOutput(StandardOutput const&) = delete;
  StandardOutput& operator=(StandardOutput const&) = delete;

  /// Brings everything to its place and closes the descriptor. Throws OutputError.
  void close();

  /// Writes what the one that lives keeps back, for a process that ends at once. Async-signal-safe.
  static void flushAtEnd() noexcept;

 private:
  OutputBuffer buffer_;
  std::streambuf* const former_;
};

/// A plain stream into a file, a device or a FIFO; see Scrivo::OutputFile.
class FileOutput final : public std::ostream {
 public:
  /// Throws OutputError.
  explicit FileOutput(std::string const& path, Scrivo::OutputFile::Use use = Scrivo::OutputFile::Use::stream);

  /// Brings everything to the file and gives it its name. Throws OutputError, and then a file that had the
  /// name still has it. REQUIRES: called once, and last.
  void close();

 private:
  Scrivo::OutputFile file_;
  OutputBuffer buffer_;
};

/// A file that a command line names.
struct NamedFile {
  std::string what;  ///< "--pcap", "the capture"
  std::string path;
};

/// Throws OutputError "--pcap: sent.pcap is the conversation" if two of them are one regular file or FIFO,
/// there or yet to be made, or if one is what standard output or standard error writes to. Opens nothing.
void refuseSharedFiles(std::vector<NamedFile> const& files);

}  // namespace Routing::Pim::Jpagent
