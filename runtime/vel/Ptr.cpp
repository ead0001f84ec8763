// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Ptr.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace Vel {

namespace Detail {
bool threadSafe = false;
}

void threadSafeIs(bool on) { Detail::threadSafe = on; }

Counted::~Counted() = default;

void Counted::zeroReferencesIs(bool) {}

void Counted::doTeardown() {}

void Counted::doDetach() noexcept {}

bool Counted::velInUse() { return false; }

void Counted::handleZeroRef() {
  if (velInUse()) return;
  bitIs(zeroHandlingBit, true);
  MemoryHold const memory(this);
  bool whole = true;
  try {
    zeroReferencesIs(true);
    whole = references() != 0;
    if (!whole) doTeardown();
  } catch (...) {
    // Out of memory at worst; the destructors release what is left.
  }
  // Not only when the last hold ends: the object is used again, and may be dropped again before.
  if (whole && references() != 0) revive();
}

// After the zero-reference handling, when the last hold has ended.
void Counted::settle() {
  if (references() != 0) return revive();
  holdMemory();  // what is called from here on may hold this object, and must not settle it again
  doDetach();
  delete this;
}

void Counted::revive() {
  MemoryHold const memory(this);  // it may be dropped again in the call
  bitIs(zeroHandlingBit, false);
  try {
    zeroReferencesIs(false);
  } catch (...) {
    // As in handleZeroRef(): a reference may be dropped anywhere.
  }
}

std::string Counted::fwkType() const {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> const name(
      abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? name.get() : typeid(*this).name();
}

}  // namespace Vel
