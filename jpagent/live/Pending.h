// SPDX-License-Identifier: Apache-2.0
// Bytes on their way in and out of descriptors that may be slow.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace Routing::Pim::Jpagent::Live {

/// Bytes that wait until a descriptor takes them.
class Pending {
 public:
  void add(std::string_view bytes) { bytes_.append(bytes); }
  std::size_t size() const { return bytes_.size() - done_; }

  /// Writes what the descriptor takes without waiting, whether it is non-blocking or not. Returns 0, or the
  /// errno of a failure; what is not written stays.
  int writeTo(int descriptor);

 private:
  std::string bytes_;
  std::size_t done_ = 0;  // of them were written
};

/// Takes bytes apart into lines.
class Lines {
 public:
  static constexpr std::size_t longest = 64 << 10;

  /// Calls `line` for each line that ends in the bytes, without its end; `isWhole` is false for one that is
  /// longer than `longest`, of which the first part is given. A callback may not call this.
  using Line = std::function<void(std::string_view line, bool isWhole)>;
  void add(std::string_view bytes, Line const& line);
  /// What came after the last end of a line.
  std::string const& rest() const { return rest_; }

 private:
  std::string rest_;
  bool isTooLong_ = false;
};

}  // namespace Routing::Pim::Jpagent::Live
