// SPDX-License-Identifier: Apache-2.0
// Five operations on a container of addresses and its bytes, for ours and for a peer alike.
//
// A container under test is a class that is made empty and has insert(i), erase(i), contains(address) and
// walk(), where i is the number of a key; walk() visits everything and returns something that depends on it.
#pragma once

#include <malloc.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "bench/Bench.h"
#include "runtime/dova/IpGenAddr.h"
#include "runtime/vel/Collection.h"

namespace Bench {

using Dova::IpGenAddr;

/// Keys that are there, in one order and in another, and as many that are not.
struct Keys {
  std::vector<IpGenAddr> all, missing;
  std::vector<std::size_t> shuffled;
};

inline IpGenAddr someAddress(bool ipv6, std::mt19937_64& random) {
  Vel::U64 const words[] = {random(), random()};
  Vel::U8 bytes[16];
  std::memcpy(bytes, words, sizeof bytes);
  bytes[0] = ipv6 ? 0x20 : 10;
  return IpGenAddr::fromBytes({bytes, ipv6 ? std::size_t{16} : std::size_t{4}});
}

inline std::shared_ptr<Keys const> newKeys(std::size_t size, bool ipv6) {
  std::mt19937_64 random(size);
  std::vector<IpGenAddr> distinct;
  // 10.0.0.0/8 has room for many more than are asked for.
  while (distinct.size() < 2 * size) {
    while (distinct.size() < 2 * size + size / 4 + 8) distinct.push_back(someAddress(ipv6, random));
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    std::shuffle(distinct.begin(), distinct.end(), random);
  }
  auto const keys = std::make_shared<Keys>();
  keys->all.assign(distinct.begin(), distinct.begin() + static_cast<std::ptrdiff_t>(size));
  keys->missing.assign(distinct.begin() + static_cast<std::ptrdiff_t>(size),
                       distinct.begin() + static_cast<std::ptrdiff_t>(2 * size));
  for (std::size_t i = 0; i < size; ++i) keys->shuffled.push_back(i);
  std::shuffle(keys->shuffled.begin(), keys->shuffled.end(), random);
  return keys;
}

/// The same keys for all, drawn when they are first asked for.
inline std::shared_ptr<Keys const> someKeys(std::size_t size, bool ipv6) {
  static std::map<std::pair<std::size_t, bool>, std::shared_ptr<Keys const>> drawn;
  auto& keys = drawn[{size, ipv6}];
  if (!keys) keys = newKeys(size, ipv6);
  return keys;
}

/// One of our sets as a container under test.
template <class Set>
class OurSet {
 public:
  explicit OurSet(Keys const& keys) : keys_(keys) {}
  void insert(std::size_t i) { set_.insert(keys_.all[i]); }
  void erase(std::size_t i) { set_.remove(keys_.all[i]); }
  bool contains(IpGenAddr const& key) const { return set_.contains(key); }
  std::size_t walk() const {
    std::size_t sum = 0;
    for (Vel::SetIterator<Set> i(nullptr, set_); i; ++i) sum += i->isIpv4();
    return sum;
  }

 private:
  Keys const& keys_;
  Set set_;
};

/// An entity with a key and little else.
class Element final : public Vel::Entity {
 public:
  explicit Element(IpGenAddr const& key) : key_(key) {}
  IpGenAddr const& velKey() const { return key_; }
  std::size_t marked() const { return key_.isIpv4(); }

 private:
  IpGenAddr const key_;
};

/// A collection of entities as a container under test; they are made beforehand.
class OurEntities {
 public:
  explicit OurEntities(Keys const& keys) {
    for (auto const& key : keys.all) elements_.push_back(Vel::create<Element>(key));
  }
  void insert(std::size_t i) { map_.insert(elements_[i]); }
  void erase(std::size_t i) { map_.remove(elements_[i]->velKey()); }
  bool contains(IpGenAddr const& key) const { return map_.find(key) != nullptr; }
  std::size_t walk() const {
    std::size_t sum = 0;
    for (Vel::EntityIterator<IpGenAddr, Element, Element const> i(nullptr, map_); i; ++i) sum += i->marked();
    return sum;
  }

 private:
  std::vector<Vel::Ptr<Element>> elements_;
  Vel::EntityMap<IpGenAddr, Element> map_;
};

/// A set with the standard's interface as a container under test.
template <class Set>
class TheirSet {
 public:
  explicit TheirSet(Keys const& keys) : keys_(keys) {}
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
  Set set_;
};

}  // namespace Bench

extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace Bench {

/// Bytes in use on the heap. Sanitizers have a heap of their own.
inline double heapBytes() {
  if (__sanitizer_get_current_allocated_bytes)
    return static_cast<double>(__sanitizer_get_current_allocated_bytes());
  auto const info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

/// Registers "<subject>/<operation> <size>/<who>" for each operation.
template <class Container>
void measureContainer(std::string const& subject, std::string const& sizeName, std::string const& who,
                      std::size_t size, bool ipv6 = false) {
  double const count = static_cast<double>(size);
  int const repeats = static_cast<int>(std::max<std::size_t>(1, 10'000 / size));
  auto const name = [&](char const* operation) {
    return subject + "/" + operation + " " + sizeName + "/" + who;
  };
  auto const filled = [](Keys const& keys) {
    auto const container = std::make_shared<Container>(keys);
    for (std::size_t i = 0; i < keys.all.size(); ++i) container->insert(i);
    return container;
  };
  prepared(name("insert"), [=]() -> Run {
    auto const keys = someKeys(size, ipv6);
    return [=](Stopwatch& watch) {
      std::vector<std::unique_ptr<Container>> containers;
      for (int r = 0; r < repeats; ++r) containers.push_back(std::make_unique<Container>(*keys));
      watch.start();
      for (auto const& container : containers)
        for (std::size_t i = 0; i < keys->all.size(); ++i) container->insert(i);
      watch.stop(count * repeats);
    };
  });
  auto const look = [=](std::vector<IpGenAddr> Keys::*at) -> Run {
    auto const keys = someKeys(size, ipv6);
    auto const container = filled(*keys);
    return [=](Stopwatch& watch) {
      std::size_t found = 0;
      watch.start();
      for (int r = 0; r < repeats; ++r)
        for (std::size_t const i : keys->shuffled) found += container->contains(((*keys).*at)[i]);
      watch.stop(count * repeats);
      keep(found);
    };
  };
  prepared(name("hit"), [=] { return look(&Keys::all); });
  prepared(name("miss"), [=] { return look(&Keys::missing); });
  prepared(name("erase"), [=]() -> Run {
    auto const keys = someKeys(size, ipv6);
    return [=](Stopwatch& watch) {
      std::vector<std::shared_ptr<Container>> containers;
      for (int r = 0; r < repeats; ++r) containers.push_back(filled(*keys));
      watch.start();
      for (auto const& container : containers)
        for (std::size_t const i : keys->shuffled) container->erase(i);
      watch.stop(count * repeats);
    };
  });
  prepared(name("iterate"), [=]() -> Run {
    auto const keys = someKeys(size, ipv6);
    auto const container = filled(*keys);
    return [=](Stopwatch& watch) {
      watch.start();
      for (int r = 0; r < repeats; ++r) keep(container->walk());
      watch.stop(count * repeats);
    };
  });
  figure(name("bytes"), [=] {
    auto const keys = someKeys(size, ipv6);
    auto container = std::make_unique<Container>(*keys);
    double const before = heapBytes();
    for (std::size_t i = 0; i < keys->all.size(); ++i) container->insert(i);
    double const bytes = (heapBytes() - before) / count;
    keep(container);
    return bytes;
  });
}

}  // namespace Bench
