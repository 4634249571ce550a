// Adds the tables of translated types to a P4Info.
#include "PI/frontends/proto/translation_tables.h"

#include <absl/container/flat_hash_set.h>
#include <absl/strings/str_cat.h>

#include <set>

#include "PI/frontend/model/AddedTables.h"

namespace pi::fe::proto {

namespace config = p4::config::v1;

namespace {

constexpr uint32_t kFirstAction = 0x7d000001;
constexpr uint32_t kHashBits = 24;
constexpr int32_t kLengthBits = 16;
constexpr int32_t kTextBytes[] = {32, 128, 1000};

// A change of it would give all types other tables.
uint32_t hashOf(const std::string& type) {
  uint32_t hash = 2166136261;
  for (const char c : type) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619;
  return (hash >> kHashBits ^ hash) & ((1U << kHashBits) - 1);
}

// Calls visit(field) for each field, parameter and metadata field; `p4Info` may be const.
template <typename P4Info, typename Visit>
void forEachValue(P4Info& p4Info, Visit visit) {
  constexpr bool isConst = std::is_const_v<P4Info>;
  const auto each = [&](auto& objects, auto fields) {
    for (auto& object : objects) {
      for (auto& field : fields(object)) visit(field);
    }
  };
  if constexpr (isConst) {
    each(
        p4Info.tables(), [](auto& table) -> auto& { return table.match_fields(); });
    each(
        p4Info.actions(), [](auto& action) -> auto& { return action.params(); });
    each(
        p4Info.value_sets(), [](auto& set) -> auto& { return set.match(); });
    each(
        p4Info.controller_packet_metadata(), [](auto& h) -> auto& { return h.metadata(); });
  } else {
    each(
        *p4Info.mutable_tables(), [](auto& t) -> auto& { return *t.mutable_match_fields(); });
    each(
        *p4Info.mutable_actions(), [](auto& action) -> auto& { return *action.mutable_params(); });
    each(
        *p4Info.mutable_value_sets(), [](auto& set) -> auto& { return *set.mutable_match(); });
    each(
        *p4Info.mutable_controller_packet_metadata(),
        [](auto& header) -> auto& { return *header.mutable_metadata(); });
  }
}

std::set<std::string> stringTypes(const config::P4Info& p4Info) {
  std::set<std::string> types;
  for (const auto& [name, type] : p4Info.type_info().new_types()) {
    if (type.translated_type().has_sdn_string()) types.insert(name);
  }
  return types;
}

bool areActionsFree(const absl::flat_hash_set<uint32_t>& taken) {
  for (uint32_t i = 0; i < std::size(kTextBytes); ++i) {
    if (taken.contains(kFirstAction + i)) return false;
  }
  return true;
}

void addActions(config::P4Info* p4Info) {
  uint32_t id = kFirstAction;
  for (const int32_t bytes : kTextBytes) {
    config::Action* action = p4Info->add_actions();
    nameIs(action->mutable_preamble(), id++, absl::StrCat("text_", bytes));
    addParam(action, "length", kLengthBits);
    addParam(action, "text", 8 * bytes);
  }
}

void addTable(const std::string& type, uint32_t id, config::P4Info* p4Info) {
  config::Table* table = p4Info->add_tables();
  nameIs(table->mutable_preamble(), id, "translation." + type);
  addExactField(table, "number", kNameBits);
  for (uint32_t i = 0; i < std::size(kTextBytes); ++i) {
    addActionRef(table, kFirstAction + i, config::ActionRef::TABLE_ONLY);
  }
}

}  // namespace

NameAction name_action(uint32_t bytes) {
  uint32_t id = kFirstAction;
  for (const int32_t size : kTextBytes) {
    if (bytes <= static_cast<uint32_t>(size)) return {id, static_cast<uint32_t>(size)};
    ++id;
  }
  return {};
}

std::map<std::string, uint32_t> translation_tables(const config::P4Info& p4Info) {
  const std::set<std::string> types = stringTypes(p4Info);
  std::map<std::string, uint32_t> tables;
  if (types.empty()) return tables;
  forEachValue(p4Info, [&](const auto& value) {
    const bool isName = value.bitwidth() == 0 && types.contains(value.type_name().name());
    if (isName) tables.emplace(value.type_name().name(), 0);
  });
  absl::flat_hash_set<uint32_t> taken = takenIds(p4Info);
  if (!areActionsFree(taken)) return {};
  for (auto& [type, id] : tables) {
    uint32_t hash = hashOf(type);
    while (!taken.insert(kTranslationTables + hash).second) {
      hash = (hash + 1) & ((1U << kHashBits) - 1);
    }
    id = kTranslationTables + hash;
  }
  return tables;
}

config::P4Info with_translation_tables(const config::P4Info& p4Info) {
  config::P4Info result = p4Info;
  const std::map<std::string, uint32_t> tables = translation_tables(p4Info);
  if (tables.empty()) return result;
  forEachValue(result, [&](auto& value) {
    if (value.bitwidth() != 0 || !tables.contains(value.type_name().name())) return;
    value.set_bitwidth(kNameBits);
    value.add_annotations(kNameAnnotation);
  });
  addActions(&result);
  for (const auto& [type, id] : tables) addTable(type, id, &result);
  return result;
}

}  // namespace pi::fe::proto
