// The entries of a program's tables, with all that a writer may and may not do to them.
#pragma once

#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include "p4/compile/Image.h"
#include "p4/tables/Encoding.h"
#include "p4/tables/HandlePool.h"
#include "p4/tables/ProfileStore.h"
#include "p4/tables/Sides.h"

namespace P4 {

struct MemberId {
  uint32_t id = 0;
};
struct GroupId {
  uint32_t id = 0;
};
using OneShotSet = std::vector<ProfileStore::OneShotAction>;
// An action for simple tables; one of the others for tables with an action profile.
using Target = std::variant<ActionSpec, MemberId, GroupId, OneShotSet>;

struct EntryKey {
  uint32_t table = 0;  // position in the program
  std::vector<MatchElement> match;
  uint32_t priority = 0;  // higher wins; of ternary and range tables
};

// The writer's thread. Packets see changes from commit() on, all at once. All throw Refusal.
class TableStore {
 public:
  // Puts the program's own entries in. Throws ProgramError when they contradict each other.
  TableStore(const Program& program, const Image& image);

  // The entry stays where it is until it is removed.
  Entry& insert(const EntryKey& key, const Target& target, uint64_t timeToLive = 0,
                uint64_t cookie = 0);
  Entry& modify(const EntryKey& key, const Target& target);
  void remove(const EntryKey& key);
  // Null when there is none. A constant entry is found by its match alone: programs and controllers
  // count priorities in different ways.
  Entry* find(const EntryKey& key);
  // The same for an entry of the store.
  void modify(Entry& entry, const Target& target);
  void remove(Entry& entry);

  // Nothing: back to the program's default.
  void setDefault(uint32_t table, const std::optional<ActionSpec>& action);
  void setMeter(Entry& entry, const std::optional<MeterRates>& rates);
  void setMeter(Meter& meter, const std::optional<MeterRates>& rates);
  const std::vector<Entry*>& entries(uint32_t table) const { return tables_[table].entries; }
  ProfileStore& profile(uint32_t profile) {
    settle();
    return *profiles_[profile];
  }

  void setMulticast(uint32_t group, std::vector<Replica> replicas);  // none: removes the group
  void setSession(uint32_t session, const std::optional<Session>& value);
  // Members with the key's fields packed tightly, right-aligned.
  void setValueSet(uint32_t set, const std::vector<std::string>& members);
  void portIs(uint32_t port, bool up);  // for watched ports; ports begin as up

  // Makes the changes visible to packets; commit() does all of settle() besides.
  void publish();
  // Makes the changes that were published on the side that packets do not read, too. Every change
  // does so first; done before it, it takes nobody's time.
  void settle();
  void commit() {
    publish();
    settle();
  }
  Sides& sides() { return sides_; }

 private:
  struct Held {
    Held() = default;
    Held(const Held&) = delete;
    ~Held() {
      for (Entry* entry : entries) Entry::Delete()(entry);
    }
    std::vector<Entry*> entries;  // owned
    HandlePool handles;
    ActionData::Ptr defaultAction;
  };

  Entry::Ptr keyOf(const EntryKey& key, Spares<Entry>* spares = nullptr) const;
  Entry* staged(const Entry& key) const;
  void checkWritable(uint32_t table) const;
  void checkAction(uint32_t table, uint32_t action) const;
  Outcome outcomeOf(const Table& table, const Target& target, ActionData::Ptr& own);
  void letGo(Entry& entry);
  bool maybeAdd(Entry::Ptr& entry, uint32_t table);
  void addConstantEntries(uint32_t table);
  void putDefault(uint32_t table, ActionData::Ptr action);

  const Program& program_;
  const Image& image_;
  Sides sides_;
  std::vector<std::unique_ptr<ProfileStore>> profiles_;
  std::vector<Held> tables_;
  uint64_t meterGeneration_ = 0;
  absl::flat_hash_map<const Meter*, std::unique_ptr<const MeterConfig>> configs_;
  std::vector<std::unique_ptr<const MeterConfig>> retiredConfigs_;
  std::vector<Entry::Ptr> retiredEntries_;
  std::vector<ActionData::Ptr> retiredActions_;
  Spares<Entry> spareEntries_;
  Spares<ActionData> spareActions_;
  bool isSettled_ = true;
};

}  // namespace P4
