// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/TraceFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>

#include "runtime/scrivo/CycleCounter.h"
#include "runtime/scrivo/OutputFile.h"
#include "runtime/scrivo/private/FileError.h"

namespace Scrivo {

constinit TraceFile* TraceFile::current_ = nullptr;

namespace {

void store(U64& shared, U64 value, std::memory_order order) {
  std::atomic_ref<U64>(shared).store(value, order);
}

void requireSize(std::string const& path, char const* name, U64 bytes, U64 least, U64 most) {
  if (bytes >= least && bytes <= most) return;
  refuseFile(path, std::string(name) + " is " + std::to_string(bytes) + ", not " + std::to_string(least) +
                       " to " + std::to_string(most));
}

U8* map(OutputFile const& file, U64 bytes) {
  void* const mapping = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.descriptor(), 0);
  if (mapping == MAP_FAILED) refuseFile(file.path(), errno);
#ifdef MADV_POPULATE_WRITE
  // No record is to wait for its page; where this kernel cannot, the first ones do.
  madvise(mapping, bytes, MADV_POPULATE_WRITE);
#endif
  return static_cast<U8*>(mapping);
}

constexpr mode_t onlyForOwner = 0600;
constexpr U64 oneSecond = 1'000'000'000;  // in nanoseconds

U64 rate(U64 counts, U64 nanoseconds) {
  double const perSecond = static_cast<double>(counts) * oneSecond / static_cast<double>(nanoseconds);
  return static_cast<U64>(std::clamp(perSecond, 1.0, 1e12));
}

// Good for four digits; the file's own age soon gives more.
U64 measureCountsPerSecond() {
#if defined(__x86_64__)
  constexpr U64 measuringTime = 2'000'000;
  U64 const start = clockNanoseconds(CLOCK_MONOTONIC), counter = cycleCounter();
  U64 now = start;
  while (now - start < measuringTime) now = clockNanoseconds(CLOCK_MONOTONIC);
  return rate(cycleCounter() - counter, now - start);
#elif defined(__aarch64__)
  U64 frequency;
  asm("mrs %0, cntfrq_el0" : "=r"(frequency));
  return frequency;
#else
  return oneSecond;
#endif
}

TraceOptions roundedUp(TraceOptions const& options) {
  return {.messageBytes = Format::roundUp8(options.messageBytes),
          .timerBytes = Format::roundUp8(options.timerBytes),
          .descriptorBytes = Format::roundUp8(options.descriptorBytes)};
}

}  // namespace

TraceFile& TraceFile::open(std::string const& path, TraceOptions const& options) {
  requireSize(path, "messageBytes", options.messageBytes, Format::minRingBytes, Format::maxRingBytes);
  requireSize(path, "timerBytes", options.timerBytes, Format::minRingBytes, Format::maxRingBytes);
  requireSize(path, "descriptorBytes", options.descriptorBytes, 0, Format::maxDescriptorAreaBytes);
  TraceOptions const rounded = roundedUp(options);
  U64 const bytes = Format::headerBytes + rounded.descriptorBytes + rounded.messageBytes + rounded.timerBytes;

  // The child would write into the same memory, at positions of its own.
  static int const childKnows = pthread_atfork(nullptr, nullptr, &TraceFile::abandonInChild);
  if (childKnows != 0) refuseFile(path, childKnows);

  OutputFile file(path, OutputFile::Use::file, onlyForOwner);
  int const noSpace = posix_fallocate(file.descriptor(), 0, static_cast<off_t>(bytes));
  if (noSpace != 0) refuseFile(path, noSpace);
  auto const destroy = [](TraceFile* made) { delete made; };
  U8* const mapping = map(file, bytes);
  std::unique_ptr<TraceFile, decltype(destroy)> made(new (std::nothrow) TraceFile(mapping, bytes, rounded));
  if (!made) {
    munmap(mapping, bytes);
    refuseFile(path, ENOMEM);
  }
  file.commit();
  close();
  current_ = made.release();
  return *current_;
}

void TraceFile::close() noexcept {
  if (current_ == nullptr) return;
  current_->refineClock();
  delete current_;
  current_ = nullptr;
}

void TraceFile::abandonInChild() noexcept {
  delete current_;
  current_ = nullptr;
}

TraceFile::TraceFile(U8* mapping, U64 bytes, TraceOptions const& options) noexcept
    : header_(new (mapping) Format::FileHeader{}), bytes_(bytes) {
  static constinit U64 generations = 0;
  generation_ = ++generations;
  static U64 const measuredCountsPerSecond = measureCountsPerSecond();

  std::memcpy(header_->magic, Format::magic, sizeof header_->magic);
  header_->version = Format::version;
  header_->byteOrder = Format::byteOrder;
  header_->fileBytes = bytes;
  header_->descriptors = {Format::headerBytes, options.descriptorBytes};
  U64 const messages = Format::headerBytes + options.descriptorBytes;
  header_->rings[Format::ringIndex(EventKind::message)] = {messages, options.messageBytes};
  header_->rings[Format::ringIndex(EventKind::blockTimer)] = {messages + options.messageBytes,
                                                              options.timerBytes};
  descriptorRoom_ = {mapping + Format::headerBytes, options.descriptorBytes};
  header_->realtimeAtOpen = clockNanoseconds(CLOCK_REALTIME);
  header_->monotonicAtOpen = clockNanoseconds(CLOCK_MONOTONIC);
  header_->counterAtOpen = cycleCounter();
  header_->countsPerSecond = measuredCountsPerSecond;
  for (int i = 0; i < 2; ++i)
    rings_[i] = {
        &header_->ringStates[i], mapping + header_->rings[i].offset, header_->rings[i].bytes, {}, 0, 0};
}

TraceFile::~TraceFile() { munmap(header_, bytes_); }

U32 TraceFile::registerDescriptor(std::span<U8> descriptor) noexcept {
  if (descriptor.size() > descriptorRoom_.size()) {
    refuseDescriptor();
    return 0;
  }
  U32 const id = ++descriptorCount_;
  std::memcpy(descriptor.data() + offsetof(Format::DescriptorHeader, id), &id, sizeof id);
  std::memcpy(descriptorRoom_.data(), descriptor.data(), descriptor.size());
  descriptorRoom_ = descriptorRoom_.subspan(descriptor.size());
  store(header_->descriptorCount, id, std::memory_order_release);
  return id;
}

void TraceFile::refuseDescriptor() noexcept {
  store(header_->refusedCallSites, header_->refusedCallSites + 1, std::memory_order_relaxed);
}

// The next record begins where the ring does. A record that ended just there leaves nothing to fill.
void TraceFile::wrap(Detail::Ring& ring, U64 needed) noexcept {
  U64 const left = ring.size - ring.headPlace;
  if (ring.own.head + left + needed - ring.own.tail > ring.size) advanceTail(ring, left + needed);
  if (left != 0) {
    U32 const filler[2] = {static_cast<U32>(left), Format::fillerId};
    std::memcpy(ring.bytes + ring.headPlace, filler, sizeof filler);
    ring.own.head += left;
  }
  ring.headPlace = 0;
  refineClock();
}

// Makes room for so many bytes behind the head.
void TraceFile::advanceTail(Detail::Ring& ring, U64 needed) noexcept {
  Format::RingState& own = ring.own;
  do {
    U64 const place = ring.tailPlace;
    U32 oldest[2];
    std::memcpy(oldest, ring.bytes + place, sizeof oldest);
    auto const [bytes, id] = oldest;
    // Someone else's scribble in the file must not lead the writer out of the ring or around it without end.
    if (bytes < 8 || bytes % 8 != 0 || bytes > ring.size - place || bytes > own.head - own.tail) {
      own.tail = own.head;
      ring.tailPlace = ring.headPlace == ring.size ? 0 : ring.headPlace;
      break;
    }
    own.tail += bytes;
    ring.tailPlace = place + bytes == ring.size ? 0 : place + bytes;
    if (id != Format::fillerId) ++own.overwritten;
  } while (own.head + needed - own.tail > ring.size);
  store(ring.shared->overwritten, own.overwritten, std::memory_order_relaxed);
  store(ring.shared->tail, own.tail, std::memory_order_relaxed);
  // A release store orders only what precedes it; what must not overtake the tail here is what follows.
  std::atomic_thread_fence(std::memory_order_release);
}

void TraceFile::refineClock() noexcept {
  U64 const nanoseconds = clockNanoseconds(CLOCK_MONOTONIC) - header_->monotonicAtOpen;
  U64 const counts = cycleCounter() - header_->counterAtOpen;
  // The first measurement is better than that of a file's first moments.
  if (nanoseconds < oneSecond / 10) return;
  store(header_->countsPerSecond, rate(counts, nanoseconds), std::memory_order_relaxed);
}

}  // namespace Scrivo
