// What the agent demands of a pipeline as a whole: sections of the P4Info, and table types that
// compile and agree with their tables.
#pragma once

#include <map>
#include <memory>
#include <string>

namespace Lattice {
class TableType;
}
namespace p4::config::v1 {
class P4Info;
}

namespace Pipeline {

class Findings;
struct DeviceConfig;

// The agent does not start without tables and actions, nor with a P4Info that has no JSON form.
void checkMandatorySections(const p4::config::v1::P4Info& p4Info, Findings* findings);

// By name; null for a definition that does not compile.
using CompiledTypes = std::map<std::string, std::shared_ptr<const Lattice::TableType>>;

// Errors: definitions that do not compile, tables without a type, fields that are not the type's.
CompiledTypes checkTypes(const DeviceConfig& config, Findings* findings);

}  // namespace Pipeline
