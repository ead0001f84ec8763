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

bool const registered = [] {
  std::size_t const size = Bench::wanted(1'000'000) ? 1'000'000 : 1'000;
  for (bool const ipv6 : {false, true}) {
    std::string const sizeName = (ipv6 ? "IPv6 " : "IPv4 ") + Bench::sizeText(size);
    Bench::measureContainer<Ours>("set of sources", sizeName, "ours", size, ipv6);
    Bench::measureContainer<Theirs>("set of sources", sizeName, "absl::flat_hash_set", size, ipv6);
    for (std::string const operation : {"insert ", "hit ", "miss ", "erase ", "iterate "})
      Bench::row({.subject = "set of sources",
                  .what = operation + sizeName,
                  .reference = "absl::flat_hash_set",
                  .atMost = 1.5});
    Bench::row({.subject = "set of sources",
                .what = "bytes " + sizeName,
                .reference = "absl::flat_hash_set",
                .atMost = 1.15,
                .unit = "bytes"});
  }
  return true;
}();

}  // namespace
