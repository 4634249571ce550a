// Reading the entries of compiled programs.
#include "pipeline/CompiledEntries.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/TableLayout.h"
#include "pipeline/ValueText.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

using p4::config::v1::Action;
using p4::config::v1::MatchField;
using p4::config::v1::Table;
using Form = MatchValue::Form;

uint32_t widthOf(int bitwidth) { return bitwidth > 0 ? static_cast<uint32_t>(bitwidth) : 0; }

std::string textOf(const cJSON* object, const char* key) {
  const auto text = Vela::jsonString(object, key);
  if (!text) throw PipelineError("it has no text " + quoted(key));
  return *text;
}

// "0x0a00", whose digits may be an odd number.
std::string numberOf(const std::string& text, uint32_t bits) {
  std::string digits = text.starts_with("0x") ? text.substr(2) : text;
  if (digits.size() % 2 != 0) digits.insert(0, 1, '0');
  return canonicalValue(bytesOfHex(digits), bits);
}

std::string masked(std::string value, std::string_view mask) {
  for (size_t i = 0; i < value.size(); ++i) {
    value[i] = static_cast<char>(value[i] & mask[i]);
  }
  return value;
}

bool isTrue(const cJSON* element) { return cJSON_IsTrue(cJSON_GetObjectItem(element, "key")) != 0; }

std::optional<MatchValue> ternary(std::string value, std::string mask, bool isOptional,
                                  uint32_t bits) {
  if (isZero(mask)) return std::nullopt;
  if (isOptional && mask == fullMask(bits)) return MatchValue{Form::exact, std::move(value), "", 0};
  return MatchValue{Form::ternary, masked(std::move(value), mask), std::move(mask), 0};
}

// Of an element of "match_key". Nothing: don't care.
std::optional<MatchValue> matchValueOf(const cJSON* element, const MatchField& field) {
  const uint32_t bits = widthOf(field.bitwidth());
  const std::string type = textOf(element, "match_type");
  const auto number = [&](const char* key) { return numberOf(textOf(element, key), bits); };
  if (type == "valid") {
    return MatchValue{Form::exact,
                      canonicalValue(std::string(1, isTrue(element) ? '\1' : '\0'), bits), "", 0};
  }
  if (type == "exact") return MatchValue{Form::exact, number("key"), "", 0};
  if (type == "ternary") {
    return ternary(number("key"), number("mask"), field.match_type() == MatchField::OPTIONAL, bits);
  }
  if (type == "range") return MatchValue{Form::range, number("start"), number("end"), 0};
  if (type != "lpm") throw PipelineError("its match type " + quoted(type) + " is unknown");
  const auto length = Vela::jsonNumber(element, "prefix_length");
  if (!length || *length > bits) throw PipelineError("its prefix length makes no sense");
  if (*length == 0) return std::nullopt;
  return MatchValue{Form::lpm, masked(number("key"), prefixMask(*length, bits)), "", *length};
}

// A table of the program that the P4Info has, too.
class CompiledTable {
 public:
  CompiledTable(const cJSON* json, const Table& table,
                const std::map<uint32_t, const Action*>& actions)
      : table_(table), actions_(actions) {
    for (const cJSON* element : Vela::JsonElements(Vela::jsonArray(json, "key"))) {
      keyNames_.push_back(Vela::jsonString(element, "name").value_or(""));
    }
    for (const cJSON* entry : Vela::JsonElements(Vela::jsonArray(json, "entries"))) {
      lowestPriority_ = std::max(lowestPriority_, priorityIn(entry));
    }
  }

  EntryDraft draftOf(const cJSON* entry) const {
    EntryDraft draft;
    draft.table = &table_;
    checkTakesActions(table_);
    draft.match.resize(static_cast<size_t>(table_.match_fields_size()));
    size_t position = 0;
    for (const cJSON* element : Vela::JsonElements(Vela::jsonArray(entry, "match_key"))) {
      const size_t field = fieldAt(position++);
      draft.match[field] = matchValueOf(element, table_.match_fields(static_cast<int>(field)));
    }
    if (hasPriorities()) draft.priority = lowestPriority_ + 1 - priorityIn(entry);
    takeAction(Vela::jsonObject(entry, "action_entry"), &draft);
    return draft;
  }

 private:
  static uint32_t priorityIn(const cJSON* entry) {
    return Vela::jsonNumber(entry, "priority").value_or(0);
  }
  // In the program the smallest one wins, here the largest.
  bool hasPriorities() const {
    return std::ranges::any_of(table_.match_fields(), [](const MatchField& field) {
      return field.match_type() == MatchField::TERNARY || field.match_type() == MatchField::RANGE ||
             field.match_type() == MatchField::OPTIONAL;
    });
  }
  // By the name of the element, else by its place.
  size_t fieldAt(size_t position) const {
    const auto& fields = table_.match_fields();
    for (int i = 0; i < fields.size() && position < keyNames_.size(); ++i) {
      if (fields[i].name() == keyNames_[position]) return static_cast<size_t>(i);
    }
    if (position < static_cast<size_t>(fields.size())) return position;
    throw PipelineError("its key has more elements than the table has match fields");
  }
  void takeAction(const cJSON* json, EntryDraft* draft) const {
    const auto id = Vela::jsonNumber(json, "action_id");
    const auto action = id ? actions_.find(*id) : actions_.end();
    if (action == actions_.end()) throw PipelineError("its action is none of the P4Info");
    draft->action = action->second;
    const auto& params = draft->action->params();
    for (const cJSON* value : Vela::JsonElements(Vela::jsonArray(json, "action_data"))) {
      const size_t i = draft->params.size();
      if (cJSON_IsString(value) == 0 || i >= static_cast<size_t>(params.size())) {
        throw PipelineError("its action data do not fit the action");
      }
      draft->params.emplace_back(
          numberOf(value->valuestring, widthOf(params[static_cast<int>(i)].bitwidth())));
    }
    draft->params.resize(static_cast<size_t>(params.size()));
  }

  const Table& table_;
  const std::map<uint32_t, const Action*>& actions_;  // by the program's ids
  std::vector<std::string> keyNames_;
  uint32_t lowestPriority_ = 0;
};

class CompiledProgram {
 public:
  CompiledProgram(const P4InfoLookup& index, const PipelineLayout& layout, Findings* findings)
      : index_(index), layout_(layout), findings_(findings) {}

  std::vector<ConstantEntry> entriesOf(const cJSON* program) {
    for (const cJSON* action : Vela::JsonElements(Vela::jsonArray(program, "actions"))) {
      noteAction(action);
    }
    for (const cJSON* pipeline : Vela::JsonElements(Vela::jsonArray(program, "pipelines"))) {
      for (const cJSON* table : Vela::JsonElements(Vela::jsonArray(pipeline, "tables"))) {
        addEntriesOf(table);
      }
    }
    return std::move(entries_);
  }

 private:
  void noteAction(const cJSON* json) {
    const auto name = Vela::jsonString(json, "name");
    const auto id = Vela::jsonNumber(json, "id");
    const auto& actions = index_.p4Info().actions();
    const auto found = std::ranges::find_if(
        actions, [&](const Action& action) { return action.preamble().name() == name; });
    if (id && found != actions.end()) actions_.emplace(*id, &*found);
  }
  void addEntriesOf(const cJSON* json) {
    const cJSON* entries = Vela::jsonArray(json, "entries");
    const auto name = Vela::jsonString(json, "name");
    const auto& tables = index_.p4Info().tables();
    const auto table = std::ranges::find_if(
        tables, [&](const Table& one) { return one.preamble().name() == name; });
    if (entries == nullptr || entries->child == nullptr || table == tables.end()) return;
    if (layout_.refused.contains({TableKind::match, table->preamble().id()})) return;
    const CompiledTable compiled(json, *table, actions_);
    size_t number = 0;
    for (const cJSON* entry : Vela::JsonElements(entries)) {
      ++number;
      try {
        append(encodeEntry(compiled.draftOf(entry), layout_));
      } catch (const PipelineError& e) {
        findings_->warning(
            "table " + table->preamble().name(),
            "entry " + std::to_string(number) + " of the program is left out: " + e.what());
      }
    }
  }
  void append(ConstantEntry entry) {
    if (!keys_.emplace(entry.tableId, entry.key, entry.priority).second) {
      throw PipelineError("it has the key of an earlier one");
    }
    entries_.push_back(std::move(entry));
  }

  const P4InfoLookup& index_;
  const PipelineLayout& layout_;
  Findings* findings_;
  std::map<uint32_t, const Action*> actions_;
  std::set<std::tuple<uint32_t, std::string, uint32_t>> keys_;
  std::vector<ConstantEntry> entries_;
};

}  // namespace

std::vector<ConstantEntry> readCompiledEntries(const std::string& program,
                                               const P4InfoLookup& index,
                                               const PipelineLayout& layout, Findings* findings) {
  const Vela::Json json = Vela::parseJson(program);
  if (!json) return {};
  return CompiledProgram(index, layout, findings).entriesOf(json.get());
}

}  // namespace Pipeline
