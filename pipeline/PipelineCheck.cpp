// Checks a pipeline as the agent will use it.
#include "pipeline/PipelineCheck.h"

#include <fmt/format.h>

#include <cstdint>
#include <limits>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/EntryText.h"
#include "pipeline/Files.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/ProfileCheck.h"
#include "pipeline/QueryCheck.h"
#include "pipeline/RowCheck.h"
#include "pipeline/TypeCheck.h"
#include "pipeline/ValueText.h"

namespace Pipeline {
namespace {

using Request = p4::v1::SetForwardingPipelineConfigRequest;

std::string actionText(Request::Action action) {
  const std::string name = Request::Action_Name(action);
  return name.empty() ? std::to_string(action) : name;
}

void checkHead(const Request& request, Findings* findings) {
  if (request.device_id() > std::numeric_limits<uint32_t>::max()) {
    findings->error("", fmt::format("the device id {} is none that an agent is configured with; the"
                                    " largest is {}",
                                    request.device_id(), std::numeric_limits<uint32_t>::max()));
  }
  if (request.action() != Request::VERIFY_AND_COMMIT) {
    findings->error("", fmt::format("the action of the pipeline file is {}, which does not install"
                                    " it; it must be VERIFY_AND_COMMIT: make the file with"
                                    " 'korvel pipeline build'",
                                    actionText(request.action())));
  }
  if (const size_t bytes = request.ByteSizeLong(); bytes > maxPipelineBytes) {
    findings->error("", fmt::format("the pipeline has {} bytes; the server takes at most {}", bytes,
                                    maxPipelineBytes));
  }
}

// One device configuration beside the P4Info that comes with it. Both are sound in themselves.
class DeviceCheck {
 public:
  DeviceCheck(const P4InfoLookup& index, const DeviceConfig& device, const CompiledTypes& types,
              Verdict* verdict)
      : index_(index),
        device_(device),
        types_(types),
        findings_(&verdict->findings),
        refused_(&verdict->refused),
        layout_(pipelineLayout(index, device.extensions, findings_)) {}

  void run() {
    refused_->tables = layout_.refused;
    refused_->actions = layout_.refusedActions;
    for (const DeviceTable& table : device_.tables) checkTable(table);
    for (const TableLayout& layout : layout_.tables) {
      if (covered_.contains({layout.kind, layout.id})) continue;
      findings_->warning(nameOf({layout.kind, layout.id}),
                         "the device configuration has no such table: nothing of it can be"
                         " programmed");
    }
  }

 private:
  static bool isOfTable(TableKind kind) {
    return kind == TableKind::match || kind == TableKind::defaultEntry;
  }

  void checkTable(const DeviceTable& table) {
    const TableRef ref{table.kind, table.id};
    covered_.insert(ref);
    const TableLayout* layout = layout_.table(ref);
    if (layout != nullptr) checkRows(table, *layout);
    if (layout == nullptr && !refused_->tables.contains(ref)) {
      findings_->warning(
          "table " + table.name,
          fmt::format("its id {} is no {} of the P4Info: nothing will be written to it", table.id,
                      isOfTable(table.kind)             ? "table"
                      : table.kind == TableKind::member ? "action profile"
                                                        : "action profile with a selector"));
    }
    if (table.kind == TableKind::match) checkEntries(table, layout);
  }

  void checkRows(const DeviceTable& table, const TableLayout& layout) {
    const Lattice::TableType& type = *types_.at(table.type);
    const Vela::Outcome same = Pipeline::checkRows(table, type, layout);
    if (!same.ok()) {
      findings_->warning("table " + table.name, "cannot be programmed: " + same.reason());
      refused_->tables[{table.kind, table.id}] = same.reason();
      return;
    }
    for (const ActionShape& shape : layout.actions) {
      if (type.action(shape.id) != nullptr) continue;
      findings_->warning("table " + table.name,
                         fmt::format("entries with its action {} ({}) cannot be programmed: the"
                                     " action is not in its type",
                                     shape.name, shape.id));
    }
  }

  void checkEntries(const DeviceTable& table, const TableLayout* layout) {
    if (table.entries.empty()) return;
    if (layout == nullptr || refused_->tables.contains({table.kind, table.id})) {
      for (size_t i = 0; i < table.entries.size(); ++i) refused_->entries.insert({table.id, i});
      findings_->warning("table " + table.name, "its constant entries cannot be programmed");
      return;
    }
    places_.clear();
    for (size_t i = 0; i < table.entries.size(); ++i) checkEntry(table, i, *layout);
    const int64_t room = index_.table(table.id)->size();
    if (room > 0 && table.entries.size() > static_cast<uint64_t>(room)) {
      findings_->warning(
          "table " + table.name,
          fmt::format("has {} constant entries, but room for {}", table.entries.size(), room));
    }
  }

  void checkEntry(const DeviceTable& table, size_t place, const TableLayout& layout) {
    const DeviceEntry& entry = table.entries[place];
    try {
      entryText(entry, *index_.table(table.id), layout, index_);
      if (types_.at(table.type)->action(entry.actionId) == nullptr) {
        throw PipelineError("its action is not in the type of the table");
      }
      const auto [first, isNew] =
          places_.try_emplace({bytesOfHex(entry.key), entry.priority}, place + 1);
      if (!isNew) throw PipelineError(fmt::format("it has the match of entry {}", first->second));
    } catch (const PipelineError& e) {
      refused_->entries.insert({table.id, place});
      findings_->warning(
          "table " + table.name,
          fmt::format("constant entry {} cannot be programmed: {}", place + 1, e.what()));
    }
  }

  std::string nameOf(const TableRef& ref) const {
    const auto& [kind, id] = ref;
    if (kind == TableKind::match) return "table " + index_.table(id)->preamble().name();
    if (kind == TableKind::defaultEntry) {
      return "the default entry of table " + index_.table(id)->preamble().name();
    }
    return (kind == TableKind::member ? "members of action profile "
                                      : "groups of action profile ") +
           index_.actionProfile(id)->preamble().name();
  }

  const P4InfoLookup& index_;
  const DeviceConfig& device_;
  const CompiledTypes& types_;
  Findings* findings_;
  Refused* refused_;
  PipelineLayout layout_;
  std::set<TableRef> covered_;
  std::map<std::pair<std::string, uint32_t>, size_t> places_;  // of a table's entries, by match
};

bool mayHaveNoTables(const Request& request) {
  const auto& p4Info = request.config().p4info();
  if (!p4Info.tables().empty() && !p4Info.actions().empty()) return true;
  Findings unsaid;
  const std::optional<std::string> json = deviceData(request, &unsaid);
  return json && extensionsIn(*json).noTables;
}

void checkRequest(const Request& request, Verdict* verdict) {
  Findings* const findings = &verdict->findings;
  checkHead(request, findings);
  const P4InfoLookup index(request.config().p4info());
  checkP4Info(index, findings, mayHaveNoTables(request));
  const std::optional<std::string> json = deviceData(request, findings);
  if (!json) return;
  const std::optional<DeviceConfig> device = parseDeviceConfig(*json, findings);
  if (!device) return;
  verdict->extensions = device->extensions;
  const CompiledTypes types = checkTypes(*device, findings);
  checkQueries(*device, types, findings);
  if (findings->hasErrors()) return;
  checkProfiles(index, findings);
  const P4InfoLookup all(request.config().p4info(), device->extensions);
  DeviceCheck(all, *device, types, verdict).run();
}

}  // namespace

Verdict checkPipeline(const Request& request) {
  Verdict verdict;
  checkRequest(request, &verdict);
  return verdict;
}

Verdict checkPipelineFile(const std::string& path) {
  Request request;
  try {
    readPipelineFile(path, &request);
  } catch (const PipelineError& error) {
    Verdict verdict;
    verdict.findings.error("", error.what());
    return verdict;
  }
  return checkPipeline(request);
}

}  // namespace Pipeline
