// Table types that compile, and tables that agree with them.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "pipeline/DeviceConfig.h"

namespace Lattice {
class TableType;
}

namespace Pipeline {

class Findings;

// By name; null for a definition that does not compile.
using CompiledTypes = std::map<std::string, std::shared_ptr<const Lattice::TableType>>;

// Errors: definitions that do not compile, tables without a type, fields that are not the type's.
CompiledTypes checkTypes(const DeviceConfig& config, Findings* findings);

}  // namespace Pipeline
