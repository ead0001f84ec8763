// The ordered set of sources (Vel::OrderedSet) against std::set, in nanoseconds an element.
#include <set>

#include "bench/Containers.h"
#include "runtime/vel/Collection.h"

namespace {

using Bench::Keys;
using Dova::IpGenAddr;

class Ours {
 public:
  explicit Ours(Keys const& keys) : keys_(keys) {}
  void insert(std::size_t i) { set_.insert(keys_.all[i]); }
  void erase(std::size_t i) { set_.remove(keys_.all[i]); }
  bool contains(IpGenAddr const& key) const { return set_.contains(key); }
  std::size_t walk() const {
    std::size_t sum = 0;
    for (Vel::SetIterator<Set> i(nullptr, set_); i; ++i) sum += i->isIpv4();
    return sum;
  }

 private:
  using Set = Vel::OrderedSet<IpGenAddr>;
  Keys const& keys_;
  Set set_;
};

class Theirs {
 public:
  explicit Theirs(Keys const& keys) : keys_(keys) {}
  void insert(std::size_t i) { set_.insert(keys_.all[i]); }
  void erase(std::size_t i) { set_.erase(keys_.all[i]); }
  bool contains(IpGenAddr const& key) const { return set_.contains(key); }
  std::size_t walk() const {
    std::size_t sum = 0;
    for (IpGenAddr const& key : set_) sum += key.isIpv4();
    return sum;
  }

 private:
  Keys const& keys_;
  std::set<IpGenAddr> set_;
};

bool const registered = [] {
  for (std::size_t const size : {1'000u, 100'000u}) {
    if (!Bench::wanted(size)) continue;
    auto const keys = Bench::someKeys(size, false);
    std::string const sizeName = Bench::sizeText(size);
    Bench::measureContainer<Ours>("ordered set", sizeName, "ours", keys);
    Bench::measureContainer<Theirs>("ordered set", sizeName, "std::set", keys);
    for (std::string const operation : {"insert ", "hit ", "erase ", "iterate "})
      Bench::row(
          {.subject = "ordered set", .what = operation + sizeName, .reference = "std::set", .atMost = 1});
  }
  return true;
}();

}  // namespace
