// Adds the tables of entities to a P4Info.
#include "PI/frontend/model/EntityTables.h"

#include <absl/container/flat_hash_set.h>

#include <initializer_list>
#include <string>

#include "PI/frontend/model/AddedTables.h"
#include "PI/frontend/model/PackedData.h"

namespace pi::fe::proto {

namespace config = p4::config::v1;

namespace {

// The upper eight bits of an id in a P4Info name the kind of its object. Compilers use no more than
// the lowest five of them, and all eight for externs.
constexpr uint32_t kTables = 0x40000000;
constexpr uint32_t kActions = 0x60000000;
constexpr uint32_t kLists = 0x20000000;
constexpr uint32_t kReplication =
    0x1f000001;  // stands for the id of groups; sessions have the next
constexpr uint32_t kRowAction = 0x7f000000;

uint32_t baseId(EntityKind kind, uint32_t id) {
  if (kind == EntityKind::multicastGroup) return kReplication;
  return kind == EntityKind::cloneSession ? kReplication + 1 : id;
}

bool hasList(EntityKind kind) {
  return kind == EntityKind::multicastGroup || kind == EntityKind::cloneSession ||
         kind == EntityKind::valueSet;
}

bool isArray(EntityKind kind) {
  return kind == EntityKind::counter || kind == EntityKind::meter ||
         kind == EntityKind::registerArray;
}

struct Column {
  const char* name;
  int32_t bits;
};

// Adds the tables of one entity after another.
class Adder {
 public:
  explicit Adder(const config::P4Info& p4Info) : result_(p4Info), taken_(takenIds(p4Info)) {}

  config::P4Info run(const config::P4Info& p4Info, bool withWatchPorts) {
    addReplication();
    for (const auto& counter : p4Info.counters()) {
      addArray(EntityKind::counter, counter.preamble(), counter.size(),
               {{"packets", 64}, {"bytes", 64}, {"times", 32}});
    }
    for (const auto& meter : p4Info.meters()) {
      addArray(EntityKind::meter, meter.preamble(), meter.size(),
               {{"cir", 64}, {"cburst", 64}, {"pir", 64}, {"pburst", 64}, {"eburst", 64}});
    }
    for (const auto& array : p4Info.registers()) {
      if (const int32_t bits = registerBits(array); bits != 0) {
        addArray(EntityKind::registerArray, array.preamble(), array.size(),
                 {{"value", bits}, {"times", 32}});
      }
    }
    for (const auto& set : p4Info.value_sets()) addValueSet(set);
    for (const auto& table : p4Info.tables()) addIdleTimeouts(table);
    for (const auto& digest : p4Info.digests()) {
      if (digestBits(p4Info, digest) == 0) continue;
      config::Table* table = add(EntityKind::digest, digest.preamble());
      if (table != nullptr) {
        addKey(table, {"entry", 8});
        addAction(EntityKind::digest, digest.preamble().id(), table,
                  {{"max_timeout_ns", 64}, {"max_list_size", 32}, {"ack_timeout_ns", 64}});
      }
    }
    if (withWatchPorts) {
      for (const auto& profile : p4Info.action_profiles()) addWatchPorts(profile);
    }
    return std::move(result_);
  }

 private:
  static const std::string& shortName(const config::Preamble& preamble) {
    return preamble.alias().empty() ? preamble.name() : preamble.alias();
  }

  bool takeIds(EntityKind kind, uint32_t id) {
    const uint32_t base = baseId(kind, id);
    for (const uint32_t one : {base ^ kTables, base ^ kActions, base ^ kLists, kRowAction}) {
      if (taken_.contains(one)) return false;
    }
    taken_.insert({base ^ kTables, base ^ kActions, base ^ kLists});
    return true;
  }

  // Null when an id is another object's.
  config::Table* add(EntityKind kind, const config::Preamble& preamble, int64_t size = 0) {
    if (!takeIds(kind, preamble.id())) return nullptr;
    config::Table* table = result_.add_tables();
    const char* prefix = kind == EntityKind::watchPort       ? ""
                         : kind == EntityKind::counter       ? "counter."
                         : kind == EntityKind::meter         ? "meter."
                         : kind == EntityKind::registerArray ? "register."
                         : kind == EntityKind::valueSet      ? "value_set."
                         : kind == EntityKind::digest        ? "digest."
                         : kind == EntityKind::idleTimeout   ? "idle_timeout."
                                                             : "pre.";
    nameIs(table->mutable_preamble(), entityTableId(kind, preamble.id()),
           prefix + shortName(preamble));
    table->set_size(size);
    return table;
  }

  // The rows of the entity's table hold what the list's rows do not.
  config::Table* addList(EntityKind kind, uint32_t id, const std::string& name) {
    config::Table* list = result_.add_tables();
    nameIs(list->mutable_preamble(), entityListTableId(kind, id), name);
    addRowAction(list);
    return list;
  }

  // Without parameters.
  void addRowAction(config::Table* table) {
    if (!hasRowAction_) nameIs(result_.add_actions()->mutable_preamble(), kRowAction, "row");
    hasRowAction_ = true;
    addActionRef(table, kRowAction, config::ActionRef::TABLE_ONLY);
  }

  static void addKey(config::Table* table, const Column& column) {
    addExactField(table, column.name, column.bits);
  }

  // The one action of a table. Only cells have a default.
  void addAction(EntityKind kind, uint32_t id, config::Table* table,
                 std::initializer_list<Column> columns) {
    config::Action* action = result_.add_actions();
    nameIs(action->mutable_preamble(), baseId(kind, id) ^ kActions,
           kind == EntityKind::multicastGroup ? "group"
           : kind == EntityKind::cloneSession ? "session"
                                              : "set");
    for (const Column& column : columns) addParam(action, column.name, column.bits);
    addActionRef(
        table, action->preamble().id(),
        isArray(kind) ? config::ActionRef::TABLE_AND_DEFAULT : config::ActionRef::TABLE_ONLY);
  }

  void addReplication() {
    for (const EntityKind kind : {EntityKind::multicastGroup, EntityKind::cloneSession}) {
      const bool isGroup = kind == EntityKind::multicastGroup;
      config::Preamble preamble;
      preamble.set_name(isGroup ? "multicast_group" : "clone_session");
      const Column id{isGroup ? "multicast_group_id" : "session_id", kEntityIdBits};
      config::Table* table = add(kind, preamble);
      if (table == nullptr) continue;
      addKey(table, id);
      if (isGroup) {
        addAction(kind, 0, table, {});
      } else {
        addAction(kind, 0, table, {{"class_of_service", 32}, {"packet_length_bytes", 32}});
      }
      config::Table* list = addList(kind, 0, table->preamble().name() + ".replica");
      for (const Column& column :
           {id, Column{"egress_port", kEntityIdBits}, Column{"instance", kEntityIdBits}}) {
        addKey(list, column);
      }
    }
  }

  void addArray(EntityKind kind, const config::Preamble& preamble, int64_t size,
                std::initializer_list<Column> columns) {
    config::Table* table = add(kind, preamble, size);
    if (table == nullptr) return;
    addKey(table, {"index", kEntityIndexBits});
    addAction(kind, preamble.id(), table, columns);
    if (kind == EntityKind::meter) addRowAction(table);
  }

  void addValueSet(const config::ValueSet& set) {
    config::Table* table = add(EntityKind::valueSet, set.preamble());
    if (table == nullptr) return;
    const std::string name = table->preamble().name();
    addKey(table, {"entry", 8});
    addAction(EntityKind::valueSet, set.preamble().id(), table, {{"members", 32}});
    config::Table* list = addList(EntityKind::valueSet, set.preamble().id(), name + ".member");
    list->set_size(set.size());
    for (const auto& field : set.match()) *list->add_match_fields() = field;
  }

  void addIdleTimeouts(const config::Table& table) {
    if (table.idle_timeout_behavior() != config::Table::NOTIFY_CONTROL) return;
    config::Table* added = add(EntityKind::idleTimeout, table.preamble(), table.size());
    if (added == nullptr) return;
    for (const auto& field : table.match_fields()) *added->add_match_fields() = field;
    addAction(EntityKind::idleTimeout, table.preamble().id(), added, {{"ns", 64}});
  }

  // Beside the tables of the profile's members and groups, and named like them.
  void addWatchPorts(const config::ActionProfile& profile) {
    if (!profile.with_selector()) return;
    config::Table* table = add(EntityKind::watchPort, profile.preamble());
    if (table == nullptr) return;
    nameIs(table->mutable_preamble(), table->preamble().id(), table->preamble().name() + ".watch");
    addKey(table, {"group_id", kEntityIdBits});
    addKey(table, {"member_id", kEntityIdBits});
    addAction(EntityKind::watchPort, profile.preamble().id(), table, {{"port", kEntityIdBits}});
  }

  config::P4Info result_;
  absl::flat_hash_set<uint32_t> taken_;
  bool hasRowAction_ = false;
};

}  // namespace

const char* entityKindText(EntityKind kind) {
  switch (kind) {
    case EntityKind::multicastGroup:
      return "multicast group";
    case EntityKind::cloneSession:
      return "clone session";
    case EntityKind::counter:
      return "counter";
    case EntityKind::meter:
      return "meter";
    case EntityKind::registerArray:
      return "register";
    case EntityKind::valueSet:
      return "value set";
    case EntityKind::idleTimeout:
      return "idle time-outs of table";
    case EntityKind::watchPort:
      return "watch ports of action profile";
    case EntityKind::digest:
      break;
  }
  return "digest";
}

uint32_t entityTableId(EntityKind kind, uint32_t id) { return baseId(kind, id) ^ kTables; }

uint32_t entityListTableId(EntityKind kind, uint32_t id) {
  return hasList(kind) ? baseId(kind, id) ^ kLists : 0;
}

uint32_t digestBits(const config::P4Info& p4Info, const config::Digest& digest) {
  return packedBits(p4Info.type_info(), digest.type_spec());
}

int32_t registerBits(const config::Register& array) {
  const auto& spec = array.type_spec();
  if (spec.has_bool_()) return 1;
  if (!spec.has_bitstring()) return 0;
  return spec.bitstring().has_bit() ? spec.bitstring().bit().bitwidth() : 0;
}

config::P4Info with_entity_tables(const config::P4Info& p4Info, bool withWatchPorts) {
  return Adder(p4Info).run(p4Info, withWatchPorts);
}

}  // namespace pi::fe::proto
