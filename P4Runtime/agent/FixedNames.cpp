#include "P4Runtime/agent/FixedNames.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("FixedNames");

using P4RuntimeConfig::FixedName;
using P4RuntimeConfig::TranslationConfig;

const char* faultText(int fault) {
  switch (fault) {
    case PI_FIXED_NAME_HAS_NUMBER:
      return "the name is in use with another number; it stays until nothing uses it, and the "
             "agent is started or the configuration is set again";
    case PI_FIXED_NAME_NUMBER_TAKEN:
      return "the number is in use for another name; it stays until nothing uses it, and the agent "
             "is started or the configuration is set again";
    default:
      return "";
  }
}

}  // namespace

FixedNames::FixedNames(uint64_t deviceId,
                       Vela::Ptr<const P4RuntimeConfig::TranslationConfigDir> configDir,
                       Vela::Ptr<P4RuntimeConfig::TranslationStatus> status,
                       std::function<bool()> entriesAreComing)
    : deviceId_(deviceId),
      configDir_(std::move(configDir)),
      status_(std::move(status)),
      entriesAreComing_(std::move(entriesAreComing)) {
  typesChange_ = configDir_->entityCollection().observeKeys(
      [this](const std::string& type) { handleType(type); });
  for (const std::string& type : configDir_->entityNames()) handleType(type);
}

void FixedNames::handleType(const std::string& type) {
  const Vela::Ptr<Vela::Entity> entity = configDir_->entity(type);
  const auto* config = dynamic_cast<const TranslationConfig*>(entity.get());
  changes_.erase(type);
  if (config) changes_[type] = config->namesAttribute().observe([this] { handleNames(); });
  handleNames();
}

// Names that are to come back could find their numbers taken; the end of a restore applies all.
void FixedNames::handleNames() {
  if (!entriesAreComing_()) apply();
}

void FixedNames::apply() { statusIs(refusedByFrontend()); }

FixedNames::Refused FixedNames::refusedByFrontend() const {
  Refused refused;
  std::vector<std::pair<std::string, FixedName>> names;  // with their types
  for (const std::string& type : configDir_->entityNames()) {
    const auto entity = configDir_->entity(type);
    const auto* config = dynamic_cast<const TranslationConfig*>(entity.get());
    if (config == nullptr) continue;
    for (FixedName& name : P4RuntimeConfig::fixedNames(config->names())) {
      if (name.fault.empty()) {
        names.emplace_back(type, std::move(name));
      } else {
        refused[fmt::format("{} {}", type, name.word.substr(0, 80))] = name.fault;
      }
    }
  }
  std::vector<pi_fixed_name_t> told;
  for (const auto& [type, name] : names) {
    told.push_back({type.c_str(), name.name.data(), name.name.size(), name.number, 0});
  }
  pi_fixed_names_set(deviceId_, told.data(), told.size());
  for (size_t i = 0; i < told.size(); ++i) {
    const std::string why = faultText(told[i].fault);
    if (!why.empty()) refused[fmt::format("{} {}", names[i].first, names[i].second.word)] = why;
  }
  return refused;
}

void FixedNames::statusIs(const Refused& refused) {
  std::vector<std::string> over;
  for (const auto& [name, reason] : status_->refusedCollection().values()) {
    if (!refused.contains(name)) over.push_back(name);
  }
  for (const std::string& name : over) status_->refusedDel(name);
  for (const auto& [name, reason] : refused) {
    if (status_->refused(name) != reason) SCRIVEL_TRACE(0, name, " refused: ", reason);
    status_->refusedIs(name, reason);
  }
}

}  // namespace P4Runtime
