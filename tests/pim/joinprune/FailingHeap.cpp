// SPDX-License-Identifier: Apache-2.0
#include "tests/pim/joinprune/FailingHeap.h"

#include <cstdlib>
#include <new>

namespace FailingHeap {

std::size_t requests = 0;

namespace {

std::size_t firstFailing = 0, failing = 0;

void* requested(std::size_t size) {
  if (++requests - firstFailing < failing) return nullptr;
  return std::malloc(size != 0 ? size : 1);
}

void* requestedOrThrow(std::size_t size) {
  void* const memory = requested(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

}  // namespace

Failure::Failure(std::size_t n, std::size_t length) : number_(requests + n) {
  firstFailing = number_;
  failing = length;
}
Failure::~Failure() { failing = 0; }
bool Failure::happened() const { return requests >= number_; }

}  // namespace FailingHeap

using namespace FailingHeap;

void* operator new(std::size_t size) { return requestedOrThrow(size); }
void* operator new[](std::size_t size) { return requestedOrThrow(size); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return requested(size); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return requested(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::nothrow_t const&) noexcept { std::free(memory); }
void operator delete[](void* memory, std::nothrow_t const&) noexcept { std::free(memory); }
