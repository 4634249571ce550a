#include "platform/orrery/Config.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include "platform/orrery/AttributeJson.h"
#include "platform/orrery/ConfigText.h"
#include "platform/orrery/EntityTypes.h"
#include "platform/orrery/Settings.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/Json.h"
#include "platform/vela/Nearest.h"

static Scrivel::TraceHandle trace("OrreryConfig");

namespace Orrery {
namespace {

constexpr size_t maxFileBytes = 16 * 1024 * 1024;

std::string attributeNames(const Vela::Entity& entity) {
  std::string names;
  for (const auto* attribute : entity.attributes()) {
    if (attribute->access() == Vela::AttributeBase::Access::readOnly) continue;
    names += (names.empty() ? "" : ", ") + std::string(attribute->name());
  }
  return names.empty() ? "it has none to set" : "it has " + names;
}

std::vector<std::string> namesOf(const Vela::Entity& entity) {
  std::vector<std::string> names;
  for (const auto* attribute : entity.attributes()) names.emplace_back(attribute->name());
  return names;
}

std::string suggestion(const std::string& word, const std::vector<std::string>& known) {
  const std::string meant = Vela::nearest(word, known);
  return meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant);
}

// Those that are there, and those that a directory would make under this path's last name.
ConfigError noPath(const std::string& where, const std::string& path,
                   std::vector<std::string> known) {
  const std::string name = path.substr(path.rfind('/') + 1);
  for (const SettingGroup& group : TheSettings()) {
    if (group.isOfMany()) known.push_back(std::string(group.directory()) + name);
  }
  return ConfigError(where +
                     " is no path of the state database; expected a path such as "
                     "\"p4runtime/config/system\"" +
                     suggestion(path, known));
}

// An attribute of another path, or one that is spelt otherwise.
std::string rightAttribute(const Vela::Entity& entity, const std::string& name) {
  for (const SettingGroup& group : TheSettings()) {
    if (findSetting(TheSettings(), group.path, name)) {
      return fmt::format("; \"{}\" has that one", group.path);
    }
  }
  return suggestion(name, namesOf(entity));
}

// Of a path that was split into objects, too.
ConfigError noAttribute(const ConfigReading& reading, const std::string& path,
                        const Vela::Entity& entity, const cJSON& value, const std::string& where) {
  const std::string name = value.string;
  if (cJSON_IsObject(&value)) {
    const std::string whole = path + "/" + name;
    const auto known = reading.paths();
    if (std::ranges::find(known, whole) == known.end()) {
      return noPath(fmt::format("{}: \"{}\"", where, name), whole, known);
    }
    return ConfigError(
        fmt::format("{}: \"{}\" is a path of its own; write \"{}\" as one key, beside the others",
                    where, name, whole));
  }
  return ConfigError(fmt::format("{}: \"{}\" is no attribute of {}; {}{}", where, name,
                                 entity.typeName(), attributeNames(entity),
                                 rightAttribute(entity, name)));
}

std::string exampleOf(const Setting* setting) {
  return setting ? fmt::format("; for example {}", setting->example) : "";
}

void setAttribute(const ConfigReading& reading, const std::string& path, Vela::Entity& entity,
                  const cJSON& value, const std::string& where) {
  Vela::AttributeBase* attribute = entity.attribute(value.string);
  if (!attribute) throw noAttribute(reading, path, entity, value, where);
  const Setting* setting = findSetting(TheSettings(), path, value.string);
  const auto text = attributeText(value, attribute->typeName());
  if (!text) {
    throw ConfigError(fmt::format("{}: \"{}\": expected a value of type {}, found {}{}", where,
                                  value.string, attribute->typeName(), kindOf(value),
                                  exampleOf(setting)));
  }
  const std::string fault = setting ? rangeFault(*setting, *text) : "";
  if (!fault.empty()) throw ConfigError(fmt::format("{}: {}", where, fault));
  try {
    attribute->textIs(*text);
  } catch (const Vela::BadValue& e) {
    throw ConfigError(
        fmt::format("{}: \"{}\": {}{}", where, value.string, e.what(), exampleOf(setting)));
  }
  SCRIVEL_TRACE(0, "config ", entity.name(), " ", value.string, " ", *text);
}

void requireObject(const cJSON& attributes, const std::string& where) {
  if (cJSON_IsObject(&attributes)) return;
  throw ConfigError(
      fmt::format("{}: expected an object of attributes, found {}", where, kindOf(attributes)));
}

// Else the later one would count in silence.
void requireOnce(std::set<std::string>& seen, const cJSON& item, const std::string& where) {
  if (seen.insert(item.string).second) return;
  throw ConfigError(fmt::format("{}: \"{}\" stands there twice; join the two", where, item.string));
}

Vela::Json objectIn(const std::string& text, const std::string& fileName) {
  size_t line = 0;
  Vela::Json json = Vela::parseJson(plainJson(text), &line);
  if (!json) {
    throw ConfigError(
        fmt::format("{}: line {}: expected a JSON object, keys are paths of the state database",
                    fileName, line));
  }
  if (!cJSON_IsObject(json.get())) {
    throw ConfigError(fmt::format("{}: expected a JSON object, keys are paths, found {}", fileName,
                                  kindOf(*json)));
  }
  return json;
}

std::string contentsOf(const std::string& fileName) {
  errno = 0;
  std::ifstream file(fileName, std::ios::binary);
  std::string text;
  char block[65536];
  while (file && text.size() <= maxFileBytes) {
    file.read(block, sizeof block);
    text.append(block, file.gcount());
  }
  if (!file.is_open() || file.bad()) {
    throw ConfigError(fmt::format("{}: cannot read the configuration file: {}", fileName,
                                  strerror(errno ? errno : EIO)));
  }
  if (text.size() > maxFileBytes) {
    throw ConfigError(fileName + ": is larger than a configuration file may be (16 MiB)");
  }
  return text;
}

// A directory says why it makes nothing of such a name.
Vela::Ptr<Vela::Entity> entityToRead(const ConfigReading& reading, const std::string& path,
                                     const std::string& where) {
  try {
    if (auto entity = reading.entityAt(path)) return entity;
  } catch (const PathError& e) {
    throw ConfigError(where + ": " + e.what());
  }
  throw noPath(where, path, reading.paths());
}

template <typename Work>
void tried(const ConfigReading& reading, const std::string& path, const std::string& attribute,
           Work work) {
  try {
    work();
  } catch (const ConfigError& e) {
    reading.fault(path, attribute, e);
  }
}

void readEntity(const ConfigReading& reading, const cJSON& attributes, const std::string& where) {
  const std::string path = attributes.string;
  const auto entity = entityToRead(reading, path, where);
  requireObject(attributes, where);
  reading.tell(path, nullptr);
  std::set<std::string> seen;
  const cJSON* value = nullptr;
  cJSON_ArrayForEach(value, &attributes) {
    tried(reading, path, value->string, [&] {
      requireOnce(seen, *value, where);
      setAttribute(reading, path, *entity, *value, where);
      reading.tell(path, entity->attribute(value->string));
    });
  }
  if (reading.whole) reading.whole(path, entity);
}

void addPaths(const Database& database, const std::string& path, std::vector<std::string>& paths) {
  for (const std::string& name : database.children(path)) {
    paths.push_back(path.empty() ? name : path + "/" + name);
    addPaths(database, std::string(paths.back()), paths);
  }
}

}  // namespace

void loadConfigText(Database& database, const std::string& text, const std::string& fileName) {
  ConfigReading reading;
  reading.entityAt = [&](const std::string& path) {
    const auto there = database.entity(path);
    return there ? there : makeEntityAt(database, path);
  };
  reading.tell = [](const auto&, const auto*) {};
  reading.whole = [&](const std::string& path, const Vela::Ptr<Vela::Entity>& entity) {
    if (!database.entity(path)) database.entityIs(path, entity);
  };
  reading.fault = [](const auto&, const auto&, const ConfigError& fault) {
    throw ConfigError(fault);
  };
  reading.paths = [&] { return pathsIn(database); };
  readConfig(*objectIn(text, fileName), fileName, reading);
}

void loadConfig(Database& database, const std::string& fileName) {
  loadConfigText(database, contentsOf(fileName), fileName);
}

std::vector<std::string> pathsIn(const Database& database) {
  std::vector<std::string> paths;
  addPaths(database, "", paths);
  return paths;
}

Vela::Ptr<Vela::Entity> freshEntityAt(const Database& database, const std::string& path) {
  if (auto made = makeEntityAt(database, path)) return made;
  const auto there = database.entity(path);
  return there ? TheEntityTypes().make(there->typeName(), path) : nullptr;
}

ConfigReading trialReading(const Database& database) {
  ConfigReading reading;
  reading.entityAt = [&database](const std::string& path) { return freshEntityAt(database, path); };
  reading.paths = [&database] { return pathsIn(database); };
  return reading;
}

void readConfig(const std::string& fileName, const ConfigReading& reading) {
  readConfig(*objectIn(contentsOf(fileName), fileName), fileName, reading);
}

void readConfig(const cJSON& object, const std::string& name, const ConfigReading& reading) {
  std::set<std::string> seen;
  const cJSON* attributes = nullptr;
  cJSON_ArrayForEach(attributes, &object) {
    const std::string where = fmt::format("{}: \"{}\"", name, attributes->string);
    tried(reading, attributes->string, "", [&] {
      requireOnce(seen, *attributes, name);
      readEntity(reading, *attributes, where);
    });
  }
}

}  // namespace Orrery
