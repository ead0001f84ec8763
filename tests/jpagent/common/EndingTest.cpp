// SPDX-License-Identifier: Apache-2.0
// How the program ends when it cannot go on: in copies of this process, which has the same handlers.
#include "jpagent/common/Ending.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <new>

#include "jpagent/common/Output.h"
#include "tests/AnotherProcess.h"
#include "tests/jpagent/Support.h"

namespace Routing::Pim::Jpagent {
namespace {

using namespace Test;

// What a copy says on standard error, and that it ended with status 2.
template <class Work>
std::string lastWords(Work const& work) {
  auto const ended = inACopy([&work](int end) {
    dup2(end, STDERR_FILENO);
    work();
  });
  EXPECT_TRUE(WIFEXITED(ended.status));
  EXPECT_EQ(WEXITSTATUS(ended.status), 2);
  return ended.said;
}

void neverThrows(void (*act)()) noexcept { act(); }

TEST(EndingTest, ARequestForMemoryThatFailsEndsTheProgramWithWhatItWasAtWorkOn) {
  EXPECT_EQ(lastWords([] {
              subjectIs("a\nfile");
              std::get_new_handler()();  // as operator new calls it
            }),
            "jpagent: a file: Cannot allocate memory\n");
}

TEST(EndingTest, MemoryThatRunsOutBeforeMainIsTold) {
  EXPECT_EQ(lastWords([] { std::get_new_handler()(); }), "jpagent: Cannot allocate memory\n");
}

TEST(EndingTest, AnExceptionForWhichThereIsNoMemoryOrNoHandlerIsToldToo) {
  EXPECT_EQ(lastWords([] { std::terminate(); }), "jpagent: Cannot allocate memory\n");
  EXPECT_EQ(lastWords([] { neverThrows([] { throw std::bad_alloc(); }); }),
            "jpagent: Cannot allocate memory\n");
}

TEST(EndingTest, AnAssertionThatDoesNotHoldEndsTheProgramWithWhatItWasAtWorkOn) {
  EXPECT_EQ(lastWords([] {
              endWithReasons();
              subjectIs("story.txt");
              std::abort();
            }),
            "jpagent: story.txt: an assertion does not hold\n");
}

TEST(EndingTest, WhatIsPrintedSoFarIsKeptAndUnfinishedFilesAreNot) {
  TemporaryFolder const folder;
  auto const out = folder.file("out"), half = folder.file("half");
  lastWords([&] {
    int const file = open(out.c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(file, STDOUT_FILENO);
    StandardOutput const standardOutput;
    FileOutput unfinished(half);
    std::cout << "the first lines\n";
    unfinished << "half of it";
    std::get_new_handler()();
  });
  EXPECT_EQ(readText(out), "the first lines\n");
  auto const there = std::filesystem::directory_iterator(std::filesystem::path(out).parent_path());
  EXPECT_EQ(std::distance(begin(there), end(there)), 1);
}

}  // namespace
}  // namespace Routing::Pim::Jpagent
