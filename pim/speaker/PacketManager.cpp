#include "pim/speaker/PacketManager.h"

#include <algorithm>
#include <array>
#include <exception>
#include <optional>
#include <set>
#include <utility>

#include "pim/model/packet/GroupEntries.h"
#include "pim/model/packet/private/GroupWalk.h"
#include "runtime/vel/Trace.h"

namespace Routing::Pim::Speaker {

namespace {

using Data = Packet::JoinPruneData;
using GroupData = Packet::JoinPruneGroupData;
using GroupTable = EngineAccess<Data>::GroupTable;
using MessageReport = Packet::JoinPruneMessage::Report;

Vel::TraceHandle& agentTrace() {
  static Vel::TraceHandle& handle = Vel::TraceHandle::find("Pim::Agent");
  return handle;
}

#define AGENT_TRACE(pieces) VEL_TRACE(agentTrace(), Vel::TraceLevel::event, "PacketManager", __func__, pieces)

constexpr std::size_t ipv4HeaderSize = 20, ipv6HeaderSize = 40;
constexpr std::size_t maxPayload = 65535 - ipv4HeaderSize;

// RFC 7761, 4.9.1: an encoded group or source has four bytes beside its address; a group set has two counts
// of two bytes behind its group.
std::size_t sourceSize(AddressFamily family) { return 4 + IpGenAddr::zero(family).width() / 8u; }
std::size_t groupSize(AddressFamily family) { return sourceSize(family) + 4; }

// A group's entries in the order in which they go into messages: the (*,G) entry, join or prune, and then the
// sources. The (S,G,rpt) prunes come next to the (*,G) join that takes them along, so that a walk that is
// resumed behind both meets neither again.
constexpr std::array<EntryKind, 5> stages = {EntryKind::wildcardJoin, EntryKind::sourceRptPrune,
                                             EntryKind::sourceJoin, EntryKind::sourceRptJoin,
                                             EntryKind::sourcePrune};
constexpr U8 wildcardStage = 0, rptPruneStage = 1;

// Where a message ended: in a group, in a stage, behind a source (at the stage's beginning without one). The
// keys need not be there any more.
struct Position {
  IpGenAddr group;
  U8 stage = wildcardStage;
  std::optional<IpGenAddr> after;
};

// What a message is made with, and for whom.
struct Setting {
  Dova::IntfId const& intf;
  JoinPruneFilter const* filter;
  Suppression const& suppression;
  std::size_t room;  // Bytes that the PIM message may have.
};

// Makes one message. Changes nothing: what is to be taken out of the data afterwards is noted.
class Composer {
 public:
  Composer(Setting const& setting, Vel::Ptr<Data> const& data)
      : setting_(setting),
        data_(data),
        keepsData_(data->periodic()),
        isPlain_(keepsData_ && !setting.filter && !setting.suppression),
        message_(data->upstreamNeighbor(), data->holdTime()),
        family_(message_.family()),
        groupSize_(groupSize(family_)),
        sourceSize_(sourceSize(family_)),
        capacity_((setting.room - message_.encodedSize() - groupSize_) / sourceSize_ - 1),
        used_(message_.encodedSize()) {
    constexpr std::size_t likely = 256;  // more memory is taken when it is needed
    message_.reserve(std::min(likely, capacity_ + 1), std::min(likely, capacity_ + 1));
  }

  // Goes on from a position, or from the front.
  void compose(std::optional<Position> const& from) {
    if (from) {
      Vel::Ptr<GroupData> const group = data_->joinPruneGroupData(from->group);
      if (group && !addGroup(group, *from)) return;
      if (!addGroups(behind(from->group))) return;
      // From here on a walk over the front would be another round, except if this one has been over nothing.
      if (report_.sources != 0 || report_.skipped() != 0) return;
    }
    addGroups(groups().first());
  }

  Wire::JoinPrune const& message() const { return message_; }
  // What is left of it names the upstream neighbor and nothing else.
  Wire::JoinPrune takeMessage() { return std::move(message_); }
  MessageReport const& report() const { return report_; }
  // Where the next message goes on; the front if there is none.
  std::optional<Position> const& resume() const { return resume_; }

  // Takes what was sent, filtered and suppressed out of data that is sent once. Each removal calls out.
  void takeOut() {
    for (Leaving const& leaving : leaving_) {
      GroupData& group = *leaving.group;
      // A record that has been replaced meanwhile is another entry.
      if (leaving.wildcard && group.wcSourceData() == leaving.wildcard) group.wcSourceDataDel();
      for (auto const& [kind, source] : leaving.sources) Packet::removeEntry(group, kind, source);
      if (group.empty() && data_->joinPruneGroupData(group.group()) == leaving.group)
        data_->joinPruneGroupDataDel(group.group());
    }
  }

 private:
  struct Leaving {
    Vel::Ptr<GroupData> group;
    Vel::Ptr<Packet::WcSourceData> wildcard;
    std::vector<std::pair<EntryKind, IpGenAddr>> sources;
  };

  GroupTable const& groups() const { return EngineAccess<Data>::groups(*data_); }

  // These say whether the message goes on. If it does not, resume_ is set.

  // From a place in the table on.
  bool addGroups(GroupTable::Place place) {
    GroupTable const& groups = this->groups();
    Packet::GroupWalk walk(*data_, place);
    while (walk) {
      if (addPlainGroup(*walk)) {
        ++walk;
        continue;
      }
      U32 const epoch = groups.epoch();
      Position front;
      front.group = walk->group();
      if (!addGroup(&*walk, front)) return false;
      if (groups.epoch() == epoch)
        ++walk;
      else
        walk = Packet::GroupWalk(*data_, behind(front.group));
    }
    return true;
  }

  GroupTable::Place behind(IpGenAddr const& group) const { return groups().after(group); }

  // The bulk of a refresh: a group of (S,G) joins that all go, where nobody has a say in it. Nothing is
  // called, so nothing needs to be held. What is in any way special is left to addGroup().
  bool addPlainGroup(GroupData const& group) {
    if (!isPlain_ || passedOver_ >= PacketManager::maxPassedOver) return false;
    auto const* const joins = EngineAccess<GroupData>::joinsAlone(group);
    if (!joins) return false;
    std::size_t const size = groupSize_ + joins->size() * sourceSize_;
    if (used_ + size > setting_.room || !message_.joinsAdd(group.group(), *joins)) return false;
    used_ += size;
    report_.sources += joins->size();
    return true;
  }

  bool addGroup(Vel::Ptr<GroupData> group, Position const& from) {
    if (passedOver_ >= PacketManager::maxPassedOver) {
      resume_ = from;
      return false;
    }
    group_ = std::move(group);
    groupFault_ = Wire::groupFault(group_->group(), family_);
    denied_.reset();
    opened_ = leavingOpened_ = false;
    if (!taken_.empty()) taken_.clear();
    here_ = from;
    // Data that is sent once no longer has the prunes that went before a (*,G) join was added. The others
    // must go with it, not ahead of it: the receiver forgets at the join what is not beside it.
    if (!keepsData_ && here_.stage == rptPruneStage && joinsWildcard()) {
      here_.stage = wildcardStage;
      here_.after.reset();
    }
    if (group_->empty()) ++passedOver_;
    for (; here_.stage != stages.size(); ++here_.stage, here_.after.reset()) {
      if (!addStage()) {
        resume_ = here_;
        return false;
      }
    }
    return true;
  }

  bool addStage() {
    return Packet::byEntryKind(
        stages[here_.stage],
        [this](auto sources) { return sources.count(*group_) == 0 || addSources(sources); },
        [this] { return addWildcard(); });
  }

  // The sources of a stage: from its front, or behind a source.
  template <class Sources>
  bool addSources(Sources const& sources) {
    GroupData const& group = *group_;
    EntryKind const kind = sources.kind;
    for (auto source = here_.after ? sources.iteratorAfter(group, *here_.after) : sources.iterator(group);
         source; ++source) {
      if (passedOver_ >= PacketManager::maxPassedOver) return false;
      IpGenAddr const& address = source.key();
      if (!passOver(kind, address)) {
        if (!fits(1)) return false;
        if (suppressed(RouteKey(address, here_.group), kind)) {
          passOverSuppressed();
          leave(kind, address);
        } else {
          take(kind, address);
        }
      }
      here_.after = address;
    }
    return true;
  }

  bool addWildcard() {
    Vel::Ptr<Packet::WcSourceData> const wildcard = group_->wcSourceData();
    if (!wildcard) return true;
    if (passedOver_ >= PacketManager::maxPassedOver) return false;
    RouteKey const route(IpGenAddr::zero(family_), here_.group);
    EntryKind const kind = kindOf(*wildcard);
    if (denied()) {
      passOverFiltered();
      leaveWildcard(wildcard);
      return true;
    }
    if (auto const fault = faultOf(wildcard->address())) {
      passOverFaulty(route, kind, *fault);
      return true;
    }
    // A join and its prunes go into the next message rather than being parted. An empty one has room for as
    // many as are asked for.
    if (!fits(1 + (wildcard->join() ? prunesAlong() : 0))) return false;
    if (suppressed(route, kind)) {
      passOverSuppressed();
      leaveWildcard(wildcard);
      return true;  // The prunes go for themselves.
    }
    openGroup();
    message_.entryAdd(kind, wildcard->address());
    count();
    leaveWildcard(wildcard);
    if (wildcard->join()) takePrunesAlong();
    return true;
  }

  // Whether the group has a (*,G) join that can be sent. One that cannot takes no prunes along: a walk that
  // went back to it would never come to the end of very many of them.
  bool joinsWildcard() const {
    Vel::Ptr<Packet::WcSourceData> const wildcard = group_->wcSourceData();
    return wildcard && wildcard->join() && !faultOf(wildcard->address());
  }

  // How many prunes a (*,G) join of this group has beside it. Counted no further than a message can hold.
  std::size_t prunesAlong() const {
    std::size_t prunes = 0;
    for (auto i = group_->prunedRptSourceIterator(); i && prunes <= capacity_; ++i) {
      if (!faultOf(i.key()) && !waits(EntryKind::sourceRptPrune, i.key())) ++prunes;
    }
    return std::min(prunes, capacity_);
  }

  void takePrunesAlong() {
    U32 leftOut = 0;
    for (auto i = group_->prunedRptSourceIterator(); i; ++i) {
      IpGenAddr const source = i.key();
      if (passOver(EntryKind::sourceRptPrune, source)) continue;
      if (leftOut == 0 && fits(1)) {
        take(EntryKind::sourceRptPrune, source);
      } else {
        ++leftOut;
        passOverSuppressed();
        leave(EntryKind::sourceRptPrune, source);
      }
    }
    if (leftOut != 0) {
      AGENT_TRACE(*this << "no room beside the (*,G) join of " << here_.group << " for " << leftOut
                        << " (S,G,rpt) prunes, left out");
    }
    here_.stage = rptPruneStage;  // Done, too.
  }

  // Whether an entry cannot or must not go into this message, whatever room there is; counts it then.
  bool passOver(EntryKind kind, IpGenAddr const& source) {
    if (denied()) {
      passOverFiltered();
      leave(kind, source);
      return true;
    }
    if (auto const fault = faultOf(source)) {
      passOverFaulty(RouteKey(source, here_.group), kind, *fault);
      return true;
    }
    if (waits(kind, source)) {
      ++passedOver_;
      if (keepsData_) ++report_.suppressedSources;
      AGENT_TRACE(*this << RouteKey(source, here_.group) << ' ' << text(kind)
                        << " waits for the join of the same");
      return true;
    }
    if (taken_.contains({joinOf(kind), source})) {
      ++passedOver_;
      if (keepsData_) ++report_.suppressedSources;
      AGENT_TRACE(*this << RouteKey(source, here_.group) << ' ' << routeText(kind)
                        << " changed while the message was made, goes later");
      return true;
    }
    return false;
  }

  std::optional<Wire::Reason> faultOf(IpGenAddr const& source) const {
    return groupFault_ ? groupFault_ : Wire::sourceFault(source, family_);
  }

  bool waits(EntryKind kind, IpGenAddr const& source) const {
    return !isJoin(kind) && Packet::hasEntry(*group_, joinOf(kind), source);
  }

  // Asked once for a group in a message, and only if there is something to deny.
  bool denied() {
    if (!denied_) denied_ = setting_.filter && setting_.filter->deny(here_.group);
    return *denied_;
  }

  bool suppressed(RouteKey const& route, EntryKind kind) const {
    return setting_.suppression &&
           setting_.suppression(setting_.intf, message_.upstreamNeighbor(), route, kind);
  }

  void passOverFaulty(RouteKey const& route, EntryKind kind, Wire::Reason fault) {
    ++passedOver_;
    if (keepsData_) ++report_.filteredSources;
    AGENT_TRACE(*this << route << ' ' << text(kind) << " cannot be encoded: " << text(fault));
  }
  void passOverFiltered() {
    ++passedOver_;
    ++report_.filteredSources;
  }
  void passOverSuppressed() {
    ++passedOver_;
    ++report_.suppressedSources;
  }

  bool fits(std::size_t entries) const {
    if (opened_) return used_ + entries * sourceSize_ <= setting_.room;
    return message_.groups().size() < Wire::JoinPrune::maxGroups &&
           used_ + groupSize_ + entries * sourceSize_ <= setting_.room;
  }

  void take(EntryKind kind, IpGenAddr const& source) {
    openGroup();
    message_.entryAdd(kind, source);
    if (setting_.suppression) taken_.emplace(joinOf(kind), source);
    count();
    leave(kind, source);
  }

  void openGroup() {
    if (std::exchange(opened_, true)) return;
    message_.groupAdd(here_.group);
    used_ += groupSize_;
  }

  void count() {
    used_ += sourceSize_;
    ++report_.sources;
  }

  Leaving& leaving() {
    if (!std::exchange(leavingOpened_, true)) leaving_.push_back({group_, nullptr, {}});
    return leaving_.back();
  }
  void leave(EntryKind kind, IpGenAddr const& source) {
    if (!keepsData_) leaving().sources.emplace_back(kind, source);
  }
  void leaveWildcard(Vel::Ptr<Packet::WcSourceData> const& wildcard) {
    if (!keepsData_) leaving().wildcard = wildcard;
  }

  // What trace lines begin with.
  friend std::ostream& operator<<(std::ostream& os, Composer const& composer) {
    return os << composer.setting_.intf << " to " << composer.message_.upstreamNeighbor() << ": ";
  }

  // Fixed at construction.
  Setting const setting_;
  Vel::Ptr<Data> const data_;
  bool const keepsData_;
  bool const isPlain_;  // Nobody is asked about an entry, and none is taken out of the data.

  // The message so far.
  Wire::JoinPrune message_;
  AddressFamily const family_;
  std::size_t const groupSize_, sourceSize_;
  std::size_t const capacity_;  // Entries beside the first of a message with one group.
  std::size_t used_;
  MessageReport report_;
  std::vector<Leaving> leaving_;
  U32 passedOver_ = 0;
  std::optional<Position> resume_;

  // The group that the walk is in.
  Vel::Ptr<GroupData> group_;
  std::optional<Wire::Reason> groupFault_;
  std::optional<bool> denied_;
  bool opened_ = false;         // It has a set in the message.
  bool leavingOpened_ = false;  // It has an element in leaving_.
  // What of it is in the message, by the kind of the join: the hook, asked about one entry, may turn another
  // into its opposite.
  std::set<std::pair<EntryKind, IpGenAddr>> taken_;
  Position here_;
};

}  // namespace

class PacketManager::Transmitter final : public IO::MessageInfo::Notifiee {
 public:
  explicit Transmitter(PacketManager* manager) : manager_(manager) {}

  void onCount() override {
    Vel::Ptr<IO::MessageInfo> const record = notifier();
    if (manager_ && record) manager_->transmit(*record);
  }

  void retire() {
    manager_ = nullptr;
    notifierIs(nullptr);
  }

 private:
  PacketManager* manager_;  // Null once this is retired.
};

// Where the last message from a data set ended. Does not keep the data alive.
class PacketManager::Bookmark final : public Data::NotifieeConst {
 public:
  Bookmark(PacketManager* manager, Vel::Ptr<Data> const& data) : manager_(manager) {
    isNondestructingIs(true);
    notifierIs(data);
  }

  void onZeroReferences() override {
    Vel::MemoryHold const memory(this);
    PacketManager* const manager = manager_;
    Data const* const data = notifier().get();
    retire();
    if (manager) manager->bookmarks_.erase(data);
  }

  void retire() {
    manager_ = nullptr;
    notifierIs(nullptr);
  }

  std::optional<Position> position;  // The front if there is none.
  bool sending = false;

 private:
  PacketManager* manager_;  // Null once this is retired.
};

// The outside of a message.
struct PacketManager::Envelope {
  IpGenAddr source, destination;
  std::size_t room = 0;  // Bytes for the PIM message.
};

PacketManager::PacketManager(PacketSink& sink, Vel::Ptr<Status const> const& status,
                             Vel::Ptr<JoinPruneFilter const> const& filter, Suppression suppression)
    : sink_(sink), status_(status), filter_(filter), suppression_(std::move(suppression)) {}

PacketManager::~PacketManager() = default;

void PacketManager::doTeardown() {
  stop();
  for (auto const& [data, bookmark] : std::exchange(bookmarks_, {})) bookmark->retire();
  IO::PamManager::doTeardown();
}

void PacketManager::start() {
  Vel::MemoryHold const memory(this);
  if (!transmitter_) transmitter_ = Vel::create<Transmitter>(this);
  Vel::Ptr<Transmitter> const transmitter = transmitter_;
  Vel::Ptr<IO::MessageInfo> const record = txMessageInfoIs();  // calls out, and may be told to stop
  if (transmitter == transmitter_) transmitter->notifierIs(record);
}

void PacketManager::stop() {
  if (Vel::Ptr<Transmitter> const transmitter = std::exchange(transmitter_, nullptr)) transmitter->retire();
}

U32 PacketManager::mtu(Dova::IntfId const& intf) const {
  auto const found = mtus_.find(intf);
  return found == mtus_.end() ? defaultMtu : found->second;
}

void PacketManager::transmit(IO::MessageInfo& record) {
  Vel::MemoryHold const memory(this);
  Dova::IntfId const intf = record.intfId();
  Vel::Ptr<Packet::JoinPruneMessage> const message = record.joinPruneMessage();
  if (!message) {
    AGENT_TRACE(intf << ": no message in the transmit record");
    return;
  }
  Vel::Ptr<Data> const data = message->joinPruneData();
  message->reportIs({});
  if (!transmitter_) return;  // somebody who was told of the report has ended this
  if (!data) {
    AGENT_TRACE(intf << ": no data in the message");
    return;
  }
  message->reportIs(send(intf, data));
}

MessageReport PacketManager::send(Dova::IntfId const& intf, Vel::Ptr<Data> const& data) {
  Envelope envelope;
  if (auto const why = findEnvelope(intf, data->upstreamNeighbor(), envelope); !why.empty()) {
    AGENT_TRACE(intf << " to " << data->upstreamNeighbor() << ": not sent: " << why);
    return {};
  }
  Vel::Ptr<Bookmark> const bookmark = bookmarkIs(data);
  if (bookmark->sending) {
    AGENT_TRACE(intf << " to " << data->upstreamNeighbor() << ": not sent from within its own sending");
    return {};
  }
  struct Sending {
    explicit Sending(bool& flag) : flag_(flag) { flag_ = true; }
    ~Sending() { flag_ = false; }
    bool& flag_;
  } const sending(bookmark->sending);

  Composer composer({intf, filter_.get(), suppression_, envelope.room}, data);
  try {
    composer.compose(bookmark->position);
    if (!composer.message().groups().empty()) {
      if (!transmitter_) return {};  // the filter or the suppression has ended this
      std::vector<U8> bytes =
          Wire::encodeJoinPrune(composer.message(), envelope.source, envelope.destination);
      sink_.send({intf, envelope.source, envelope.destination, composer.takeMessage(), std::move(bytes)});
    }
  } catch (std::exception const& error) {
    AGENT_TRACE(intf << " to " << data->upstreamNeighbor() << ": not sent: " << error.what());
    return {};
  } catch (...) {
    AGENT_TRACE(intf << " to " << data->upstreamNeighbor() << ": not sent");
    return {};
  }
  bookmark->position = composer.resume();
  composer.takeOut();
  return composer.report();
}

// Empty, or why there can be no message.
std::string_view PacketManager::findEnvelope(Dova::IntfId const& intfId, IpGenAddr const& upstream,
                                             Envelope& envelope) const {
  Vel::Ptr<Intf const> const intf = status_ ? status_->pimIntf(intfId) : nullptr;
  if (!intf) return "no such interface";
  envelope.source = intf->usedAddressWithMask().ipGenAddr();
  if (envelope.source.isZero()) return "the interface has no address";
  if (upstream.isZero()) return "the upstream neighbor has no address";
  if (auto const fault = Wire::upstreamFault(upstream)) return text(*fault);
  if (upstream.af() != envelope.source.af()) return "the interface's address is of another family";
  envelope.destination = Wire::allPimRouters(upstream.af());

  std::size_t const header = upstream.isIpv4() ? ipv4HeaderSize : ipv6HeaderSize;
  std::size_t const smallest =
      Wire::JoinPrune(upstream, 0).encodedSize() + groupSize(upstream.af()) + sourceSize(upstream.af());
  if (mtu(intfId) < header + smallest) return "the MTU has no room for one entry";
  envelope.room = std::min(mtu(intfId) - header, maxPayload);
  return {};
}

Vel::Ptr<PacketManager::Bookmark> PacketManager::bookmarkIs(Vel::Ptr<Data> const& data) {
  Vel::Ptr<Bookmark>& bookmark = bookmarks_[data.get()];
  if (!bookmark) bookmark = Vel::create<Bookmark>(this, data);
  return bookmark;
}

}  // namespace Routing::Pim::Speaker
