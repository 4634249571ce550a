// Reading JSON documents with cJSON: owners and checked look-ups.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace P4Runtime {

struct JsonDelete {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using JsonDocument = std::unique_ptr<cJSON, JsonDelete>;

// All take a null parent, and answer null or nothing when the item is absent or of another type.
// `key` is found without regard to case; the first item of that name counts.
const cJSON* jsonArray(const cJSON* parent, const char* key);
const cJSON* jsonObject(const cJSON* parent, const char* key);
std::optional<std::string> jsonString(const cJSON* parent, const char* key);
std::optional<uint32_t> jsonNumber(const cJSON* parent, const char* key);
std::optional<uint32_t> jsonNumber(const cJSON* item);
uint32_t jsonPreambleId(const cJSON* element);       // "preamble" -> "id"; 0 when absent
std::string jsonPreambleName(const cJSON* element);  // "preamble" -> "name"

// Steps through an array's elements: for (const cJSON* e : JsonElements(array)).
class JsonElements {
 public:
  explicit JsonElements(const cJSON* array) : first_(array ? array->child : nullptr) {}
  struct Iterator {
    const cJSON* at;
    const cJSON* operator*() const { return at; }
    Iterator& operator++() {
      at = at->next;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return at != other.at; }
  };
  Iterator begin() const { return {first_}; }
  Iterator end() const { return {nullptr}; }

 private:
  const cJSON* first_;
};

}  // namespace P4Runtime
