// SPDX-License-Identifier: Apache-2.0
// The engine's trace lines, with names for the addresses of objects.
#include <ostream>

#include "jpagent/simulate/Inside.h"

namespace Routing::Pim::Jpagent {

namespace {

// The handles whose levels the traces of a conversation come from. Others show what they write of themselves.
constexpr std::string_view tracedHandles[] = {"Pim::JoinPrune", "Pim::Agent"};

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// The addresses of objects in a trace's text: "::@0x55d0c0de::" and, at the beginning, "0x55d0c0dehandler()",
// where the handler's name may begin with what could be digits. `each` gets where one begins and ends.
template <class Each>
void forEachPointer(std::string_view text, std::string_view function, Each const& each) {
  std::size_t at = 0;
  if (text.starts_with("0x") && !function.empty()) {
    auto const end = text.find(function, 2);
    if (end != text.npos) each(0, at = end);
  }
  while ((at = text.find("@0x", at)) != text.npos) {
    auto const begin = ++at;
    for (at += 2; at < text.size() && isHexDigit(text[at]);) ++at;
    each(begin, at);
  }
}

}  // namespace

void traceLevelsAre(U32 levels) {
  for (auto const name : tracedHandles) {
    auto& handle = Vel::TraceHandle::find(name);
    handle.levelsDel();
    for (U32 level = 0; level <= Vel::TraceLevel::most; ++level)
      if (levels >> level & 1) handle.levelIs(level, true);
  }
}

void Simulation::traced(Vel::TraceLine const& trace) {
  bool const engine = trace.handle == tracedHandles[0];
  line(fmt::format("trace {} {}{}{}", trace.level, engine ? "" : trace.handle, engine ? "" : ": ",
                   named(trace.text, trace.function)));
}

// Puts names for the addresses of objects.
std::string Simulation::named(std::string_view text, std::string_view function) {
  std::string result;
  std::size_t done = 0;
  forEachPointer(text, function, [&](std::size_t begin, std::size_t end) {
    result.append(text.substr(done, begin - done));
    if (begin == 0) result += '@';
    result.append(nameOf(std::string(text.substr(begin, end - begin))));
    done = end;
  });
  return result.append(text.substr(done));
}

std::string const& Simulation::nameOf(std::string const& pointer) {
  auto& name = names_[pointer];
  if (name.empty()) {
    name = std::to_string(++lastName_);
    passing_.push_back(pointer);
  }
  return name;
}

// What is no machine any more has lost its name: another object may get its address.
void Simulation::forgetNames() {
  for (auto const& pointer : passing_)
    if (!machineAt_.contains(pointer)) names_.erase(pointer);
  passing_.clear();
}

}  // namespace Routing::Pim::Jpagent
