// SPDX-License-Identifier: Apache-2.0
#include "jpagent/common/Ending.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <new>

#include "jpagent/common/Output.h"
#include "jpagent/common/Progress.h"
#include "runtime/scrivo/OutputFile.h"
#include "runtime/scrivo/TraceFile.h"

namespace Routing::Pim::Jpagent {

namespace {

// The name of a file, kept where a signal handler finds it.
class KeptName {
 public:
  void operator=(std::string_view name) noexcept {
    size_ = std::min(name.size(), sizeof text_);
    std::replace_copy(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(size_), text_, '\n', ' ');
  }
  std::string_view text() const { return {text_, size_}; }

 private:
  std::size_t size_ = 0;
  char text_[4096] = {};
};

constinit KeptName subject, traceFile;

[[noreturn]] void endWith(std::string_view name, std::string_view reason) noexcept {
  StandardOutput::flushAtEnd();
  Scrivo::OutputFile::abandonAll();
  auto const part = [](std::string_view text) { return iovec{const_cast<char*>(text.data()), text.size()}; };
  iovec const line[] = {part("jpagent: "), part(name), part(name.empty() ? "" : ": "), part(reason),
                        part("\n")};
  [[maybe_unused]] auto const written = writev(STDERR_FILENO, line, std::size(line));
  _exit(cannotDo);
}

void noMemory() { endAtOnce(ENOMEM); }

// Without memory for it, an exception ends here. Any other end of this kind is a mistake in the program.
void terminated() {
  try {
    if (std::exception_ptr const thrown = std::current_exception()) std::rethrow_exception(thrown);
    noMemory();
  } catch (std::bad_alloc const&) {
    noMemory();
  } catch (...) {
  }
  std::abort();
}

// Before anything of the program asks for memory: what is made before main() does.
[[gnu::constructor(101)]] void seeToMemory() {
  std::set_new_handler(noMemory);
  std::set_terminate(terminated);
}

void truncated(int signal, siginfo_t* info, void*) {
  auto const* const written = Scrivo::TraceFile::current();
  // A file that is read has no more than its header mapped, and BUS_ADRERR is what is not there.
  bool const known = written ? written->contains(info->si_addr) : info->si_code == BUS_ADRERR;
  if (known && !traceFile.text().empty()) endWith(traceFile.text(), "truncated while it was open");
  std::signal(signal, SIG_DFL);
}

// An assertion has written what does not hold. A debugger sees the signal before this does.
void aborted(int) { endWith(subject.text(), "an assertion does not hold"); }

void toldToEnd(int signal) {
  Scrivo::OutputFile::abandonAll();
  std::raise(signal);  // has its default effect by now
}

void handle(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) return;
  action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESETHAND;
  sigaction(signal, &action, nullptr);
}

void interruptedOnce(int) {
  interruptIs();
  handle(SIGINT, toldToEnd);
}

}  // namespace

void awaitInterrupt() { handle(SIGINT, interruptedOnce); }

int cannot(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::cerr << "jpagent: " << text << '\n';
  return cannotDo;
}

void endWithReasons() {
  for (int const descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The lowest that is free is given out, so this one is. What is written to it fails, as it should.
    if (fcntl(descriptor, F_GETFD) < 0) [[maybe_unused]]
      int const opened = open("/dev/null", O_RDONLY);
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) handle(signal, toldToEnd);
  handle(SIGABRT, aborted);
  struct sigaction action = {};
  action.sa_sigaction = truncated;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGBUS, &action, nullptr);
}

void subjectIs(std::string_view path) noexcept { subject = path; }
void traceFileIs(std::string_view path) noexcept { traceFile = path; }

void endAtOnce(int error) noexcept { endWith(subject.text(), strerrordesc_np(error)); }

}  // namespace Routing::Pim::Jpagent
