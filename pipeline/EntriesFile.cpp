// Reading constant entries from JSON and from write requests.
#include "pipeline/EntriesFile.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>

#include "PI/frontends/proto/translation_tables.h"
#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/EntryNames.h"
#include "pipeline/FileKind.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/JsonFault.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/TableLayout.h"
#include "pipeline/ValueText.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

using p4::config::v1::MatchField;
using p4::config::v1::Table;

uint32_t widthOf(int bitwidth) { return bitwidth > 0 ? static_cast<uint32_t>(bitwidth) : 0; }

template <typename Objects>
std::vector<std::string> namesOf(const Objects& objects) {
  std::vector<std::string> names;
  for (const auto& object : objects) names.push_back(object.name());
  return names;
}

template <typename Objects>
size_t indexById(const char* what, const Objects& objects, uint32_t id) {
  for (int i = 0; i < objects.size(); ++i) {
    if (objects[i].id() == id) return static_cast<size_t>(i);
  }
  throw PipelineError("there is no " + std::string(what) + ' ' + std::to_string(id));
}

void set(const char* what, const std::string& name, auto* place, auto value) {
  if (*place) throw PipelineError(std::string(what) + ' ' + quoted(name) + " is given twice");
  *place = std::move(value);
}

// A scalar as people may write it in JSON: 7, "7", true.
std::string scalarText(const cJSON& value) {
  constexpr double exactLimit = 9007199254740992.0;  // 2^53: beyond it a JSON number is inexact
  if (cJSON_IsString(&value) != 0) return value.valuestring;
  if (cJSON_IsBool(&value) != 0) return cJSON_IsTrue(&value) != 0 ? "1" : "0";
  if (cJSON_IsNumber(&value) == 0) throw PipelineError("expected a number or a text");
  const double number = value.valuedouble;
  if (!(number >= 0) || number != std::floor(number))
    throw PipelineError("expected a whole number, 0 or above");
  if (number >= exactLimit) throw PipelineError("write numbers this large in quotes");
  return std::to_string(static_cast<uint64_t>(number));
}

class JsonEntry {
 public:
  JsonEntry(const cJSON& json, const P4InfoLookup& index, EntryNames* names)
      : json_(json), index_(index), names_(names) {}

  EntryDraft draft() {
    checkKeys();
    draft_.table = &index_.tableNamed(text("table"));
    checkTakesActions(*draft_.table);
    draft_.match.resize(static_cast<size_t>(draft_.table->match_fields_size()));
    forEachItem("match", [this](const cJSON& item) { addMatch(item); });
    draft_.action = &index_.actionNamed(*draft_.table, text("action"));
    draft_.params.resize(static_cast<size_t>(draft_.action->params_size()));
    forEachItem("params", [this](const cJSON& item) { addParam(item); });
    if (cJSON_HasObjectItem(&json_, "priority") != 0) {
      const auto priority = Vela::jsonNumber(&json_, "priority");
      if (!priority || *priority > INT32_MAX)
        throw PipelineError("\"priority\" is no whole number from 0 to 2147483647");
      draft_.priority = *priority;
    }
    return std::move(draft_);
  }

 private:
  void checkKeys() const {
    if (cJSON_IsObject(&json_) == 0) throw PipelineError("expected an object {\"table\": ...}");
    for (const cJSON* item = json_.child; item != nullptr; item = item->next) {
      const std::string_view key = item->string;
      if (key != "table" && key != "match" && key != "priority" && key != "action" &&
          key != "params") {
        throw PipelineError("unknown " + quoted(key) +
                            "; an entry has table, match, priority, action and params");
      }
    }
  }

  std::string text(const char* key) const {
    const auto value = Vela::jsonString(&json_, key);
    if (!value) throw PipelineError('"' + std::string(key) + "\" is missing, or no text");
    return *value;
  }

  template <typename Visit>
  void forEachItem(const char* key, Visit visit) {
    const cJSON* object = cJSON_GetObjectItem(&json_, key);
    if (object == nullptr) return;
    if (cJSON_IsObject(object) == 0)
      throw PipelineError('"' + std::string(key) + "\" is no object {\"name\": value}");
    for (const cJSON* item = object->child; item != nullptr; item = item->next) visit(*item);
  }

  void addMatch(const cJSON& item) {
    const auto& fields = draft_.table->match_fields();
    const size_t i = indexNamed("match field", item.string, namesOf(fields), {});
    const MatchField& field = fields[static_cast<int>(i)];
    try {
      const std::string text = scalarText(item);
      if (text == "*") return;
      const MatchValue value =
          names_->areOf(field)
              ? MatchValue{MatchValue::Form::exact, names_->bytes(field.type_name().name(), text)}
              : matchValue(text, widthOf(field.bitwidth()));
      set("match field", field.name(), &draft_.match[i], value);
    } catch (const PipelineError& e) {
      throw PipelineError("match field " + quoted(field.name()) + ": " + e.what());
    }
  }

  void addParam(const cJSON& item) {
    const auto& params = draft_.action->params();
    const size_t i = indexNamed("parameter", item.string, namesOf(params), {});
    const auto& param = params[static_cast<int>(i)];
    try {
      const std::string text = scalarText(item);
      set("parameter", param.name(), &draft_.params[i],
          names_->areOf(param) ? names_->bytes(param.type_name().name(), text)
                               : valueBytes(text, widthOf(param.bitwidth())));
    } catch (const PipelineError& e) {
      throw PipelineError("parameter " + quoted(param.name()) + ": " + e.what());
    }
  }

  const cJSON& json_;
  const P4InfoLookup& index_;
  EntryNames* names_;
  EntryDraft draft_;
};

// Strings match as a whole.
MatchValue namedMatchOf(const p4::v1::FieldMatch& match, const std::string& type,
                        EntryNames* names) {
  if (match.has_exact())
    return {MatchValue::Form::exact, names->bytes(type, match.exact().value())};
  if (match.has_optional()) {
    return {MatchValue::Form::exact, names->bytes(type, match.optional().value())};
  }
  throw PipelineError("its values are strings, which match exactly or not at all");
}

MatchValue matchValueOf(const p4::v1::FieldMatch& match, uint32_t bits) {
  using Form = MatchValue::Form;
  switch (match.field_match_type_case()) {
    case p4::v1::FieldMatch::kExact:
      return {Form::exact, canonicalValue(match.exact().value(), bits), "", 0};
    case p4::v1::FieldMatch::kOptional:
      return {Form::exact, canonicalValue(match.optional().value(), bits), "", 0};
    case p4::v1::FieldMatch::kTernary:
      return {Form::ternary, canonicalValue(match.ternary().value(), bits),
              canonicalValue(match.ternary().mask(), bits), 0};
    case p4::v1::FieldMatch::kRange:
      return {Form::range, canonicalValue(match.range().low(), bits),
              canonicalValue(match.range().high(), bits), 0};
    case p4::v1::FieldMatch::kLpm:
      if (match.lpm().prefix_len() < 0 || match.lpm().prefix_len() > static_cast<int>(bits))
        throw PipelineError("its prefix length " + std::to_string(match.lpm().prefix_len()) +
                            " is beyond its " + std::to_string(bits) + " bits");
      return {Form::lpm, canonicalValue(match.lpm().value(), bits), "",
              static_cast<uint32_t>(match.lpm().prefix_len())};
    default:
      throw PipelineError("it has no value of a known match kind");
  }
}

const p4::v1::TableEntry& insertedEntry(const p4::v1::Update& update) {
  if (update.type() != p4::v1::Update::INSERT)
    throw PipelineError("expected an INSERT, not " + p4::v1::Update::Type_Name(update.type()));
  if (!update.entity().has_table_entry())
    throw PipelineError(
        "expected a table_entry, or an entry of the packet_replication_engine; give value sets and"
        " cells as entries of their tables");
  const p4::v1::TableEntry& entry = update.entity().table_entry();
  if (entry.is_default_action())
    throw PipelineError("it sets a default action, which the agent does not do");
  if (entry.has_meter_config() || entry.has_counter_data() || entry.has_meter_counter_data())
    throw PipelineError("constant entries carry no meter or counter");
  if (entry.priority() < 0) throw PipelineError("its priority is negative");
  return entry;
}

EntryDraft draftOf(const p4::v1::Update& update, const P4InfoLookup& index, EntryNames* names) {
  const p4::v1::TableEntry& entry = insertedEntry(update);
  EntryDraft draft;
  draft.table = index.table(entry.table_id());
  if (draft.table == nullptr)
    throw PipelineError("there is no table " + std::to_string(entry.table_id()));
  checkTakesActions(*draft.table);
  if (!entry.action().has_action()) throw PipelineError("it has no action");
  draft.priority = static_cast<uint32_t>(entry.priority());
  draft.match.resize(static_cast<size_t>(draft.table->match_fields_size()));
  for (const p4::v1::FieldMatch& match : entry.match()) {
    const auto& fields = draft.table->match_fields();
    const size_t i = indexById("match field", fields, match.field_id());
    const MatchField& field = fields[static_cast<int>(i)];
    try {
      set("match field", field.name(), &draft.match[i],
          names->areOf(field) ? namedMatchOf(match, field.type_name().name(), names)
                              : matchValueOf(match, widthOf(field.bitwidth())));
    } catch (const PipelineError& e) {
      throw PipelineError("match field " + quoted(field.name()) + ": " + e.what());
    }
  }
  const p4::v1::Action& action = entry.action().action();
  draft.action = index.action(action.action_id());
  if (draft.action == nullptr)
    throw PipelineError("there is no action " + std::to_string(action.action_id()));
  draft.params.resize(static_cast<size_t>(draft.action->params_size()));
  for (const auto& given : action.params()) {
    const size_t i = indexById("parameter", draft.action->params(), given.param_id());
    const auto& param = draft.action->params(static_cast<int>(i));
    set("parameter", param.name(), &draft.params[i],
        names->areOf(param) ? names->bytes(param.type_name().name(), given.value())
                            : canonicalValue(given.value(), widthOf(param.bitwidth())));
  }
  return draft;
}

std::string bytesOf(uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

// A group or session as rows of the tables that hold it.
class ReplicationRows {
 public:
  explicit ReplicationRows(const P4InfoLookup& index) : index_(index) {}

  std::vector<p4::v1::Update> run(const p4::v1::Update& update) {
    update_ = &update;
    const auto& engine = update.entity().packet_replication_engine_entry();
    if (engine.has_multicast_group_entry()) {
      const auto& group = engine.multicast_group_entry();
      add("pre.multicast_group", {group.multicast_group_id()}, "group", {});
      addReplicas("pre.multicast_group.replica", group.multicast_group_id(), group.replicas());
    } else {
      const auto& session = engine.clone_session_entry();
      add("pre.clone_session", {session.session_id()}, "session",
          {session.class_of_service(), static_cast<uint32_t>(session.packet_length_bytes())});
      addReplicas("pre.clone_session.replica", session.session_id(), session.replicas());
    }
    return std::move(rows_);
  }

 private:
  template <typename Replicas>
  void addReplicas(const char* table, uint32_t owner, const Replicas& replicas) {
    for (const p4::v1::Replica& replica : replicas) {
      add(table, {owner, portOf(replica), replica.instance()}, "row", {});
    }
  }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // controllers still send the number
  uint32_t portOf(const p4::v1::Replica& replica) const {
    if (replica.has_egress_port()) return replica.egress_port();
    if (!pi::fe::proto::translation_tables(index_.p4Info()).empty()) {
      throw PipelineError("give the ports of replicas as numbers, with egress_port");
    }
    uint32_t port = 0;
    for (const char byte : canonicalValue(replica.port(), 32)) {
      port = port << 8 | static_cast<uint8_t>(byte);
    }
    return port;
  }
#pragma GCC diagnostic pop
  void add(const char* name, std::initializer_list<uint32_t> keys, const char* action,
           std::initializer_list<uint32_t> params) {
    const Table& table = index_.tableNamed(name);
    p4::v1::Update& row = rows_.emplace_back();
    row.set_type(update_->type());
    p4::v1::TableEntry& entry = *row.mutable_entity()->mutable_table_entry();
    entry.set_table_id(table.preamble().id());
    for (const uint32_t key : keys) {
      p4::v1::FieldMatch& match = *entry.add_match();
      match.set_field_id(static_cast<uint32_t>(entry.match_size()));
      match.mutable_exact()->set_value(bytesOf(key));
    }
    p4::v1::Action& sent = *entry.mutable_action()->mutable_action();
    sent.set_action_id(index_.actionNamed(table, action).preamble().id());
    for (const uint32_t param : params) {
      p4::v1::Action::Param& value = *sent.add_params();
      value.set_param_id(static_cast<uint32_t>(sent.params_size()));
      value.set_value(bytesOf(param));
    }
  }

  const P4InfoLookup& index_;
  const p4::v1::Update* update_ = nullptr;
  std::vector<p4::v1::Update> rows_;
};

// Encodes entry after entry and puts its number and table before every error. The entries of a
// table that cannot be programmed are left out, like the table.
class EntryList {
 public:
  EntryList(const std::string& path, const PipelineLayout& layout, Findings* findings)
      : path_(path), layout_(layout), findings_(findings) {}

  // `make` returns the next entry's draft; `table` is its name as far as it is known.
  template <typename Make>
  void add(const std::string& table, Make make) {
    ++number_;
    const std::string place = path_ + ": entry " + std::to_string(number_) +
                              (table.empty() ? "" : " (table " + table + ')') + ": ";
    try {
      const EntryDraft draft = make();
      if (layout_.refused.contains({TableKind::match, draft.table->preamble().id()})) {
        findings_->warning("", place + "left out, because the table cannot be programmed");
      } else {
        append(encodeEntry(draft, layout_));
      }
    } catch (const PipelineError& e) {
      throw PipelineError(place + e.what());
    }
  }

  size_t count() const { return number_; }
  std::vector<ConstantEntry> take() { return std::move(entries_); }

 private:
  void append(ConstantEntry entry) {
    const auto key = std::make_tuple(entry.tableId, entry.key, entry.priority);
    const auto [other, isNew] = numbers_.emplace(key, number_);
    if (!isNew) throw PipelineError("it has the key of entry " + std::to_string(other->second));
    entries_.push_back(std::move(entry));
  }

  const std::string& path_;
  const PipelineLayout& layout_;
  Findings* findings_;
  size_t number_ = 0;  // of the newest entry, from 1
  std::vector<ConstantEntry> entries_;
  std::map<std::tuple<uint32_t, std::string, uint32_t>, size_t> numbers_;
};

void readJsonEntries(const std::string& path, const std::string& contents,
                     const P4InfoLookup& index, EntryNames* names, EntryList* list) {
  const Vela::Json root = parseJsonFile(path, contents);
  const cJSON* entries = cJSON_IsArray(root.get()) != 0 ? root.get() : nullptr;
  if (entries == nullptr) entries = Vela::jsonArray(root.get(), "entries");
  if (entries == nullptr) {
    throw PipelineError(path +
                        ": expected an array of entries [{\"table\": ...}, ...], or an object"
                        " with such an array under \"entries\"");
  }
  for (const cJSON* item = entries->child; item != nullptr; item = item->next) {
    list->add(Vela::jsonString(item, "table").value_or(""),
              [&] { return JsonEntry(*item, index, names).draft(); });
  }
}

// Every update, those of groups and sessions as the rows that stand for them.
std::vector<p4::v1::Update> withReplicationRows(const std::string& path,
                                                const p4::v1::WriteRequest& request,
                                                const P4InfoLookup& index) {
  std::vector<p4::v1::Update> updates;
  for (int i = 0; i < request.updates_size(); ++i) {
    const p4::v1::Update& update = request.updates(i);
    if (!update.entity().has_packet_replication_engine_entry()) {
      updates.push_back(update);
      continue;
    }
    try {
      std::ranges::move(ReplicationRows(index).run(update), std::back_inserter(updates));
    } catch (const PipelineError& e) {
      throw PipelineError(path + ": update " + std::to_string(i + 1) + ": " + e.what());
    }
  }
  return updates;
}

void readWriteRequest(const std::string& path, const std::string& contents,
                      const P4InfoLookup& index, EntryNames* names, EntryList* list,
                      Findings* findings) {
  p4::v1::WriteRequest request;
  if (looksLikeText(contents)) {
    Findings skipped;
    parseTextForm(path, contents, &request, &skipped);
    if (request.ByteSizeLong() == 0 && !skipped.list().empty()) {
      throw PipelineError(path + ": neither JSON entries nor the text of a p4.v1.WriteRequest");
    }
    for (const Finding& finding : skipped.list()) findings->warning("", finding.message);
  } else if (!request.ParseFromString(contents)) {
    throw PipelineError(path + ": neither JSON entries nor a p4.v1.WriteRequest");
  }
  for (const p4::v1::Update& update : withReplicationRows(path, request, index)) {
    const Table* table = index.table(update.entity().table_entry().table_id());
    list->add(table == nullptr ? "" : table->preamble().name(),
              [&] { return draftOf(update, index, names); });
  }
}

}  // namespace

std::vector<ConstantEntry> readConstantEntries(const std::string& path, const P4InfoLookup& index,
                                               const PipelineLayout& layout, Findings* findings) {
  const std::string contents = fileContents(path);
  EntryList list(path, layout, findings);
  EntryNames names(index.p4Info());
  const size_t start = contents.find_first_not_of(" \t\r\n");
  if (start != std::string::npos && (contents[start] == '[' || contents[start] == '{')) {
    readJsonEntries(path, contents, index, &names, &list);
  } else {
    readWriteRequest(path, contents, index, &names, &list, findings);
  }
  if (list.count() == 0) findings->warning("", path + ": holds no entries");
  std::vector<ConstantEntry> entries = list.take();
  std::ranges::move(names.entries(), std::back_inserter(entries));
  return entries;
}

}  // namespace Pipeline
