// SPDX-License-Identifier: Apache-2.0
#include "pim/model/RouteKey.h"

#include <gtest/gtest.h>

#include <set>
#include <tuple>
#include <type_traits>
#include <unordered_set>

#include "tests/pim/model/Recorder.h"

namespace Routing::Pim {
namespace {

TEST(RouteKeyTest, ARouteIsWrittenAsSourceAndGroup) {
  EXPECT_EQ(inText(RouteKey("10.0.0.1"_ip, "239.1.1.1"_ip)), "(10.0.0.1,239.1.1.1)");
  EXPECT_EQ(inText(RouteKey("2001:db8::1"_ip, "ff0e::1"_ip)), "(2001:db8::1,ff0e::1)");
}

// Nothing that is handed out refers into a key that has ended with its expression.
static_assert(std::is_same_v<decltype(RouteKey().source()), Dova::IpGenAddr>);
static_assert(std::is_same_v<decltype(RouteKey().group()), Dova::IpGenAddr>);
static_assert(std::is_same_v<decltype(RouteIntfKey().routeKey()), RouteKey>);
static_assert(std::is_same_v<decltype(RouteIntfKey().source()), Dova::IpGenAddr>);
static_assert(std::is_same_v<decltype(RouteIntfKey().group()), Dova::IpGenAddr>);
static_assert(std::is_same_v<decltype(RouteIntfKey().intfId()), Dova::IntfId>);

TEST(RouteKeyTest, TheContainersOfTheStandardLibraryTakeRoutes) {
  RouteKey const route("10.0.0.1"_ip, "239.1.1.1"_ip);
  RouteIntfKey const onEth0(route, Dova::IntfId("eth0"));
  EXPECT_EQ(std::unordered_set<RouteKey>({route, route, RouteKey()}).size(), 2u);
  EXPECT_EQ(std::unordered_set<RouteIntfKey>({onEth0, RouteIntfKey(route, {}), onEth0}).size(), 2u);
  EXPECT_EQ(std::hash<RouteKey>()(route), route.hash());
  EXPECT_EQ(std::hash<RouteIntfKey>()(onEth0), onEth0.hash());
}

TEST(RouteKeyTest, ASourceOfAllZerosMeansAny) {
  EXPECT_EQ(inText(RouteKey("0.0.0.0"_ip, "239.1.1.1"_ip)), "(*,239.1.1.1)");
  EXPECT_EQ(inText(RouteKey("::"_ip, "ff0e::1"_ip)), "(*,ff0e::1)");
}

TEST(RouteKeyTest, TheDefaultAddressIsNotAny) {
  EXPECT_EQ(inText(RouteKey()), "(unknown,unknown)");
  EXPECT_EQ(inText(RouteKey({}, "239.1.1.1"_ip)), "(unknown,239.1.1.1)");
}

TEST(RouteKeyTest, ARouteOnAnInterfaceNamesTheInterfaceIfThereIsOne) {
  EXPECT_EQ(inText(RouteIntfKey("10.0.0.1"_ip, "239.1.1.1"_ip, Dova::IntfId("eth0"))),
            "(10.0.0.1,239.1.1.1)@eth0");
  EXPECT_EQ(inText(RouteIntfKey("0.0.0.0"_ip, "239.1.1.1"_ip, {})), "(*,239.1.1.1)");
  EXPECT_EQ(inText(RouteIntfKey()), "(unknown,unknown)");
}

// All keys over a few sources, groups and interfaces.
std::vector<RouteIntfKey> smallWorld() {
  std::vector<RouteIntfKey> keys;
  for (auto const& source : {Dova::IpGenAddr(), "0.0.0.0"_ip, "10.0.0.1"_ip, "::ffff:10.0.0.1"_ip})
    for (auto const& group : {Dova::IpGenAddr(), "239.1.1.1"_ip, "239.1.1.2"_ip, "ff0e::1"_ip})
      for (char const* intf : {"", "eth0", "eth1"}) keys.emplace_back(source, group, Dova::IntfId(intf));
  return keys;
}

TEST(RouteKeyTest, TheOrderIsTotalOverSourceGroupAndInterface) {
  auto const parts = [](RouteIntfKey const& key) {
    return std::make_tuple(key.source(), key.group(), key.intfId());
  };
  auto const keys = smallWorld();
  for (auto const& a : keys) {
    EXPECT_FALSE(a < a);
    for (auto const& b : keys) {
      EXPECT_EQ(a == b, parts(a) == parts(b)) << a << " and " << b;
      EXPECT_EQ(a != b, !(a == b)) << a << " and " << b;
      EXPECT_EQ(a < b, parts(a) < parts(b)) << a << " and " << b;
      EXPECT_EQ((a < b) + (b < a) + (a == b), 1) << a << " and " << b;
      EXPECT_EQ(a.routeKey() < b.routeKey(),
                std::make_pair(a.source(), a.group()) < std::make_pair(b.source(), b.group()))
          << a << " and " << b;
      for (auto const& c : keys)
        if (a < b && b < c) {
          EXPECT_TRUE(a < c) << a << ", " << b << ", " << c;
        }
    }
  }
  EXPECT_EQ(std::set<RouteIntfKey>(keys.begin(), keys.end()).size(), keys.size());
}

TEST(RouteKeyTest, EqualKeysHaveEqualHashesAndOthersMostlyDoNot) {
  auto const keys = smallWorld(), again = smallWorld();
  std::set<U32> hashes;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(keys[i].hash(), again[i].hash());
    EXPECT_LE(keys[i].hash(), Vel::hashMask);
    hashes.insert(keys[i].hash());
  }
  // An IPv4 source and its IPv6 form share a hash.
  EXPECT_EQ(hashes.size(), keys.size() * 3 / 4);
  EXPECT_NE(RouteKey("10.0.0.1"_ip, "239.1.1.1"_ip).hash(), RouteKey("239.1.1.1"_ip, "10.0.0.1"_ip).hash());
}

}  // namespace
}  // namespace Routing::Pim
