// SPDX-License-Identifier: Apache-2.0
// A copy of this process, for what may crash, abort or leave something behind.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>

/// What a copy of this process said, and how it ended, as waitpid(2) has it.
struct Ended {
  std::string said;
  int status = 0;
};

/// In the copy: says something. Ends it with status 2 if the reader has ended.
inline void say(int end, std::string_view text) {
  while (!text.empty()) {
    ssize_t const written = write(end, text.data(), text.size());
    if (written <= 0) _exit(2);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// Calls `work` in a copy of this process, with the end of a pipe to say things by, and waits for it. The
/// copy ends with status 0 if `work` returns.
inline Ended inACopy(std::function<void(int end)> const& work) {
  int ends[2];
  if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "there is no pipe");
  pid_t const child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "there is no process");
  if (child == 0) {
    close(ends[0]);
    work(ends[1]);
    _exit(0);
  }
  close(ends[1]);
  Ended ended;
  char part[4096];
  for (ssize_t count; (count = read(ends[0], part, sizeof part)) > 0;)
    ended.said.append(part, static_cast<std::size_t>(count));
  close(ends[0]);
  waitpid(child, &ended.status, 0);
  return ended;
}
