// SPDX-License-Identifier: Apache-2.0
// What is added and removed again and again leaves nothing behind.
#include "tests/Thorough.h"
#include "tests/memory/Scene.h"

namespace Routing::Pim {
namespace {

struct Flap {
  char const* name;
  void (*down)(Scene& s);
  void (*up)(Scene& s);
};

void neighborUp(Scene& s) { s.neighbor("10.0.0.3", s.eth0); }
void neighborDown(Scene& s) { s.pim->pimNeighborDel(addr("10.0.0.3")); }
void fillAll(Scene& s) {
  for (auto const& data :
       {s.triggered("10.0.0.3"), s.World::override_("10.0.0.3"), s.World::periodic("10.0.0.3")})
    group(data, "239.1.1.1")->joinedSourceIs(addr("10.9.0.1"));
}

constexpr Flap flaps[] = {
    {"Neighbor", neighborDown, neighborUp},
    {"NeighborWithDataPending",
     [](Scene& s) {
       neighborDown(s);
       Scene::drain(*s.World::periodic("10.0.0.3"));  // which is what it stays for
     },
     [](Scene& s) {
       neighborUp(s);
       fillAll(s);
     }},
    {"Interface", [](Scene& s) { s.pim->pimIntfDel(Dova::IntfId("eth1")); },
     [](Scene& s) { s.pim->pimIntfIs(s.eth1); }},
    {"Address", [](Scene& s) { s.eth1->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.1.9"), 24)); },
     [](Scene& s) { s.eth1->usedAddressWithMaskIs(Dova::IpGenPrefix(addr("10.0.1.1"), 24)); }},
};

class FlapTest : public testing::TestWithParam<Flap> {};

TEST_P(FlapTest, TakesNotOneByteMoreHoweverOften) {
  Scene scene;
  scene.start();
  auto const flap = [&](int times) {
    for (int i = 0; i < times; ++i) {
      GetParam().up(scene);
      GetParam().down(scene);
    }
    scene.pass(0);
  };
  flap(100);  // what stays anyway has come by then
  std::size_t const blocks = CountedHeap::liveBlocks, bytes = CountedHeap::liveBytes;
  U32 const timers = scene.wheel->armedCount(), targets = scene.machine->joinPruneNeighborSmCount();
  flap(thorough() ? 100'000 : 2'000);
  EXPECT_EQ(CountedHeap::liveBlocks, blocks);
  EXPECT_EQ(CountedHeap::liveBytes, bytes);
  EXPECT_EQ(scene.wheel->armedCount(), timers);
  EXPECT_EQ(scene.machine->joinPruneNeighborSmCount(), targets);
}

INSTANTIATE_TEST_SUITE_P(Of, FlapTest, testing::ValuesIn(flaps),
                         [](auto const& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace Routing::Pim
