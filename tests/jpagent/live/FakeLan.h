// SPDX-License-Identifier: Apache-2.0
// Fake neighbors of an agent: a test makes each of their packets, and reads each packet and event of the
// agent. Each case has a cable of its own, in IPv4 and in IPv6; all of them are run at the same time.
//
//     runCases({{"A join is taken up", [](FakeLan& lan) {
//                  lan.hello('B');
//                  lan.send("B", "join (S,G)");
//                  lan.downstream("joined (S,G)");
//                }}});
//
// Texts have letters instead of addresses: A is the agent, B to D are its neighbors, E is a second address of
// B; S and T are sources, G and H groups, Q and R RPs, I the interface.
#pragma once

#include <fmt/format.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <sys/socket.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "jpagent/live/LiveOutput.h"
#include "jpagent/simulate/Routes.h"
#include "tests/jpagent/live/Messages.h"
#include "tests/jpagent/live/SharedAgent.h"

namespace Routing::Pim::Jpagent::Live::Test {

/// The interface of a case and its fake neighbors. What is not as it should be throws CaseFailed.
class FakeLan {
 public:
  static constexpr double patience = 5;  // in seconds, with what has to come

  FakeLan(SharedAgent& agent, int number, Dova::AddressFamily family)
      : agent_(agent), family_(family), intf_(nameOf(number, family)) {
    bool const isIpv4 = family == Dova::AddressFamily::ipv4;
    auto const n = std::to_string(number);
    auto const own = isIpv4 ? "10." + n + ".0." : std::string("fe80::");
    for (char letter = 'A'; letter <= 'D'; ++letter) addressIs(letter, own + std::to_string(letter - '@'));
    addressIs('E', isIpv4 ? "10." + n + ".7.2" : "2001:db8:" + n + "::2");
    addressIs('S', isIpv4 ? "10.9.0.1" : "2001:db8::1");
    addressIs('T', isIpv4 ? "10.9.0.2" : "2001:db8::2");
    addressIs('G', isIpv4 ? "239." + n + ".0.1" : "ff0e::" + n + ":1");
    addressIs('H', isIpv4 ? "239." + n + ".0.2" : "ff0e::" + n + ":2");
    addressIs('R', isIpv4 ? "10.255.0.1" : "2001:db8:255::1");
    addressIs('Q', isIpv4 ? "10.255.0.2" : "2001:db8:255::2");
    addressIs('I', intf_);
    agent_.listenerIs(intf_, [this](Json event) {
      std::lock_guard const lock(mutex_);
      all_ += event.dump() + "\n";
      events_.push_back(std::move(event));
      arrived_.notify_one();
    });
  }
  ~FakeLan() { closeSocket(); }
  FakeLan(FakeLan const&) = delete;
  FakeLan& operator=(FakeLan const&) = delete;

  static std::string nameOf(int number, Dova::AddressFamily family) {
    return (family == Dova::AddressFamily::ipv4 ? "c" : "d") + std::to_string(number);
  }
  std::string const& intf() const { return intf_; }
  bool isIpv4() const { return family_ == Dova::AddressFamily::ipv4; }
  std::string const& address(char letter) const { return ofLetters_.at(letter); }
  /// A packet socket on the other end of the cable.
  void socketIs(int descriptor) { socket_ = descriptor; }
  void closeSocket() {
    if (socket_ >= 0) close(std::exchange(socket_, -1));
  }
  /// Everything that the agent has told of the interface.
  std::string all() {
    std::lock_guard const lock(mutex_);
    return all_;
  }

  // --- What neighbors send

  /// What a Hello of a fake neighbor says unless the case says otherwise: nothing takes long on its LAN.
  static Hellos usual() {
    return {.hold = 105, .generation = 1, .priority = {}, .addresses = {}, .delay = quickDelay()};
  }
  static Wire::LanPruneDelay quickDelay(bool tracking = false) {
    return {.tracking = tracking, .propagationDelay = 100, .overrideInterval = 400};
  }

  void hello(char from, Hellos said = usual()) {
    for (auto& address : said.addresses) address = longText(address);
    packet(from, helloOf(at(from), said));
  }
  /// "BA" has B send it to A, "B" as well. Entries are "join (S,G), prune (*,G) rp R".
  void send(std::string_view fromTo, std::string_view entries, U16 hold = 210) {
    packet(fromTo[0], message(fromTo, entries, hold));
  }
  std::vector<U8> message(std::string_view fromTo, std::string_view entries, U16 hold = 210) const {
    return joinPruneOf(at(fromTo[0]), at(fromTo.size() > 1 ? fromTo[1] : 'A'), entriesOf(entries), hold);
  }
  void packet(char from, std::vector<U8> const& message, unsigned ttl = 1) {
    packet(from, Wire::allPimRouters(family_), message, ttl);
  }
  void packet(char from, IpGenAddr const& to, std::vector<U8> const& message, unsigned ttl = 1) {
    constexpr std::size_t recordHeader = 16;  // of a capture; behind it is the datagram
    auto const record =
        capturedPacket(0, {.intf = intf_, .source = at(from), .destination = to, .ttl = ttl}, message);
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_ifindex = index();
    link.sll_protocol = htons(isIpv4() ? ETH_P_IP : ETH_P_IPV6);
    link.sll_halen = 6;
    constexpr unsigned char mac4[] = {1, 0, 0x5e, 0, 0, 13}, mac6[] = {0x33, 0x33, 0, 0, 0, 13};
    std::copy_n(isIpv4() ? mac4 : mac6, 6, link.sll_addr);
    auto const size = record.size() - recordHeader;
    if (sendto(socket_, record.data() + recordHeader, size, 0, reinterpret_cast<sockaddr*>(&link),
               sizeof link) != static_cast<ssize_t>(size))
      fail(fmt::format("sending: {}", std::strerror(errno)));
  }
  /// A message of this neighbor with another byte in one place and the checksum for it.
  std::vector<U8> changed(char from, std::vector<U8> message, std::size_t place, U8 byte) const {
    message.at(place) = byte;
    message[2] = message[3] = 0;
    U16 const checksum = Wire::pimChecksum(message, at(from), Wire::allPimRouters(family_));
    message[2] = static_cast<U8>(checksum >> 8);
    message[3] = static_cast<U8>(checksum);
    return message;
  }

  // --- Commands

  void say(std::string_view command) {
    Json const reply = agent_.ask(longText(command));
    if (!reply["ok"].get<bool>()) fail(reply.dump());
  }
  std::string error(std::string_view command) {
    Json const reply = agent_.ask(longText(command));
    if (reply["ok"].get<bool>()) fail("no error: " + reply.dump());
    return reply["error"];
  }
  /// The rows of this interface, and of routes of its groups.
  std::vector<Json> show(std::string const& subject) {
    std::vector<Json> rows;
    Json const reply = agent_.ask("show " + subject);
    for (auto const& row : reply["result"])
      if (row["interface"] == intf_) rows.push_back(row);
    return rows;
  }
  /// A member of the only row.
  Json shown(std::string const& subject, std::string const& member) {
    auto const rows = show(subject);
    if (rows.size() != 1) fail(fmt::format("show {} has {} rows", subject, rows.size()));
    return rows[0][member];
  }

  // --- What comes of it

  /// The next event of a kind, in order for each kind.
  Json event(std::string const& kind) {
    std::unique_lock lock(mutex_);
    auto const isOne = [&](Json const& event) { return event["event"] == kind; };
    auto found = events_.end();
    bool const hasCome = arrived_.wait_for(lock, std::chrono::duration<double>(patience), [&] {
      found = std::find_if(events_.begin(), events_.end(), isOne);
      return found != events_.end();
    });
    if (!hasCome) {
      lock.unlock();
      fail("no event " + kind);
    }
    Json event = std::move(*found);
    events_.erase(found);
    return event;
  }
  /// The next one is "joined (S,G)" or "pruned (*,G) rp R". Returns when it was, in seconds.
  double downstream(std::string const& expected) {
    Json const next = event("downstream");
    auto text = next["state"].get<std::string>() + " " + next["route"].get<std::string>();
    if (next.contains("rp")) text += " rp " + next["rp"].get<std::string>();
    equal(shortText(text), expected);
    return timeOf(next);
  }
  /// The next one is "up B".
  Json neighbor(std::string const& expected) {
    Json const next = event("neighbor");
    equal(shortText(next["state"].get<std::string>() + " " + next["address"].get<std::string>()), expected);
    return next;
  }
  /// The next one has a reason that begins so.
  void refused(std::string const& reason) {
    auto const text = event("refused")["reason"].get<std::string>();
    equal(text.substr(0, reason.size()), reason);
  }
  /// The next Join/Prune that the agent sends, Hellos passed over, is "B: join (S,G), prune (T,G)", with its
  /// entries in alphabetical order. Another hold time than 210 comes after it: "B: join (S,G) hold 3".
  void sends(std::string const& expected) {
    auto text = next();
    while (text == "hello" || text == "goodbye") text = next();
    equal(text, expected);
  }
  /// The next packet as text: "hello", "goodbye", or a Join/Prune as above.
  std::string next() {
    auto const text = nextWithin(patience);
    if (text.empty()) fail("no packet");
    return text;
  }
  /// The latest Hello of next().
  Wire::Hello const& latestHello() const { return latestHello_; }
  /// For so long no Join/Prune is sent and no event of downstream routes comes.
  void quiet(double seconds) {
    auto const until = Clock::now() + std::chrono::duration<double>(seconds);
    for (double left = seconds; left > 0;
         left = std::chrono::duration<double>(until - Clock::now()).count()) {
      auto const text = nextWithin(left);
      if (!text.empty() && !text.starts_with("hello")) fail("sent: " + text);
    }
    std::lock_guard const lock(mutex_);
    for (auto const& event : events_)
      if (event["event"] == "downstream") throw CaseFailed(event.dump());
  }

  // Whether a value that has been shown is the expected one.
  template <class Value, class Expected>
  void equal(Value const& value, Expected const& expected) const {
    if (value == expected) return;
    std::ostringstream text;
    text << value << ", expected: " << expected;
    fail(text.str());
  }
  void between(double least, double value, double most) const {
    if (value < least || value > most) fail(fmt::format("{} is not from {} to {}", value, least, most));
  }
  [[noreturn]] void fail(std::string const& why) const { throw CaseFailed(why); }

 private:
  using Clock = std::chrono::steady_clock;

  void addressIs(char letter, std::string const& text) {
    ofLetters_[letter] = text;
    letters_[text] = letter;
  }
  IpGenAddr at(char letter) const { return IpGenAddr(address(letter)); }
  int index() const {
    sockaddr_ll own{};
    socklen_t size = sizeof own;
    getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size);
    return own.sll_ifindex;
  }

  // Letters that are words of their own become what they stand for.
  std::string longText(std::string_view text) const {
    std::string result;
    auto const isWord = [&](std::size_t i) {
      return i < text.size() && (std::isalnum(static_cast<unsigned char>(text[i])) || text[i] == '.');
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
      bool const isAlone = !(i > 0 && isWord(i - 1)) && !isWord(i + 1);
      auto const found = ofLetters_.find(text[i]);
      if (isAlone && found != ofLetters_.end())
        result += found->second;
      else
        result += text[i];
    }
    return result;
  }
  std::string shortText(std::string const& text) const {
    std::string result;
    for (std::size_t i = 0; i < text.size();) {
      auto const end = std::min(text.find_first_of(" ,()", i), text.size());
      auto const word = text.substr(i, end - i);
      auto const found = letters_.find(word);
      result += found == letters_.end() ? word : std::string(1, found->second);
      if (end < text.size()) result += text[end];
      i = end + 1;
    }
    return result;
  }

  // "join (*,G) rp R".
  std::vector<Entry> entriesOf(std::string_view text) const {
    std::vector<Entry> entries;
    for (std::size_t i = 0; i < text.size();) {
      auto const end = std::min(text.find(", ", i), text.size());
      auto const one = std::string(text.substr(i, end - i));
      i = end + 2;
      bool const isPrune = one.starts_with("prune ");
      auto const route = one.substr(one.find('('));
      EntryKind kind = EntryKind::sourceJoin;
      char source = route[1];
      if (source == '*') {
        kind = EntryKind::wildcardJoin;
        source = route.back();
      } else if (route.find("rpt") != route.npos) {
        kind = EntryKind::sourceRptJoin;
      }
      if (isPrune) kind = opposite(kind);
      entries.push_back({kind, address(source), address(route[3])});
    }
    return entries;
  }

  // Empty if there is none within so many seconds.
  std::string nextWithin(double seconds) {
    auto const until = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
      auto const left = std::chrono::duration<double>(until - Clock::now()).count();
      pollfd ready{socket_, POLLIN, 0};
      if (poll(&ready, 1, std::max(0, static_cast<int>(std::ceil(left * 1000)))) <= 0) return "";
      U8 bytes[10'000];
      auto const size = recv(socket_, bytes, sizeof bytes, 0);
      if (size <= 0) fail("nothing was received");
      auto const text = textOfPacket({bytes, static_cast<std::size_t>(size)});
      if (!text.empty()) return text;
    }
  }
  // Empty for what is no PIM.
  std::string textOfPacket(std::span<U8 const> packet) {
    std::size_t const header = isIpv4() ? (packet[0] & 15u) * 4u : 40;
    if (packet.size() < header || packet[isIpv4() ? 9 : 6] != Wire::pimProtocol) return "";
    equal(int{packet[isIpv4() ? 8 : 7]}, 1);                                          // TTL or hop limit
    equal(isIpv4() ? int{packet[1]} : (packet[0] & 15) << 4 | packet[1] >> 4, 0xc0);  // network control
    auto const source = IpGenAddr::fromBytes(isIpv4() ? packet.subspan(12, 4) : packet.subspan(8, 16));
    auto const to = IpGenAddr::fromBytes(isIpv4() ? packet.subspan(16, 4) : packet.subspan(24, 16));
    equal(shortText(toText(source)), "A");
    equal(toText(to), toText(Wire::allPimRouters(family_)));
    auto const message = packet.subspan(header);
    if (Wire::isPimType(message, Wire::PimType::hello)) {
      latestHello_ = std::get<Wire::Hello>(Wire::decodeHello(message, source, to));
      return latestHello_.holdTime() == 0 ? "goodbye" : "hello";
    }
    auto const decoded = std::get<Wire::JoinPrune>(Wire::decodeJoinPrune(message, source, to));
    std::set<std::string> entries;
    for (auto const& set : decoded.groups())
      for (auto const& [kind, address] : set.sources())
        entries.insert(shortText(toText(RouteEntry{kind, address, set.group()})));
    std::string text = shortText(toText(decoded.upstreamNeighbor()));
    for (auto const& entry : entries) text += (text.size() == 1 ? ": " : ", ") + entry;
    if (decoded.holdTime() != 210) text += fmt::format(" hold {}", decoded.holdTime());
    return text;
  }

  // In seconds of the day.
  static double timeOf(Json const& event) {
    auto const text = event["time"].get<std::string>();
    return std::stod(text.substr(11, 2)) * 3600 + std::stod(text.substr(14, 2)) * 60 +
           std::stod(text.substr(17));
  }

  SharedAgent& agent_;
  Dova::AddressFamily const family_;
  std::string const intf_;
  std::map<char, std::string> ofLetters_;
  std::map<std::string, char> letters_;
  int socket_ = -1;
  Wire::Hello latestHello_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Json> events_;
  std::string all_;
};

}  // namespace Routing::Pim::Jpagent::Live::Test
