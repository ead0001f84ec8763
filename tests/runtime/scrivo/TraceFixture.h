// SPDX-License-Identifier: Apache-2.0
// A temporary directory for trace files, and what they contain as text.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "runtime/scrivo/Scrivo.h"
#include "runtime/scrivo/TraceReader.h"
#include "runtime/vel/Exception.h"

namespace Scrivo::Test {

using testing::ElementsAre;
using testing::IsEmpty;

class TraceFixture : public testing::Test {
 protected:
  void SetUp() override {
    directory_ = testing::TempDir() + "/scrivoXXXXXX";
    ASSERT_NE(mkdtemp(directory_.data()), nullptr);
  }
  void TearDown() override {
    TraceFile::close();
    std::filesystem::remove_all(directory_);
  }

  std::string path(std::string const& name = "trace") const { return directory_ + "/" + name; }

  std::vector<std::string> filesThere() const {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(directory_))
      names.push_back(entry.path().filename());
    return names;
  }

  // The smallest file, which wraps around soonest.
  static constexpr TraceOptions smallest = {
      .messageBytes = 8192, .timerBytes = 8192, .descriptorBytes = 16384};

  std::vector<std::string> texts(EventKind kind, std::string const& name = "trace") const {
    std::vector<std::string> result;
    for (Event const& event : TraceReader(path(name)).events())
      if (event.kind == kind) result.push_back(event.text);
    return result;
  }
  std::vector<std::string> messages(std::string const& name = "trace") const {
    return texts(EventKind::message, name);
  }
  std::vector<std::string> timers(std::string const& name = "trace") const {
    return texts(EventKind::blockTimer, name);
  }

  // What a reader says about a file: the reason of its refusal without the path, or "read".
  std::string verdict(std::string const& name = "trace") const {
    try {
      TraceReader const reader(path(name));
      return "read";
    } catch (Vel::RangeException const& refusal) {
      std::string const text = refusal.what(), start = path(name) + ": ";
      EXPECT_EQ(text.substr(0, start.size()), start);
      return text.substr(std::min(start.size(), text.size()));
    }
  }

  std::string bytesOf(std::string const& name = "trace") const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void write(std::string const& name, std::string const& bytes) const {
    std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(file.flush());
  }

 private:
  std::string directory_;
};

}  // namespace Scrivo::Test
