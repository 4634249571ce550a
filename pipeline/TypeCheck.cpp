// Table types, through the very compiler that the agent uses.
#include "pipeline/TypeCheck.h"

#include <google/protobuf/util/json_util.h>

#include <set>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "platform/lattice/TableType.h"

namespace Pipeline {
namespace {

std::string typeText(const Lattice::Column& column) {
  switch (column.type) {
    case Lattice::ColumnType::u8:
      return "U8";
    case Lattice::ColumnType::u16:
      return "U16";
    case Lattice::ColumnType::u32:
      return "U32";
    case Lattice::ColumnType::u64:
      return "U64";
    case Lattice::ColumnType::ipAddr:
      return "IpAddr";
    case Lattice::ColumnType::ip6Addr:
      return "Ip6Addr";
    case Lattice::ColumnType::ethAddr:
      return "EthAddr";
    case Lattice::ColumnType::bytes:
      return "Bytes<" + std::to_string(column.size) + ">";
    case Lattice::ColumnType::ipGenPrefix:
      return "IpGenPrefix";
    default:
      return "a type that is no key's";
  }
}

CompiledTypes compiledTypes(const DeviceConfig& config, Findings* findings) {
  CompiledTypes types;
  for (const DeviceType& type : config.types) {
    if (types.count(type.name) != 0) findings->error("table type " + type.name, "is defined twice");
    try {
      types[type.name] = Lattice::TableType::compile(type.name, type.definition);
    } catch (const Lattice::TypeError& e) {
      types[type.name] = nullptr;
      findings->error("table type " + type.name, "does not compile: " + std::string(e.what()));
    }
  }
  return types;
}

// "table_fields" against the key columns: the same names and types in order, but for the prefix
// lengths, which have no column, and the priority, which has no field.
void checkFields(const DeviceTable& table, const Lattice::TableType& type, Findings* findings) {
  std::vector<DeviceField> columns;
  for (const Lattice::Column& column : type.keyColumns()) {
    if (column.role != Lattice::ColumnRole::priority)
      columns.push_back({column.name, typeText(column)});
  }
  size_t next = 0;
  for (const DeviceField& field : table.fields) {
    if (field.type == "PrefixLen") continue;
    const bool present = next < columns.size();
    if (!present || columns[next].name != field.name || columns[next].type != field.type) {
      findings->error(
          "table " + table.name,
          "its field " + quoted(field.name) + " of type " + field.type +
              " is not the key column of its table type in that place" +
              (present ? ", " + quoted(columns[next].name) + " of type " + columns[next].type
                       : ""));
      return;
    }
    ++next;
  }
  if (next < columns.size()) {
    findings->error("table " + table.name, "its fields lack the key column " +
                                               quoted(columns[next].name) + " of its table type");
  }
}

}  // namespace

void checkMandatorySections(const p4::config::v1::P4Info& p4Info, Findings* findings) {
  if (p4Info.tables().empty()) findings->error("P4Info", "has no tables; the agent needs one");
  if (p4Info.actions().empty()) findings->error("P4Info", "has no actions; the agent needs one");
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(p4Info, &json);
  if (!status.ok()) findings->error("P4Info", "has no JSON form: " + std::string(status.message()));
}

CompiledTypes checkTypes(const DeviceConfig& config, Findings* findings) {
  CompiledTypes types = compiledTypes(config, findings);
  std::set<std::string> names;
  for (const DeviceTable& table : config.tables) {
    if (!names.insert(table.name).second)
      findings->error("table " + table.name, "is there twice in the device configuration");
    const auto type = types.find(table.type);
    if (type == types.end()) {
      findings->error("table " + table.name,
                      "its type " + quoted(table.type) + " is not among the definitions");
    } else if (type->second != nullptr) {
      checkFields(table, *type->second, findings);
    }
  }
  return types;
}

}  // namespace Pipeline
