// The pipeline on paper: the view document set as text.
#include <fmt/core.h>

#include "cli/pipeline/PipelineShow.h"
#include "cli/pipeline/PipelineView.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Files.h"

namespace Cli {

using namespace Pipeline;

namespace {

std::string text(const cJSON* object, const char* key) {
  return Vela::jsonString(object, key).value_or("");
}

uint32_t number(const cJSON* object, const char* key) {
  return Vela::jsonNumber(object, key).value_or(0);
}

// Sizes have 64 bits, of which the view holds 53 exactly.
std::string roomText(const cJSON* object) {
  const double size = cJSON_GetNumberValue(cJSON_GetObjectItem(object, "size"));
  return size > 0 ? fmt::format(", room for {:.0f}", size) : "";
}

bool flag(const cJSON* object, const char* key) {
  return cJSON_IsTrue(cJSON_GetObjectItem(object, key)) != 0;
}

// The elements of an array or object item, for range-based loops.
class Items {
 public:
  Items(const cJSON* object, const char* key) : item_(cJSON_GetObjectItem(object, key)) {}

  class Iterator {
   public:
    explicit Iterator(const cJSON* item) : item_(item) {}
    const cJSON* operator*() const { return item_; }
    void operator++() { item_ = item_->next; }
    bool operator!=(const Iterator& other) const { return item_ != other.item_; }

   private:
    const cJSON* item_;
  };
  Iterator begin() const { return Iterator(item_ == nullptr ? nullptr : item_->child); }
  Iterator end() const { return Iterator(nullptr); }
  int count() const { return cJSON_GetArraySize(item_); }

 private:
  const cJSON* item_;
};

std::string countText(int count, const std::string& what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::string widthText(const cJSON* field) {
  const uint32_t bits = number(field, "bitwidth");
  return bits == 0 ? "string" : fmt::format("bit<{}>", bits);
}

std::string fieldsText(const cJSON* object, const char* key) {
  std::string list;
  for (const cJSON* field : Items(object, key)) {
    list +=
        fmt::format("{}{}: {}", list.empty() ? "" : ", ", text(field, "name"), widthText(field));
  }
  return list;
}

std::string pairsText(const cJSON* object, const char* key) {
  std::string list;
  for (const cJSON* pair : Items(object, key)) {
    list += fmt::format("{}{} = {}", list.empty() ? "" : ", ", pair->string,
                        cJSON_IsString(pair) != 0 ? pair->valuestring : "");
  }
  return list;
}

std::string entryText(const cJSON* entry) {
  const std::string error = text(entry, "error");
  if (!error.empty()) return "cannot be programmed: " + error;
  const uint32_t priority = number(entry, "priority");
  return fmt::format("{}{} -> {}({})", pairsText(entry, "match"),
                     priority == 0 ? "" : fmt::format(" [priority {}]", priority),
                     text(entry, "action"), pairsText(entry, "params"));
}

std::string tableHead(const cJSON* table) {
  std::string head = fmt::format("table {}   id {}", text(table, "name"), number(table, "id"));
  head += roomText(table);
  if (flag(table, "constant")) head += ", constant";
  if (flag(table, "direct_counter")) head += ", direct counter";
  if (flag(table, "direct_meter")) head += ", direct meter";
  const std::string profile = text(table, "action_profile");
  if (!profile.empty()) head += ", action profile " + profile;
  return head + '\n';
}

std::string actionsText(const cJSON* owner) {
  std::string lines;
  for (const cJSON* action : Items(owner, "actions")) {
    const std::string reason = text(action, "reason");
    lines +=
        fmt::format("  action  {}({}){}{}\n", text(action, "name"), fieldsText(action, "params"),
                    flag(action, "default_only") ? "   as default only" : "",
                    reason.empty() ? "" : "   CANNOT BE PROGRAMMED: " + reason);
  }
  return lines;
}

std::string namesText(const cJSON* object, const char* key) {
  std::string list;
  for (const cJSON* name : Items(object, key))
    list += fmt::format("{}{}", list.empty() ? "" : ", ", name->valuestring);
  return list;
}

std::string profileText(const cJSON* profile) {
  std::string page =
      fmt::format("action profile {}   id {}", text(profile, "name"), number(profile, "id"));
  page += roomText(profile);
  if (flag(profile, "selector")) {
    const bool weights = text(profile, "size_semantics") == "sum_of_weights";
    page += fmt::format(", groups of up to {} members{}", number(profile, "max_group_size"),
                        weights ? ", counted by weight" : "");
    if (const uint32_t weight = number(profile, "max_member_weight"); weight != 0)
      page += fmt::format(" of weight {} at most", weight);
  } else {
    page += ", members only";
  }
  page += '\n';
  const std::string members = text(profile, "member_table");
  const std::string groups = text(profile, "group_table");
  if (members.empty()) page += "  CANNOT BE PROGRAMMED: it has no table for its members\n";
  page += fmt::format("  tables  {}\n", namesText(profile, "tables"));
  if (!members.empty())
    page += fmt::format("  rows    {}{}\n", members, groups.empty() ? "" : ", " + groups);
  return page + actionsText(profile);
}

std::string entriesText(const cJSON* owner, const char* key) {
  std::string lines;
  for (const cJSON* entry : Items(owner, key)) {
    lines += fmt::format("  entry   {}\n", entryText(entry));
  }
  return lines;
}

std::string tableText(const cJSON* table) {
  std::string page = tableHead(table);
  if (!flag(table, "programmable"))
    page += fmt::format("  CANNOT BE PROGRAMMED: {}\n", text(table, "reason"));
  for (const cJSON* field : Items(table, "match_fields")) {
    const std::string column = text(field, "column");
    page += fmt::format("  key     {:<32} {:<9} {:<9}{}\n", text(field, "name"), widthText(field),
                        text(field, "match"),
                        column.empty() ? "" : column + " : " + text(field, "column_type"));
  }
  // The entries of a profile's table name members and groups; these hold the actions.
  if (text(table, "action_profile").empty()) page += actionsText(table);
  return page + entriesText(table, "constant_entries");
}

std::string queryText(const cJSON* query) {
  std::string page =
      fmt::format("query {}   rows of type {}\n  kept    {}\n", text(query, "output_table_path"),
                  text(query, "output_table_type"), text(query, "kept"));
  for (const cJSON* input : Items(query, "input_tables")) {
    page += fmt::format("  input   {} = table {}\n", text(input, "table_key"),
                        text(input, "table_value"));
  }
  for (const cJSON* param : Items(query, "params")) {
    page +=
        fmt::format("  param   :{} = {}\n", text(param, "param_key"), text(param, "param_value"));
  }
  return page + fmt::format("  query   {}\n", text(query, "query"));
}

std::string headText(const cJSON* view) {
  std::string head = "pipeline";
  for (const char* key : {"name", "version"}) {
    if (!text(view, key).empty()) head += ' ' + text(view, key);
  }
  head += " for device " + text(view, "device_id");
  const std::string election = text(view, "election_id");
  if (!election.empty()) head += ", election id " + election;
  int entries = 0;
  int refused = 0;
  for (const cJSON* table : Items(view, "tables")) {
    entries += Items(table, "constant_entries").count();
    if (!flag(table, "programmable")) ++refused;
  }
  for (const cJSON* entity : Items(view, "entity_entries")) {
    entries += Items(entity, "entries").count();
  }
  std::string tables = countText(Items(view, "tables").count(), "table");
  if (refused != 0) tables += fmt::format(" ({} of them cannot be programmed)", refused);
  return fmt::format("{}\n{}, {}, {}\n", head, tables,
                     countText(Items(view, "action_profiles").count(), "action profile"),
                     fmt::format("{} constant {}", entries, entries == 1 ? "entry" : "entries"));
}

std::string entityTablesText(const cJSON* view) {
  std::string names;
  for (const cJSON* name : Items(view, "entity_tables")) {
    names += (names.empty() ? "" : ", ") + std::string(cJSON_GetStringValue(name));
  }
  std::string page = names.empty() ? names : "\nrows of other entities in " + names + '\n';
  for (const cJSON* entity : Items(view, "entity_entries")) {
    page += fmt::format("\nrows of {}\n{}", text(entity, "table"), entriesText(entity, "entries"));
  }
  return page;
}

std::string pageOf(const cJSON* view) {
  std::string page = headText(view);
  for (const cJSON* table : Items(view, "tables")) page += '\n' + tableText(table);
  for (const cJSON* profile : Items(view, "action_profiles")) page += '\n' + profileText(profile);
  page += entityTablesText(view);
  for (const cJSON* query : Items(view, "queries")) page += '\n' + queryText(query);
  for (const cJSON* header : Items(view, "packet_headers")) {
    page +=
        fmt::format("\npacket header {}({})\n", text(header, "name"), fieldsText(header, "fields"));
  }
  return page;
}

}  // namespace

std::string shownPipeline(const std::string& path, bool json) {
  p4::v1::SetForwardingPipelineConfigRequest request;
  readPipelineFile(path, &request);
  const Vela::Json view = pipelineView(path, request);
  return json ? Vela::jsonBytes(*view) + '\n' : pageOf(view.get());
}

}  // namespace Cli
