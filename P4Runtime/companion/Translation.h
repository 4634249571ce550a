// Names of translated types whose numbers the configuration fixes, such as those of ports.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace P4RuntimeConfig {

// At "p4runtime/config/translation/TYPE"; name() is the type as the P4Info calls it.
class TranslationConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::TranslationConfig"; }

  VELA_ATTRIBUTE(std::string, names, "")  // "NAME=NUMBER NAME=NUMBER"
};

// At "p4runtime/config/translation".
class TranslationConfigDir final : public Orrery::Directory {
 public:
  explicit TranslationConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "P4RuntimeConfig::TranslationConfigDir"; }
  Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const override;
};

// At "p4runtime/status/translation". Read with the activity lock held.
class TranslationStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::TranslationStatus"; }

  // "TYPE NAME=NUMBER" -> why it is not in force.
  VELA_COLLECTION(std::string, std::string, refused)
};

// One of the words of a TranslationConfig.
struct FixedName {
  std::string word;  // as it was written
  std::string name;
  uint32_t number = 0;
  std::string fault = {};  // why the pair cannot be used; empty: it can
};
std::vector<FixedName> fixedNames(const std::string& names);

}  // namespace P4RuntimeConfig
