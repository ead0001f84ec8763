// SPDX-License-Identifier: Apache-2.0
// The heap of this program: every request is counted, and any of them can be made to fail. The operators are
// in CountedHeapTest.cpp.
#pragma once

#include <cstddef>

namespace CountedHeap {

/// Requested bytes and blocks that are in use, and requests so far.
extern std::size_t liveBytes, liveBlocks, requests;

/// How often `call` asks for memory.
template <class Call>
std::size_t requestsOf(Call const& call) {
  std::size_t const before = requests;
  call();
  return requests - before;
}

/// While it exists, requests fail: the n-th from now on (1 is the next), and as many after it as `length`
/// says.
class Famine {
 public:
  explicit Famine(std::size_t n, std::size_t length = 1);
  Famine(Famine const&) = delete;
  Famine& operator=(Famine const&) = delete;
  ~Famine();

  /// How many requests have failed.
  std::size_t failures() const;
};

/// While it exists, no request fails: for what a test does in between on its own account.
class Relief {
 public:
  Relief();
  Relief(Relief const&) = delete;
  Relief& operator=(Relief const&) = delete;
  ~Relief();
};

}  // namespace CountedHeap
