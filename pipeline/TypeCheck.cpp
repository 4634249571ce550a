// Table types, through the very compiler that the agent uses.
#include "pipeline/TypeCheck.h"

#include <set>
#include <vector>

#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "platform/lattice/types/RowConstructor.h"
#include "platform/lattice/types/TableType.h"

namespace Pipeline {
namespace {

CompiledTypes compiledTypes(const DeviceConfig& config, Findings* findings) {
  CompiledTypes types;
  for (const DeviceType& type : config.types) {
    const std::string object = "table type " + type.name;
    if (types.contains(type.name)) {
      findings->error(
          object, "is defined twice",
          {"Cannot parse table type " + type.name + ": it is defined twice to create table types"});
    }
    try {
      types[type.name] = Lattice::TableType::compile(type.name, type.definition);
    } catch (const Lattice::TypeError& e) {
      types[type.name] = nullptr;
      findings->error(object, "does not compile: " + std::string(e.what()),
                      {"Compilation failed for " + type.name, e.what()});
    }
  }
  return types;
}

void checkFields(const DeviceTable& table, const Lattice::TableType& type, Findings* findings) {
  std::vector<std::string> names;
  std::vector<std::string> types;
  for (const DeviceField& field : table.fields) {
    names.push_back(field.name);
    types.push_back(field.type);
  }
  try {
    Lattice::requireTableFields(type, names, types);
  } catch (const Lattice::TypeError& e) {
    findings->error("table " + table.name, e.what(),
                    {"Cannot parse table " + table.name + " to create rows", e.what()});
  }
}

}  // namespace

CompiledTypes checkTypes(const DeviceConfig& config, Findings* findings) {
  CompiledTypes types = compiledTypes(config, findings);
  std::set<std::string> names;
  std::set<TableRef> refs;
  for (const DeviceTable& table : config.tables) {
    const std::string object = "table " + table.name;
    const std::string parsing = "Cannot parse table " + table.name + ": ";
    if (!names.insert(table.name).second || !refs.insert({table.kind, table.id}).second) {
      findings->error(object, "its name, or its id and class, are those of another table",
                      {parsing + "it stands there twice to create tables"});
    }
    const auto type = types.find(table.type);
    if (type == types.end()) {
      findings->error(object, "its type " + quoted(table.type) + " is not among the definitions",
                      {parsing + "no definition of its type " + table.type + " to create tables"});
    } else if (type->second != nullptr) {
      checkFields(table, *type->second, findings);
    }
  }
  return types;
}

}  // namespace Pipeline
