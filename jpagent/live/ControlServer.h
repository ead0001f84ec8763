// SPDX-License-Identifier: Apache-2.0
// The UNIX socket for commands, and its clients.
//
//     ControlServer server(loop, "/run/jpagent.sock", json, [](ControlClient& client, ...) { ... });
//     server.tell([](bool json) { return event.text(json); });   // to clients that said "events on"
//     server.flush();                                            // once for all that was written
#pragma once

#include <sys/types.h>

#include <list>
#include <optional>
#include <stdexcept>
#include <string>

#include "jpagent/live/Loop.h"
#include "jpagent/live/Pending.h"

namespace Routing::Pim::Jpagent::Live {

/// The socket cannot be had. `what()` is one line that names the path.
class ControlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ControlServer;

/// A connection.
class ControlClient {
 public:
  /// How much may wait beside the largest reply before a client that does not read is closed, in bytes.
  static constexpr std::size_t mostPending = 1 << 20;

  ControlClient(ControlServer& server, int descriptor, bool json);
  ~ControlClient();

  /// Whole lines.
  void write(std::string_view lines);

  bool wantsEvents = false;
  bool json;  ///< Whether it is answered in JSON.

 private:
  friend class ControlServer;

  void onReady();
  void flush();
  bool isDone() const { return isClosed_ || (isAtEnd_ && !wantsEvents && pending_.size() == 0); }

  ControlServer& server_;
  int const descriptor_;
  Watch watch_;
  Lines lines_;
  Pending pending_;
  std::size_t largest_ = 0;  // of the writes that wait
  bool isAtEnd_ = false;     // the client writes no more
  bool isClosed_ = false;
};

/// The socket, with mode 0600.
class ControlServer {
 public:
  /// More are closed at once.
  static constexpr std::size_t mostClients = 100;

  /// `isWhole` is false for the beginning of a line that is too long or has no end.
  using Command = std::function<void(ControlClient& client, std::string_view line, bool isWhole)>;

  /// A socket that a dead process left is replaced. Throws ControlError if a process listens there, or if
  /// something else has the name.
  ControlServer(uv_loop_t& loop, std::string path, bool json, Command command);
  /// Closes all connections and removes the socket, if it still is this one.
  ~ControlServer();
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

  std::string const& path() const { return path_; }

  /// Writes to each client that wants events, in its form.
  void tell(std::function<std::string_view(bool json)> const& text);
  /// Writes what clients take, and forgets those that have ended. Not from inside a command.
  void flush();

 private:
  friend class ControlClient;

  void listenAt();
  void removeStale();
  void accept();

  uv_loop_t& loop_;
  std::string const path_;
  bool const json_;
  Command const command_;
  int descriptor_ = -1;
  int spare_ = -1;  // given up for a moment if no other descriptor is left
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::optional<Watch> watch_;
  std::list<ControlClient> clients_;
};

}  // namespace Routing::Pim::Jpagent::Live
