// Requests, spelt out.
#include <cjson/cJSON.h>

#include <algorithm>

#include "platform/orrery/Requests.h"

namespace Orrery {
namespace {

Vela::Json requestJson(const char* what, const std::string& path) {
  Vela::Json json(cJSON_CreateObject());
  cJSON_AddStringToObject(json.get(), "request", what);
  cJSON_AddStringToObject(json.get(), "path", path.c_str());
  return json;
}

void addAttribute(cJSON* request, const std::string& attribute) {
  const bool number =
      attribute.size() < 7 && !attribute.empty() &&
      std::all_of(attribute.begin(), attribute.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (number) {
    cJSON_AddNumberToObject(request, "attribute", std::stoi(attribute));
  } else {
    cJSON_AddStringToObject(request, "attribute", attribute.c_str());
  }
}

}  // namespace

Vela::Json getRequest(const std::string& path, const std::string& attribute) {
  Vela::Json json = requestJson("get", path);
  if (!attribute.empty()) addAttribute(json.get(), attribute);
  return json;
}

Vela::Json setRequest(const std::string& path, const std::string& attribute,
                      const std::string& value) {
  Vela::Json json = requestJson("set", path);
  addAttribute(json.get(), attribute);
  cJSON_AddStringToObject(json.get(), "value", value.c_str());
  return json;
}

Vela::Json createRequest(const std::string& path, const Attributes& attributes) {
  Vela::Json json = requestJson("create", path);
  cJSON* object = cJSON_AddObjectToObject(json.get(), "attributes");
  for (const auto& [name, value] : attributes) {
    cJSON_AddStringToObject(object, name.c_str(), value.c_str());
  }
  return json;
}

Vela::Json deleteRequest(const std::string& path) { return requestJson("delete", path); }

Vela::Json callRequest(const std::string& path, const std::string& operation,
                       const std::vector<std::string>& arguments) {
  Vela::Json json = requestJson("call", path);
  cJSON_AddStringToObject(json.get(), "operation", operation.c_str());
  cJSON* array = cJSON_AddArrayToObject(json.get(), "arguments");
  for (const auto& argument : arguments) {
    cJSON_AddItemToArray(array, cJSON_CreateString(argument.c_str()));
  }
  return json;
}

Vela::Json listRequest(const std::string& path) { return requestJson("list", path); }
Vela::Json watchRequest(const std::string& path) { return requestJson("watch", path); }

}  // namespace Orrery
