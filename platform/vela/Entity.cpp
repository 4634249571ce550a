// Observers and the generic attribute interface.
#include "platform/vela/Entity.h"

#include <algorithm>

namespace Vela {

struct Observation::Slot {
  ObserverList::Callback changed;  // empty once the observation has ended
};

Observation& Observation::operator=(Observation&& other) noexcept {
  if (this != &other) {
    end();
    slot_ = std::move(other.slot_);
  }
  return *this;
}

Observation::~Observation() { end(); }

void Observation::end() {
  if (slot_) slot_->changed = nullptr;
  slot_.reset();
}

Observation ObserverList::observe(Callback changed) {
  // Slots of observers that have gone must not pile up while nothing changes.
  std::erase_if(slots_, [](const auto& slot) { return !slot->changed; });
  auto slot = std::make_shared<Observation::Slot>();
  slot->changed = std::move(changed);
  slots_.push_back(slot);
  return Observation(std::move(slot));
}

void ObserverList::notify(const std::string& key) {
  const auto told = slots_;  // observers that come during this notice wait for the next one
  for (const auto& slot : told) {
    if (!slot->changed) continue;
    const Callback changed = slot->changed;  // survives an observer that ends itself
    changed(key);
  }
  std::erase_if(slots_, [](const auto& slot) { return !slot->changed; });
}

AttributeBase::AttributeBase(Entity& owner, const char* name, Access access)
    : owner_(owner), name_(name), access_(access) {
  owner.attributes_.push_back(this);
}

void AttributeBase::notify(const std::string& key) {
  if (!observed()) return;
  // An observer may drop the last reference. Without any, the owner is under construction or no
  // shared object, and a Ptr would delete it.
  const Ptr<Entity> alive(owner_.references() > 0 ? &owner_ : nullptr);
  observers_.notify(key);
  if (!owner_.observers_.empty()) owner_.observers_.notify(name_);
}

AttributeBase::EntryTexts AttributeBase::entryTexts(size_t) const { return {}; }

bool AttributeBase::observed() const { return !observers_.empty() || !owner_.observers_.empty(); }

void AttributeBase::refuse(std::string_view text) const {
  if (access_ == Access::readOnly) {
    throw BadValue(std::string("attribute ") + name_ + " of " + owner_.name() +
                   " is read-only; it cannot be set from outside");
  }
  throw BadValue(std::string("attribute ") + name_ + " of " + owner_.name() + " takes a " +
                 typeName() + ", not '" + std::string(text) + "'");
}

AttributeBase* Entity::attribute(std::string_view name) const {
  const auto found = std::find_if(attributes_.begin(), attributes_.end(),
                                  [&](const AttributeBase* a) { return name == a->name(); });
  return found == attributes_.end() ? nullptr : *found;
}

AttributeBase* Entity::attribute(size_t number) const {
  return number < attributes_.size() ? attributes_[number] : nullptr;
}

const Operation* Entity::operation(std::string_view name) const {
  const auto found = std::find_if(operations_.begin(), operations_.end(),
                                  [&](const Operation& o) { return name == o.name; });
  return found == operations_.end() ? nullptr : &*found;
}

}  // namespace Vela
