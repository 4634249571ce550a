#include "platform/orrery/Requests.h"

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include <cmath>
#include <vector>

#include "platform/orrery/AttributeJson.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("OrreryRequests");

namespace Orrery {
namespace {

using Vela::AttributeBase;
using Vela::Entity;
using Vela::Ptr;

constexpr size_t mostListed = 10000;
constexpr int maxListDepth = 32;

Vela::Json okAnswer() {
  Vela::Json answer(cJSON_CreateObject());
  cJSON_AddTrueToObject(answer.get(), "ok");
  return answer;
}

const char* requiredString(const cJSON& request, const char* key) {
  const char* text = Vela::stringMember(request, key);
  if (!text) throw RequestError(fmt::format("the request has no \"{}\"; add it as a string", key));
  return text;
}

std::string joined(const std::vector<std::string>& names) {
  return names.empty() ? "none" : fmt::format("{}", fmt::join(names, ", "));
}

[[noreturn]] void refuseAttribute(const Entity& entity, const std::string& what) {
  std::vector<std::string> names;
  for (const auto* attribute : entity.attributes()) names.push_back(attribute->name());
  throw RequestError(
      fmt::format("{} has no attribute {}; it has: {}", entity.name(), what, joined(names)));
}

AttributeBase& attributeNamed(const Entity& entity, const std::string& name) {
  AttributeBase* found = entity.attribute(name);
  if (!found) refuseAttribute(entity, name);
  return *found;
}

AttributeBase& requestedAttribute(const Entity& entity, const cJSON& request) {
  const cJSON* wanted = cJSON_GetObjectItemCaseSensitive(&request, "attribute");
  if (!cJSON_IsNumber(wanted)) return attributeNamed(entity, requiredString(request, "attribute"));
  const double number = wanted->valuedouble;
  AttributeBase* found = nullptr;
  if (number >= 0 && number < 1e6) found = entity.attribute(static_cast<size_t>(number));
  if (!found) refuseAttribute(entity, fmt::format("number {}", number));
  return *found;
}

Vela::Json operationsJson(const Entity& entity) {
  Vela::Json array(cJSON_CreateArray());
  for (const auto& operation : entity.operations()) {
    cJSON* one = cJSON_CreateObject();
    cJSON_AddStringToObject(one, "name", operation.name.c_str());
    cJSON* arguments = cJSON_AddArrayToObject(one, "arguments");
    for (const auto& name : operation.argumentNames) {
      cJSON_AddItemToArray(arguments, cJSON_CreateString(name.c_str()));
    }
    cJSON_AddItemToArray(array.get(), one);
  }
  return array;
}

Vela::Json namesJson(const std::vector<std::string>& names) {
  Vela::Json array(cJSON_CreateArray());
  for (const auto& name : names) {
    cJSON_AddItemToArray(array.get(), cJSON_CreateString(name.c_str()));
  }
  return array;
}

// A directory's own collection of children is shown as "children".
Vela::Json entityJson(const Entity& entity, const char* path) {
  Vela::Json answer = okAnswer();
  cJSON_AddStringToObject(answer.get(), "path", path);
  cJSON_AddStringToObject(answer.get(), "type", entity.typeName());
  cJSON_AddItemToObject(answer.get(), "attributes", attributesJson(entity).release());
  cJSON_AddItemToObject(answer.get(), "operations", operationsJson(entity).release());
  if (const auto* directory = dynamic_cast<const Directory*>(&entity)) {
    cJSON_AddItemToObject(answer.get(), "children", namesJson(directory->entityNames()).release());
  }
  return answer;
}

Vela::Json attributeJson(const char* path, const AttributeBase& attribute) {
  Vela::Json answer = okAnswer();
  cJSON_AddStringToObject(answer.get(), "path", path);
  cJSON_AddStringToObject(answer.get(), "attribute", attribute.name());
  cJSON_AddStringToObject(answer.get(), "type", attribute.typeName());
  cJSON_AddItemToObject(answer.get(), "value", valueJson(attribute).release());
  return answer;
}

Vela::Json answerGet(Database& database, const cJSON& request) {
  const Ptr<Entity> entity = requestedEntity(database, request);
  const char* path = requiredString(request, "path");
  if (!cJSON_HasObjectItem(&request, "attribute")) return entityJson(*entity, path);
  return attributeJson(path, requestedAttribute(*entity, request));
}

void setAttribute(const Database& database, const std::string& path, const Entity& entity,
                  AttributeBase& attribute, const cJSON& value) {
  // A string is the text form of any type.
  const auto text = cJSON_IsString(&value) ? std::optional<std::string>(value.valuestring)
                                           : attributeText(value, attribute.typeName());
  if (!text) {
    throw RequestError(fmt::format("attribute {} of {} takes a {}, not {}", attribute.name(),
                                   entity.name(), attribute.typeName(), kindOf(value)));
  }
  const Vela::Outcome allowed = database.checkSetting(path, attribute, *text);
  if (!allowed.ok()) throw RequestError(allowed.reason());
  SCRIVEL_TRACE(0, "set ", path, " ", attribute.name(), " ", *text);
  attribute.textIs(*text);
}

[[noreturn]] void refusePath(const std::string& path) {
  throw RequestError("there is no path '" + path + "'; 'korvel get' without a path lists them");
}

Vela::Json answerSet(Database& database, const cJSON& request) {
  const std::string path = requiredString(request, "path");
  const Ptr<Entity> there = database.entity(path);
  const Ptr<Entity> entity = there ? there : makeEntityAt(database, path);
  if (!entity) refusePath(path);
  AttributeBase& attribute = requestedAttribute(*entity, request);
  const cJSON* value = cJSON_GetObjectItemCaseSensitive(&request, "value");
  if (!value) throw RequestError("the request has no \"value\"; add it");
  setAttribute(database, path, *entity, attribute, *value);
  if (!there) database.entityIs(path, entity);
  return attributeJson(path.c_str(), attribute);
}

// Its observers find it with all of its attributes.
Vela::Json answerCreate(Database& database, const cJSON& request) {
  const std::string path = requiredString(request, "path");
  if (database.entity(path)) {
    throw RequestError("'" + path + "' is there already; set its attributes, or delete it first");
  }
  const Ptr<Entity> made = makeEntityAt(database, path);
  if (!made) {
    throw RequestError("nothing can be made at '" + path +
                       "'; its directory is not there, or makes nothing on demand");
  }
  const cJSON* value = nullptr;
  cJSON_ArrayForEach(value, cJSON_GetObjectItemCaseSensitive(&request, "attributes")) {
    // An array's elements have no names.
    if (!value->string) throw RequestError("\"attributes\" is an object: names and values");
    setAttribute(database, path, *made, attributeNamed(*made, value->string), *value);
  }
  SCRIVEL_TRACE(0, "create ", path);
  database.entityIs(path, made);
  return entityJson(*made, path.c_str());
}

Vela::Json answerDelete(Database& database, const cJSON& request) {
  const std::string path = requiredString(request, "path");
  if (!database.entity(path)) refusePath(path);
  if (!makeEntityAt(database, path)) {
    throw RequestError("'" + path + "' is always there and cannot be deleted; set its attributes");
  }
  SCRIVEL_TRACE(0, "delete ", path);
  database.entityDel(path);
  return okAnswer();
}

std::vector<std::string> requestedArguments(const cJSON& request) {
  std::vector<std::string> arguments;
  const cJSON* array = cJSON_GetObjectItemCaseSensitive(&request, "arguments");
  const cJSON* argument = nullptr;
  cJSON_ArrayForEach(argument, array) {
    if (!cJSON_IsString(argument)) throw RequestError("the arguments of a call are all strings");
    arguments.push_back(argument->valuestring);
  }
  return arguments;
}

Vela::Json answerCall(Database& database, const cJSON& request) {
  const Ptr<Entity> entity = requestedEntity(database, request);
  const std::string name = requiredString(request, "operation");
  const Vela::Operation* operation = entity->operation(name);
  if (!operation) {
    std::vector<std::string> names;
    for (const auto& one : entity->operations()) names.push_back(one.name);
    throw RequestError(
        fmt::format("{} has no operation {}; it has: {}", entity->name(), name, joined(names)));
  }
  const auto arguments = requestedArguments(request);
  if (arguments.size() != operation->argumentNames.size()) {
    throw RequestError(fmt::format("{} takes {} arguments ({}), not {}", name,
                                   operation->argumentNames.size(),
                                   joined(operation->argumentNames), arguments.size()));
  }
  SCRIVEL_TRACE(0, "call ", requiredString(request, "path"), " ", name);
  Vela::Json answer = okAnswer();
  cJSON_AddStringToObject(answer.get(), "answer", operation->run(arguments).c_str());
  return answer;
}

void listBelow(const Directory& directory, const std::string& path, int depth, cJSON* paths) {
  for (const auto& name : directory.entityNames()) {
    if (static_cast<size_t>(cJSON_GetArraySize(paths)) >= mostListed) return;
    const Ptr<Entity> entity = directory.entity(name);
    if (!entity) continue;
    const std::string below = path.empty() ? name : path + "/" + name;
    cJSON* one = cJSON_CreateObject();
    cJSON_AddStringToObject(one, "path", below.c_str());
    cJSON_AddStringToObject(one, "type", entity->typeName());
    cJSON_AddItemToArray(paths, one);
    const auto* inner = dynamic_cast<const Directory*>(entity.get());
    if (inner && depth < maxListDepth) listBelow(*inner, below, depth + 1, paths);
  }
}

Vela::Json answerList(Database& database, const cJSON& request) {
  const Ptr<Entity> entity = requestedEntity(database, request);
  Vela::Json answer = okAnswer();
  cJSON* paths = cJSON_AddArrayToObject(answer.get(), "paths");
  const auto* directory = dynamic_cast<const Directory*>(entity.get());
  if (directory) listBelow(*directory, requiredString(request, "path"), 0, paths);
  return answer;
}

Vela::Json answerTo(Database& database, const cJSON& request) {
  if (!cJSON_IsObject(&request)) throw RequestError("a request is a JSON object, one a line");
  const std::string what = requiredString(request, "request");
  if (what == "get") return answerGet(database, request);
  if (what == "set") return answerSet(database, request);
  if (what == "create") return answerCreate(database, request);
  if (what == "delete") return answerDelete(database, request);
  if (what == "call") return answerCall(database, request);
  if (what == "list") return answerList(database, request);
  if (what == "watch") {
    return entityJson(*requestedEntity(database, request), requiredString(request, "path"));
  }
  throw RequestError("there is no request '" + what +
                     "'; use get, set, create, delete, call, list or watch");
}

std::function<void(const cJSON& request)>& carriedOutHandler() {
  static std::function<void(const cJSON& request)> handler;
  return handler;
}

}  // namespace

Ptr<Entity> requestedEntity(Database& database, const cJSON& request) {
  const std::string path = requiredString(request, "path");
  Ptr<Entity> entity = database.entity(path);
  if (!entity) refusePath(path);
  return entity;
}

Vela::Json errorAnswer(const std::string& message) {
  Vela::Json answer(cJSON_CreateObject());
  cJSON_AddFalseToObject(answer.get(), "ok");
  cJSON_AddStringToObject(answer.get(), "error", message.c_str());
  return answer;
}

void carriedOutHandlerIs(std::function<void(const cJSON& request)> handler) {
  carriedOutHandler() = std::move(handler);
}

Vela::Json answerRequest(Database& database, const cJSON& request) {
  Vela::Json answer = answerTo(database, request);
  if (carriedOutHandler()) carriedOutHandler()(request);
  return answer;
}

}  // namespace Orrery
