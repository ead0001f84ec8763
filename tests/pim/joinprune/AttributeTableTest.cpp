// SPDX-License-Identifier: Apache-2.0
// The attribute table of each entity type against what its class declares: what is written by hand in several
// places must agree.
#include <algorithm>
#include <typeinfo>

#include "tests/pim/joinprune/Examples.h"

namespace Routing::Pim {
namespace {

using Names = std::vector<std::string>;

bool has(Names const& names, std::string const& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::string capitalised(std::string name) {
  name[0] = static_cast<char>(name[0] - 'a' + 'A');
  return name;
}

// The callbacks that follow from the attributes. One that is fixed at construction has none, and one without
// a mutator may have one; a collection is what has a notification of its own for a key.
Names callbacksFor(Declared const& declared) {
  Names callbacks;
  for (auto const& [foo, id] : declared.numbers) {
    std::string const Foo = capitalised(foo);
    if (has(declared.publicFunctions, foo + "NotifyImmediate"))
      callbacks.insert(callbacks.end(), {"on" + Foo + "(key)", "on" + Foo + "velImmediate()"});
    bool changes = has(declared.callbacks, "on" + Foo + "()");
    for (std::string const& mutator : {foo + "Is", foo + "Inc", foo + "Del", foo + "Notify", "new" + Foo})
      changes = changes || has(declared.publicFunctions, mutator);
    if (changes) callbacks.push_back("on" + Foo + "()");
  }
  return callbacks;
}

class AttributeTableTest : public testing::Test, protected Examples {
 protected:
  /// Calls `check(type's name, what it declares, the table's rows for that)` for each entity type.
  template <class Check>
  void forEachType(Check const& check) {
    auto const one = [&check]<class T>(char const* type, T const& object) {
      SCOPED_TRACE(type);
      Declared const about = declared(static_cast<T const*>(nullptr));
      Vel::AttributeTable rows = object.attributeTable();
      // An object of a derived type has that one's rows behind.
      if (typeid(object) != typeid(T) && rows.size() > about.numbers.size())
        rows.resize(about.numbers.size());
      check(about, rows);
    };
#define ONE(T) one(#T, example(Type<T>()));
    ENTITY_TYPES(ONE)
#undef ONE
  }
};

TEST_F(AttributeTableTest, HasARowForEachAttributeInTheOrderOfItsNumber) {
  std::size_t attributes = 0;
  forEachType([&attributes](Declared const& about, Vel::AttributeTable const& rows) {
    std::vector<std::pair<std::string, Vel::AttributeId>> inTable;
    for (Vel::AttributeRow const& row : rows) inTable.emplace_back(row.name, row.id);
    EXPECT_EQ(inTable, about.numbers);
    Vel::AttributeId next = Vel::firstAttributeId;
    for (auto const& [name, id] : about.numbers) EXPECT_EQ(id, next++) << name;
    attributes += inTable.size();
  });
  EXPECT_GT(attributes, 60u);
}

TEST_F(AttributeTableTest, ListsWhatCanBeRead) {
  forEachType([](Declared const& about, Vel::AttributeTable const&) {
    for (auto const& [name, id] : about.numbers) EXPECT_TRUE(has(about.publicFunctions, name)) << name;
  });
}

TEST_F(AttributeTableTest, SetsByNameWhatHasAMutator) {
  forEachType([](Declared const& about, Vel::AttributeTable const& rows) {
    for (Vel::AttributeRow const& row : rows) {
      if (!row.textIs) continue;
      EXPECT_TRUE(has(about.publicFunctions, std::string(row.name) + "Is")) << row.name;
    }
  });
}

TEST_F(AttributeTableTest, HasTheOrderOfTheCallbacksWhichAreThoseOfWhatChanges) {
  forEachType([](Declared const& about, Vel::AttributeTable const&) {
    EXPECT_EQ(about.callbacks, callbacksFor(about));
  });
}

}  // namespace
}  // namespace Routing::Pim
