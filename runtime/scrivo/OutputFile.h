// SPDX-License-Identifier: Apache-2.0
// A file to write, under a name that a person gave.
//
//     Scrivo::OutputFile file("/var/run/jpagent.trace", Scrivo::OutputFile::Use::file);
//     write(file.descriptor(), bytes.data(), bytes.size());
//     file.commit();   // now it has its name; without this call it never gets it
//
// What the name leads to decides. A regular file, or none yet, is written beside the place and renamed when
// it is complete: who reads the old one is not disturbed, and what fails leaves it as it was. The new file
// takes over the mode, and the owner if the process may give files away; a link is followed to its target and
// stays a link. Output that is a plain stream may also go to a character device or a FIFO, which is written
// in place. Anything else is refused, and so is a file that may not be written: a rename would not ask.
//
// All output of the library and of jpagent is opened here. Not for more than one thread.
#pragma once

#include <sys/types.h>

#include <string>

#include "runtime/vel/Export.h"

namespace Scrivo {

/// A file that is being written.
class VEL_API OutputFile {
 public:
  /// What the output is.
  enum class Use : unsigned char {
    file,   ///< Needs a regular file: it is mapped, or read again.
    stream  ///< May also go to a character device or a FIFO. To open a FIFO waits for its reader.
  };

  /// `mode` is that of a file that is not there yet, less the process's umask. Throws Vel::RangeException
  /// "<path>: <reason>", and then nothing was changed.
  OutputFile(std::string const& path, Use use, mode_t mode = 0666);
  /// Without commit(), what was written beside the place is removed.
  ~OutputFile();
  OutputFile(OutputFile const&) = delete;
  OutputFile& operator=(OutputFile const&) = delete;

  /// For write(2). Valid until commit().
  int descriptor() const { return descriptor_; }
  /// As it was given.
  std::string const& path() const { return path_; }

  /// Closes the file and gives it its name, if name() has not. Throws Vel::RangeException "<path>: <reason>"
  /// if either fails; a file without its name is removed then. REQUIRES: called once.
  void commit();

  /// Gives the file its name now, and leaves it open: for a process that writes as long as it runs. Throws as
  /// commit() does. REQUIRES: before commit().
  void name();

  /// Where a path leads that may be a link, or links in a row, to a file that need not be there. Throws
  /// Vel::RangeException "<path>: <reason>".
  static std::string followed(std::string const& path);

  /// Removes what all files of this process have written beside their places: for a process that ends at
  /// once. Async-signal-safe.
  static void abandonAll() noexcept;

 private:
  void openInPlace(mode_t kind);
  void openBeside(mode_t mode);
  void closeAndRemove() noexcept;
  void forgetTemporary() noexcept;

  // Fixed at construction.
  std::string const path_;
  std::string target_, temporary_;  // without a temporary file, it is written in place
  OutputFile* previous_ = nullptr;  // files that have a temporary one are in a list
  OutputFile* next_ = nullptr;
  // -1 after commit().
  int descriptor_ = -1;
};

}  // namespace Scrivo
