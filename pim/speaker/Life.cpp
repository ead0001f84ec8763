// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/detail/Life.h"

namespace Routing::Pim::Speaker {

// Out of line: where g++ 12 sees that a variable's address is stored, it warns of that, though the destructor
// takes it out again.
Life::Watch::Watch(Life const& life) : life_(&life), outer_(life.watch_) { life.watch_ = this; }

}  // namespace Routing::Pim::Speaker
