// SPDX-License-Identifier: Apache-2.0
// Commands of a shell, and what they print.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace Routing {

struct Outcome {
  int status = -1;     ///< Of the last command, or -1 if a signal ended the shell.
  std::string output;  ///< Of both streams.
};

inline Outcome shell(std::string const& script) {
  Outcome run;
  FILE* const pipe = popen(("{ " + script + "\n} 2>&1").c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  while (std::size_t const size = fread(buffer, 1, sizeof buffer, pipe)) run.output.append(buffer, size);
  int const status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace Routing
