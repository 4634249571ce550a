// JSON documents: cJSON's trees with an owner, parsed, read, built and printed.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Vela {

struct JsonDelete {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

// Parses the document at the begin of the text. Sets `stopped` to the offset behind it, or to the
// place where the text stops making sense; then returns null.
Json parseJsonPrefix(std::string_view text, size_t* stopped);
// Null when the text is no JSON document, or more than one; `line` is then where it goes wrong.
Json parseJson(std::string_view text, size_t* line = nullptr);

// The three print a document without a line end. Text is UTF-8 even if the strings were not, except
// in jsonBytes(), which leaves strings as they are.
std::string jsonLine(const cJSON& json);   // in one line
std::string jsonText(const cJSON& json);   // for people: indented, several lines
std::string jsonBytes(const cJSON& json);  // as jsonText()

// A member that is a string, its name in exact case; null when it is absent or anything else.
const char* stringMember(const cJSON& object, const char* key);

// Each takes a null parent, and returns null or nothing when the item is absent or of another type.
// `key` is found without regard to case; the first item of that name counts.
const cJSON* jsonArray(const cJSON* parent, const char* key);
const cJSON* jsonObject(const cJSON* parent, const char* key);
std::optional<std::string> jsonString(const cJSON* parent, const char* key);
std::optional<uint32_t> jsonNumber(const cJSON* parent, const char* key);
std::optional<uint32_t> jsonNumber(const cJSON* item);  // a whole number that fits 32 bits

// Each adds to an object or array, which owns the item from then on.
void addString(cJSON* object, const char* key, std::string_view value);
void addNumber(cJSON* object, const char* key, double value);
cJSON* addArray(cJSON* object, const char* key);
cJSON* addObjectTo(cJSON* array);

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

}  // namespace Vela
