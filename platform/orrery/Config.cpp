#include "platform/orrery/Config.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/orrery/AttributeJson.h"
#include "platform/orrery/EntityTypes.h"
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

void setAttribute(Vela::Entity& entity, const cJSON& value, const std::string& where) {
  Vela::AttributeBase* attribute = entity.attribute(value.string);
  if (!attribute) {
    throw ConfigError(fmt::format("{}: \"{}\" is no attribute of {}; {}{}", where, value.string,
                                  entity.typeName(), attributeNames(entity),
                                  suggestion(value.string, namesOf(entity))));
  }
  const auto text = attributeText(value, attribute->typeName());
  if (!text) {
    throw ConfigError(fmt::format("{}: \"{}\": expected a value of type {}, found {}", where,
                                  value.string, attribute->typeName(), kindOf(value)));
  }
  try {
    attribute->textIs(*text);
  } catch (const Vela::BadValue& e) {
    throw ConfigError(fmt::format("{}: \"{}\": {}", where, value.string, e.what()));
  }
  SCRIVEL_TRACE(0, "config ", entity.name(), " ", value.string, " ", *text);
}

ConfigError noPath(const std::string& where, const std::string& path,
                   const std::vector<std::string>& known) {
  return ConfigError(where +
                     " is no path of the state database; expected a path such as "
                     "\"p4runtime/config/system\"" +
                     suggestion(path, known));
}

Vela::Ptr<Vela::Entity> madeEntity(const Database& database, const char* path,
                                   const std::string& where) {
  try {
    if (auto made = makeEntityAt(database, path)) return made;
  } catch (const PathError& e) {
    throw ConfigError(where + ": " + e.what());
  }
  throw noPath(where, path, pathsIn(database));
}

void requireObject(const cJSON& attributes, const std::string& where) {
  if (cJSON_IsObject(&attributes)) return;
  throw ConfigError(
      fmt::format("{}: expected an object of attributes, found {}", where, kindOf(attributes)));
}

void setEntity(Database& database, const cJSON& attributes, const std::string& fileName) {
  const std::string where = fmt::format("{}: \"{}\"", fileName, attributes.string);
  const Vela::Ptr<Vela::Entity> there = database.entity(attributes.string);
  const auto entity = there ? there : madeEntity(database, attributes.string, where);
  requireObject(attributes, where);
  const cJSON* value = nullptr;
  cJSON_ArrayForEach(value, &attributes) setAttribute(*entity, *value, where);
  if (!there) database.entityIs(attributes.string, entity);
}

Vela::Json objectIn(const std::string& text, const std::string& fileName) {
  size_t line = 0;
  Vela::Json json = Vela::parseJson(text, &line);
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
  throw noPath(where, path, reading.paths);
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
  const cJSON* value = nullptr;
  cJSON_ArrayForEach(value, &attributes) {
    tried(reading, path, value->string, [&] {
      setAttribute(*entity, *value, where);
      reading.tell(path, entity->attribute(value->string));
    });
  }
}

void addPaths(const Database& database, const std::string& path, std::vector<std::string>& paths) {
  for (const std::string& name : database.children(path)) {
    paths.push_back(path.empty() ? name : path + "/" + name);
    addPaths(database, std::string(paths.back()), paths);
  }
}

}  // namespace

void loadConfigText(Database& database, const std::string& text, const std::string& fileName) {
  const Vela::Json json = objectIn(text, fileName);
  const cJSON* attributes = nullptr;
  cJSON_ArrayForEach(attributes, json.get()) setEntity(database, *attributes, fileName);
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
  reading.paths = pathsIn(database);
  return reading;
}

void readConfig(const std::string& fileName, const ConfigReading& reading) {
  readConfig(*objectIn(contentsOf(fileName), fileName), fileName, reading);
}

void readConfig(const cJSON& object, const std::string& name, const ConfigReading& reading) {
  const cJSON* attributes = nullptr;
  cJSON_ArrayForEach(attributes, &object) {
    const std::string where = fmt::format("{}: \"{}\"", name, attributes->string);
    tried(reading, attributes->string, "", [&] { readEntity(reading, *attributes, where); });
  }
}

}  // namespace Orrery
