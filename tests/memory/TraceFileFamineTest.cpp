// SPDX-License-Identifier: Apache-2.0
// Opening a trace file while memory runs out.
#include "tests/memory/CountedHeap.h"
#include "tests/runtime/scrivo/TraceFixture.h"

namespace Scrivo::Test {
namespace {

class TraceFileFamineTest : public TraceFixture {
 protected:
  // How opening ends if the n-th request for memory fails.
  std::string open(std::size_t n, std::string const& where) {
    CountedHeap::Famine const famine(n);
    try {
      TraceFile::open(where);
    } catch (Vel::RangeException const& refusal) {
      CountedHeap::Relief const relief;
      return refusal.what();
    } catch (std::bad_alloc const&) {
      CountedHeap::Relief const relief;
      return "no memory";
    }
    return famine.failures() == 0 ? "opened" : "opened all the same";
  }
  // Whether this process has a file of that name, whole or in the making, in its memory.
  static bool mapped(std::string const& name) {
    std::ifstream maps("/proc/self/maps");
    std::string const all{std::istreambuf_iterator<char>(maps), {}};
    return all.find(std::filesystem::path(name).lexically_normal()) != all.npos;
  }
};

TEST_F(TraceFileFamineTest, OpensOrLeavesNothingBehindWhicheverRequestFails) {
  TraceFile::open(path());  // measures the clock, and is made known to child processes, once for all
  TraceFile::close();
  std::filesystem::remove(path());
  std::vector<std::string> ends;
  for (std::size_t n = 1; ends.empty() || ends.back() != "opened"; ++n) {
    SCOPED_TRACE(n);
    ends.push_back(open(n, path()));
    bool const there = ends.back().starts_with("opened");
    EXPECT_EQ(TraceFile::current() != nullptr, there);
    EXPECT_EQ(filesThere().size(), there ? 1u : 0u);
    EXPECT_EQ(mapped(path()), there);
    TraceFile::close();
    std::filesystem::remove(path());
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_THAT(ends, testing::Contains("no memory"));
  EXPECT_THAT(ends, testing::Contains(path() + ": Cannot allocate memory"));
}

TEST_F(TraceFileFamineTest, TheFileThatIsOpenStaysSoIfAnotherCannotBeOpened) {
  TraceFile const* const first = &TraceFile::open(path());
  for (std::size_t n = 1; n < 100; ++n) {
    std::string const end = open(n, path("other"));
    if (end.starts_with("opened")) break;
    ASSERT_EQ(TraceFile::current(), first) << end;
  }
  EXPECT_NE(TraceFile::current(), first);
  EXPECT_EQ(filesThere().size(), 2u);
}

}  // namespace
}  // namespace Scrivo::Test
