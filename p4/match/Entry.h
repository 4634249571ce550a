// An entry of a table, and what a packet that meets it does.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "p4/externs/Counter.h"
#include "p4/externs/Meter.h"

namespace P4 {

// An action with its arguments, each in as many 64-bit words as its width takes, low word first.
struct ActionData {
  // At least so many lie there, so that most are copied by one instruction or two. They cost
  // nothing: memory comes in pieces of that size.
  static constexpr uint32_t leastWords = 2;

  uint32_t action = 0;
  uint32_t words = 0;
  uint64_t arguments[];

  struct Delete {
    void operator()(ActionData* data) const { ::operator delete(data); }
  };
  using Ptr = std::unique_ptr<ActionData, Delete>;

  // In the room of `spare`, which has as many words; null: in a room of its own.
  static Ptr make(uint32_t action, uint32_t words, Ptr spare = nullptr) {
    const size_t bytes = std::max(words, leastWords) * sizeof(uint64_t);
    void* const room = spare ? spare.release() : ::operator new(sizeof(ActionData) + bytes);
    auto* data = new (room) ActionData();
    data->action = action;
    data->words = words;
    std::memset(data->arguments, 0, bytes);
    return Ptr(data);
  }
};

struct Member;
struct Group;

// Exactly one of the three, or none: no action.
struct Outcome {
  const ActionData* action = nullptr;
  const Member* member = nullptr;
  const Group* group = nullptr;
};

// The tables exist twice (see tables/Sides.h): packets read one side while the other is changed.
inline constexpr int sides = 2;

// The words of the key follow the object: the value; in ternary and range tables then the mask; in
// range tables then the low and the high ends.
struct Entry {
  Outcome outcome[sides];
  uint32_t table = 0;
  uint32_t handle = 0;        // the smallest free number when the entry came
  uint32_t rank = 0;          // of ternary and range tables: the lowest wins
  uint32_t prefixLength = 0;  // of LPM tables
  uint32_t words = 0;         // of one part of the key
  size_t hash = 0;            // of an exact key, once it is in an index
  Counter counter;
  std::unique_ptr<Meter> meter;       // of tables with direct meters
  uint64_t timeToLive = 0;            // microseconds; 0: none
  std::atomic<uint64_t> lastHit = 0;  // microseconds; of the packet thread
  bool reportedIdle = false;          // at the sweep before
  uint32_t position = 0;              // among the table's entries
  ActionData::Ptr ownAction;          // behind outcome[].action
  uint64_t cookie = 0;                // of the caller
  uint64_t toldPackets = 0;           // of the caller: the count that it has last passed on

  struct Delete {
    void operator()(Entry* entry) const {
      entry->~Entry();
      ::operator delete(entry);
    }
  };
  using Ptr = std::unique_ptr<Entry, Delete>;

  // In the room of `spare`, whose key has as many words and parts; null: in a room of its own.
  static Ptr make(uint32_t words, uint32_t parts, Ptr spare = nullptr) {
    const size_t key = (size_t{words} * parts + 1) * sizeof(uint64_t);  // see PrefixTrie::find
    void* const room = spare ? spare.get() : ::operator new(sizeof(Entry) + key);
    if (spare) spare.release()->~Entry();
    auto* entry = new (room) Entry();
    entry->words = words;
    std::memset(entry->value(), 0, key);
    return Ptr(entry);
  }

  uint64_t* value() { return reinterpret_cast<uint64_t*>(this + 1); }
  const uint64_t* value() const { return reinterpret_cast<const uint64_t*>(this + 1); }
  uint64_t* mask() { return value() + words; }
  const uint64_t* mask() const { return value() + words; }
  uint64_t* low() { return value() + 2 * words; }
  const uint64_t* low() const { return value() + 2 * words; }
  uint64_t* high() { return value() + 3 * words; }
  const uint64_t* high() const { return value() + 3 * words; }
};

}  // namespace P4
