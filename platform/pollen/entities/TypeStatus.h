// The states of the types that the type service compiles.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/orrery/Directory.h"

namespace Pollen {

enum class CompilationStatus { inProgress, compiled, failed };
std::string enumToText(CompilationStatus status);
bool enumFromText(std::string_view text, CompilationStatus* status);

// Observe compilationStatusAttribute(); `reason` is set before it becomes `failed`.
class TypeStatus final : public Vela::Entity {
 public:
  explicit TypeStatus(std::string name) : Entity(std::move(name)) {}
  const char* typeName() const override { return "Pollen::TypeStatus"; }

  VELA_READONLY_ATTRIBUTE(CompilationStatus, compilationStatus, CompilationStatus::inProgress)
  VELA_READONLY_ATTRIBUTE(std::string, reason)
};

// Observe entityCollection() for statuses that come and go. Call with the activity lock held.
class TypeStatusDir final : public Orrery::Directory {
 public:
  explicit TypeStatusDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Pollen::TypeStatusDir"; }

  Vela::Ptr<TypeStatus> typeStatus(const std::string& name) const;  // null when absent
  Vela::Ptr<TypeStatus> typeStatusIs(const std::string& name);      // adds it when absent
  void typeStatusDel(const std::string& name) { entityDel(name); }
};

}  // namespace Pollen
