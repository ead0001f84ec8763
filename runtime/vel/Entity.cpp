// SPDX-License-Identifier: Apache-2.0
#include "runtime/vel/Entity.h"

namespace Vel {

SnapshotIterator::SnapshotIterator(Entity const& entity) {
  Reactor* const first = entity.notifiees_;
  if (!first) return;
  U32 count = 0;
  Reactor* r = first;
  do count += r->isRegisteredNotifiee();
  while ((r = r->next_) != first);
  if (count > inlineCapacity) reactors_ = new Reactor*[count];
  for (; count_ < count; r = r->next_) {
    if (!r->isRegisteredNotifiee()) continue;
    r->newRef();
    reactors_[count_++] = r;
  }
}

SnapshotIterator::~SnapshotIterator() {
  while (*this) ++*this;
  if (reactors_ != inline_) delete[] reactors_;
}

void Delivery::takeSnapshot() {
  for (Reactor* r = at_;; r = r->next_) {
    if (r->isRegisteredNotifiee()) {
      r->newRef();
      snapshot_[count_++] = r;
    }
    if (r == last_) break;
  }
}

// Not inlined, so that the loop is short.
void Entity::velActIfListening(Act act, Reactor& reactor, void const* context) {
  if (reactor.velListens()) act(*this, reactor, context);
}

// Continues after the call of the snapshot's first reactor.
void Entity::velFinish(Act act, void const* context) {
  Delivery& delivery = *delivery_;
  delivery.snapshot_[0]->deleteRef();
  for (U32 i = 1; i < delivery.count_; ++i) {
    act(*this, *delivery.snapshot_[i], context);
    delivery.snapshot_[i]->deleteRef();
  }
  delivery_ = nullptr;
}

namespace {

// A part of a snapshot; the parts are chained from the first to the last.
struct SnapshotPart {
  static constexpr U32 capacity = 64;
  Reactor* reactors[capacity];
  U32 count = 0;
  SnapshotPart* following = nullptr;
};

// Each call has a part on its stack and makes the next call if there is more; the last one walks them all.
template <class Take, class Act>
void walkOnStack(Take const& take, Act const& act, SnapshotPart* first, SnapshotPart* last) {
  SnapshotPart part;
  SnapshotPart*& before = last ? last->following : first;
  before = &part;
  while (part.count < SnapshotPart::capacity) {
    Reactor* const reactor = take();
    if (!reactor) break;
    part.reactors[part.count++] = reactor;
  }
  if (part.count == SnapshotPart::capacity)
    walkOnStack(take, act, first, &part);
  else
    for (SnapshotPart const* p = first; p; p = p->following)
      for (U32 i = 0; i < p->count; ++i) act(*p->reactors[i]);
  before = nullptr;
}

}  // namespace

// Whatever has changed must be told: where there is no memory for the snapshot, it is taken on the stack.
void Entity::velForEachOfSnapshot(Act act, void const* context, Reactor* follower) {
  MemoryHold const memory(this);
  try {
    SnapshotIterator i(*this);
    if (follower) act(*this, *follower, context);
    for (; i; ++i) act(*this, *i, context);
  } catch (std::bad_alloc const&) {
    velForEachWithoutHeap(act, context, follower);
  }
}

void Entity::velForEachWithoutHeap(Act act, void const* context, Reactor* follower) {
  Reactor* next = notifiees_;
  auto const take = [this, &next]() -> Reactor* {
    while (next) {
      Reactor* const reactor = next;
      next = reactor->next_ == notifiees_ ? nullptr : reactor->next_;
      if (!reactor->isRegisteredNotifiee()) continue;
      reactor->newRef();
      return reactor;
    }
    return nullptr;
  };
  auto const call = [&](Reactor& reactor) {
    if (follower) act(*this, *std::exchange(follower, nullptr), context);
    act(*this, reactor, context);
    reactor.deleteRef();
  };
  walkOnStack(take, call, nullptr, nullptr);
}

// doDetach() has normally been called; a constructor that threw has not come so far.
Entity::~Entity() { Entity::doDetach(); }

void Entity::doDetach() noexcept {
  while (Reactor* const reactor = notifiees_) {
    reactor->unlink();
    reactor->notifier_ = nullptr;
  }
}

void Entity::zeroReferencesIs(bool zero) {
  if (zero) velDeliver<Reactor, zeroReferencesId>([](Reactor& reactor) { reactor.onZeroReferences(); });
}

bool FollowedEntity::velFollowerIs(Ptr<Reactor> const& follower) {
  bool const isFollowed = velFollower_ && (velFollower_->flagsAndHolds_ & Reactor::follows) != 0;
  if (follower && isFollowed) return velFollower_ == follower;
  if (follower) follower->flagsAndHolds_ |= Reactor::follows;
  velFollower_ = follower;
  return true;
}

AttributeTable const& Entity::attributeTable() const {
  static AttributeTable const none;
  return none;
}

namespace {

AttributeRow const& findRow(Entity const& entity, std::string_view name) {
  for (AttributeRow const& row : entity.attributeTable())
    if (row.name == name) return row;
  throw RangeException(entity.fwkType() + " has no attribute \"" + std::string(name) + "\"");
}

}  // namespace

std::string Entity::attribute(std::string_view name) const { return findRow(*this, name).text(*this); }

void Entity::attributeIs(std::string_view name, std::string_view text) {
  AttributeRow const& row = findRow(*this, name);
  if (!row.textIs)
    throw RangeException("attribute \"" + std::string(name) + "\" of " + fwkType() + " cannot be set");
  if (!row.textIs(*this, text))
    throw RangeException("\"" + std::string(text) + "\" does not fit attribute \"" + std::string(name) +
                         "\" of " + fwkType());
}

}  // namespace Vel
