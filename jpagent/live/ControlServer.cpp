// SPDX-License-Identifier: Apache-2.0
#include "jpagent/live/ControlServer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "jpagent/live/Tell.h"

namespace Routing::Pim::Jpagent::Live {

// --- One connection ------------------------------------------------------------------------------

ControlClient::ControlClient(ControlServer& server, int descriptor, bool asJson)
    : json(asJson),
      server_(server),
      descriptor_(descriptor),
      watch_(server.loop_, descriptor, [this] { onReady(); }) {
  watch_.eventsAre(UV_READABLE);
}

ControlClient::~ControlClient() {
  watch_.eventsAre(0);
  close(descriptor_);
}

void ControlClient::write(std::string_view lines) {
  if (isClosed_) return;
  if (pending_.size() > mostPending + largest_) flush();
  if (pending_.size() > mostPending + largest_) {
    isClosed_ = true;
    return;
  }
  pending_.add(lines);
  largest_ = std::max(largest_, lines.size());
}

void ControlClient::flush() {
  if (isClosed_) return;
  if (pending_.writeTo(descriptor_) != 0) isClosed_ = true;
  if (pending_.size() == 0) largest_ = 0;
  watch_.eventsAre((isAtEnd_ ? 0 : UV_READABLE) | (pending_.size() > 0 ? UV_WRITABLE : 0));
}

// What is pending is written before the loop waits again.
void ControlClient::onReady() {
  if (isClosed_ || isAtEnd_) return;
  char bytes[16 << 10];
  auto const size = recv(descriptor_, bytes, sizeof bytes, MSG_DONTWAIT);
  if (size < 0) {
    isClosed_ = errno != EAGAIN && errno != EINTR;
    return;
  }
  if (size == 0) {
    isAtEnd_ = true;
    // Half a command may be the beginning of one that means something else.
    if (!lines_.rest().empty()) server_.command_(*this, lines_.rest(), false);
    return;
  }
  lines_.add({bytes, static_cast<std::size_t>(size)}, [this](std::string_view line, bool isWhole) {
    if (!isClosed_) server_.command_(*this, line, isWhole);
  });
}

// --- All of them ---------------------------------------------------------------------------------

ControlServer::ControlServer(uv_loop_t& loop, std::string path, bool json, Command command)
    : loop_(loop), path_(std::move(path)), json_(json), command_(std::move(command)) {
  try {
    listenAt();
    spare_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    watch_.emplace(loop_, descriptor_, [this] { accept(); });
  } catch (...) {
    if (descriptor_ >= 0) close(descriptor_);
    throw;
  }
  watch_->eventsAre(UV_READABLE);
}

ControlServer::~ControlServer() {
  for (auto& client : clients_) client.flush();
  clients_.clear();
  watch_.reset();
  close(descriptor_);
  close(spare_);
  struct stat status;
  if (lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_)
    unlink(path_.c_str());
}

void ControlServer::listenAt() {
  auto const fail = [this] {
    throw ControlError(fmt::format("--control: {}: {}", path_, std::strerror(errno)));
  };
  auto const address = controlAddress(path_);
  if (!address) throw ControlError(fmt::format("--control: {}: is too long for a socket", path_));
  removeStale();
  descriptor_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor_ < 0) fail();
  mode_t const mask = umask(0177);
  int const bound = bind(descriptor_, reinterpret_cast<sockaddr const*>(&*address), sizeof *address);
  umask(mask);
  if (bound != 0 || listen(descriptor_, SOMAXCONN) != 0) fail();
  struct stat status;
  if (lstat(path_.c_str(), &status) != 0) fail();
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

// Only a socket at which no process listens is removed.
void ControlServer::removeStale() {
  struct stat status;
  if (lstat(path_.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode))
    throw ControlError(fmt::format("--control: {}: is there, and is no socket", path_));
  int const probe = connectToControl(path_);
  int const error = errno;
  if (probe >= 0) close(probe);
  if (probe < 0 && error == ECONNREFUSED)
    unlink(path_.c_str());
  else if (probe >= 0 || error == EAGAIN)  // its queue of connections is full
    throw ControlError(fmt::format("--control: {}: is in use by another process", path_));
  else
    throw ControlError(fmt::format("--control: {}: {}", path_, std::strerror(error)));
}

void ControlServer::accept() {
  int descriptor = accept4(descriptor_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (descriptor < 0 && (errno == EMFILE || errno == ENFILE)) {
    // Who waits would wake the loop again and again.
    close(spare_);
    descriptor = accept4(descriptor_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor >= 0) close(std::exchange(descriptor, -1));
    spare_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  if (descriptor >= 0 && clients_.size() >= mostClients) close(std::exchange(descriptor, -1));
  if (descriptor >= 0) clients_.emplace_back(*this, descriptor, json_);
}

void ControlServer::tell(std::function<std::string_view(bool)> const& text) {
  for (auto& client : clients_)
    if (client.wantsEvents) client.write(text(client.json));
}

void ControlServer::flush() {
  for (auto& client : clients_) client.flush();
  clients_.remove_if([](ControlClient const& client) { return client.isDone(); });
}

}  // namespace Routing::Pim::Jpagent::Live
