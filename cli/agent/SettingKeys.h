// The keys of a configuration file: what operators are told of them, with the defaults that the
// agent's own entities have.
#pragma once

#include <string>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/orrery/Settings.h"
#include "platform/vela/Json.h"

struct SettingKey {
  const Orrery::SettingGroup* group = nullptr;
  const Orrery::Setting* setting = nullptr;
  std::string kind;          // "whole number from 1 to 10000"
  std::string defaultValue;  // JSON
};

// Of all groups, in their order. The database has entities that nobody has configured yet. Throws
// std::logic_error for a setting that its entity does not have. Call with the activity lock held.
std::vector<SettingKey> settingKeys(const Orrery::Database& database);

// For people, those alone that have `word` in path, name or meaning.
std::string keysText(const std::vector<SettingKey>& keys, const std::string& word);
Vela::Json keysJson(const std::vector<SettingKey>& keys);
// A configuration file of comments, with all keys and their defaults.
std::string exampleFile(const std::vector<SettingKey>& keys);
// The page docs/configuration.md.
std::string configurationPage(const std::vector<SettingKey>& keys);
