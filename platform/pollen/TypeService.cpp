#include "platform/pollen/TypeService.h"

#include <utility>

#include "platform/lattice/types/TableType.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("TypeService");

namespace Pollen {

using Vela::Ptr;

namespace {

// The reason first: observers of the status read it.
void publish(TypeStatus& status, CompilationStatus compilation, const std::string& reason) {
  status.reasonIs(reason);
  status.compilationStatusIs(compilation);
}

}  // namespace

TypeService::TypeService(Vela::ReactorLoop& loop, Ptr<TypeConfigDir> configs,
                         Ptr<TypeStatusDir> statuses)
    : loop_(loop), configs_(std::move(configs)), statuses_(std::move(statuses)) {
  configsChange_ = configs_->entityCollection().observeKeys(
      [this](const std::string& name) { handleConfig(name); });
  for (const std::string& name : configs_->typeConfigNames()) handleConfig(name);
}

void TypeService::handleConfig(const std::string& name) {
  const Ptr<TypeConfig> config = configs_->typeConfig(name);
  SCRIVEL_TRACE(1, "handleConfig", " name: ", name, config ? " present" : " gone");
  watched_.erase(name);
  if (!config) {
    Lattice::TheTypeRegistry().typeDel(name);
    statuses_->typeStatusDel(name);
    return;
  }
  watched_[name] = {
      config, config->definitionAttribute().observe([this, name] { handleDefinition(name); })};
  handleDefinition(name);
}

void TypeService::handleDefinition(const std::string& name) {
  const Ptr<TypeConfig> config = watched_[name].config;
  const Ptr<TypeStatus> status = statuses_->typeStatusIs(name);
  publish(*status, CompilationStatus::inProgress, "");
  loop_.post([self = Ptr<TypeService>(this), config, definition = config->definition()] {
    // A newer definition, or a newer type of that name, has its own turn coming.
    if (self->configs_->typeConfig(config->name()) != config) return;
    if (config->definition() == definition) self->doCompile(config->name(), definition);
  });
}

void TypeService::doCompile(const std::string& name, const std::string& definition) {
  const Ptr<TypeStatus> status = statuses_->typeStatusIs(name);  // lives even if observers drop it
  try {
    Lattice::TheTypeRegistry().typeIs(Lattice::TableType::compile(name, definition));
  } catch (const Lattice::TypeError& e) {
    SCRIVEL_TRACE(0, "type does not compile: ", name, " ", e.what());
    Lattice::TheTypeRegistry().typeDel(name);
    return publish(*status, CompilationStatus::failed, e.what());
  }
  SCRIVEL_TRACE(1, "type compiled: ", name);
  publish(*status, CompilationStatus::compiled, "");
}

}  // namespace Pollen
