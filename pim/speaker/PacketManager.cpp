// SPDX-License-Identifier: Apache-2.0
#include "pim/speaker/PacketManager.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "pim/speaker/private/MessageComposer.h"

namespace Routing::Pim::Speaker {

using namespace Detail;

namespace {

constexpr std::size_t ipv4HeaderSize = 20, ipv6HeaderSize = 40;
constexpr std::size_t maxPayload = 65535 - ipv4HeaderSize;

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

// A message that is being made asks for heard joins no more: they may end with what stops this.
void PacketManager::stop() {
  heardJoins_ = nullptr;
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

  Vel::Ptr<JoinPruneStatus const> const dataSets = dataSets_;
  Composer composer({intf, filter_.get(), suppression_, envelope.room, &heardJoins_, dataSets.get()}, data);
  try {
    composer.compose(bookmark->position);
    if (!composer.message().groups().empty()) {
      if (!transmitter_) return {};  // the filter or the suppression has ended this
      std::vector<U8> bytes =
          Wire::encodeJoinPrune(composer.message(), envelope.source, envelope.destination);
      sink_.send({intf, envelope.source, envelope.destination, composer.takeMessage(), std::move(bytes),
                  composer.prunesLeftOut()});
    }
  } catch (std::exception const& error) {
    AGENT_TRACE(intf << " to " << data->upstreamNeighbor() << ": not sent: " << error.what());
    return {};
  } catch (...) {
    AGENT_TRACE(intf << " to " << data->upstreamNeighbor() << ": not sent");
    return {};
  }
  bookmark->position = composer.resume();
  prunesLeftOut_ += composer.prunesLeftOut();
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
