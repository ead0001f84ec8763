// A heap of which one request can be made to fail. The operators are in FailingHeap.cpp.
#pragma once

#include <cstddef>

namespace FailingHeap {

/// How many requests there were so far.
extern std::size_t requests;

/// While it stands, the n-th request from now on (1 is the next) fails.
class Failure {
 public:
  explicit Failure(std::size_t n);
  Failure(Failure const&) = delete;
  Failure& operator=(Failure const&) = delete;
  ~Failure();

  /// Whether that many requests were made.
  bool happened() const;

 private:
  std::size_t const number_;
};

}  // namespace FailingHeap
