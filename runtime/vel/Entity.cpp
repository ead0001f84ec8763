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

// doDetach() has normally been called; a constructor that threw has not come so far.
Entity::~Entity() { Entity::doDetach(); }

void Entity::doDetach() noexcept {
  while (Reactor* const reactor = notifiees_) {
    reactor->unlink();
    reactor->notifier_ = nullptr;
  }
}

void Entity::zeroReferencesIs(bool zero) {
  if (zero) velDeliver<Reactor>(zeroReferencesId, [](Reactor& reactor) { reactor.onZeroReferences(); });
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
