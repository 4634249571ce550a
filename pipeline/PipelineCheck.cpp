// Checking a pipeline against what the agent will do with it.
#include "pipeline/PipelineCheck.h"

#include <algorithm>
#include <set>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/EntryText.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/P4InfoIndex.h"
#include "pipeline/ProfileCheck.h"
#include "pipeline/TypeCheck.h"
#include "platform/lattice/TableType.h"

namespace Pipeline {
namespace {

using Lattice::Column;
using Lattice::ColumnType;

bool isByteString(ColumnType type) {
  return type == ColumnType::bytes || type == ColumnType::ethAddr || type == ColumnType::ip6Addr;
}

// Whether a column holds what the P4Info puts there. A key's IPv4 address may be kept as a number.
bool holdsTheSame(const Column& a, const Column& b, bool isKey) {
  if (a.size != b.size || a.role != b.role) return false;
  if (a.type == b.type || (isByteString(a.type) && isByteString(b.type))) return true;
  const auto isWord = [](ColumnType t) { return t == ColumnType::u32 || t == ColumnType::ipAddr; };
  return isKey && isWord(a.type) && isWord(b.type);
}

bool holdTheSame(const std::vector<Column>& a, const std::vector<Column>& b, bool areKeys) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [&](const Column& x, const Column& y) { return holdsTheSame(x, y, areKeys); });
}

bool sameParts(const Lattice::TableType& a, const Lattice::TableType& b) {
  return std::equal(a.valueParts().begin(), a.valueParts().end(), b.valueParts().begin(),
                    b.valueParts().end(), [](const auto& x, const auto& y) {
                      return x.part == y.part && (x.part != Lattice::TableType::Part::column ||
                                                  (x.column.name == y.column.name &&
                                                   holdsTheSame(x.column, y.column, false)));
                    });
}

// One device configuration beside the P4Info that comes with it.
class DeviceCheck {
 public:
  DeviceCheck(const P4InfoIndex& index, const DeviceConfig& device, const CompiledTypes& types,
              Findings* findings)
      : index_(index),
        device_(device),
        types_(types),
        findings_(findings),
        layout_(pipelineLayout(index, findings)) {}

  void run() {
    for (const DeviceTable& table : device_.tables) checkTable(table);
    for (const TableLayout& layout : layout_.tables) {
      if (covered_.count({layout.kind, layout.id}) == 0) {
        findings_->warning(nameOf(layout.kind, layout.id),
                           "the device configuration has no such table: nothing of it can be"
                           " programmed");
      }
    }
  }

 private:
  void checkTable(const DeviceTable& table) {
    const std::string object = "table " + table.name;
    if (!covered_.insert({table.kind, table.id}).second) {
      findings_->error(object, "has the id and class of another table");
      return;
    }
    const TableLayout* layout = layout_.table(table.kind, table.id);
    if (layout == nullptr) {
      if (layout_.refused.count(table.id) == 0) {
        findings_->warning(object, "its id " + std::to_string(table.id) + " is no " +
                                       (table.kind == TableKind::match ? "table" : "profile") +
                                       " of the P4Info: nothing will be written to it");
      }
      return;
    }
    checkLayout(table, *layout);
    if (table.kind == TableKind::match) checkEntries(table, *layout);
  }

  void checkLayout(const DeviceTable& table, const TableLayout& layout) {
    const std::string object = "table " + table.name;
    const auto type = types_.find(table.type);
    if (type == types_.end() || type->second == nullptr) return;  // has been said
    const auto wanted = Lattice::TableType::compile(layout.typeName, definitionText(layout));
    if (table.fields.size() != layout.slots.size() ||
        !holdTheSame(type->second->keyColumns(), wanted->keyColumns(), true)) {
      findings_->warning(object,
                         "its key is not laid out as the match fields of the P4Info ask:"
                         " entries cannot be programmed");
    }
    if (!sameParts(*type->second, *wanted)) {
      findings_->warning(object,
                         "its value columns are not what the P4Info asks: entries cannot be"
                         " programmed");
    }
    for (const Lattice::ActionLayout& action : wanted->actions()) {
      const Lattice::ActionLayout* there = type->second->action(action.actionId);
      if (there == nullptr || !holdTheSame(there->fields, action.fields, false)) {
        findings_->warning(object, "its action " + action.name + " (" +
                                       std::to_string(action.actionId) + ") " +
                                       (there == nullptr ? "is not in the table type"
                                                         : "has other fields in the table type") +
                                       ": entries with it cannot be programmed");
      }
    }
  }

  void checkEntries(const DeviceTable& table, const TableLayout& layout) {
    size_t number = 0;
    for (const DeviceEntry& entry : table.entries) {
      ++number;
      try {
        entryText(entry, *index_.table(table.id), layout, index_);
      } catch (const PipelineError& e) {
        findings_->warning("table " + table.name, "constant entry " + std::to_string(number) +
                                                      " cannot be programmed: " + e.what());
      }
    }
    const int64_t room = index_.table(table.id)->size();
    if (room > 0 && number > static_cast<uint64_t>(room)) {
      findings_->warning("table " + table.name, "has " + std::to_string(number) +
                                                    " constant entries, but room for " +
                                                    std::to_string(room));
    }
  }

  std::string nameOf(TableKind kind, uint32_t id) const {
    if (kind == TableKind::match) return "table " + index_.table(id)->preamble().name();
    return (kind == TableKind::member ? "members of action profile "
                                      : "groups of action profile ") +
           index_.actionProfile(id)->preamble().name();
  }

  const P4InfoIndex& index_;
  const DeviceConfig& device_;
  const CompiledTypes& types_;
  Findings* findings_;
  PipelineLayout layout_;
  std::set<std::pair<TableKind, uint32_t>> covered_;
};

void checkRequest(const p4::v1::SetForwardingPipelineConfigRequest& request, Findings* findings) {
  if (request.device_id() == 0)
    findings->error("device id", "is 0, which is no device; build the file with --device-id");
  const P4InfoIndex index(request.config().p4info());
  checkReferences(index, findings);
  checkMandatorySections(request.config().p4info(), findings);
  const bool sound = !findings->hasErrors();
  if (sound) checkProfiles(index, findings);

  const DeviceConfig device = parsedDeviceConfig(deviceData(request), findings);
  const CompiledTypes types = checkTypes(device, findings);
  checkQueries(device, types, findings);
  if (sound) DeviceCheck(index, device, types, findings).run();
}

}  // namespace

Findings checkPipeline(const p4::v1::SetForwardingPipelineConfigRequest& request) {
  Findings findings;
  try {
    checkRequest(request, &findings);
  } catch (const PipelineError& error) {
    findings.error("", error.what());
  }
  return findings;
}

Findings checkPipelineFile(const std::string& path) {
  p4::v1::SetForwardingPipelineConfigRequest request;
  try {
    readPipelineFile(path, &request);
  } catch (const PipelineError& error) {
    Findings findings;
    findings.error("", error.what());
    return findings;
  }
  return checkPipeline(request);
}

}  // namespace Pipeline
