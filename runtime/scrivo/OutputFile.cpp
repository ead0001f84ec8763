// SPDX-License-Identifier: Apache-2.0
#include "runtime/scrivo/OutputFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include "runtime/scrivo/private/FileError.h"

namespace Scrivo {

namespace {

constinit OutputFile* firstWithTemporary = nullptr;

// With the slash at its end; empty for the working directory.
std::string folderOf(std::string const& path) { return path.substr(0, path.rfind('/') + 1); }

// A name beside a path, hidden and short enough for any file system.
std::string nameBeside(std::string const& path) {
  constexpr char letters[] = "0123456789abcdefghijklmnopqrstuv";
  static constinit unsigned char names = 0;
  unsigned char random[8] = {};
  // Early after the start of the machine there are none; then the next name is another one all the same.
  [[maybe_unused]] auto const got = getrandom(random, sizeof random, GRND_NONBLOCK);
  random[0] = static_cast<unsigned char>(random[0] + ++names);
  std::string const folder = folderOf(path);
  std::string name = folder + "." + path.substr(folder.size(), 200) + ".";
  for (unsigned char const byte : random) name += letters[byte % 32];
  return name;
}

}  // namespace

OutputFile::OutputFile(std::string const& path, Use use, mode_t mode) : path_(path) {
  struct stat status;
  bool const exists = stat(path_.c_str(), &status) == 0;
  if (!exists && errno != ENOENT) refuseFile(path_, errno);
  if (exists && S_ISDIR(status.st_mode)) refuseFile(path_, EISDIR);
  if (exists && !S_ISREG(status.st_mode)) {
    if (S_ISBLK(status.st_mode)) refuseFile(path_, "is a block device");
    if (S_ISSOCK(status.st_mode)) refuseFile(path_, "is a socket");
    if (use == Use::file) refuseFile(path_, S_ISFIFO(status.st_mode) ? "is a FIFO" : "is a device");
    openInPlace(status.st_mode & S_IFMT);
    return;
  }
  target_ = followed(path_);
  if (exists) {
    // The kernel's own links may lead to a file that has no name any more.
    struct stat named;
    if (lstat(target_.c_str(), &named) != 0 || named.st_dev != status.st_dev || named.st_ino != status.st_ino)
      refuseFile(path_, "leads to a file without a name");
    if (faccessat(AT_FDCWD, target_.c_str(), W_OK, AT_EACCESS) != 0) refuseFile(path_, errno);
  }
  openBeside(exists ? status.st_mode & 07777 : mode);
  if (!exists) return;
  // Who may not give files away keeps it. Before the mode, which this call would change.
  [[maybe_unused]] int const kept = fchown(descriptor_, status.st_uid, status.st_gid);
  if (fchmod(descriptor_, status.st_mode & 07777) != 0) {
    int const error = errno;
    closeAndRemove();
    refuseFile(path_, error);
  }
}

OutputFile::~OutputFile() { closeAndRemove(); }

void OutputFile::openInPlace(mode_t kind) {
  descriptor_ = ::open(path_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
  if (descriptor_ < 0) refuseFile(path_, errno);
  // What has the name by now may be a file, which must not be written in place.
  struct stat status;
  if (fstat(descriptor_, &status) == 0 && (status.st_mode & S_IFMT) == kind) return;
  closeAndRemove();
  refuseFile(path_, "was replaced while it was opened");
}

void OutputFile::openBeside(mode_t mode) {
  int attempts = 100;
  do {
    temporary_ = nameBeside(target_);
    descriptor_ = ::open(temporary_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  } while (descriptor_ < 0 && errno == EEXIST && --attempts > 0);
  if (descriptor_ < 0) {
    temporary_.clear();
    refuseFile(path_, errno);
  }
  next_ = firstWithTemporary;
  if (next_) next_->previous_ = this;
  firstWithTemporary = this;
}

void OutputFile::closeAndRemove() noexcept {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
  if (temporary_.empty()) return;
  unlink(temporary_.c_str());
  forgetTemporary();
}

void OutputFile::forgetTemporary() noexcept {
  (previous_ ? previous_->next_ : firstWithTemporary) = next_;
  if (next_) next_->previous_ = previous_;
  temporary_.clear();
}

void OutputFile::name() {
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), target_.c_str()) == 0) return forgetTemporary();
  int const error = errno;
  closeAndRemove();
  refuseFile(path_, error);
}

void OutputFile::commit() {
  if (::close(std::exchange(descriptor_, -1)) != 0) {
    int const error = errno;
    closeAndRemove();
    refuseFile(path_, error);
  }
  name();
}

std::string OutputFile::followed(std::string const& path) {
  constexpr int mostLinks = 40;  // as the kernel has it
  std::string place = path;
  for (int links = 0;; ++links) {
    char target[PATH_MAX];
    ssize_t const size = readlink(place.c_str(), target, sizeof target);
    if (size < 0) {
      if (errno == EINVAL || errno == ENOENT) return place;
      refuseFile(path, errno);
    }
    if (links == mostLinks) refuseFile(path, ELOOP);
    if (size == sizeof target) refuseFile(path, ENAMETOOLONG);
    std::string const to(target, static_cast<std::size_t>(size));
    place = to.starts_with('/') ? to : folderOf(place) + to;
  }
}

void OutputFile::abandonAll() noexcept {
  for (OutputFile const* file = firstWithTemporary; file; file = file->next_)
    unlink(file->temporary_.c_str());
}

}  // namespace Scrivo
