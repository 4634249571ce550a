// Entities: objects whose attributes and operations are described once, in declaration order. The
// description serves observers, text forms and the generic interface that `korvel get`, `set` and
// `call` reach. Everything here runs with the activity lock held.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/vela/Ptr.h"
#include "platform/vela/Text.h"

namespace Vela {

class Entity;

// Keeps an observer registered; the observer is gone when this dies. May outlive the observed
// object.
class Observation {
 public:
  Observation() = default;
  Observation(Observation&&) noexcept = default;
  Observation& operator=(Observation&&) noexcept;
  ~Observation();
  void end();

 private:
  friend class ObserverList;
  struct Slot;
  explicit Observation(std::shared_ptr<Slot> slot) : slot_(std::move(slot)) {}
  std::shared_ptr<Slot> slot_;
};

// The observers of a change. A notice may add observers (told from the next change on) and remove
// them (not told any more, this notice included).
class ObserverList {
 public:
  // `changed` gets the text form of the key for a keyed collection, and an empty text otherwise.
  using Callback = std::function<void(const std::string& key)>;
  [[nodiscard]] Observation observe(Callback changed);
  void notify(const std::string& key = {});
  bool empty() const { return slots_.empty(); }

 private:
  std::vector<std::shared_ptr<Observation::Slot>> slots_;
};

// A value that text could not be turned into; the message names attribute, type and text.
class BadValue : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The part of an attribute that does not depend on its type.
class AttributeBase {
 public:
  enum class Access { readWrite, readOnly };  // of the generic interface; code may always write

  AttributeBase(Entity& owner, const char* name, Access access);
  virtual ~AttributeBase() = default;
  AttributeBase(const AttributeBase&) = delete;
  AttributeBase& operator=(const AttributeBase&) = delete;

  const char* name() const { return name_; }
  Access access() const { return access_; }
  virtual const char* typeName() const = 0;
  virtual std::string text() const = 0;
  // Keys and values of a collection as text, by key; at most `most` of them.
  using EntryTexts = std::vector<std::pair<std::string, std::string>>;
  virtual EntryTexts entryTexts(size_t most) const;
  // Throws BadValue when the attribute is read-only or the text is no value of its type.
  virtual void textIs(std::string_view text) = 0;

  // Const: a reader may observe, too.
  [[nodiscard]] Observation observe(std::function<void()> changed) const {
    return observers_.observe([changed = std::move(changed)](const std::string&) { changed(); });
  }
  [[nodiscard]] Observation observeKeys(ObserverList::Callback changed) const {
    return observers_.observe(std::move(changed));
  }

 protected:
  void notify(const std::string& key = {});
  bool observed() const;
  [[noreturn]] void refuse(std::string_view text) const;

 private:
  Entity& owner_;
  const char* name_;
  Access access_;
  mutable ObserverList observers_;
};

// Stores first, then tells; an equal value wakes nobody.
template <typename T>
class Attribute final : public AttributeBase {
 public:
  Attribute(Entity& owner, const char* name, Access access, T initial)
      : AttributeBase(owner, name, access), value_(std::move(initial)) {}

  const T& value() const { return value_; }
  void valueIs(T value) {
    if (value == value_) return;
    value_ = std::move(value);
    notify();
  }

  const char* typeName() const override { return TextForm<T>::typeName(); }
  std::string text() const override { return TextForm<T>::toText(value_); }
  void textIs(std::string_view text) override {
    std::optional<T> parsed = TextForm<T>::fromText(text);
    if (access() == Access::readOnly || !parsed) refuse(text);
    valueIs(std::move(*parsed));
  }

 private:
  T value_;
};

// Keyed attribute. Reading an absent key gives a default value.
template <typename K, typename V, typename Map = std::unordered_map<K, V>>
class Collection final : public AttributeBase {
 public:
  Collection(Entity& owner, const char* name) : AttributeBase(owner, name, Access::readOnly) {}

  const V& value(const K& key) const {
    static const V absent{};
    const auto found = map_.find(key);
    return found == map_.end() ? absent : found->second;
  }
  bool has(const K& key) const { return map_.count(key) > 0; }
  void valueIs(const K& key, V value) {
    const auto [slot, fresh] = map_.try_emplace(key);
    if constexpr (std::equality_comparable<V>) {
      if (!fresh && slot->second == value) return;
    }
    slot->second = std::move(value);
    tell(key);
  }
  V valueDel(const K& key) {
    const auto found = map_.find(key);
    if (found == map_.end()) return V{};
    auto node = map_.extract(found);  // keeps the key: `key` may lie within the map
    tell(node.key());
    return std::move(node.mapped());
  }
  // Observers find all of them gone, and may add new ones.
  void valueDelAll() {
    const Map removed = std::exchange(map_, Map());
    for (const auto& [key, value] : removed) tell(key);
  }
  const Map& values() const { return map_; }

  EntryTexts entryTexts(size_t most) const override {
    EntryTexts texts;
    for (const auto& [key, value] : map_) {
      if (texts.size() == most) break;
      texts.emplace_back(TextForm<K>::toText(key), TextForm<V>::toText(value));
    }
    std::sort(texts.begin(), texts.end());
    return texts;
  }
  const char* typeName() const override { return "collection"; }
  std::string text() const override { return std::to_string(map_.size()) + " entries"; }
  void textIs(std::string_view text) override { refuse(text); }

 private:
  void tell(const K& key) {
    if (observed()) notify(TextForm<K>::toText(key));
  }
  Map map_;
};

// An operation that outsiders may call by name. Arguments and result are texts; throws BadValue for
// arguments it cannot use.
struct Operation {
  std::string name;
  std::vector<std::string> argumentNames;
  std::function<std::string(const std::vector<std::string>& arguments)> run;
};

class Entity : public RefCounted {
 public:
  explicit Entity(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }
  virtual const char* typeName() const = 0;

  // In declaration order, numbered from 0.
  const std::vector<AttributeBase*>& attributes() const { return attributes_; }
  AttributeBase* attribute(std::string_view name) const;  // null when absent
  AttributeBase* attribute(size_t number) const;
  const std::vector<Operation>& operations() const { return operations_; }
  const Operation* operation(std::string_view name) const;

  // Told of every attribute, after the attribute's own observers; the key is the attribute's name.
  [[nodiscard]] Observation observeAll(ObserverList::Callback changed) const {
    return observers_.observe(std::move(changed));
  }

 protected:
  void operationIs(Operation operation) { operations_.push_back(std::move(operation)); }

 private:
  friend class AttributeBase;
  std::string name_;
  std::vector<AttributeBase*> attributes_;
  std::vector<Operation> operations_;
  mutable ObserverList observers_;
};

}  // namespace Vela

// One line an attribute, inside a class that derives from Entity:
//   VELA_ATTRIBUTE(uint32_t, deviceId, 0)
// gives deviceId(), deviceIdIs(value) and deviceIdAttribute() to observe. The READONLY form cannot
// be written through the generic interface.
#define VELA_ATTRIBUTE_WITH(access, type, attr, ...)                                   \
 private:                                                                              \
  ::Vela::Attribute<type> attr##_{*this, #attr, ::Vela::AttributeBase::Access::access, \
                                  type(__VA_ARGS__)};                                  \
                                                                                       \
 public:                                                                               \
  const type& attr() const { return attr##_.value(); }                                 \
  void attr##Is(type value) { attr##_.valueIs(std::move(value)); }                     \
  ::Vela::Attribute<type>& attr##Attribute() { return attr##_; }                       \
  const ::Vela::Attribute<type>& attr##Attribute() const { return attr##_; }

#define VELA_ATTRIBUTE(type, attr, ...) VELA_ATTRIBUTE_WITH(readWrite, type, attr, __VA_ARGS__)
#define VELA_READONLY_ATTRIBUTE(type, attr, ...) \
  VELA_ATTRIBUTE_WITH(readOnly, type, attr, __VA_ARGS__)

//   VELA_COLLECTION(ResourceId, bool, priorityNeeded)
// gives priorityNeeded(key), priorityNeededHas(key), priorityNeededIs(key, value),
// priorityNeededDel(key), priorityNeededDelAll() and priorityNeededCollection() to walk or observe.
#define VELA_COLLECTION(keyType, valueType, attr)                                                \
 private:                                                                                        \
  ::Vela::Collection<keyType, valueType> attr##_{*this, #attr};                                  \
                                                                                                 \
 public:                                                                                         \
  const valueType& attr(const keyType& key) const { return attr##_.value(key); }                 \
  bool attr##Has(const keyType& key) const { return attr##_.has(key); }                          \
  void attr##Is(const keyType& key, valueType value) { attr##_.valueIs(key, std::move(value)); } \
  valueType attr##Del(const keyType& key) { return attr##_.valueDel(key); }                      \
  void attr##DelAll() { attr##_.valueDelAll(); }                                                 \
  ::Vela::Collection<keyType, valueType>& attr##Collection() { return attr##_; }                 \
  const ::Vela::Collection<keyType, valueType>& attr##Collection() const { return attr##_; }
