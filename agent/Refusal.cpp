#include "agent/Refusal.h"

#include <fmt/format.h>

#include <ostream>

namespace Routing::Pim::Agent {

std::ostream& operator<<(std::ostream& os, Reason reason) { return os << text(reason); }

std::string toText(Refusal const& refusal) {
  if (refusal.detail.empty()) return std::string(text(refusal.reason));
  return fmt::format("{} ({})", text(refusal.reason), refusal.detail);
}

}  // namespace Routing::Pim::Agent
