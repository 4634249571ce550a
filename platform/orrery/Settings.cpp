#include "platform/orrery/Settings.h"

#include <fmt/format.h>

#include "platform/vela/Text.h"

namespace Orrery {
namespace {

SettingGroups all;

}  // namespace

std::string_view SettingGroup::directory() const {
  const std::string_view whole = path;
  return whole.substr(0, whole.rfind('/') + 1);
}

bool SettingGroup::covers(std::string_view somePath) const {
  if (!isOfMany()) return somePath == path;
  return somePath.starts_with(directory()) && somePath.size() > directory().size();
}

std::string SettingGroup::examplePath() const {
  return isOfMany() ? std::string(directory()) + name : path;
}

const Setting* findSetting(SettingGroups groups, std::string_view path,
                           std::string_view attribute) {
  for (const SettingGroup& group : groups) {
    if (!group.covers(path)) continue;
    for (const Setting& setting : group.settings) {
      if (attribute == setting.attribute) return &setting;
    }
  }
  return nullptr;
}

std::string rangeFault(const Setting& setting, const std::string& text) {
  if (setting.least == 0 && setting.most == 0) return {};
  const auto value = Vela::doubleFromText(text);
  if (!value || (*value >= setting.least && *value <= setting.most)) return {};
  return fmt::format("{} {} is out of range; choose {} to {}", setting.attribute, text,
                     setting.least, setting.most);
}

void TheSettingsAre(SettingGroups groups) { all = groups; }
SettingGroups TheSettings() { return all; }

}  // namespace Orrery
