// A value of the JSON together with its place, which every complaint names.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "p4/program/Number.h"

namespace P4 {

// Borrows the tree. Each getter throws ProgramError when the value is absent or of another type.
class Node {
 public:
  Node(const cJSON* json, std::string place) : json_(json), place_(std::move(place)) {}

  bool present() const { return json_ && !cJSON_IsNull(json_); }
  bool hasKey(const char* key) const;  // even if its value is null
  bool isText() const { return cJSON_IsString(json_); }
  bool isNumber() const { return cJSON_IsNumber(json_); }
  bool isObject() const { return cJSON_IsObject(json_); }
  bool isArray() const { return cJSON_IsArray(json_); }

  Node operator[](const char* key) const;  // a member; absent in anything but an object
  Node at(size_t index) const;             // an element; throws when there is none
  size_t size() const;                     // of an array
  std::vector<Node> elements() const;      // none when the array is absent

  std::string text() const;
  std::string name() const;  // text that is not empty
  std::string textOr(const std::string& otherwise) const;
  uint32_t integer() const;  // 0..2^32-1
  uint32_t integerOr(uint32_t otherwise) const;
  bool boolean() const;
  bool booleanOr(bool otherwise) const;
  Number number() const;                  // of a hexadecimal string
  std::string bytes() const;              // of a hexadecimal string
  std::string bytes(size_t count) const;  // of exactly so many

  const std::string& place() const { return place_; }
  [[noreturn]] void fail(const std::string& message) const;

 private:
  const cJSON* json_;  // null: absent
  std::string place_;
};

std::string quoted(std::string_view text);  // shortened where it is long

}  // namespace P4
