// SPDX-License-Identifier: Apache-2.0
// The counting heap itself. It replaces operator new, so what is tested on it is a program of its own.
#include "tests/memory/CountedHeap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace CountedHeap {

std::size_t liveBytes = 0;
std::size_t liveBlocks = 0;
std::size_t requests = 0;

namespace {

// The numbers of the requests that fail, from the first to before the last.
std::size_t failing = 0, failingEnd = 0, failed = 0;
int reliefs = 0;

// In front of each block: how much was requested. As wide as the alignment, so that the block keeps it.
constexpr std::size_t frontOf(std::size_t alignment) {
  return alignment > alignof(std::max_align_t) ? alignment : alignof(std::max_align_t);
}

void* counted(std::size_t size, std::size_t alignment) {
  if (reliefs == 0 || failingEnd == 0) {
    std::size_t const number = ++requests;
    if (number >= failing && number < failingEnd) {
      ++failed;
      return nullptr;
    }
  }
  std::size_t const front = frontOf(alignment);
  void* const block = std::aligned_alloc(front, (size + front + front - 1) / front * front);
  if (!block) return nullptr;
  *static_cast<std::size_t*>(block) = size;
  liveBytes += size;
  ++liveBlocks;
  return static_cast<char*>(block) + front;
}

void* countedOrThrow(std::size_t size, std::size_t alignment) {
  void* const memory = counted(size, alignment);
  if (!memory) throw std::bad_alloc();
  return memory;
}

void uncounted(void* memory, std::size_t alignment) {
  if (!memory) return;
  void* const block = static_cast<char*>(memory) - frontOf(alignment);
  liveBytes -= *static_cast<std::size_t*>(block);
  --liveBlocks;
  std::free(block);
}

constexpr std::size_t usual = alignof(std::max_align_t);

}  // namespace

Famine::Famine(std::size_t n, std::size_t length) {
  failing = requests + n;
  failingEnd = length > ~failing ? ~std::size_t{0} : failing + length;
  failed = 0;
}
Famine::~Famine() { failing = failingEnd = 0; }
std::size_t Famine::failures() const { return failed; }

Relief::Relief() { ++reliefs; }
Relief::~Relief() { --reliefs; }

}  // namespace CountedHeap

using namespace CountedHeap;

void* operator new(std::size_t size) { return countedOrThrow(size, usual); }
void* operator new[](std::size_t size) { return countedOrThrow(size, usual); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return counted(size, usual); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return counted(size, usual); }
void* operator new(std::size_t size, std::align_val_t a) {
  return countedOrThrow(size, static_cast<std::size_t>(a));
}
void* operator new[](std::size_t size, std::align_val_t a) {
  return countedOrThrow(size, static_cast<std::size_t>(a));
}
void operator delete(void* memory) noexcept { uncounted(memory, usual); }
void operator delete[](void* memory) noexcept { uncounted(memory, usual); }
void operator delete(void* memory, std::size_t) noexcept { uncounted(memory, usual); }
void operator delete[](void* memory, std::size_t) noexcept { uncounted(memory, usual); }
void operator delete(void* memory, std::nothrow_t const&) noexcept { uncounted(memory, usual); }
void operator delete[](void* memory, std::nothrow_t const&) noexcept { uncounted(memory, usual); }
void operator delete(void* memory, std::align_val_t a) noexcept {
  uncounted(memory, static_cast<std::size_t>(a));
}
void operator delete[](void* memory, std::align_val_t a) noexcept {
  uncounted(memory, static_cast<std::size_t>(a));
}
void operator delete(void* memory, std::size_t, std::align_val_t a) noexcept {
  uncounted(memory, static_cast<std::size_t>(a));
}
void operator delete[](void* memory, std::size_t, std::align_val_t a) noexcept {
  uncounted(memory, static_cast<std::size_t>(a));
}

namespace {

struct alignas(64) Wide {
  char bytes[64];
};

TEST(CountedHeapTest, BytesAndBlocksComeBackWithTheirObjects) {
  std::size_t const bytes = liveBytes, blocks = liveBlocks;
  auto number = std::make_unique<long>(1);
  auto wide = std::make_unique<Wide>();
  auto list = std::make_unique<char[]>(100);
  EXPECT_EQ(liveBytes, bytes + sizeof(long) + sizeof(Wide) + 100);
  EXPECT_EQ(liveBlocks, blocks + 3);
  number.reset(), wide.reset(), list.reset();
  EXPECT_EQ(liveBytes, bytes);
  EXPECT_EQ(liveBlocks, blocks);
}

TEST(CountedHeapTest, InAFamineTheRequestsThatAreNamedFailAndNoOthers) {
  auto const fails = [] {
    try {
      return std::make_unique<long>(1), false;
    } catch (std::bad_alloc const&) {
      return true;
    }
  };
  bool first, second, third, relieved, fourth;
  std::size_t failures;
  {
    Famine const famine(2, 3);
    first = fails(), second = fails(), third = fails();
    {
      Relief const relief;
      relieved = fails();
    }
    fourth = fails();
    failures = famine.failures();
  }
  EXPECT_FALSE(first);
  EXPECT_TRUE(second && third && fourth);
  EXPECT_FALSE(relieved);
  EXPECT_EQ(failures, 3u);
  EXPECT_FALSE(fails());
}

}  // namespace
