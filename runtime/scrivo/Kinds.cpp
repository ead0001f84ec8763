// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/Kinds.h"

#include <ostream>

namespace Scrivo {

std::ostream& operator<<(std::ostream& os, EventKind kind) {
  switch (kind) {
    case EventKind::message:
      return os << "message";
    case EventKind::blockTimer:
      return os << "block timer";
  }
  return os << "EventKind(" << static_cast<U32>(kind) << ")";
}

std::ostream& operator<<(std::ostream& os, ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::address:
      return os << "address";
    case ArgumentKind::string:
      return os << "string";
    case ArgumentKind::integer:
      return os << "integer";
  }
  return os << "ArgumentKind(" << static_cast<U32>(kind) << ")";
}

}  // namespace Scrivo
