// How entries, members and groups are checked and encoded, compiled once from the P4Info so that
// an update costs no search through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PI/frontend/model/EntityTables.h"
#include "PI/frontend/names/Dictionary.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

enum class MatchKind : uint8_t { exact, lpm, ternary, range, optional, other };
enum class ActionScope : uint8_t { tableAndDefault, tableOnly, defaultOnly, groupAction };

// One match field, and where its bytes lie in a PI match key: the value in `bytes` bytes,
// big-endian; for LPM then the prefix length as a host-order 32-bit number, for ternary the mask.
// Of a range, the low end then the high one, and behind an optional value a byte, whether it is
// present, where `takesAll`; else the single value that the target can match.
struct FieldPlan {
  uint32_t id = 0;
  std::string name;
  MatchKind kind = MatchKind::exact;
  uint32_t bits = 0;
  uint32_t bytes = 0;
  uint32_t offset = 0;
  bool takesAll = false;  // a range or optional field: also many values, and any value
  // Of a field whose values are names to controllers: the key has their numbers. Null: of another.
  Dictionary* names = nullptr;

  size_t keyBytes() const {
    if (kind == MatchKind::lpm) return bytes + sizeof(uint32_t);
    if (kind == MatchKind::ternary || (takesAll && kind == MatchKind::range)) return 2 * bytes;
    return takesAll && kind == MatchKind::optional ? bytes + 1 : bytes;
  }
};

struct ParamPlan {
  uint32_t id = 0;
  std::string name;
  uint32_t bits = 0;
  uint32_t bytes = 0;
  uint32_t offset = 0;          // in the PI action data, parameters in P4Info order
  Dictionary* names = nullptr;  // as of a field
};

struct ActionPlan {
  uint32_t id = 0;
  std::string name;
  std::vector<ParamPlan> params;
  uint32_t dataBytes = 0;
  std::string unsupported;  // why the action cannot be programmed; empty when it can

  const ParamPlan* param(uint32_t paramId) const {
    for (const ParamPlan& param : params) {
      if (param.id == paramId) return &param;
    }
    return nullptr;
  }
};

struct ActionUse {
  uint32_t id = 0;
  ActionScope scope = ActionScope::tableAndDefault;
  const ActionPlan* action = nullptr;
};

// A table, or an action profile on behalf of its tables: its name and its actions.
struct ActionUser {
  explicit ActionUser(const char* kind) : kind(kind) {}

  const char* const kind;  // for messages: "table", "action profile"
  uint32_t id = 0;
  std::string name;
  std::vector<ActionUse> actions;
  bool isDefaultEntry = false;  // the name is that of the table whose default entry this holds
  bool usesNames = false;       // a field, or a parameter of an action, has names

  const ActionUse* actionUse(uint32_t actionId) const {
    for (const ActionUse& use : actions) {
      if (use.id == actionId) return &use;
    }
    return nullptr;
  }
};

struct TablePlan;

// An action profile. Its size counts the members when it has no selector, else the weights of all
// groups and action sets together.
struct ProfilePlan : ActionUser {
  ProfilePlan() : ActionUser("action profile") {}

  bool withSelector = false;
  uint64_t size = 0;             // 0: not limited here
  uint32_t maxGroupSize = 0;     // 0: not limited here
  bool countsMembers = false;    // true: each member counts one; false: its weight
  uint32_t maxMemberWeight = 0;  // 0: any
  bool weightsDisallowed = false;
  bool portsAreStrings = false;  // perhaps: the program has translated types that are strings
  // Has a row for each member of a group, and of an action set, that watches a port. Null: none.
  const TablePlan* watchPorts = nullptr;
  Dictionary* ports = nullptr;   // where ports are names; else null
  bool portsAreNumbers = false;  // for certain
};

struct DirectCounterPlan {
  uint32_t id = 0;
  bool countsBytes = false;
  bool countsPackets = false;
};

struct DirectMeterPlan {
  enum class Unit : uint8_t { unspecified, bytes, packets };

  uint32_t id = 0;
  Unit unit = Unit::unspecified;
  p4::config::v1::MeterSpec::Type type = p4::config::v1::MeterSpec::TWO_RATE_THREE_COLOR;
};

// Multicast groups, clone sessions, an array of cells, a value set or a digest.
struct EntityPlan {
  EntityKind kind = EntityKind::multicastGroup;
  uint32_t id = 0;             // in the P4Info; 0 for groups and sessions
  std::string text;            // "counter ingress.hits", "multicast group"
  int64_t size = 0;            // cells, or members of a value set
  bool countsBytes = false;    // of a counter, as DirectCounterPlan has it
  bool countsPackets = false;  // of a counter
  bool isBool = false;         // of a register
  p4::config::v1::MeterSpec::Type meterType = p4::config::v1::MeterSpec::TWO_RATE_THREE_COLOR;
  const TablePlan* table = nullptr;  // null: it cannot be kept
  Dictionary* ports = nullptr;       // of groups and sessions, where ports are names; else null
  const TablePlan* list = nullptr;   // of the rows of a group, session or value set; else null

  bool isArray() const {
    return kind == EntityKind::counter || kind == EntityKind::meter ||
           kind == EntityKind::registerArray;
  }
};

struct TablePlan : ActionUser {
  TablePlan() : ActionUser("table") {}

  std::vector<FieldPlan> fields;  // in P4Info order
  uint32_t keyBytes = 0;
  bool needsPriority = false;
  bool isConst = false;
  bool hasInitialEntries = false;
  bool hasIdleTimeout = false;
  std::optional<DirectCounterPlan> counter;
  std::optional<DirectMeterPlan> meter;
  bool setsCounters = false;                // direct counters can be written
  const TablePlan* idleTimeouts = nullptr;  // has a row for each entry with one; null: refused
  const ProfilePlan* profile = nullptr;     // null: a direct table
  uint32_t constDefaultActionId = 0;
  p4::v1::Action defaultAction;  // the program's; action id 0 when it has none
  // Where the target keeps a default entry that controllers write: as the only entry of this table.
  // Null: the default entry cannot be written.
  std::unique_ptr<TablePlan> defaultEntry;
  std::string unsupported;  // why entries cannot be programmed; empty when they can
  // The entity whose rows these are; null for tables of the program. Controllers name the entity.
  const EntityPlan* entity = nullptr;
};

}  // namespace pi::fe::proto
