// SPDX-License-Identifier: Apache-2.0
// A collection of entities (Vel::EntityMap) against boost::intrusive::unordered_set, which links elements
// through a hook in each and is given its buckets: in nanoseconds an element, and in bytes beyond the entity.
// The entities exist beforehand. The peer's buckets are doubled when there are more elements than buckets.
#include <boost/intrusive/unordered_set.hpp>

#include "bench/Containers.h"

namespace {

namespace intrusive = boost::intrusive;
using Bench::Keys;
using Dova::IpGenAddr;

struct Hooked final : intrusive::unordered_set_base_hook<intrusive::store_hash<true>> {
  explicit Hooked(IpGenAddr const& address) : key(address) {}
  virtual ~Hooked() = default;
  IpGenAddr const key;
  std::size_t marked() const { return key.isIpv4(); }
};
struct KeyOf {
  using type = IpGenAddr;
  type const& operator()(Hooked const& element) const { return element.key; }
};
struct Hash {
  std::size_t operator()(IpGenAddr const& key) const { return key.order() >> 2; }
};

class Theirs {
 public:
  explicit Theirs(Keys const& keys) {
    for (auto const& key : keys.all) elements_.push_back(std::make_unique<Hooked>(key));
  }
  ~Theirs() { set_.clear(); }
  void insert(std::size_t i) {
    if (set_.size() == buckets_.size()) {
      std::vector<Set::bucket_type> more(2 * buckets_.size());
      set_.rehash({more.data(), more.size()});
      buckets_.swap(more);
    }
    set_.insert(*elements_[i]);
  }
  void erase(std::size_t i) { set_.erase(elements_[i]->key); }
  bool contains(IpGenAddr const& key) const { return set_.find(key) != set_.end(); }
  std::size_t walk() const {
    std::size_t sum = 0;
    for (Hooked const& element : set_) sum += element.marked();
    return sum;
  }

 private:
  using Set = intrusive::unordered_set<Hooked, intrusive::key_of_value<KeyOf>, intrusive::hash<Hash>,
                                       intrusive::power_2_buckets<true>>;
  std::vector<std::unique_ptr<Hooked>> elements_;
  std::vector<Set::bucket_type> buckets_{16};
  Set set_{{buckets_.data(), buckets_.size()}};
};

bool const registered = [] {
  std::size_t const size = Bench::wanted(1'000'000) ? 1'000'000 : 1'000;
  std::string const sizeName = Bench::sizeText(size);
  Bench::measureContainer<Bench::OurEntities>("collection of entities", sizeName, "ours", size);
  Bench::measureContainer<Theirs>("collection of entities", sizeName, "boost::intrusive", size);
  for (std::string const operation : {"insert ", "hit ", "erase ", "iterate "})
    Bench::row({.subject = "collection of entities",
                .what = operation + sizeName,
                .reference = "boost::intrusive",
                .atMost = 1.5});
  Bench::row({.subject = "collection of entities",
              .what = "bytes " + sizeName,
              .reference = "boost::intrusive",
              .atMostAbsolute = 24,
              .unit = "bytes"});
  return true;
}();

}  // namespace
