// SPDX-License-Identifier: Apache-2.0
// Runs a target over the inputs that are kept: each file of the folders named as arguments. A failure ends
// the process behind the line with the input's name.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <vector>

#include "fuzz/Fuzz.h"

int main(int argc, char** argv) {
  std::set<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) continue;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(argv[i]))
      if (entry.is_regular_file()) files.insert(entry.path());
  }
  for (auto const& path : files) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> const content(std::istreambuf_iterator<char>(file), {});
    std::cout << path.string() << std::endl;
    LLVMFuzzerTestOneInput(reinterpret_cast<Vel::U8 const*>(content.data()), content.size());
  }
  if (files.empty()) std::cerr << "there are no inputs" << std::endl;
  return files.empty() ? 1 : 0;
}
