#include "forwarder/plane/ProgramNames.h"

#include <stdexcept>

#include "platform/vela/Json.h"

namespace Forwarder {

ProgramNames ProgramNames::parse(const std::string& json) {
  const Vela::Json read = Vela::parseJson(json);
  if (!read) throw std::runtime_error("the names of the program's objects are no JSON");
  ProgramNames names;
  for (const cJSON* table : Vela::JsonElements(Vela::jsonArray(read.get(), "tables"))) {
    RowsMeaning& meaning = names.tables[Vela::jsonString(table, "rows").value_or("")];
    meaning.kind = Vela::jsonString(table, "kind").value_or("");
    meaning.name = Vela::jsonString(table, "name").value_or("");
    meaning.id = Vela::jsonNumber(table, "id").value_or(0);
    for (const cJSON* bits : Vela::JsonElements(Vela::jsonArray(table, "bits"))) {
      meaning.bits.push_back(Vela::jsonNumber(bits).value_or(0));
    }
  }
  for (const cJSON* action : Vela::JsonElements(Vela::jsonArray(read.get(), "actions"))) {
    names.actions[Vela::jsonNumber(action, "id").value_or(0)] =
        Vela::jsonString(action, "name").value_or("");
  }
  return names;
}

const RowsMeaning* ProgramNames::table(std::string_view rows) const {
  const auto found = tables.find(rows);
  return found == tables.end() ? nullptr : &found->second;
}

}  // namespace Forwarder
