// Text forms of attribute values: how `korvel get` shows them and `korvel set` reads them.
#pragma once

#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/vela/Ptr.h"

namespace Vela {

std::optional<bool> boolFromText(std::string_view text);  // "true" and "false" only
std::optional<double> doubleFromText(std::string_view text);
std::string doubleToText(double value);

// Specialise for a type that attributes hold: a name for messages, a text form, and a parse that
// returns nothing when the text is not a value of the type.
template <typename T>
struct TextForm {
  static const char* typeName() { return "value"; }
  static std::string toText(const T&) { return "?"; }
  static std::optional<T> fromText(std::string_view) { return std::nullopt; }
};

template <>
struct TextForm<bool> {
  static const char* typeName() { return "bool"; }
  static std::string toText(bool value) { return value ? "true" : "false"; }
  static std::optional<bool> fromText(std::string_view text) { return boolFromText(text); }
};

template <>
struct TextForm<double> {
  static const char* typeName() { return "number"; }
  static std::string toText(double value) { return doubleToText(value); }
  static std::optional<double> fromText(std::string_view text) { return doubleFromText(text); }
};

template <>
struct TextForm<std::string> {
  static const char* typeName() { return "string"; }
  static std::string toText(const std::string& value) { return value; }
  static std::optional<std::string> fromText(std::string_view text) { return std::string(text); }
};

template <std::integral T>
requires(!std::same_as<T, bool>) struct TextForm<T> {
  static const char* typeName() {
    static const std::string name =
        (std::is_signed_v<T> ? "int" : "uint") + std::to_string(sizeof(T) * 8);
    return name.c_str();
  }
  static std::string toText(T value) { return std::to_string(value); }
  static std::optional<T> fromText(std::string_view text) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
  }
};

// An enumeration that offers toText(E) and fromText(std::string_view, E*) beside it.
template <typename E>
requires std::is_enum_v<E>
struct TextForm<E> {
  static const char* typeName() { return "enumerator"; }
  static std::string toText(E value) {
    if constexpr (requires { enumToText(value); }) {
      return enumToText(value);
    } else {
      return std::to_string(static_cast<std::underlying_type_t<E>>(value));
    }
  }
  static std::optional<E> fromText(std::string_view text) {
    if constexpr (requires(E e) { enumFromText(text, &e); }) {
      E value{};
      if (enumFromText(text, &value)) return value;
    }
    return std::nullopt;
  }
};

template <typename T>
struct TextForm<Ptr<T>> {
  static const char* typeName() { return "reference"; }
  static std::string toText(const Ptr<T>& value) { return value ? "set" : "none"; }
  static std::optional<Ptr<T>> fromText(std::string_view) { return std::nullopt; }
};

}  // namespace Vela
