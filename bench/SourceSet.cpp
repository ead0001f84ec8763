// SPDX-License-Identifier: Apache-2.0
// The set of sources (Vel::HashSet) against absl::flat_hash_set of the same key and the same hash, in
// nanoseconds an element, and in bytes.
#include <absl/container/flat_hash_set.h>

#include "bench/Containers.h"

namespace {

using Dova::IpGenAddr;

using Ours = Bench::OurSet<Vel::HashSet<IpGenAddr>>;
struct Hash {
  std::size_t operator()(IpGenAddr const& key) const { return key.order() >> 2; }
};
using Theirs = Bench::TheirSet<absl::flat_hash_set<IpGenAddr, Hash>>;

struct Bar {
  char const* operation;
  double atMost;
  char const* unit = "ns";
};

bool const registered = [] {
  for (bool const ipv6 : {false, true}) {
    for (std::size_t const size : {1'000u, 100'000u, 1'000'000u}) {
      if (!Bench::wanted(size)) continue;
      std::string const sizeName = (ipv6 ? "IPv6 " : "IPv4 ") + Bench::sizeText(size);
      Bench::measureContainer<Ours>("set of sources", sizeName, "ours", size, ipv6);
      Bench::measureContainer<Theirs>("set of sources", sizeName, "absl::flat_hash_set", size, ipv6);
      for (Bar const& bar : {Bar{"insert", 1.5}, Bar{"hit", 1.3}, Bar{"miss", 1.5}, Bar{"erase", 1.5},
                             Bar{"iterate", 2.0}, Bar{"bytes", 1.15, "bytes"}})
        Bench::row({.subject = "set of sources",
                    .what = bar.operation + (" " + sizeName),
                    .reference = "absl::flat_hash_set",
                    .atMost = bar.atMost,
                    .unit = bar.unit});
    }
  }
  return true;
}();

}  // namespace
