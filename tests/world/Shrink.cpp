// SPDX-License-Identifier: Apache-2.0
#include "tests/world/Shrink.h"

#include <algorithm>
#include <iostream>

#include "tests/AnotherProcess.h"
#include "tests/world/World.h"

#if defined(__SANITIZE_ADDRESS__)
#define WORLD_LOOKS_FOR_LEAKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define WORLD_LOOKS_FOR_LEAKS 1
#endif
#endif
#ifdef WORLD_LOOKS_FOR_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

namespace Routing::Pim::Worlds {

std::string apart(std::function<std::string()> const& work, U32 seconds) {
  std::cout << std::flush;
  auto [result, status] = inACopy([&](int end) {
    alarm(seconds);
    say(end, work());
#ifdef WORLD_LOOKS_FOR_LEAKS
    if (__lsan_do_recoverable_leak_check() != 0) _exit(3);
#endif
  });
  if (WIFSIGNALED(status)) result += "it died of signal " + std::to_string(WTERMSIG(status)) + "\n";
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
    result += "it ended with status " + std::to_string(WEXITSTATUS(status)) + "\n";
  return result;
}

std::string difference(Sequence const& operations) {
  World world;
  for (auto const& operation : operations) {
    auto found = world.step(operation);
    if (!found.empty()) return found;
    if (world.stopped()) break;
  }
  return {};
}

namespace {

// What an operation can be without: details that the default has otherwise.
std::vector<Operation> simpler(Operation const& operation) {
  std::vector<Operation> variants;
  auto const with = [&](auto change) {
    Operation variant = operation;
    change(variant);
    if (toText(variant) != toText(operation)) variants.push_back(std::move(variant));
  };
  for (std::size_t i = 0; i < operation.meanwhile.size(); ++i)
    with([i](Operation& o) { o.meanwhile.erase(o.meanwhile.begin() + static_cast<std::ptrdiff_t>(i)); });
  if (operation.what == Do::temper) {
    Temper const even;
    with([&even](Operation& o) { o.temper.take = even.take; });
    with([&even](Operation& o) { o.temper.filtered = even.filtered; });
    with([&even](Operation& o) { o.temper.suppressed = even.suppressed; });
    with([&even](Operation& o) { o.temper.tidy = even.tidy; });
    with([&even](Operation& o) { o.temper.lie = even.lie; });
    with([&even](Operation& o) { o.temper.throws = even.throws; });
    with([&even](Operation& o) { o.temper.cost = even.cost; });
    with([&even](Operation& o) { o.temper.message = even.message; });
  }
  if (operation.what == Do::receive)
    for (U32 bit = 0; bit < 32; ++bit) with([bit](Operation& o) { o.n &= ~(1u << bit); });
  return variants;
}

}  // namespace

Sequence shrunk(Sequence operations, std::function<bool(Sequence const&)> const& fails) {
  for (bool shorter = true; shorter;) {
    shorter = false;
    for (std::size_t chunk = std::max<std::size_t>(operations.size() / 2, 1); chunk != 0; chunk /= 2) {
      for (std::size_t at = 0; at < operations.size();) {
        Sequence without(operations.begin(), operations.begin() + static_cast<std::ptrdiff_t>(at));
        auto const rest = std::min(at + chunk, operations.size());
        without.insert(without.end(), operations.begin() + static_cast<std::ptrdiff_t>(rest),
                       operations.end());
        if (fails(without)) {
          operations = std::move(without);
          shorter = true;
        } else {
          at += chunk;
        }
      }
    }
    for (std::size_t at = 0; at < operations.size(); ++at) {
      for (auto& variant : simpler(operations[at])) {
        Sequence other = operations;
        other[at] = std::move(variant);
        if (!fails(other)) continue;
        operations = std::move(other);
        shorter = true;
        break;
      }
    }
  }
  return operations;
}

}  // namespace Routing::Pim::Worlds
