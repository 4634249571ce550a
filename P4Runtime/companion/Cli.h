// Requests of the command line and their answers.
#pragma once

#include <cstdint>
#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// At "p4runtime/config/cli/ID": one request. The requester chooses a unique id, and
// removes the request once it is answered.
class CliRequest final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::CliRequest"; }

  VELA_ATTRIBUTE(std::string, command, "")    // such as "port map"
  VELA_ATTRIBUTE(std::string, arguments, "")  // a JSON array of strings
};

// At "p4runtime/status/cli/ID".
class CliAnswer final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::CliAnswer"; }

  VELA_READONLY_ATTRIBUTE(std::string, command, "")
  VELA_READONLY_ATTRIBUTE(bool, ok, false)
  VELA_READONLY_ATTRIBUTE(std::string, text, "")  // the answer, or why not, with a way out
};

class CliConfigDir final : public Orrery::Directory {
 public:
  explicit CliConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "P4Runtime::CliConfigDir"; }
  Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const override;
};

class CliStatusDir final : public Orrery::Directory {
 public:
  explicit CliStatusDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "P4Runtime::CliStatusDir"; }
};

}  // namespace P4Runtime
