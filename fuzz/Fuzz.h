// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share.
//
// A target is a file *Fuzz.cpp with one function, LLVMFuzzerTestOneInput. It is built twice: with libFuzzer,
// which makes up inputs (scripts/fuzz), and as an ordinary test that runs the inputs that are kept:
// fuzz/corpus/<target> has what covers the code, fuzz/failures/<target> every input that has ever failed.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "runtime/vel/Types.h"

extern "C" int LLVMFuzzerTestOneInput(Vel::U8 const* data, std::size_t size);

namespace Fuzz {

using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

/// A property does not hold: the input has found a defect.
#define FUZZ_REQUIRE(condition)                                                                  \
  do {                                                                                           \
    if (!(condition)) {                                                                          \
      std::fprintf(stderr, "%s:%d: it does not hold that %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                              \
    }                                                                                            \
  } while (false)

/// An input, taken from the front as small numbers. At its end everything is 0.
class Input {
 public:
  Input(U8 const* data, std::size_t size) : left_(data, size) {}

  explicit operator bool() const { return !left_.empty(); }
  U8 u8() {
    if (left_.empty()) return 0;
    U8 const value = left_.front();
    left_ = left_.subspan(1);
    return value;
  }
  U16 u16() { return static_cast<U16>(u8() << 8 | u8()); }
  U32 u32() { return U32{u16()} << 16 | u16(); }
  /// From 0 to bound - 1.
  U32 below(U32 bound) { return bound <= 256 ? u8() % bound : u32() % bound; }
  bool flag() { return u8() & 1; }
  /// Up to as many bytes.
  std::span<U8 const> bytes(std::size_t count) {
    auto const taken = left_.first(std::min(count, left_.size()));
    left_ = left_.subspan(taken.size());
    return taken;
  }
  std::span<U8 const> rest() { return bytes(left_.size()); }

 private:
  std::span<U8 const> left_;
};

inline std::string_view textOf(std::span<U8 const> bytes) {
  return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

/// A file in memory, for what reads files by name.
class File {
 public:
  explicit File(std::span<U8 const> content) : file_(memfd_create("fuzz", 0)) {
    if (file_ < 0) throw std::runtime_error("no file in memory");
    for (std::size_t done = 0; done < content.size();) {
      auto const written = write(file_, content.data() + done, content.size() - done);
      if (written <= 0) throw std::runtime_error("no room for a file in memory");
      done += static_cast<std::size_t>(written);
    }
  }
  File(File const&) = delete;
  File& operator=(File const&) = delete;
  ~File() { close(file_); }

  std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  int file_;
};

}  // namespace Fuzz
