#include "access/Objects.h"

#include "p4/config/v1/p4info.pb.h"

namespace Access {

namespace {

using p4::config::v1::Preamble;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const size_t first = text.find_first_not_of(blanks);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string_view unquoted(std::string_view text) {
  const bool isQuoted = text.size() >= 2 && text.starts_with('"') && text.ends_with('"');
  return isQuoted ? text.substr(1, text.size() - 2) : text;
}

// Of those with a list only the form with one text can be named.
Annotation structured(const p4::config::v1::StructuredAnnotation& given) {
  Annotation annotation{given.name(), ""};
  const auto& expressions = given.expression_list().expressions();
  if (expressions.size() == 1) annotation.value = expressions[0].string_value();
  return annotation;
}

Object objectOf(ObjectKind kind, const Preamble& preamble) {
  return {kind, preamble.id(), preamble.name(), preamble.alias(), annotationsOf(preamble)};
}

}  // namespace

std::optional<Annotation> annotationOf(std::string_view text) {
  text = trimmed(text);
  if (!text.starts_with('@')) return std::nullopt;
  text.remove_prefix(1);
  const size_t open = text.find_first_of("([");
  const std::string_view name = trimmed(text.substr(0, open));
  if (name.empty()) return std::nullopt;
  if (open == text.npos) return Annotation{std::string(name), ""};
  if (!text.ends_with(')') && !text.ends_with(']')) return std::nullopt;
  const std::string_view body = trimmed(text.substr(open + 1, text.size() - open - 2));
  return Annotation{std::string(name), std::string(unquoted(body))};
}

std::vector<Annotation> annotationsOf(const Preamble& preamble) {
  std::vector<Annotation> annotations;
  for (const std::string& text : preamble.annotations()) {
    if (auto annotation = annotationOf(text)) annotations.push_back(*std::move(annotation));
  }
  for (const auto& given : preamble.structured_annotations()) {
    annotations.push_back(structured(given));
  }
  return annotations;
}

Object replicationObject(std::string_view name) {
  return {ObjectKind::replication, 0, std::string(name), "", {}};
}

std::vector<Object> objectsOf(const p4::config::v1::P4Info& p4Info) {
  std::vector<Object> objects;
  const auto addAll = [&](ObjectKind kind, const auto& list) {
    for (const auto& one : list) objects.push_back(objectOf(kind, one.preamble()));
  };
  addAll(ObjectKind::table, p4Info.tables());
  addAll(ObjectKind::actionProfile, p4Info.action_profiles());
  addAll(ObjectKind::counter, p4Info.counters());
  addAll(ObjectKind::meter, p4Info.meters());
  addAll(ObjectKind::registerArray, p4Info.registers());
  addAll(ObjectKind::digest, p4Info.digests());
  addAll(ObjectKind::valueSet, p4Info.value_sets());
  for (const auto& type : p4Info.externs()) addAll(ObjectKind::externInstance, type.instances());
  return objects;
}

const char* kindText(ObjectKind kind) {
  switch (kind) {
    case ObjectKind::table:
      return "table";
    case ObjectKind::actionProfile:
      return "action profile";
    case ObjectKind::counter:
      return "counter";
    case ObjectKind::meter:
      return "meter";
    case ObjectKind::registerArray:
      return "register";
    case ObjectKind::digest:
      return "digest";
    case ObjectKind::valueSet:
      return "value set";
    case ObjectKind::externInstance:
      return "extern instance";
    case ObjectKind::replication:
      return "packet replication";
  }
  return "object";
}

}  // namespace Access
