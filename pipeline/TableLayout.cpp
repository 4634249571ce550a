// Layouts from a P4Info, and definitions from layouts.
#include "pipeline/TableLayout.h"

#include <set>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/ColumnType.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"

namespace Pipeline {
namespace {

using p4::config::v1::MatchField;

constexpr size_t maxPrefixes = 8;    // of one row, in the agent's conversion
constexpr size_t maxPiBytes = 1023;  // of a match key, and of an action's data

// Thrown within this file: a part of a table cannot be programmed.
struct Refusal {
  std::string reason;
};

size_t byteCount(uint32_t bits) { return (bits + 7) / 8; }

// Empty where a definition cannot have the name.
template <typename Value>
std::string namedType(const Value& value) {
  const std::string& type = value.type_name().name();
  return isName(value) && legalName(type, "") == type ? type : "";
}

class SlotMaker {
 public:
  explicit SlotMaker(const Extensions& extensions) : extensions_(extensions) {}

  std::vector<Slot> slots(const p4::config::v1::Table& table) {
    for (int i = 0; i < table.match_fields_size(); ++i) {
      field_ = static_cast<size_t>(i);
      addField(table.match_fields(i));
    }
    checkLimits();
    return std::move(slots_);
  }

 private:
  void addField(const MatchField& field) {
    const std::string what = "match field " + quoted(field.name()) + ": ";
    if (field.match_case() != MatchField::kMatchType) {
      const std::string& other = field.other_match_type();
      throw Refusal{what + (other.empty() ? "it has no match type"
                                          : "the agent knows no match type " + quoted(other))};
    }
    const bool lpm = field.match_type() == MatchField::LPM;
    const ColumnChoice choice =
        lpm ? prefixColumn(field, extensions_) : keyColumn(field, extensions_);
    if (!choice.refusal.empty()) throw Refusal{what + choice.refusal};
    named_ = namedType(field);
    const std::string name =
        names_.take(legalName(field.name(), "field_" + std::to_string(field.id())));
    addSlots(field, name, choice.type);
  }

  void addSlots(const MatchField& field, const std::string& name, const std::string& type) {
    const auto bits = static_cast<uint32_t>(field.bitwidth());
    switch (field.match_type()) {
      case MatchField::LPM:
        add(name, type, SlotRole::prefix, bits);
        add(names_.take(name + "_len"), type == "IpGenPrefix" ? "PrefixLen" : "U32",
            SlotRole::prefixLength, 32);
        break;
      case MatchField::TERNARY:
        add(name, type, SlotRole::value, bits);
        add(names_.take(name + "_mask"), type, SlotRole::mask, bits);
        break;
      case MatchField::RANGE:
        if (!extensions_.fields) return add(name, type, SlotRole::range, bits);
        add(name, type, SlotRole::low, bits);
        add(names_.take(name + "_high"), type, SlotRole::high, bits);
        break;
      case MatchField::OPTIONAL:
        if (!extensions_.fields) return add(name, type, SlotRole::exact, bits);
        add(name, type, SlotRole::optional, bits);
        add(names_.take(name + "_present"), "U8", SlotRole::present, 8);
        break;
      case MatchField::EXACT:
        add(name, type, SlotRole::exact, bits);
        break;
      default:
        throw Refusal{"match field " + quoted(field.name()) + ": it has no match type"};
    }
  }

  void add(std::string name, std::string type, SlotRole role, uint32_t bits) {
    slots_.push_back({std::move(name), std::move(type), role, bits, field_});
    const bool isValue = isFirst(role) || role == SlotRole::high;
    if (isValue && slots_.back().type == "U32") slots_.back().named = named_;
  }

  void checkLimits() const {
    size_t prefixes = 0;
    size_t bytes = 0;
    for (const Slot& slot : slots_) {
      prefixes += slot.type == "IpGenPrefix" ? 1 : 0;
      bytes += byteCount(slot.bits);
    }
    if (prefixes > maxPrefixes) {
      throw Refusal{"it has " + std::to_string(prefixes) + " LPM fields; " +
                    std::to_string(maxPrefixes) + " is the most"};
    }
    if (bytes > maxPiBytes) {
      throw Refusal{"its key has " + std::to_string(bytes) + " bytes; " +
                    std::to_string(maxPiBytes) + " is the most"};
    }
  }

  const Extensions& extensions_;
  std::vector<Slot> slots_;
  UniqueNames names_;
  size_t field_ = 0;
  std::string named_;
};

// People use the alias, which is unique among its kind.
template <typename Object>
const std::string& shortName(const Object& object) {
  return object.preamble().alias().empty() ? object.preamble().name() : object.preamble().alias();
}

ActionShape actionShape(const p4::config::v1::Action& action, std::string name,
                        const Extensions& extensions) {
  ActionShape shape{std::move(name), action.preamble().id(), {}};
  UniqueNames names;
  size_t bytes = 0;
  for (const auto& parameter : action.params()) {
    const ColumnChoice choice = parameterColumn(parameter, extensions);
    if (!choice.refusal.empty())
      throw Refusal{"parameter " + quoted(parameter.name()) + ": " + choice.refusal};
    const auto bits = static_cast<uint32_t>(parameter.bitwidth());
    bytes += byteCount(bits);
    shape.fields.push_back(
        {names.take(legalName(parameter.name(), "param_" + std::to_string(parameter.id()))),
         choice.type, bits, isInNetworkOrder(parameter), namedType(parameter)});
  }
  if (bytes > maxPiBytes) throw Refusal{"its parameters have " + std::to_string(bytes) + " bytes"};
  return shape;
}

bool needsPriority(SlotRole role) {
  return role == SlotRole::value || role == SlotRole::range || role == SlotRole::low ||
         role == SlotRole::optional;
}

class LayoutMaker {
 public:
  LayoutMaker(const P4InfoLookup& index, const Extensions& extensions, const TableNames& given,
              Findings* findings)
      : index_(index), extensions_(extensions), given_(given), findings_(findings) {}

  PipelineLayout run() {
    for (const auto& [ref, name] : given_) {
      if (isKnown(ref)) tableNames_.take(name);
    }
    for (const auto& table : index_.p4Info().tables()) addTable(table);
    for (const auto& profile : index_.p4Info().action_profiles()) addProfile(profile);
    return std::move(result_);
  }

 private:
  void addTable(const p4::config::v1::Table& table) {
    const std::string object = "table " + table.preamble().name();
    // A table without a key has its default entry alone.
    const bool hasEntries = !extensions_.defaultActions || !table.match_fields().empty();
    if (hasEntries) addMatchTable(table, object);
    if (extensions_.defaultActions && hasOpenDefault(table)) addDefaultEntry(table, object);
  }

  void addMatchTable(const p4::config::v1::Table& table, const std::string& object) {
    try {
      result_.tables.push_back(matchTable(table, object));
    } catch (const Refusal& refusal) {
      result_.refused[{TableKind::match, table.preamble().id()}] = refusal.reason;
      findings_->warning(object, "cannot be programmed: " + refusal.reason);
    }
  }

  void addDefaultEntry(const p4::config::v1::Table& table, const std::string& object) {
    TableLayout layout;
    layout.kind = TableKind::defaultEntry;
    layout.id = table.preamble().id();
    layout.slots = {{"entry", "U8", SlotRole::exact, 8, 0}};
    layout.meter = extensions_.defaultResources && index_.hasDirectMeter(table);
    layout.counter = extensions_.defaultResources && index_.hasDirectCounter(table);
    std::vector<uint32_t> actionIds;
    for (const auto& ref : table.action_refs()) {
      if (ref.scope() != p4::config::v1::ActionRef::TABLE_ONLY) actionIds.push_back(ref.id());
    }
    Findings saidOfTheTable;
    const bool isSaid = !table.match_fields().empty();
    try {
      layout.actions = actions(actionIds, object, isSaid ? &saidOfTheTable : findings_);
      name(shortName(table) + ".default", "default", &layout);
      result_.tables.push_back(std::move(layout));
    } catch (const Refusal& refusal) {
      result_.refused[{TableKind::defaultEntry, layout.id}] = refusal.reason;
      findings_->warning(object, "its default entry cannot be changed: " + refusal.reason);
    }
  }

  TableLayout matchTable(const p4::config::v1::Table& table, const std::string& object) {
    if (table.match_fields().empty())
      throw Refusal{"it has no match fields, and the agent sets no default actions"};
    TableLayout layout;
    layout.id = table.preamble().id();
    layout.slots = SlotMaker(extensions_).slots(table);
    layout.indirect = table.implementation_id() != 0;
    layout.meter = index_.hasDirectMeter(table);
    layout.counter = index_.hasDirectCounter(table);
    for (const Slot& slot : layout.slots) {
      layout.priority |= needsPriority(slot.role);
    }
    std::vector<uint32_t> actionIds;
    for (const auto& ref : table.action_refs()) actionIds.push_back(ref.id());
    layout.actions = actions(actionIds, object, findings_);
    if (layout.indirect) layout.actions.clear();  // the members hold them
    name(shortName(table), "table", &layout);
    return layout;
  }

  // Those that can be programmed, each once; at least one.
  std::vector<ActionShape> actions(const std::vector<uint32_t>& ids, const std::string& object,
                                   Findings* findings) {
    std::vector<ActionShape> shapes;
    UniqueNames names;
    std::set<uint32_t> seen;
    std::string refused = "it has no actions";
    for (const uint32_t id : ids) {
      if (!seen.insert(id).second) continue;
      const p4::config::v1::Action& action = *index_.action(id);
      try {
        shapes.push_back(actionShape(
            action, names.take(legalName(shortName(action), "action_" + std::to_string(id))),
            extensions_));
      } catch (const Refusal& refusal) {
        result_.refusedActions[id] = refusal.reason;
        refused = "action " + quoted(action.preamble().name()) + ": " + refusal.reason;
        findings->warning(object, "one action cannot be programmed: " + refused);
      }
    }
    if (shapes.empty()) throw Refusal{refused};
    return shapes;
  }

  void addProfile(const p4::config::v1::ActionProfile& profile) {
    const std::string object = "action profile " + profile.preamble().name();
    std::vector<uint32_t> actionIds;
    for (const uint32_t id : profile.table_ids()) {
      for (const auto& ref : index_.table(id)->action_refs()) actionIds.push_back(ref.id());
    }
    Findings saidOfTheTables;
    try {
      if (actionIds.empty()) throw Refusal{"it lists no table with actions"};
      addProfileTables(profile, actions(actionIds, object, &saidOfTheTables));
    } catch (const Refusal& refusal) {
      findings_->warning(object, "cannot be programmed: " + refusal.reason);
      for (const TableKind kind : {TableKind::member, TableKind::group}) {
        result_.refused[{kind, profile.preamble().id()}] = refusal.reason;
      }
    }
  }

  void addProfileTables(const p4::config::v1::ActionProfile& profile,
                        const std::vector<ActionShape>& shapes) {
    TableLayout member;
    member.kind = TableKind::member;
    member.id = profile.preamble().id();
    member.slots = {{"member_id", "U32", SlotRole::exact, 32, 0}};
    member.actions = shapes;
    name(shortName(profile) + ".member", "profile", &member);
    result_.tables.push_back(std::move(member));
    if (!profile.with_selector()) return;  // it has no groups
    TableLayout group;
    group.kind = TableKind::group;
    group.id = profile.preamble().id();
    group.slots = {{"group_id", "U32", SlotRole::exact, 32, 0}};
    name(shortName(profile) + ".group", "profile", &group);
    result_.tables.push_back(std::move(group));
  }

  bool isKnown(const TableRef& ref) const {
    const auto& [kind, id] = ref;
    const bool isOfProfile = kind == TableKind::member || kind == TableKind::group;
    return isOfProfile ? index_.actionProfile(id) != nullptr : index_.table(id) != nullptr;
  }

  void name(const std::string& p4Name, const std::string& fallback, TableLayout* layout) {
    const std::string plain = fallback + '_' + std::to_string(layout->id);
    const auto given = given_.find({layout->kind, layout->id});
    layout->tableName =
        given != given_.end() ? given->second : tableNames_.take(legalTableName(p4Name, plain));
    layout->typeName = typeNames_.take(legalName(layout->tableName, plain));
  }

  const P4InfoLookup& index_;
  const Extensions& extensions_;
  const TableNames& given_;
  Findings* findings_;
  PipelineLayout result_;
  UniqueNames tableNames_;
  UniqueNames typeNames_;
};

// The column's role in the language of table types; none for an exact one.
const char* roleText(const Slot& slot) {
  switch (slot.role) {
    case SlotRole::value:
      return " value";
    case SlotRole::mask:
      return " mask";
    case SlotRole::range:
      return " range";
    case SlotRole::prefix:
      return slot.type == "IpGenPrefix" ? "" : " prefix";
    case SlotRole::prefixLength:
      return " length";
    case SlotRole::low:
      return " low";
    case SlotRole::high:
      return " high";
    case SlotRole::optional:
      return " optional";
    case SlotRole::present:
      return " present";
    case SlotRole::exact:
      break;
  }
  return "";
}

std::string typeText(const std::string& type, const std::string& named) {
  return named.empty() ? type : type + " named " + named;
}

std::string columnText(const Slot& slot) {
  return "key " + slot.name + " : " + typeText(slot.type, slot.named) + roleText(slot) + ";\n";
}

std::string actionText(const ActionShape& action) {
  std::string text = "  " + action.name + ' ' + std::to_string(action.id) + " {";
  for (const ActionField& field : action.fields)
    text += ' ' + field.name + " : " + typeText(field.type, field.named) + ';';
  if (action.fields.empty()) text += " none : Void;";
  return text + " }\n";
}

}  // namespace

const char* tableClass(TableKind kind) {
  switch (kind) {
    case TableKind::member:
      return "TABLE_CLASS_ACTION_PROFILE_MEMBER";
    case TableKind::group:
      return "TABLE_CLASS_ACTION_PROFILE_GROUP";
    case TableKind::defaultEntry:
      return "TABLE_CLASS_DEFAULT_ACTION";
    case TableKind::match:
      break;
  }
  return "TABLE_CLASS_MATCH_ACTION";
}

std::string definitionText(const TableLayout& layout) {
  std::string text;
  for (const Slot& slot : layout.slots) {
    if (slot.hasColumn()) text += columnText(slot);
  }
  if (layout.priority) text += "key priority : U32 priority;\n";
  if (layout.kind == TableKind::group) text += "member_id : U32[];\n";
  if (layout.indirect) text += "indirect_id : U32;\nis_group : U8;\n";
  if (!layout.actions.empty()) {
    text += "action {\n";
    for (const ActionShape& action : layout.actions) text += actionText(action);
    text += "}\n";
  }
  if (layout.meter) text += "meter;\n";
  if (layout.counter) text += "counter;\n";
  return text;
}

const TableLayout* PipelineLayout::table(const TableRef& ref) const {
  for (const TableLayout& layout : tables) {
    if (TableRef{layout.kind, layout.id} == ref) return &layout;
  }
  return nullptr;
}

PipelineLayout pipelineLayout(const P4InfoLookup& index, const Extensions& extensions,
                              Findings* findings, const TableNames& given) {
  return LayoutMaker(index, extensions, given, findings).run();
}

}  // namespace Pipeline
