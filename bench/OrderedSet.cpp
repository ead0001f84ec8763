// SPDX-License-Identifier: Apache-2.0
// The ordered set of sources (Vel::OrderedSet) against std::set, in nanoseconds an element.
#include <set>

#include "bench/Containers.h"

namespace {

using Dova::IpGenAddr;

using Ours = Bench::OurSet<Vel::OrderedSet<IpGenAddr>>;
using Theirs = Bench::TheirSet<std::set<IpGenAddr>>;

bool const registered = [] {
  for (std::size_t const size : {1'000u, 100'000u}) {
    if (!Bench::wanted(size)) continue;
    std::string const sizeName = Bench::sizeText(size);
    Bench::measureContainer<Ours>("ordered set", sizeName, "ours", size);
    Bench::measureContainer<Theirs>("ordered set", sizeName, "std::set", size);
    for (std::string const operation : {"insert ", "hit ", "erase ", "iterate "})
      Bench::row(
          {.subject = "ordered set", .what = operation + sizeName, .reference = "std::set", .atMost = 1});
  }
  return true;
}();

}  // namespace
