// SPDX-License-Identifier: Apache-2.0
// Counted objects and the references that keep them alive.
//
//   Vel::Ptr<Intf> intf = Vel::create<Intf>(Dova::IntfId("eth0"));   // count 1
//   Vel::Ptr<Intf const> view = intf;                                // count 2, read-only
//   intf = nullptr;                                                  // count 1
//
// A counted object lives on the heap and is destroyed with its last Ptr. There is one count per object,
// inside it: a plain pointer can be turned into a Ptr at any time.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "runtime/vel/Exception.h"
#include "runtime/vel/Export.h"
#include "runtime/vel/Types.h"

namespace Vel {

namespace Detail {
VEL_API extern bool threadSafe;
}

/// True if counting is atomic. Everything else stays single-threaded.
inline bool threadSafe() { return Detail::threadSafe; }

/// Switches atomic counting on or off for the whole process. REQUIRES: no other thread holds a Ptr yet.
VEL_API void threadSafeIs(bool on);

/// An object with a reference count. A new one has a count of 1, which belongs to its creator.
///
/// At zero, in this order: `zeroReferencesIs(true)`; then, if there is no new reference, `doTeardown()` while
/// the object is whole; then, when the last MemoryHold has ended and there is still no new reference,
/// `doDetach()` and destruction. A reference that is taken and dropped meanwhile changes nothing. One that is
/// kept revives the object (`zeroReferencesIs(false)`): at the end of `zeroReferencesIs(true)` if it is there
/// by then, so that nothing was torn down, and otherwise when the last MemoryHold has ended. What
/// `zeroReferencesIs()` and `doTeardown()` throw is swallowed, since a reference may be dropped anywhere.
class VEL_API Counted {
 public:
  Counted(Counted const&) = delete;
  Counted& operator=(Counted const&) = delete;

  /// Takes a reference. Vel::Ptr does this; by hand every one needs its deleteRef().
  void newRef() const {
    if (threadSafe())
      std::atomic_ref(word_).fetch_add(1, std::memory_order_relaxed);
    else
      ++word_;
  }

  /// Drops a reference; the last one ends the object, unless it is revived.
  void deleteRef() const {
    U32 const left =
        threadSafe() ? std::atomic_ref(word_).fetch_sub(1, std::memory_order_acq_rel) - 1 : --word_;
    if ((left & (countMask | zeroHandlingBit)) == 0) [[unlikely]]
      const_cast<Counted*>(this)->handleZeroRef();
  }

  /// How many references there are.
  U32 references() const { return word() & countMask; }

  /// Told true when the count has dropped to zero, false when the object was revived meanwhile.
  virtual void zeroReferencesIs(bool zero);
  void zeroReferencesIs(bool) const { throwConstInstance(); }

  /// The name of the object's own type, in full.
  virtual std::string fwkType() const;

 protected:
  Counted() = default;
  virtual ~Counted();

  /// The last chance to call out: runs after `zeroReferencesIs(true)`, outside the destructor, so that
  /// overrides and members are all there. It may run again if somebody revives the object in the middle.
  virtual void doTeardown();

  /// Lets go of whatever could still find this object; follows `doTeardown()`, when there is no way back.
  virtual void doDetach() noexcept;

  /// The flag of a retired reactor, which shares its word with the count.
  bool zombie() const { return (word() & zombieBit) != 0; }
  /// Sets the flag.
  void zombieIs(bool zombie) { bitIs(zombieBit, zombie); }

 private:
  static constexpr U32 zombieBit = 1u << 31;
  static constexpr U32 zeroHandlingBit = 1u << 29;
  static constexpr U32 countMask = 0x5fffffff;

  friend class MemoryHold;

  void handleZeroRef();
  void settle();
  void revive();

  // Memory holds; see MemoryHold.
  void holdMemory() const { flagsAndHolds_ += holdUnit; }
  void releaseMemory() const {
    flagsAndHolds_ -= holdUnit;
    // The zero-reference handling has a hold of its own, so the last hold to end settles what that left open.
    if ((word() & zeroHandlingBit) != 0 && flagsAndHolds_ < holdUnit) [[unlikely]]
      const_cast<Counted*>(this)->settle();
  }

  // Called when the count has dropped to zero. True if something that is running has taken a reference.
  virtual bool velInUse();

  U32 word() const { return std::atomic_ref(word_).load(std::memory_order_relaxed); }
  // The bits share their word with a count that other threads may move.
  void bitIs(U32 bit, bool on) {
    if (threadSafe())
      on ? std::atomic_ref(word_).fetch_or(bit, std::memory_order_relaxed)
         : std::atomic_ref(word_).fetch_and(~bit, std::memory_order_relaxed);
    else
      word_ = on ? word_ | bit : word_ & ~bit;
  }

  static constexpr U32 holdUnit = 256;

  mutable U32 word_ = 1;

 protected:
  /// The flags of a Reactor in the lowest byte; above them the number of memory holds.
  mutable U32 flagsAndHolds_ = 0;
};

/// Keeps an object's memory, and is no reference: when the last reference is dropped, the zero-reference
/// handling and the retirement of the object happen immediately; only its destruction waits until the last
/// hold ends. What calls out (a handler, a delivery) or lasts (an iterator) holds the object that it belongs
/// to. After each call out it asks whether the object is still live; a machine says so by `retired()`.
///
///     Vel::MemoryHold const memory(this);
///     callback();               // may drop the last reference to this
///     if (retired()) return;    // this can still be read
///
/// Holds are not atomic, also in the thread-safe mode.
class MemoryHold {
 public:
  /// Holds nothing.
  MemoryHold() = default;
  /// Holds an object; nothing for null.
  explicit MemoryHold(Counted const* object) : object_(object) { hold(); }
  /// Holds the same object once more.
  MemoryHold(MemoryHold const& other) : object_(other.object_) { hold(); }
  /// Takes the hold over; the other holds nothing then.
  MemoryHold(MemoryHold&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  /// Holds another object.
  MemoryHold& operator=(MemoryHold other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~MemoryHold() {
    if (object_) object_->releaseMemory();
  }

 private:
  void hold() const {
    if (object_) object_->holdMemory();
  }

  Counted const* object_ = nullptr;
};

/// A counted reference to a T, or null. Dereferencing null throws RangeException "null ValidPtr".
template <class T>
class Ptr {
 public:
  /// What is referred to.
  using Element = T;

  constexpr Ptr() = default;
  /// Null.
  constexpr Ptr(std::nullptr_t) {}
  /// Counts one more reference to an object, which may be null.
  Ptr(T* object) : object_(object) { take(); }
  /// Counts one more reference.
  Ptr(Ptr const& other) : object_(other.object_) { take(); }
  /// Takes the reference over; the other is null then.
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

  /// Takes over a reference that has been counted already.
  static Ptr owning(T* object) noexcept {
    Ptr ptr;
    ptr.object_ = object;
    return ptr;
  }

  /// From a pointer to something that is a T.
  template <class U>
  requires std::convertible_to<U*, T*> Ptr(Ptr<U> const& other) : object_(other.get()) { take(); }

  ~Ptr() { drop(); }

  /// Refers to something else. What was referred to is dropped last.
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);  // the old object is dropped last, when this already holds the new one
    return *this;
  }

  /// The plain pointer, not counted; null for null.
  T* get() const { return object_; }
  /// False for null.
  explicit operator bool() const { return object_ != nullptr; }

  /// The object. Null throws RangeException "null ValidPtr".
  T* operator->() const { return valid(); }
  /// The object. Null throws RangeException "null ValidPtr".
  T& operator*() const { return *valid(); }

  /// Whether both refer to the same object.
  friend bool operator==(Ptr const& a, Ptr const& b) { return a.object_ == b.object_; }
  /// Whether it is null.
  friend bool operator==(Ptr const& a, std::nullptr_t) { return a.object_ == nullptr; }
  /// Whether it refers to that object.
  friend bool operator==(Ptr const& a, T const* b) { return a.object_ == b; }

 private:
  T* valid() const {
    if (!object_) [[unlikely]]
      throwNullPtr();
    return object_;
  }
  void take() const {
    if (object_) object_->newRef();
  }
  void drop() const {
    if (object_) object_->deleteRef();
  }

  T* object_ = nullptr;
};

/// The address, "0" for null.
template <class T>
std::ostream& operator<<(std::ostream& os, Ptr<T> const& ptr) {
  return os << static_cast<void const*>(ptr.get());
}

/// Constructs an object and hands it over with a count of exactly 1.
template <class T, class... Args>
Ptr<T> create(Args&&... args) {
  return Ptr<T>::owning(new T(std::forward<Args>(args)...));
}

/// The pointer itself; throws "null ValidPtr" instead of handing out null. What factories and creators end
/// with.
template <class T>
Ptr<T> valid(Ptr<T> ptr) {
  if (!ptr) throwNullPtr();
  return ptr;
}

/// Casts down; null if the object is no T.
template <class T, class U>
Ptr<T> dynamicCast(Ptr<U> const& ptr) {
  return Ptr<T>(dynamic_cast<T*>(ptr.get()));
}

}  // namespace Vel

/// The hash of the plain pointer.
template <class T>
struct std::hash<Vel::Ptr<T>> {
  std::size_t operator()(Vel::Ptr<T> const& ptr) const noexcept { return std::hash<T*>()(ptr.get()); }
};
