// A first-in first-out queue as an attribute: each element has a key of its own, counted from 1.
#pragma once

#include <cstdint>
#include <deque>
#include <utility>

#include "platform/vela/Entity.h"

namespace P4Runtime {

// Observers are told when the queue stops being empty, and of nothing else: consumers take elements
// out until none is left. Call with the activity lock held.
template <typename T>
class KeyedQueue final : public Vela::AttributeBase {
 public:
  KeyedQueue(Vela::Entity& owner, const char* name)
      : AttributeBase(owner, name, Access::readOnly) {}

  uint64_t enq(T value) {  // its key
    elements_.emplace_back(nextKey_, std::move(value));
    if (elements_.size() == 1) notify();
    return nextKey_++;
  }
  std::pair<uint64_t, T> deq() {  // not of an empty one
    auto first = std::move(elements_.front());
    elements_.pop_front();
    return first;
  }
  size_t size() const { return elements_.size(); }
  bool empty() const { return elements_.empty(); }

  EntryTexts entryTexts(size_t most) const override {
    EntryTexts texts;
    for (const auto& [key, value] : elements_) {
      if (texts.size() == most) break;
      texts.emplace_back(std::to_string(key), Vela::TextForm<T>::toText(value));
    }
    return texts;
  }
  const char* typeName() const override { return "queue"; }
  std::string text() const override { return std::to_string(size()) + " entries"; }
  void textIs(std::string_view text) override { refuse(text); }

 private:
  std::deque<std::pair<uint64_t, T>> elements_;
  uint64_t nextKey_ = 1;
};

}  // namespace P4Runtime
