// What operators are told of the attributes that a configuration file sets: units, examples,
// limits.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace Orrery {

// One attribute. Texts are constants of the program.
struct Setting {
  enum class Heeded { atOnce, atStart };

  const char* attribute = "";
  const char* unit = "";     // "seconds"; "": it has none
  const char* example = "";  // a JSON value
  const char* meaning = "";  // whole sentences
  Heeded heeded = Heeded::atOnce;
  double least = 0;  // of a number; both are 0 where its type alone limits it
  double most = 0;
};

// The settings of an entity, or of each entity of a directory.
struct SettingGroup {
  const char* path = "";  // a last name in capitals stands for the name of each entity
  const char* name = "";  // an example of that name; "": the path is that of one entity
  const char* meaning = "";
  std::span<const Setting> settings;

  bool isOfMany() const { return *name != 0; }
  std::string_view directory() const;  // of many: up to the last slash, with it
  bool covers(std::string_view somePath) const;
  std::string examplePath() const;  // the path, with the example in place of the capitals
};

using SettingGroups = std::span<const SettingGroup>;

const Setting* findSetting(SettingGroups groups, std::string_view path,
                           std::string_view attribute);  // or null
// Why a number is out of the setting's limits; "" if it is not, or is no number.
std::string rangeFault(const Setting& setting, const std::string& text);

// Those of this process. Set once, before a configuration is read, with the activity lock held.
void TheSettingsAre(SettingGroups groups);
SettingGroups TheSettings();

}  // namespace Orrery
