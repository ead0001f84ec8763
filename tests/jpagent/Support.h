// SPDX-License-Identifier: Apache-2.0
// What jpagent's tests share: folders that clean up after themselves, captures of any link
// type, and running a program to its end.
#pragma once

#include <fcntl.h>
#include <pcap/pcap.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tests/pim/wire/Bytes.h"

extern char** environ;

namespace Routing::Pim::Jpagent::Test {

using Dova::AddressFamily;
using Dova::IpGenAddr;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using Wire::Test::Bytes;
using Wire::Test::hex;
using Wire::Test::operator+;
using Wire::Test::withChecksum;

inline IpGenAddr const routers = Wire::allPimRouters(AddressFamily::ipv4);

/// The first bytes of a frame.
inline Bytes firstOf(Bytes bytes, std::size_t size) {
  bytes.resize(size);
  return bytes;
}

/// A folder of its own for a test, removed afterwards.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "jpagent-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("no temporary folder");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(TemporaryFolder const&) = delete;
  TemporaryFolder& operator=(TemporaryFolder const&) = delete;

  std::string file(std::string_view name) const { return (path_ / name).string(); }

  /// The path of a new file with this content.
  std::string with(std::string_view name, std::span<U8 const> content) const {
    std::ofstream(file(name), std::ios::binary)
        .write(reinterpret_cast<char const*>(content.data()), static_cast<std::streamsize>(content.size()));
    return file(name);
  }

 private:
  std::filesystem::path path_;
};

inline std::string readText(std::string const& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline Bytes readBytes(std::string const& path) {
  auto const text = readText(path);
  return Bytes(text.begin(), text.end());
}

struct TimedFrame {
  std::uint64_t microseconds = 0;
  Bytes bytes;
  std::size_t length = 0;  ///< On the wire; 0 for as many as there are bytes.
};

/// Writes a capture of a link type by libpcap itself.
inline std::string writeCapture(TemporaryFolder const& folder, int linkType,
                                std::vector<TimedFrame> const& frames) {
  auto const path = folder.file("capture.pcap");
  pcap_t* const pcap = pcap_open_dead(linkType, 65535);
  pcap_dumper_t* const dumper = pcap_dump_open(pcap, path.c_str());
  if (!dumper) throw std::runtime_error(pcap_geterr(pcap));
  for (auto const& frame : frames) {
    pcap_pkthdr header = {};
    header.ts.tv_sec = static_cast<time_t>(frame.microseconds / 1'000'000);
    header.ts.tv_usec = static_cast<suseconds_t>(frame.microseconds % 1'000'000);
    header.caplen = static_cast<bpf_u_int32>(frame.bytes.size());
    header.len = frame.length ? static_cast<bpf_u_int32>(frame.length) : header.caplen;
    pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.bytes.data());
  }
  pcap_dump_close(dumper);
  pcap_close(pcap);
  return path;
}

/// A big-endian pcapng file: a section header, an interface, and an enhanced packet block for each frame,
/// with time stamps in microseconds.
inline Bytes pcapngFile(std::uint16_t linkType, std::vector<TimedFrame> const& frames) {
  auto const u16 = [](std::size_t v) { return Bytes{static_cast<U8>(v >> 8), static_cast<U8>(v)}; };
  auto const u32 = [&u16](std::uint64_t v) { return u16(v >> 16 & 0xffff) + u16(v & 0xffff); };
  auto const block = [&u32](std::uint32_t type, Bytes const& body) {
    auto const length = u32(body.size() + 12);
    return u32(type) + length + body + length;
  };
  Bytes file = block(0x0a0d0d0a, hex("1a2b3c4d 0001 0000 ffffffff ffffffff"));
  file = file + block(1, u16(linkType) + u16(0) + u32(65535));
  for (auto const& frame : frames) {
    Bytes padded = frame.bytes;
    padded.resize((padded.size() + 3) / 4 * 4);
    auto const length = frame.length ? frame.length : frame.bytes.size();
    file = file + block(6, u32(0) + u32(frame.microseconds >> 32) + u32(frame.microseconds & 0xffffffff) +
                               u32(frame.bytes.size()) + u32(length) + padded);
  }
  return file;
}

struct Outcome {
  int status;
  std::string out, err;
  double cpuSeconds;
};

/// Runs a program, found through PATH, to its end.
inline Outcome run(std::string const& program, std::vector<std::string> arguments) {
  TemporaryFolder const folder;
  auto const out = folder.file("out"), err = folder.file("err");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  arguments.insert(arguments.begin(), program);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  int const error = posix_spawnp(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot run " + program);
  int status = 0;
  rusage used = {};
  wait4(child, &status, 0, &used);
  auto const seconds = [](timeval const& time) {
    return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6;
  };
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(out), readText(err),
          seconds(used.ru_utime) + seconds(used.ru_stime)};
}

inline std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
}

}  // namespace Routing::Pim::Jpagent::Test
