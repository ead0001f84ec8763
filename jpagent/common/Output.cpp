// SPDX-License-Identifier: Apache-2.0
#include "jpagent/common/Output.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <system_error>
#include <utility>

#include "runtime/vel/Exception.h"

namespace Routing::Pim::Jpagent {

namespace {

constexpr char standardOutput[] = "standard output", standardError[] = "standard error";

OutputBuffer* standardBuffer = nullptr;

[[noreturn]] void refuse(std::string const& name, int error) {
  throw OutputError(fmt::format("{}: {}", name, std::generic_category().message(error)));
}

// What the library says, as an error of this program.
template <class Act>
auto translated(Act const& act) {
  try {
    return act();
  } catch (Vel::RangeException const& e) {
    throw OutputError(e.what());
  }
}

}  // namespace

OutputBuffer::OutputBuffer(int descriptor) : descriptor_(descriptor) { setp(bytes_, bytes_ + sizeof bytes_); }

bool OutputBuffer::flush() noexcept {
  char const* next = pbase();
  while (error_ == 0 && next < pptr()) {
    ssize_t const written = write(descriptor_, next, static_cast<std::size_t>(pptr() - next));
    if (written > 0)
      next += written;
    else if (written == 0 || errno != EINTR)
      error_ = written == 0 ? EIO : errno;
  }
  setp(bytes_, bytes_ + sizeof bytes_);
  return error_ == 0;
}

OutputBuffer::int_type OutputBuffer::overflow(int_type character) {
  if (!flush()) return traits_type::eof();
  if (!traits_type::eq_int_type(character, traits_type::eof())) sputc(traits_type::to_char_type(character));
  return traits_type::not_eof(character);
}

StandardOutput::StandardOutput() : buffer_(STDOUT_FILENO), former_(std::cout.rdbuf(&buffer_)) {
  standardBuffer = &buffer_;
}

StandardOutput::~StandardOutput() {
  buffer_.flush();
  standardBuffer = nullptr;
  std::cout.rdbuf(former_);
}

void StandardOutput::close() {
  buffer_.flush();
  int error = buffer_.error();
  if (::close(STDOUT_FILENO) != 0 && error == 0) error = errno;
  if (error != 0) refuse(standardOutput, error);
}

void StandardOutput::flushAtEnd() noexcept {
  if (standardBuffer) standardBuffer->flush();
}

FileOutput::FileOutput(std::string const& path, Scrivo::OutputFile::Use use)
    : std::ostream(nullptr),
      file_(translated([&] { return Scrivo::OutputFile(path, use); })),
      buffer_(file_.descriptor()) {
  rdbuf(&buffer_);
}

void FileOutput::close() {
  buffer_.flush();
  if (buffer_.error() != 0) refuse(file_.path(), buffer_.error());
  translated([this] { file_.commit(); });
}

namespace {

// Two names lead to one file if these are equal.
struct Identity {
  dev_t device;
  ino_t inode;       // that of the folder, if the file is yet to be made
  std::string name;  // only then
  bool operator==(Identity const&) const = default;
};

// Devices may be shared: a user may name /dev/null twice.
std::optional<Identity> identityOf(struct stat const& status) {
  if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) return {};
  return Identity{status.st_dev, status.st_ino, {}};
}

std::optional<Identity> identityOf(std::string const& path) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0) return identityOf(status);
  if (errno != ENOENT) return {};
  auto const target = translated([&] { return Scrivo::OutputFile::followed(path); });
  auto const slash = target.rfind('/') + 1;
  if (stat(slash == 0 ? "." : target.substr(0, slash).c_str(), &status) != 0) return {};
  return Identity{status.st_dev, status.st_ino, target.substr(slash)};
}

}  // namespace

void refuseSharedFiles(std::vector<NamedFile> const& files) {
  std::vector<std::pair<Identity, std::string_view>> known;
  for (auto const& [descriptor, what] :
       {std::pair(STDOUT_FILENO, standardOutput), std::pair(STDERR_FILENO, standardError)}) {
    struct stat status;
    if (fstat(descriptor, &status) != 0) continue;
    if (auto identity = identityOf(status)) known.emplace_back(*std::move(identity), what);
  }
  for (auto const& file : files) {
    auto identity = identityOf(file.path);
    if (!identity) continue;
    for (auto const& [other, what] : known) {
      if (*identity == other)
        throw OutputError(fmt::format("{}: {} is {}{}", file.what, file.path,
                                      what.starts_with("--") ? "the file of " : "", what));
    }
    known.emplace_back(*std::move(identity), file.what);
  }
}

}  // namespace Routing::Pim::Jpagent
