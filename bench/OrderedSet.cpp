// SPDX-License-Identifier: Apache-2.0
// The ordered set of sources (Vel::OrderedSet) against absl::btree_set, in nanoseconds an element.
#include <absl/container/btree_set.h>

#include "bench/Containers.h"

namespace {

using Dova::IpGenAddr;

using Ours = Bench::OurSet<Vel::OrderedSet<IpGenAddr>>;
using Theirs = Bench::TheirSet<absl::btree_set<IpGenAddr>>;

bool const registered = [] {
  std::size_t const size = Bench::wanted(100'000) ? 100'000 : 1'000;
  std::string const sizeName = Bench::sizeText(size);
  Bench::measureContainer<Ours>("ordered set", sizeName, "ours", size);
  Bench::measureContainer<Theirs>("ordered set", sizeName, "absl::btree_set", size);
  for (std::string const operation : {"insert ", "hit ", "erase ", "iterate "})
    Bench::row({.subject = "ordered set",
                .what = operation + sizeName,
                .reference = "absl::btree_set",
                .atMost = 1.5});
  return true;
}();

}  // namespace
