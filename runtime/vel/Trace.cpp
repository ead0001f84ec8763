// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Trace.h"

#include <iostream>
#include <map>
#include <memory>

#include "runtime/vel/Exception.h"

namespace Vel {

// Never destroyed: objects that end with the process may still trace.
struct TraceRegistry {
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
  std::shared_ptr<TraceSink const> sink;  // shared, so that a sink may replace itself while it runs
  std::ostream* coverage = nullptr;

  static TraceRegistry& instance() {
    static TraceRegistry* const registry = new TraceRegistry;
    return *registry;
  }

  TraceHandle& find(std::string_view name) {
    auto const found = handles.find(name);
    if (found != handles.end()) return *found->second;
    std::unique_ptr<TraceHandle> handle(new TraceHandle(name));
    if (coverage) handle->levels_ |= TraceHandle::coverageBit;
    if (name == "Vel") handle->levels_ |= 1u << TraceLevel::error;
    return *handles.emplace(name, std::move(handle)).first->second;
  }
};

TraceHandle& TraceHandle::find(std::string_view name) { return TraceRegistry::instance().find(name); }

void TraceHandle::levelIs(U32 level, bool on) {
  if (level > TraceLevel::most)
    throw InvalidArgumentException("trace level " + std::to_string(level) + " exceeds " +
                                   std::to_string(TraceLevel::most));
  levels_ = on ? levels_ | 1u << level : levels_ & ~(1u << level);
}

void TraceHandle::levelsDel() { levels_ &= coverageBit; }

void traceSinkIs(TraceSink sink) {
  TraceRegistry::instance().sink = sink ? std::make_shared<TraceSink const>(std::move(sink)) : nullptr;
}

void coverageStreamIs(std::ostream* stream) {
  TraceRegistry& registry = TraceRegistry::instance();
  registry.coverage = stream;
  for (auto const& [name, handle] : registry.handles)
    handle->levels_ =
        stream ? handle->levels_ | TraceHandle::coverageBit : handle->levels_ & ~TraceHandle::coverageBit;
}

void traceHelper(TraceHandle& handle, std::string_view context, std::ostringstream const& text, U32 level,
                 bool enabled, std::string_view source, int line, std::string_view function) {
  TraceRegistry& registry = TraceRegistry::instance();
  try {
    if (!enabled) {
      if (registry.coverage) *registry.coverage << text.view() << '\n';
      return;
    }
    if (std::shared_ptr<TraceSink const> const sink = registry.sink)
      (*sink)({handle.name(), context, text.str(), level, enabled, source, line, function});
    else
      std::cerr << handle.name() << '[' << level << "] " << text.view() << '\n';
  } catch (...) {
  }
}

TraceHandle& frameTrace() {
  static TraceHandle& handle = TraceHandle::find("Vel");
  return handle;
}

void Detail::composeTrace(TraceHandle& handle, U32 level, std::string_view source, int line,
                          char const* function,
                          void (*compose)(std::ostream& text, char const* function, void const* pieces),
                          void const* pieces) {
  try {
    std::ostringstream text;
    text.precision(12);
    compose(text, function, pieces);
    traceHelper(handle, "<unknown>", text, level, handle.level(level), source, line, function);
  } catch (...) {
  }
}

}  // namespace Vel
