// One element of a Read, checked against the P4Info.
#pragma once

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/store/Entry.h"

namespace pi::fe::proto {

// In which form an entry is sent, since direct resources come with the entry or by themselves.
// The forms `with...` are bits that combine.
enum class EntryForm : uint8_t {
  plain = 0,
  withCounter = 1,
  withMeter = 2,
  withLastHit = 4,
  counter = 8,  // a DirectCounterEntry
  meter = 9     // a DirectMeterEntry
};
inline constexpr int kEntryForms = 10;
inline constexpr bool isResource(EntryForm form) { return form >= EntryForm::counter; }
inline constexpr bool hasBit(EntryForm form, EntryForm bit) {
  return !isResource(form) && (static_cast<int>(form) & static_cast<int>(bit)) != 0;
}
inline constexpr bool hasCounter(EntryForm form) {
  return form == EntryForm::counter || hasBit(form, EntryForm::withCounter);
}
inline constexpr bool hasMeter(EntryForm form) {
  return form == EntryForm::meter || hasBit(form, EntryForm::withMeter);
}
inline constexpr bool hasLastHit(EntryForm form) { return hasBit(form, EntryForm::withLastHit); }
inline constexpr EntryForm withoutLastHit(EntryForm form) {
  return hasLastHit(form) ? static_cast<EntryForm>(static_cast<int>(form) ^
                                                   static_cast<int>(EntryForm::withLastHit))
                          : form;
}

struct Query {
  enum class Kind {
    allTables,
    table,
    oneEntry,
    defaultEntry,
    objects,
    oneObject,
    entities,   // those of `entityKind`, or all of `entity`
    oneEntity,  // with a key of its own: a cell, group, session, value set or digest
    nothing
  };

  Kind kind = Kind::allTables;
  const TablePlan* table = nullptr;  // null: all tables
  // oneEntry, oneObject, or a table narrowed to a match; else null.
  EntryPtr key;
  EntryForm form = EntryForm::plain;
  bool mustExist = false;  // oneEntry, oneObject: NOT_FOUND otherwise
  // Filters; 0 and empty take everything.
  uint32_t actionId = 0;
  uint32_t priority = 0;
  uint64_t controllerMetadata = 0;
  std::string metadata;
  // Of members and groups.
  const ProfilePlan* profile = nullptr;  // null: all profiles
  bool groups = false;
  // Of other entities.
  EntityKind entityKind = EntityKind::multicastGroup;
  const EntityPlan* entity = nullptr;  // null: all of the kind

  // Equal for queries with the same result in the same form.
  std::string identity() const;
  bool takes(const Entry& entry) const;
  // Whether the table has resources of the kind that the query wants.
  bool concerns(const TablePlan& table) const;
  // The form in which entries of the table are sent: without resources that the table lacks.
  EntryForm formFor(const TablePlan& table) const;
};

// Throws a Refusal: INVALID_ARGUMENT, or UNIMPLEMENTED for entities that cannot be read here.
Query checkedQuery(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
