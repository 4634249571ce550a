#include "platform/orrery/KeptSettings.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/orrery/AttributeJson.h"
#include "platform/orrery/Config.h"
#include "platform/vela/WholeFile.h"

namespace Orrery {
namespace {

void replaceMember(cJSON* object, const char* name, Vela::Json value) {
  cJSON_DeleteItemFromObjectCaseSensitive(object, name);
  cJSON_AddItemToObject(object, name, value.release());
}

// Entities of status, and the commands' own, are none of the user's settings.
bool isConfiguration(const std::string& path) {
  return ("/" + path + "/").find("/config/") != std::string::npos;
}

Vela::Json readSettings(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  Vela::Json read = Vela::parseJson(text);
  return cJSON_IsObject(read.get()) ? std::move(read) : Vela::Json(cJSON_CreateObject());
}

}  // namespace

KeptSettings::KeptSettings(Database& database, std::string file,
                           std::vector<std::string> passedOver)
    : database_(database),
      file_(std::move(file)),
      passedOver_(std::move(passedOver)),
      settings_(cJSON_CreateObject()) {}

std::vector<std::string> KeptSettings::load() {
  std::vector<std::string> troubles;
  const Vela::Json read = readSettings(file_);
  for (const cJSON* one : Vela::JsonElements(read.get())) {
    Vela::Json alone(cJSON_CreateObject());
    cJSON_AddItemToObject(alone.get(), one->string, cJSON_Duplicate(one, true));
    try {
      if (cJSON_IsNull(one)) {
        database_.entityDel(one->string);
      } else {
        loadConfigText(database_, Vela::jsonBytes(*alone), file_);
      }
      cJSON_AddItemToObject(settings_.get(), one->string, cJSON_Duplicate(one, true));
    } catch (const std::exception& e) {
      troubles.emplace_back(e.what());
    }
  }
  return troubles;
}

void KeptSettings::note(const cJSON& request) {
  const std::string what = Vela::jsonString(&request, "request").value_or("");
  const std::string path = Vela::jsonString(&request, "path").value_or("");
  if (!isConfiguration(path)) return;
  const bool any =
      (what == "set" && noteSet(path, cJSON_GetObjectItemCaseSensitive(&request, "attribute"))) ||
      (what == "create" && noteCreated(path, Vela::jsonObject(&request, "attributes"))) ||
      (what == "delete" && noteDeleted(path));
  if (any) Vela::writeWholeFile(file_, Vela::jsonBytes(*settings_) + "\n");
}

bool KeptSettings::isKept(const std::string& path, const std::string& attribute) const {
  const std::string whole = path + "/" + attribute;
  return std::ranges::none_of(passedOver_, [&](const std::string& one) {
    return whole.starts_with(one + "/") || whole == one;
  });
}

// The entity may have gone with the setting.
bool KeptSettings::noteSet(const std::string& path, const cJSON* wanted) {
  const auto entity = database_.entity(path);
  if (!entity || !wanted) return false;
  const Vela::AttributeBase* attribute =
      cJSON_IsNumber(wanted) ? entity->attribute(static_cast<size_t>(wanted->valuedouble))
                             : entity->attribute(wanted->valuestring);
  if (!attribute || !isKept(path, attribute->name())) return false;
  replaceMember(attributesOf(path), attribute->name(), valueJson(*attribute));
  return true;
}

bool KeptSettings::noteCreated(const std::string& path, const cJSON* given) {
  const auto entity = database_.entity(path);
  if (!entity || !isKept(path, "")) return false;
  Vela::Json attributes(cJSON_CreateObject());
  for (const cJSON* one : Vela::JsonElements(given)) {
    const Vela::AttributeBase* attribute = entity->attribute(one->string);
    if (attribute) replaceMember(attributes.get(), one->string, valueJson(*attribute));
  }
  replaceMember(settings_.get(), path.c_str(), std::move(attributes));
  return true;
}

bool KeptSettings::noteDeleted(const std::string& path) {
  if (!isKept(path, "")) return false;
  replaceMember(settings_.get(), path.c_str(), Vela::Json(cJSON_CreateNull()));
  return true;
}

cJSON* KeptSettings::attributesOf(const std::string& path) {
  cJSON* there = cJSON_GetObjectItemCaseSensitive(settings_.get(), path.c_str());
  if (cJSON_IsObject(there)) return there;
  replaceMember(settings_.get(), path.c_str(), Vela::Json(cJSON_CreateObject()));
  return cJSON_GetObjectItemCaseSensitive(settings_.get(), path.c_str());
}

}  // namespace Orrery
