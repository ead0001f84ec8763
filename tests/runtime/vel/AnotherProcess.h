// Tests of what belongs to a whole process.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>

#include "runtime/vel/Hash.h"

namespace Vel {

// What a process of its own says: a seed belongs to the whole process, and is set before the first hash.
inline std::string inAnotherProcess(std::optional<U64> seed, std::function<std::string()> const& say) {
  int ends[2];
  if (pipe(ends) != 0) return "no pipe";
  pid_t const child = fork();
  if (child == 0) {
    if (seed) hashSeedIs(*seed);
    std::string const text = say();
    ssize_t const written = write(ends[1], text.data(), text.size());
    _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(ends[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(got));
  close(ends[0]);
  int status = 1;
  waitpid(child, &status, 0);
  return status == 0 ? text : "the other process failed";
}

}  // namespace Vel
