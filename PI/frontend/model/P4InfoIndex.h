// The objects of one P4Info by id, with the plans of its tables, actions and profiles.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PI/frontend/model/NamedType.h"
#include "PI/frontend/model/Plans.h"
#include "PI/target/pi_extensions_imp.h"
#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

// Constant after construction; any thread. Plans live as long as the index.
class P4InfoIndex {
 public:
  // Throws a Refusal (INVALID_ARGUMENT) that names the object when the P4Info cannot be realised:
  // id 0, an id used twice, a role without a name, a reference to an object that does not exist, an
  // unknown enum number.
  explicit P4InfoIndex(const p4::config::v1::P4Info& p4Info, const pi_abilities_t& abilities = {});

  const TablePlan* table(uint32_t id) const;      // null: no such table
  const ActionPlan* action(uint32_t id) const;    // null: no such action
  const ProfilePlan* profile(uint32_t id) const;  // null: no such action profile
  const std::vector<std::unique_ptr<TablePlan>>& tables() const { return tables_; }  // P4Info order
  const std::vector<std::unique_ptr<ProfilePlan>>& profiles() const { return profiles_; }

  // The translated types whose values are names. Their dictionaries are thread-safe.
  const std::vector<std::unique_ptr<NamedType>>& namedTypes() const { return namedTypes_; }
  NamedType* namedType(uint32_t tableId) const;      // by its table; null: no such type
  Dictionary* names(const std::string& type) const;  // null: no such type

  // Those that the target keeps. Null: there is no such entity, or it is not kept.
  const EntityPlan* entity(EntityKind kind, uint32_t id = 0) const;
  const std::vector<std::unique_ptr<EntityPlan>>& entities() const { return entities_; }

  // An array of cells: an indexed counter or meter, a register. Empty when no such array of that
  // kind ("counter", "meter", "register") has the id.
  std::optional<int64_t> arraySize(const char* kind, uint32_t id) const;

  // "counter ingress.hits", or "0x12000001, which is not in the P4Info".
  std::string objectText(uint32_t id) const;

 private:
  struct Object {
    const char* kind;
    std::string name;
    int64_t size;  // of an array, else 0
  };

  void namedTypesAre(const p4::config::v1::P4Info& p4Info);
  template <typename Value>
  Dictionary* namesOf(const Value& value) const;
  Dictionary* portNames(const p4::config::v1::P4Info& p4Info) const;
  void watchPortsAre(const p4::config::v1::P4Info& p4Info);
  void usesOfNamesAre();
  void objectIs(const char* kind, const p4::config::v1::Preamble& preamble, int64_t size = 0);
  void doIndexObjects(const p4::config::v1::P4Info& p4Info);
  void doCheckDirectResources(const p4::config::v1::P4Info& p4Info) const;
  void profilesAre(const p4::config::v1::P4Info& p4Info);
  std::unique_ptr<ProfilePlan> profilePlan(const p4::config::v1::ActionProfile& profile) const;
  void profileOfTableIs(TablePlan* plan, uint32_t profileId);
  void tablesOfProfilesAre(const p4::config::v1::P4Info& p4Info);
  void requireKind(uint32_t id, const char* kind, const std::string& user) const;
  std::unique_ptr<ActionPlan> actionPlan(const p4::config::v1::Action& action) const;
  std::unique_ptr<TablePlan> tablePlan(const p4::config::v1::P4Info& p4Info,
                                       const p4::config::v1::Table& table);
  void fieldPlanIs(TablePlan* plan, const p4::config::v1::MatchField& field) const;
  void actionUsesAre(TablePlan* plan, const p4::config::v1::Table& table) const;
  void defaultActionIs(TablePlan* plan, const p4::config::v1::Table& table) const;
  void defaultEntriesAre(const std::vector<std::unique_ptr<TablePlan>>& tables);
  void resourcesOfDefaultsAre();
  void entitiesAre(const p4::config::v1::P4Info& p4Info);
  EntityPlan* entityIs(EntityKind kind, const p4::config::v1::Preamble& preamble, int64_t size = 0);
  static std::unique_ptr<TablePlan> defaultEntryPlan(const TablePlan& table);
  void directResourcesAre(TablePlan* plan, const p4::config::v1::P4Info& p4Info,
                          const p4::config::v1::Table& table) const;
  bool isKind(uint32_t id, const char* kind) const;

  const pi_abilities_t abilities_;
  std::vector<std::unique_ptr<NamedType>> namedTypes_;
  absl::flat_hash_map<uint32_t, Object> objects_;
  absl::flat_hash_map<uint32_t, std::unique_ptr<ActionPlan>> actions_;
  std::vector<std::unique_ptr<TablePlan>> tables_;
  absl::flat_hash_map<uint32_t, const TablePlan*> tableById_;
  std::vector<std::unique_ptr<ProfilePlan>> profiles_;
  std::vector<std::unique_ptr<TablePlan>> entityTables_;
  std::vector<std::unique_ptr<EntityPlan>> entities_;
};

}  // namespace pi::fe::proto
