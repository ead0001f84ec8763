// SPDX-License-Identifier: Apache-2.0
// A heap of which requests can be made to fail. The operators are in FailingHeap.cpp.
#pragma once

#include <cstddef>

namespace FailingHeap {

/// How many requests there were so far.
extern std::size_t requests;

/// While it exists, requests fail: `length` of them from the n-th on (1 is the next).
class Failure {
 public:
  explicit Failure(std::size_t n, std::size_t length = 1);
  Failure(Failure const&) = delete;
  Failure& operator=(Failure const&) = delete;
  ~Failure();

  /// Whether a request has failed.
  bool happened() const;

 private:
  std::size_t const number_;
};

}  // namespace FailingHeap
