// The values that the model of a pipeline is made of: field encodings, actions and constant entries
// of a table.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {

// From a slot's index to a value; absent slots read as a default.
template <typename T>
class SlotMap {
 public:
  T value(uint32_t slot) const { return slot < slots_.size() ? slots_[slot].value_or(T{}) : T{}; }
  bool has(uint32_t slot) const { return slot < slots_.size() && slots_[slot].has_value(); }
  size_t size() const { return count_; }
  void valueIs(uint32_t slot, T value) {
    if (slot >= slots_.size()) slots_.resize(slot + 1);
    if (!slots_[slot]) ++count_;
    slots_[slot] = value;
  }
  void valueDel(uint32_t slot) {
    if (!has(slot)) return;
    slots_[slot].reset();
    --count_;
    while (!slots_.empty() && !slots_.back()) slots_.pop_back();
  }
  void valueDelAll() {
    slots_.clear();
    count_ = 0;
  }
  friend bool operator==(const SlotMap&, const SlotMap&) = default;

 private:
  std::vector<std::optional<T>> slots_;
  size_t count_ = 0;
};

// How the fields of a table's match key, or of an action's data, are encoded. Slots are numbered
// from 0 in P4Info order. A match field takes one slot of its width; a ternary one takes two, value
// and mask; a prefix two, address and 32-bit length; a range one. With the pipeline's extension for
// fields, a range takes two, low and high, and an optional field two, value and an 8-bit presence.
// An action parameter takes one; an action without parameters has a single slot of width 0. A plain
// value: one thread at a time; nothing throws, and absent slots read as a default.
class FieldBitwidths {
 public:
  FieldBitwidths() = default;
  explicit FieldBitwidths(ResourceId id) : id(id) {}
  explicit FieldBitwidths(const std::string& text);  // asserts: it has collections

  ResourceId id;

  uint8_t fieldBitwidth(uint32_t slot) const { return fieldBitwidth_.value(slot); }
  void fieldBitwidthIs(uint32_t slot, uint8_t width) { fieldBitwidth_.valueIs(slot, width); }
  void fieldBitwidthDel(uint32_t slot) { fieldBitwidth_.valueDel(slot); }
  void fieldBitwidthDelAll() { fieldBitwidth_.valueDelAll(); }
  uint32_t slots() const { return static_cast<uint32_t>(fieldBitwidth_.size()); }

  // Of slots wider than 255 bits, whose fieldBitwidth() is 0.
  void wideFieldBitwidthIs(uint32_t slot, uint32_t width) { wideBitwidth_.valueIs(slot, width); }
  // Bits of the slot, whichever list has them.
  uint32_t width(uint32_t slot) const {
    return wideBitwidth_.has(slot) ? wideBitwidth_.value(slot) : fieldBitwidth(slot);
  }

  bool fieldInNetworkByteOrder(uint32_t slot) const { return networkOrder_.value(slot); }
  void fieldInNetworkByteOrderIs(uint32_t slot, bool is) { networkOrder_.valueIs(slot, is); }
  void fieldInNetworkByteOrderDel(uint32_t slot) { networkOrder_.valueDel(slot); }
  void fieldInNetworkByteOrderDelAll() { networkOrder_.valueDelAll(); }

  bool fieldIsIpPrefix(uint32_t slot) const { return ipPrefix_.value(slot); }
  void fieldIsIpPrefixIs(uint32_t slot, bool is) { ipPrefix_.valueIs(slot, is); }
  void fieldIsIpPrefixDel(uint32_t slot) { ipPrefix_.valueDel(slot); }
  void fieldIsIpPrefixDelAll() { ipPrefix_.valueDelAll(); }

  // Bytes that the slots take in PI encoding.
  size_t encodedSize() const;

  friend bool operator==(const FieldBitwidths&, const FieldBitwidths&) = default;

 private:
  SlotMap<uint8_t> fieldBitwidth_;
  SlotMap<uint32_t> wideBitwidth_;
  SlotMap<bool> networkOrder_;
  SlotMap<bool> ipPrefix_;
};

// Values at positions 0, 1, ...; new ones come in at the back and leave at the front.
template <typename T>
class PositionQueue {
 public:
  void enq(T value) { values_.push_back(std::move(value)); }
  void valueIs(uint32_t position, T value) {
    if (position >= values_.size()) values_.resize(position + 1);
    values_[position] = std::move(value);
  }
  const T& value(uint32_t position) const {
    static const T absent{};
    return position < values_.size() ? values_[position] : absent;
  }
  void valueDel(uint32_t position) {
    if (position < values_.size()) values_.erase(values_.begin() + position);
  }
  void deq() { valueDel(0); }
  void valueDelAll() { values_.clear(); }
  const std::vector<T>& values() const { return values_; }
  friend bool operator==(const PositionQueue&, const PositionQueue&) = default;

 private:
  std::vector<T> values_;
};

// The actions that entries of one table may carry, in the P4Info's order.
class ActionIdCol {
 public:
  ActionIdCol() = default;
  explicit ActionIdCol(ResourceId tableId) : tableId(tableId) {}
  explicit ActionIdCol(const std::string& text);  // asserts: it has a collection

  ResourceId tableId;

  void actionIdEnq(uint32_t actionId) { actionIds_.enq(actionId); }
  void actionIdIs(uint32_t position, uint32_t actionId) { actionIds_.valueIs(position, actionId); }
  void actionIdDel(uint32_t position) { actionIds_.valueDel(position); }
  void actionIdDeq() { actionIds_.deq(); }
  void actionIdDelAll() { actionIds_.valueDelAll(); }
  const std::vector<uint32_t>& actionId() const { return actionIds_.values(); }
  bool actionIdHas(uint32_t actionId) const;

  friend bool operator==(const ActionIdCol&, const ActionIdCol&) = default;

 private:
  PositionQueue<uint32_t> actionIds_;
};

// One constant entry: bytes as hexadecimal text, two characters a byte, in PI encoding.
struct P4TableInfoConstEntry {
  std::string key;
  uint32_t actionId = 0;
  std::string actionParams;
  uint32_t priority = 0;
  bool isInitial = false;  // not constant: controllers may change and delete it

  // From the text that toText() gives; nothing when it is not such a text.
  static std::optional<P4TableInfoConstEntry> fromText(const std::string& text);

  friend bool operator==(const P4TableInfoConstEntry&, const P4TableInfoConstEntry&) = default;
};

// The constant entries of one table, in the order in which they are programmed.
class P4TableInfoConstEntries {
 public:
  P4TableInfoConstEntries() = default;
  explicit P4TableInfoConstEntries(ResourceId tableId) : tableId(tableId) {}
  explicit P4TableInfoConstEntries(const std::string& text);  // asserts: it has a collection

  ResourceId tableId;

  void entryEnq(P4TableInfoConstEntry entry) { entries_.enq(std::move(entry)); }
  void entryIs(uint32_t position, P4TableInfoConstEntry entry) {
    entries_.valueIs(position, std::move(entry));
  }
  const P4TableInfoConstEntry& entry(uint32_t position) const { return entries_.value(position); }
  void entryDel(uint32_t position) { entries_.valueDel(position); }
  void entryDeq() { entries_.deq(); }
  void entryDelAll() { entries_.valueDelAll(); }
  const std::vector<P4TableInfoConstEntry>& entry() const { return entries_.values(); }

  friend bool operator==(const P4TableInfoConstEntries&, const P4TableInfoConstEntries&) = default;

 private:
  PositionQueue<P4TableInfoConstEntry> entries_;
};

std::string toText(const FieldBitwidths& value);
std::string toText(const ActionIdCol& value);
std::string toText(const P4TableInfoConstEntry& value);
std::string toText(const P4TableInfoConstEntries& value);

}  // namespace P4Runtime
