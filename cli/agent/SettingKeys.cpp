#include "cli/agent/SettingKeys.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <string_view>

#include "platform/orrery/AttributeJson.h"

namespace {

using Orrery::Setting;
using Orrery::SettingGroup;

std::string range(const Setting& setting) {
  if (setting.most == 0) return "";
  return fmt::format(" from {} to {}", setting.least, setting.most);
}

std::string kindOf(const Vela::AttributeBase& attribute, const Setting& setting) {
  const std::string_view type = attribute.typeName();
  if (type == "bool") return "true or false";
  if (type == "string") return "text";
  if (type == "uint16" && setting.most == 0) return "whole number to 65535";
  if (type.starts_with("uint")) return "whole number" + range(setting);
  return std::string(type) + range(setting);
}

SettingKey keyOf(const SettingGroup& group, const Setting& setting, const Vela::Entity& entity) {
  const Vela::AttributeBase* attribute = entity.attribute(setting.attribute);
  if (!attribute) {
    throw std::logic_error(fmt::format("{} has no attribute {}", group.path, setting.attribute));
  }
  return {&group, &setting, kindOf(*attribute, setting),
          Vela::jsonLine(*Orrery::valueJson(*attribute))};
}

std::string lower(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool isAbout(const SettingKey& key, const std::string& word) {
  const auto has = [&](const char* text) { return lower(text).find(word) != std::string::npos; };
  return has(key.group->path) || has(key.setting->attribute) || has(key.setting->meaning);
}

const char* heeded(const Setting& setting) {
  return setting.heeded == Setting::Heeded::atStart ? "at a start" : "at once";
}

// Lines of at most 100 columns, each behind `before`.
std::string wrapped(const std::string& text, const std::string& before) {
  constexpr size_t columns = 100;
  std::string lines = before;
  size_t used = before.size();
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    if (used > before.size() && used + 1 + end - at > columns) {
      lines += "\n" + before;
      used = before.size();
    }
    lines += " " + text.substr(at, end - at);
    used += 1 + end - at;
    at = end + 1;
  }
  return lines + "\n";
}

// "number from 0.1 to 3600, in seconds".
std::string kindWithUnit(const SettingKey& key) {
  const std::string unit = key.setting->unit;
  if (unit.empty() || key.kind.find(unit) != std::string::npos) return key.kind;
  return fmt::format("{}, in {}", key.kind, unit);
}

// Calls `begin` for each group, `each` for its keys and `end` behind them.
template <typename Begin, typename Each, typename End>
void byGroup(const std::vector<SettingKey>& keys, Begin begin, Each each, End end) {
  for (size_t i = 0; i < keys.size(); ++i) {
    if (i == 0 || keys[i - 1].group != keys[i].group) begin(*keys[i].group);
    each(keys[i]);
    if (i + 1 == keys.size() || keys[i + 1].group != keys[i].group) end(*keys[i].group);
  }
}

constexpr const char* exampleBegin =
    R"(// Settings of the agent. Each stands here as a comment, with its default: take the // away and
// change the value. `korvel config check FILE` names the faults of a file.
{
)";

constexpr const char* pageBegin = R"(# The configuration file

`korvel agent --config FILE` reads one file: a JSON object whose keys are paths of the
[state database](operating.md#configuration-and-status-by-path), and below each the attributes to set.

```json
{
  // Comments, and commas behind the last member, are welcome.
  "p4runtime/config/system": {
    "deviceId": 1,
    "grpcServerPort": 9559,
  },
  "p4runtime/config/port-mapping/1": {"intf": "eth1"},
}
```

| command | what it does |
|---|---|
| `korvel config check FILE` | names all faults of a file; status 1 if there are any |
| `korvel config keys [WORD]` | lists the keys of this page, or those that have to do with a word; `--json` |
| `korvel config example` | prints a file with all keys as comments, to begin with |

A path or attribute that does not exist, one that stands there twice, and a value of the wrong kind or out of its range are
faults. Each is named in one line, with the file, the key, an example and the nearest known name. A fault ends the start of the
agent, and leaves the configuration as it was when a running agent
[reads the file again](installing.md#reading-the-configuration-again). Where the text is no JSON the line says at which line.

A setting that is heeded at once may change while the agent runs: in the file, which SIGHUP has it read, or by `korvel set`.
One that is heeded at a start is refused there. Comments begin with `//` and end with their line, or stand between `/*` and
`*/`. A whole number of 2^53 or more is written as a string. A relative path of a file counts from the directory in which the
agent was started. The check also finds settings that contradict each other, such as a key without a certificate, an address for other
machines without TLS, or two ports of one interface. It does not look for files, users and addresses, which may be those of another
machine; a start names such faults.

This page is made by `korvel config doc`.
)";

}  // namespace

std::vector<SettingKey> settingKeys(const Orrery::Database& database) {
  std::vector<SettingKey> keys;
  for (const SettingGroup& group : Orrery::TheSettings()) {
    const std::string path = group.examplePath();
    auto entity = database.entity(path);
    if (!entity) entity = Orrery::makeEntityAt(database, path);
    if (!entity) throw std::logic_error(path + " is no path of the state database");
    for (const Setting& setting : group.settings) keys.push_back(keyOf(group, setting, *entity));
  }
  return keys;
}

std::string keysText(const std::vector<SettingKey>& keys, const std::string& word) {
  std::vector<SettingKey> found;
  std::ranges::copy_if(keys, std::back_inserter(found),
                       [&](const SettingKey& key) { return isAbout(key, lower(word)); });
  std::string text;
  byGroup(
      found, [&](const SettingGroup& group) { text += fmt::format("{}\n", group.path); },
      [&](const SettingKey& key) {
        text += fmt::format("  {}: {}; default {}; heeded {}\n", key.setting->attribute,
                            kindWithUnit(key), key.defaultValue, heeded(*key.setting));
        text += wrapped(key.setting->meaning, "     ");
      },
      [](const SettingGroup&) {});
  return text;
}

Vela::Json keysJson(const std::vector<SettingKey>& keys) {
  Vela::Json all(cJSON_CreateArray());
  for (const SettingKey& key : keys) {
    cJSON* one = Vela::addObjectTo(all.get());
    Vela::addString(one, "path", key.group->path);
    Vela::addString(one, "examplePath", key.group->examplePath());
    Vela::addString(one, "attribute", key.setting->attribute);
    Vela::addString(one, "kind", key.kind);
    Vela::addString(one, "unit", key.setting->unit);
    cJSON_AddRawToObject(one, "default", key.defaultValue.c_str());
    cJSON_AddRawToObject(one, "example", key.setting->example);
    Vela::addString(one, "heeded", heeded(*key.setting));
    Vela::addString(one, "meaning", key.setting->meaning);
  }
  return all;
}

std::string exampleFile(const std::vector<SettingKey>& keys) {
  std::string text = exampleBegin;
  // An object of one of many would make that one, so it is a comment as a whole.
  const auto mark = [](const SettingGroup& group) { return group.isOfMany() ? "// " : ""; };
  byGroup(
      keys,
      [&](const SettingGroup& group) {
        text += "\n" + wrapped(group.meaning, "  //");
        text += fmt::format("  {}\"{}\": {{\n", mark(group), group.examplePath());
      },
      [&](const SettingKey& key) {
        const bool isOfMany = key.group->isOfMany();
        const std::string margin = fmt::format("  {}  ", mark(*key.group));
        text += wrapped(fmt::format("{} ({}; heeded {})", key.setting->meaning, kindWithUnit(key),
                                    heeded(*key.setting)),
                        margin + "//");
        text +=
            fmt::format("{}{}\"{}\": {},\n", margin, isOfMany ? "" : "// ", key.setting->attribute,
                        isOfMany ? key.setting->example : key.defaultValue);
      },
      [&](const SettingGroup& group) { text += fmt::format("  {}}},\n", mark(group)); });
  return text + "}\n";
}

std::string configurationPage(const std::vector<SettingKey>& keys) {
  std::string text = pageBegin;
  byGroup(
      keys,
      [&](const SettingGroup& group) {
        text += fmt::format("\n## {}\n\n{}\n\n", group.path, group.meaning);
        text +=
            "| key | kind | unit | default | example | heeded | meaning |\n"
            "|---|---|---|---|---|---|---|\n";
      },
      [&](const SettingKey& key) {
        text += fmt::format("| `{}` | {} | {} | `{}` | `{}` | {} | {} |\n", key.setting->attribute,
                            key.kind, key.setting->unit, key.defaultValue, key.setting->example,
                            heeded(*key.setting), key.setting->meaning);
      },
      [](const SettingGroup&) {});
  return text;
}
