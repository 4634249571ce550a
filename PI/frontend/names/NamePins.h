// The names that an update uses, held from its check until it is through.
#pragma once

#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "PI/frontend/names/Dictionary.h"

namespace pi::fe::proto {

// One thread at a time. The dictionaries outlive it.
class NamePins {
 public:
  struct Pin {
    Dictionary* type = nullptr;
    uint32_t number = 0;
    bool isNew = false;  // the target may not have the pair
  };

  NamePins() = default;
  NamePins(NamePins&& other) noexcept = default;
  NamePins& operator=(NamePins&& other) noexcept {
    std::swap(pins_, other.pins_);
    return *this;
  }
  ~NamePins() { releaseAll(); }

  // Takes over one hold of the number.
  void add(Dictionary& type, const Dictionary::Held& held) {
    if (!pins_) pins_ = std::make_unique<std::vector<Pin>>();
    pins_->push_back({&type, held.number, held.isNew});
  }
  void releaseAll() {
    if (!pins_) return;
    const auto pins = std::exchange(pins_, nullptr);
    for (const Pin& pin : *pins) pin.type->release(pin.number);
  }
  std::span<const Pin> all() const {
    return pins_ ? std::span<const Pin>(*pins_) : std::span<const Pin>();
  }

 private:
  std::unique_ptr<std::vector<Pin>> pins_;  // null: none; most updates have no names
};

// What to do about a name in a message.
struct Naming {
  NamePins* pins = nullptr;   // holds the name; null: it is only looked up
  bool givesNumbers = false;  // to a name without one
};

}  // namespace pi::fe::proto
