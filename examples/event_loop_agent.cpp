// SPDX-License-Identifier: Apache-2.0
// Two routers with a real event loop and a packet manager of their own, over a pair of sockets.
//
// A is downstream of B. A route of A's wants a source: A joins it at B at once, and refreshes the join every
// second. What a router program adds to the engine is all here, in this order: a form for packets (a text; a
// router has that of RFC 7761, 4.9, as pim/wire/PimMessage.h writes it), the packet manager, the receiving
// side, the loop. Marks like `// [loop]` are where docs/guide.md takes its pieces from.
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <system_error>
#include <vector>

#include "pim/joinprune/JoinPruneMessageSm.h"
#include "runtime/scrivo/TraceFile.h"

using namespace Routing::Pim;
using Dova::IpGenAddr;
using Group = Packet::JoinPruneGroupData;

// --- The form of a packet ------------------------------------------------------------------------

// The six kinds of entries: how to list them behind a source, put one in, and take one out.
struct Kind {
  char const* word;
  std::vector<IpGenAddr> (*list)(Group const& group, std::optional<IpGenAddr> const& behind,
                                 std::size_t most);
  void (*add)(Group& group, IpGenAddr const& source);
  void (*remove)(Group& group, IpGenAddr const& source);
};

template <auto front, auto after>
std::vector<IpGenAddr> some(Group const& group, std::optional<IpGenAddr> const& behind, std::size_t most) {
  std::vector<IpGenAddr> sources;
  auto i = behind ? (group.*after)(*behind) : (group.*front)();
  for (; i && sources.size() < most; ++i) sources.push_back(*i);
  return sources;
}

template <bool join>
std::vector<IpGenAddr> wildcard(Group const& group, std::optional<IpGenAddr> const& behind, std::size_t) {
  auto const entry = group.wcSourceData();
  if (!entry || entry->join() != join || behind) return {};
  return {entry->address()};
}

template <bool join>
void wildcardAdd(Group& group, IpGenAddr const& rp) {
  group.wcSourceDataIs(Vel::create<Packet::WcSourceData>(rp, join));
}

constexpr std::array<Kind, 6> kinds = {{
    {"(*,G)-join", wildcard<true>, wildcardAdd<true>, [](auto& g, auto&) { g.wcSourceDataDel(); }},
    {"(*,G)-prune", wildcard<false>, wildcardAdd<false>, [](auto& g, auto&) { g.wcSourceDataDel(); }},
    {"join", some<&Group::joinedSourceIterator, &Group::joinedSourceIteratorAfter>,
     [](auto& g, auto& s) { g.joinedSourceIs(s); }, [](auto& g, auto& s) { g.joinedSourceDel(s); }},
    {"prune", some<&Group::prunedSourceIterator, &Group::prunedSourceIteratorAfter>,
     [](auto& g, auto& s) { g.prunedSourceIs(s); }, [](auto& g, auto& s) { g.prunedSourceDel(s); }},
    {"rpt-join", some<&Group::joinedRptSourceIterator, &Group::joinedRptSourceIteratorAfter>,
     [](auto& g, auto& s) { g.joinedRptSourceIs(s); }, [](auto& g, auto& s) { g.joinedRptSourceDel(s); }},
    {"rpt-prune", some<&Group::prunedRptSourceIterator, &Group::prunedRptSourceIteratorAfter>,
     [](auto& g, auto& s) { g.prunedRptSourceIs(s); }, [](auto& g, auto& s) { g.prunedRptSourceDel(s); }},
}};

// "10.0.0.2 210", and a line "join 239.1.1.1 10.9.0.1" for each entry. The message is whole, or there is
// none: half a message applied is worse than one that is lost and comes again.
Vel::Ptr<Packet::JoinPruneMessage> decode(std::string const& packet) {
  std::istringstream lines(packet);
  std::string upstream, word, group, source;
  U16 holdTime;
  if (!(lines >> upstream >> holdTime)) return nullptr;
  auto const to = IpGenAddr::fromText(upstream);
  if (!to) return nullptr;

  auto const data = Vel::create<Packet::JoinPruneData>(*to);
  data->holdTimeIs(holdTime);
  while (lines >> word >> group >> source) {
    auto const g = IpGenAddr::fromText(group), s = IpGenAddr::fromText(source);
    auto const kind = std::ranges::find(kinds, word, [](Kind const& k) { return std::string_view(k.word); });
    if (!g || !s || kind == kinds.end()) return nullptr;
    kind->add(*data->joinPruneGroupDataIs(*g), *s);
  }
  auto const message = Vel::create<Packet::JoinPruneMessage>();
  message->joinPruneDataIs(data);
  return message;
}

// --- The packet manager --------------------------------------------------------------------------

// [sender]
// Serves a transmit record: each time the count is raised, one message, before `countInc` returns.
class Sender final : public IO::MessageInfo::Notifiee {
 public:
  Sender(char const* router, int socket) : router_(router), socket_(socket) {}

  void onCount() override {
    Vel::MemoryHold const memory(this);  // taking entries out calls others, which may drop this
    auto const message = notifier()->joinPruneMessage();
    auto const data = message->joinPruneData();

    // A router would also leave out what the filter denies and what is suppressed, count it as such, and keep
    // a (*,G) join together with its (S,G,rpt) prunes (RFC 7761, 4.9.5.2).
    std::vector<Entry> const entries = next(*data);
    Packet::JoinPruneMessage::Report report;
    if (!entries.empty() && transmit(*data, entries)) {
      report.sources = static_cast<U32>(entries.size());
      if (data->periodic())
        last_[data->upstreamNeighbor()] =
            entries.size() == most ? std::optional(entries.back()) : std::nullopt;
      else
        for (Entry const& entry : entries) takeOut(*data, entry);
    }
    message->reportIs(report);  // zero if nothing was sent, whatever the reason: the engine tries again later
  }

 private:
  static constexpr std::size_t most = 20;  // entries that surely fit into a packet

  struct Entry {
    IpGenAddr group;
    std::size_t kind;
    IpGenAddr source;
  };

  // The entries of the next message. Data that is sent once loses what was sent, so the next entries are at
  // its front. Periodic data stays: continue where the last message ended, by key, since the data may have
  // changed.
  std::vector<Entry> next(Packet::JoinPruneData& data) {
    std::vector<Entry> entries;
    if (data.periodic()) entries = from(data, last_[data.upstreamNeighbor()]);
    if (entries.empty()) entries = from(data, std::nullopt);  // the end of a round, or the rest was removed
    return entries;
  }

  std::vector<Entry> from(Packet::JoinPruneData& data, std::optional<Entry> const& last) {
    std::vector<Entry> entries;
    auto const addGroup = [&](Group const& group, std::size_t kind, std::optional<IpGenAddr> behind) {
      for (; kind < kinds.size(); ++kind, behind.reset())
        for (auto const& source : kinds[kind].list(group, behind, most - entries.size()))
          entries.push_back({group.group(), kind, source});
    };
    if (last)
      if (auto const group = data.joinPruneGroupData(last->group)) addGroup(*group, last->kind, last->source);
    auto group = last ? data.joinPruneGroupDataIteratorAfter(last->group) : data.joinPruneGroupDataIterator();
    for (; group && entries.size() < most; ++group) addGroup(*group, 0, std::nullopt);
    return entries;
  }

  bool transmit(Packet::JoinPruneData const& data, std::vector<Entry> const& entries) {
    std::ostringstream packet;
    packet << data.upstreamNeighbor() << ' ' << data.holdTime() << '\n';
    for (auto const& [group, kind, source] : entries)
      packet << kinds[kind].word << ' ' << group << ' ' << source << '\n';
    std::cout << router_ << " sends " << (data.periodic() ? "a refresh" : "a change") << ": " << packet.str();
    return send(socket_, packet.str().data(), packet.str().size(), 0) >= 0;
  }

  // Source by source. The engine is told of each removal, and removes a group that has become empty. So the
  // group of the next entry may be absent.
  static void takeOut(Packet::JoinPruneData& data, Entry const& entry) {
    if (auto const group = data.joinPruneGroupData(entry.group))
      kinds[entry.kind].remove(*group, entry.source);
  }

  char const* const router_;
  int const socket_;
  std::map<IpGenAddr, std::optional<Entry>> last_;  // of the periodic data, by upstream neighbor
};
// [sender]

// --- A router ------------------------------------------------------------------------------------

// [router]
class Router {
 public:
  Router(char const* name, int socket, Vel::Ptr<Zanth::TimerWheel> const& wheel) : socket_(socket) {
    status->periodicGroupStatusIs(Vel::create<Packet::JoinPruneStatus>());
    auto const manager = Vel::create<IO::PamManager>();
    auto const sender = Vel::create<Sender>(name, socket);
    sender->notifierIs(manager->txMessageInfoIs());  // the record is there before the first timer fires
    sender_ = sender;
    machine_ =
        joinPruneMessageSmFactory(status, joinPruneFilterFactory(), pim, Vel::create<RpHashComputeStatus>(),
                                  rxJoin, rxPrune, channel_, manager, wheel);
  }

  int socket() const { return socket_; }

  // The socket has a packet: hands it to the receive channel, and it is processed when `countInc` returns.
  void receive(Dova::IntfId const& intf) {
    std::array<char, 2048> buffer;
    ssize_t const size = recv(socket_, buffer.data(), buffer.size(), 0);
    if (size < 0) return;  // poll(2) may report a socket that has nothing
    auto const message = decode(std::string(buffer.data(), static_cast<std::size_t>(size)));
    if (!message) return;
    channel_->joinPruneMessageIs(message);
    channel_->intfIdIs(intf);
    channel_->countInc(1);
  }

  Vel::Ptr<Status> const pim = Vel::create<Status>();                 // filled from Hellos
  Vel::Ptr<JoinPruneStatus> const status = joinPruneStatusFactory();  // filled by the route state machines
  Vel::Ptr<JoinPruneMessageInfo> const rxJoin = joinPruneMessageInfoFactory(),
                                       rxPrune = joinPruneMessageInfoFactory();

 private:
  int const socket_;
  Vel::Ptr<IO::MessageInfo> const channel_ = Vel::create<IO::MessageInfo>();
  Vel::Ptr<Sender> sender_;
  Vel::Ptr<JoinPruneMessageSm> machine_;  // last, so it is destroyed first
};
// [router]

// What a route state machine does with received joins (RFC 7761, 4.5); this one prints and counts.
class Downstream final : public JoinPruneMessageInfo::NotifieeConst {
 public:
  U32 joins = 0;

 private:
  void onRxCount() override {
    ++joins;
    std::cout << "B has a join: " << notifier().get() << std::endl;
  }
};

// --- The loop ------------------------------------------------------------------------------------

// [seeds]
// Once in a process, before anything else: other hosts choose addresses and must not be able to choose ones
// that collide, and routers on one LAN must not draw the same override delays.
void seed() {
  U64 random;
  if (getrandom(&random, sizeof random, 0) != sizeof random)
    throw std::system_error(errno, std::generic_category());
  Vel::hashSeedIs(random);
  srand48(static_cast<long>(random));
}
// [seeds]

// [loop]
// One turn: sleeps until a packet or the next timer, receives the packets, and calls the timers that are due.
template <std::size_t count>
void turn(Zanth::TimerWheel& wheel, std::array<Router*, count> const& routers) {
  std::array<pollfd, count> fds;
  std::ranges::transform(routers, fds.begin(), [](Router* r) { return pollfd{r->socket(), POLLIN, 0}; });

  // Rounded up: a poll that ends too early would spin. At most a minute, since timeMin() is +infinity if no
  // timer is armed.
  double const milliseconds = std::ceil((wheel.timeMin() - wheel.now()) * 1000);
  if (poll(fds.data(), fds.size(), static_cast<int>(std::clamp(milliseconds, 0.0, 60'000.0))) < 0 &&
      errno != EINTR)
    throw std::system_error(errno, std::generic_category(), "poll");

  for (std::size_t i = 0; i < count; ++i)
    if (fds[i].revents != 0) routers[i]->receive(Dova::IntfId("eth0"));
  wheel.expire();
}
// [loop]

int main(int argc, char** argv) {
  seed();
  if (argc > 1) Scrivo::TraceFile::open(argv[1]);  // what the engine does, for `jpagent trace`
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sockets) != 0)
    throw std::system_error(errno, std::generic_category(), "socketpair");

  auto const wheel = Vel::create<Zanth::TimerWheel>();
  Router a("A", sockets[0], wheel), b("B", sockets[1], wheel);
  auto const downstream = Vel::create<Downstream>();
  downstream->notifierIs(b.rxJoin);

  // A's interface comes up with its address, and a Hello makes B a neighbor on it.
  auto const eth0 = Vel::create<Intf>(Dova::IntfId("eth0"));
  eth0->usedAddressWithMaskIs(Dova::IpGenPrefix(IpGenAddr("10.0.0.1"), 24));
  eth0->joinPruneIntervalIs(1);  // a minute is long for an example
  eth0->joinPruneHoldTimeIs(4);  // 3.5 times as long, in whole seconds
  a.pim->pimIntfIs(eth0);
  IpGenAddr const upstream("10.0.0.2");
  a.pim->pimNeighborIs(upstream, eth0);

  // The route state machine of (10.9.0.1,239.1.1.1) gets its first member: a join now, and from now on. The
  // group first, then the source; to leave, the source is removed from the periodic data and added to the
  // prunes of the triggered.
  IpGenAddr const group("239.1.1.1"), source("10.9.0.1");
  a.status->triggeredGroup(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);
  a.status->periodicGroupStatus()->upJoinPrune(upstream)->joinPruneGroupDataIs(group)->joinedSourceIs(source);

  while (downstream->joins < 2) turn(*wheel, std::array{&a, &b});  // a router never ends
  for (int const socket : sockets) close(socket);
  return 0;
}
