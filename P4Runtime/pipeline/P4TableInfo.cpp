#include "P4Runtime/pipeline/P4TableInfo.h"

#include <algorithm>
#include <utility>

#include "platform/vela/Exception.h"

namespace P4Runtime {
namespace {

constexpr std::pair<P4TableInfoState, const char*> stateTexts[] = {
    {P4TableInfoState::tableInfoNotReady, "tableInfoNotReady"},
    {P4TableInfoState::tableInfoReady, "tableInfoReady"},
    {P4TableInfoState::tableInfoError, "tableInfoError"},
};

}  // namespace

std::string enumToText(P4TableInfoState state) {
  for (const auto& [value, text] : stateTexts) {
    if (value == state) return text;
  }
  return std::to_string(static_cast<int>(state));
}

bool enumFromText(std::string_view text, P4TableInfoState* state) {
  for (const auto& [value, name] : stateTexts) {
    if (text != name) continue;
    *state = value;
    return true;
  }
  return false;
}

P4TableInfoState tableInfoStateFromText(std::string_view text) {
  P4TableInfoState state{};
  if (!enumFromText(text, &state)) throw Vela::Exception("Unrecognized tableInfoState");
  return state;
}

P4TableInfo::P4TableInfo(std::string name, std::string parentPath)
    : Entity(std::move(name)), parentPath_(std::move(parentPath)) {}

void P4TableInfo::modelDel() {
  fieldBitwidthsDelAll();
  actionIdColForTableDelAll();
  priorityNeededDelAll();
  hasDirectMeterDelAll();
  hasDirectCounterDelAll();
  directMeterIdsDelAll();
  directCounterIdsDelAll();
  maxTableSizeDelAll();
  constEntriesDelAll();
  rowConstructorDelAll();
  latticeTableInterfaceDelAll();
  directMeterOfDelAll();
  resourceNameDelAll();
  unprogrammableDelAll();
  pipelineRequest_.clear();
}

std::string P4TableInfo::nameOf(ResourceId rid) const {
  const std::string& name = resourceName(rid);
  return name.empty() ? toText(rid) : name;
}

std::string P4TableInfo::kindAndName(ResourceId rid) const {
  const bool isProfile = rid.type == actionProfileResource || rid.type == groupTableResource;
  const char* const kind = rid.type == actionResource ? "action"
                           : isProfile                ? "action profile"
                                                      : "table";
  return resourceNameHas(rid) ? std::string(kind) + ' ' + nameOf(rid) : toText(rid);
}

std::shared_ptr<const Lattice::TableType> P4TableInfo::typeOfTable(
    const std::string& tableName) const {
  for (const auto& [rid, interface] : latticeTableInterfaceCollection().values()) {
    if (interface->tableName() == tableName) {
      return Lattice::TheTypeRegistry().type(interface->typeName());
    }
  }
  return nullptr;
}

std::string P4TableInfo::tableFillText() const {
  std::map<std::string, std::string> lines;
  for (const auto& [rid, interface] : latticeTableInterfaceCollection().values()) {
    if (!interface->ready()) continue;
    std::string line = interface->tableName() + " " + std::to_string(interface->rowCount());
    if (const uint32_t most = maxTableSize(rid)) line += "/" + std::to_string(most);
    lines[interface->tableName()] = line;
  }
  std::string text;
  for (const auto& [name, line] : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

}  // namespace P4Runtime
