// SPDX-License-Identifier: Apache-2.0
// Senders choose their addresses: an attacker who picked them knows the hash function, but not the
// seed.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "runtime/dova/IpGenAddr.h"
#include "runtime/vel/Collection.h"
#include "tests/Thorough.h"
#include "tests/runtime/vel/AnotherProcess.h"

namespace Vel {
namespace {

using Addresses = std::vector<Dova::IpGenAddr>;
using Maker = std::function<Dova::IpGenAddr(U64)>;

// A mixer of the tests' own: spreads consecutive numbers over all bits.
U64 spread(U64 n) {
  n = (n + 1) * 0x9e3779b97f4a7c15ULL;
  return (n ^ (n >> 29)) * 0xd6e8feb86659fd93ULL;
}

Dova::IpGenAddr ipv6(U64 high, U64 low) {
  U8 bytes[16];
  std::memcpy(bytes, &high, 8);  // as the hash reads them
  std::memcpy(bytes + 8, &low, 8);
  return Dova::IpGenAddr::fromBytes(bytes);
}

Dova::IpGenAddr ipv4Number(U64 n) { return Dova::IpGenAddr::ipv4(static_cast<U32>(n * 0x9e3779b1u)); }
Dova::IpGenAddr ipv6Number(U64 n) { return ipv6(spread(n), spread(~n)); }

// The first so many addresses that the seed of this process puts into the same 64th of the order: they crowd,
// and from some thousands on each one that is added moves most of the others.
Addresses crowding(U32 count, Maker const& make) {
  Addresses chosen;
  for (U64 n = 0; chosen.size() < count; ++n)
    if (auto const address = make(n); address.hash() % 64 == 0) chosen.push_back(address);
  return chosen;
}

Addresses friendly(U32 count, Maker const& make) {
  Addresses chosen;
  for (U64 n = 0; chosen.size() < count; ++n) chosen.push_back(make(n));
  return chosen;
}

// Adds them all, finds them all, removes them all.
double secondsFor(Addresses const& addresses) {
  auto const begin = std::chrono::steady_clock::now();
  HashSet<Dova::IpGenAddr> set;
  for (auto const& address : addresses) set.insert(address);
  U32 found = 0;
  for (auto const& address : addresses) found += set.contains(address);
  for (auto const& address : addresses) set.remove(address);
  EXPECT_EQ(found, addresses.size());
  EXPECT_EQ(set.size(), 0u);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// How many times longer the one set takes than the other: the best of several, in turns.
double ratio(Addresses const& attack, Addresses const& usual, int turns) {
  double attacked = 1e9, undisturbed = 1e9;
  for (int i = 0; i < turns; ++i) {
    undisturbed = std::min(undisturbed, secondsFor(usual));
    attacked = std::min(attacked, secondsFor(attack));
  }
  return attacked / undisturbed;
}

struct Family {
  char const* name;
  Dova::IpGenAddr (*make)(U64);
};

class HashAttackTest : public testing::TestWithParam<Family> {};
INSTANTIATE_TEST_SUITE_P(Families, HashAttackTest,
                         testing::Values(Family{"IPv4", ipv4Number}, Family{"IPv6", ipv6Number}),
                         [](auto const& tested) { return std::string(tested.param.name); });

TEST_P(HashAttackTest, AddressesChosenForTheFixedSeedCrowdUnderIt) {
  U32 const count = Routing::thorough() ? 8'000 : 4'000;
  EXPECT_GT(ratio(crowding(count, GetParam().make), friendly(count, GetParam().make), 3), 5);
}

TEST_P(HashAttackTest, AddressesChosenForTheFixedSeedAreLikeOthersOnceASeedIsSet) {
  U32 const count = Routing::thorough() ? 100'000 : 15'000;
  auto const attack = crowding(count, GetParam().make), usual = friendly(count, GetParam().make);
  std::string const measured =
      inAnotherProcess(0x5eed, [&] { return std::to_string(ratio(attack, usual, 5)); });
  EXPECT_LT(std::stod(measured), 5);
}

// --- Addresses that would collide whatever the seed

constexpr U64 seeds[] = {0, 1, 0x5eed, ~U64{0}, 0xa0761d6478bd642f, 0xe7037ed1a0b428db};

U64 foldedMultiply(U64 a, U64 b) { return Detail::foldedMultiply(a, b); }

// How many different places in the order they have, of 4096.
std::string places(Addresses const& addresses) {
  std::set<U32> different;
  for (auto const& address : addresses) different.insert(address.hash() % 4096);
  return std::to_string(different.size());
}

TEST(HashStructureTest, NoLowerHalfMakesTheUpperHalfCount) {
  // The constants of the function, and what is one or a few bits off: as a factor 0, 1, 2, ...
  U64 const constants[] = {0,
                           0xe7037ed1a0b428db,
                           0xa0761d6478bd642f,
                           0x8ebc6af09c88c6e3,
                           0xbf58476d1ce4e5b9,
                           0x94d049bb133111eb,
                           0x9e3779b97f4a7c15};
  for (U64 const constant : constants) {
    for (U64 const factor : {U64{0}, U64{1}, U64{2}, U64{1} << 32, ~U64{0}}) {
      Addresses addresses;
      // For a factor of 1, those whose upper half by itself falls into the same place.
      for (U64 n = 0; addresses.size() < 200; ++n) {
        U64 const done = foldedMultiply(spread(n), 0x8ebc6af09c88c6e3);
        if (factor != 1 || (done ^ (done >> 32)) % 4096 == 0)
          addresses.push_back(ipv6(spread(n), constant ^ factor));
      }
      for (U64 const seed : seeds) {
        int const different = std::stoi(inAnotherProcess(seed, [&] { return places(addresses); }));
        EXPECT_GT(different, 150) << std::hex << constant << " ^ " << factor << ", seed " << seed;
      }
    }
  }
}

TEST(HashStructureTest, HalvesThatAreExchangedDoNotCollide) {
  for (U64 const seed : seeds) {
    EXPECT_EQ(inAnotherProcess(seed,
                               [] {
                                 U32 same = 0;
                                 for (U64 n = 0; n < 1000; ++n)
                                   same += ipv6(spread(n), spread(n + 1)).hash() ==
                                           ipv6(spread(n + 1), spread(n)).hash();
                                 return std::to_string(same);
                               }),
              "0");
  }
}

// Differences that attackers look for: bits that a product passes on, complements, sums.
TEST(HashStructureTest, NoDifferenceBetweenTwoAddressesCollidesUnderMostSeeds) {
  std::vector<std::pair<U64, U64>> differences;
  for (int bit = 0; bit < 64; ++bit) {
    differences.emplace_back(U64{1} << bit, 0);
    differences.emplace_back(0, U64{1} << bit);
    differences.emplace_back(U64{1} << bit, U64{1} << bit);
  }
  for (U64 const all : {~U64{0}, U64{0xffffffff}, U64{0xffffffff00000000}}) {
    differences.emplace_back(all, 0);
    differences.emplace_back(0, all);
    differences.emplace_back(all, all);
  }
  std::vector<U32> collisions(differences.size());
  for (U64 seed = 0; seed < 64; ++seed) {
    std::string const found = inAnotherProcess(spread(seed), [&] {
      std::string text;
      for (auto const& [high, low] : differences) {
        bool collides = false;
        for (U64 n = 0; n < 16; ++n) {
          U64 const h = spread(n), l = spread(n + 100);
          collides |= ipv6(h, l).hash() == ipv6(h ^ high, l ^ low).hash();
        }
        text += collides ? '1' : '0';
      }
      return text;
    });
    ASSERT_EQ(found.size(), differences.size());
    for (std::size_t i = 0; i < found.size(); ++i) collisions[i] += found[i] == '1';
  }
  for (std::size_t i = 0; i < differences.size(); ++i)
    EXPECT_LE(collisions[i], 1u) << std::hex << differences[i].first << ", " << differences[i].second;
}

}  // namespace
}  // namespace Vel
