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
  try {
    zeroReferencesIs(true);
    if (references() == 0) doTeardown();
  } catch (...) {
    // Out of memory at worst; the destructors release what is left.
  }
}

// After the zero-reference handling, when the last hold has ended.
void Counted::settle() {
  if (references() == 0) {
    holdMemory();  // what is called from here on may hold this object, and must not settle it again
    doDetach();
    delete this;
    return;
  }
  bitIs(zeroHandlingBit, false);
  zeroReferencesIs(false);
}

std::string Counted::fwkType() const {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> const name(
      abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? name.get() : typeid(*this).name();
}

}  // namespace Vel
