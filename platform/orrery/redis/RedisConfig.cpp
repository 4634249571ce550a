#include "platform/orrery/redis/RedisConfig.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <utility>

#include "platform/orrery/AttributeJson.h"
#include "platform/orrery/Config.h"
#include "platform/orrery/ConfigText.h"
#include "platform/vela/PlainText.h"

namespace Orrery {
namespace {

constexpr const char* placeMember = "stateDatabase";
constexpr const char* configMember = "configuration";
// Bytes.
constexpr size_t longestPath = 1000;
constexpr size_t longestSetting = 300;  // where a fault is told
constexpr size_t longestFault = 1000;

// One reading of all fields.
class Reader {
 public:
  Reader(const Database& database, const std::string& where, const RedisConfig& former)
      : reading_(trialReading(database)), where_(where), former_(former) {
    read_.document.reset(cJSON_CreateObject());
    reading_.tell = [this](const auto& path, const auto* set) { take(path, set); };
    reading_.fault = [this](const auto& path, const auto& attribute, const ConfigError& fault) {
      keepFormer(path, attribute, fault.what());
    };
    // The search for the nearest path is dear, and only for faults that are told.
    reading_.entityAt = [this, entityAt = reading_.entityAt](const std::string& path) {
      auto entity = entityAt(path);
      if (!entity && hasMostFaults()) throw PathError("is no path");
      return entity;
    };
  }

  void readField(const std::string& path, const std::string& text) {
    if (!Vela::isPlainLine(path, longestPath)) {
      return addFault(path,
                      fmt::format("{}: \"{}\" is no path: a path is one line of at most {} "
                                  "bytes, without control characters",
                                  where_, Vela::plainLine(path, longestSetting), longestPath));
    }
    size_t line = 0;
    const Vela::Json attributes = Vela::parseJson(plainJson(text), &line);
    if (!attributes) {
      return keepFormer(path, "",
                        fmt::format("{}: \"{}\": line {}: expected a JSON object of attributes",
                                    where_, path, line));
    }
    const Vela::Json object(cJSON_CreateObject());
    cJSON_AddItemToObject(object.get(), path.c_str(), cJSON_Duplicate(attributes.get(), true));
    readConfig(*object, where_, reading_);
  }
  RedisConfig result() { return std::move(read_); }

 private:
  cJSON* documentOf(const std::string& path) {
    cJSON* there = cJSON_GetObjectItemCaseSensitive(read_.document.get(), path.c_str());
    return there ? there : cJSON_AddObjectToObject(read_.document.get(), path.c_str());
  }

  void put(const std::string& path, const char* name, const std::string& text, Vela::Json json) {
    read_.settings[path][name] = text;
    cJSON* object = documentOf(path);
    cJSON_DeleteItemFromObjectCaseSensitive(object, name);
    cJSON_AddItemToObject(object, name, json.release());
  }

  void take(const std::string& path, const Vela::AttributeBase* set) {
    if (set) return put(path, set->name(), set->text(), valueJson(*set));
    read_.settings[path];
    documentOf(path);
  }

  bool hasMostFaults() const { return read_.faults.size() >= RedisConfig::mostFaults; }

  void addFault(const std::string& setting, const std::string& fault) {
    const std::string name = Vela::plainLine(setting, longestSetting);
    if (hasMostFaults() && !read_.faults.contains(name)) {
      ++read_.moreFaults;
    } else {
      read_.faults[name] = Vela::plainLine(fault, longestFault);
    }
  }

  void keepFormer(const std::string& path, const std::string& attribute, const std::string& fault) {
    addFault(attribute.empty() ? path : path + " " + attribute, fault);
    const auto former = former_.settings.find(path);
    if (former == former_.settings.end()) return;
    if (attribute.empty()) take(path, nullptr);
    const cJSON* document = cJSON_GetObjectItemCaseSensitive(former_.document.get(), path.c_str());
    for (const auto& [name, text] : former->second) {
      if (!attribute.empty() && name != attribute) continue;
      const cJSON* value = cJSON_GetObjectItemCaseSensitive(document, name.c_str());
      put(path, name.c_str(), text, Vela::Json(cJSON_Duplicate(value, true)));
    }
  }

  ConfigReading reading_;
  const std::string& where_;
  const RedisConfig& former_;
  RedisConfig read_;
};

}  // namespace

RedisConfig readConfigFields(const Database& database, const RedisHash& fields,
                             const std::string& where, const RedisConfig& former) {
  Reader reader(database, where, former);
  for (const auto& [path, text] : fields) reader.readField(path, text);
  return reader.result();
}

std::string configCopyText(const RedisConfig& config, const std::string& where) {
  const Vela::Json copy(cJSON_CreateObject());
  Vela::addString(copy.get(), placeMember, where);
  cJSON_AddItemToObject(copy.get(), configMember, cJSON_Duplicate(config.document.get(), true));
  return Vela::jsonBytes(*copy) + "\n";
}

std::optional<RedisHash> fieldsOfConfigCopy(const std::string& text, const std::string& where) {
  const Vela::Json copy = Vela::parseJson(text);
  const cJSON* entities = Vela::jsonObject(copy.get(), configMember);
  if (!entities || Vela::jsonString(copy.get(), placeMember) != where) return std::nullopt;
  RedisHash fields;
  for (const cJSON* one : Vela::JsonElements(entities)) {
    fields[one->string] = Vela::jsonBytes(*one);
  }
  return fields;
}

}  // namespace Orrery
