// How rules take questions.
#include "access/Policy.h"

#include <algorithm>
#include <set>

namespace Access {

namespace {

constexpr Operations needingPrimary = bitOf(Operation::write) | bitOf(Operation::push) |
                                      bitOf(Operation::packetIn) | bitOf(Operation::packetOut);

// Those that the rule is about: with objects it is about these alone.
Operations operationsOf(const Rule& rule) {
  if (rule.operations) return *rule.operations;
  return rule.objects.empty() ? allOperations : entityOperations;
}

// The operations for which the call is made. Every caller needs the other calls.
Operations operationsOver(std::string_view path) {
  if (path == path::write) return bitOf(Operation::write);
  if (path == path::read) return bitOf(Operation::read);
  if (path == path::setPipeline) return bitOf(Operation::push);
  return allOperations;
}

bool takesOperation(const Rule& rule, Operations operations, const Question& question) {
  if (!rule.takesPath(pathOf(question.operation)) || !rule.takesRole(question.role)) return false;
  if ((operations & bitOf(question.operation)) == 0) return false;
  const bool hasObject = question.object != nullptr && !rule.objects.empty() &&
                         (bitOf(question.operation) & entityOperations) != 0;
  return !hasObject || rule.takesObject(question.role, *question.object);
}

bool isOfMonitoring(std::string_view path) { return !path.starts_with(path::service); }

bool readsEverything(const Rule& rule) {
  return !rule.roles && rule.objects.empty() && (operationsOf(rule) & bitOf(Operation::read)) != 0;
}

// The monitoring at `path` shows everything, and so the rule takes it with any part of reading: by
// either path, in any role.
bool takesReading(const Rule& rule, std::string_view path) {
  return (rule.takesPath(path) || rule.takesPath(path::read)) &&
         (operationsOf(rule) & bitOf(Operation::read)) != 0;
}

bool allows(const Rule& rule, const Question& question) {
  const Operations operations = operationsOf(rule);
  switch (question.kind) {
    case Question::Kind::call:
      if (isOfMonitoring(question.path)) {
        return rule.takesPath(question.path) && readsEverything(rule);
      }
      return rule.takesPath(question.path) && rule.takesRole(question.role) &&
             (operations & operationsOver(question.path)) != 0;
    case Question::Kind::claim:
      return rule.takesPath(path::stream) && rule.takesRole(question.role);
    case Question::Kind::contest:
      return rule.takesPath(path::stream) && rule.takesRole(question.role) &&
             rule.election.value_or((operations & needingPrimary) != 0);
    case Question::Kind::operation:
      return takesOperation(rule, operations, question);
  }
  return false;
}

// A rule that names operations or objects denies these alone, and so does one about elections.
bool denies(const Rule& rule, const Question& question) {
  const bool isNarrow = rule.operations || !rule.objects.empty();
  const bool ofRoles = rule.roles.has_value();
  switch (question.kind) {
    case Question::Kind::call:
      if (isOfMonitoring(question.path)) {
        return (isNarrow || !rule.election) && takesReading(rule, question.path);
      }
      return !isNarrow && !rule.election && rule.takesPath(question.path) &&
             (question.role ? rule.takesRole(question.role) : !ofRoles);
    case Question::Kind::claim:
      return !isNarrow && !rule.election && rule.takesPath(path::stream) &&
             rule.takesRole(question.role);
    case Question::Kind::contest:
      return (rule.election || !isNarrow) && rule.takesPath(path::stream) &&
             rule.takesRole(question.role);
    case Question::Kind::operation:
      if (rule.election && !isNarrow) return false;
      return takesOperation(rule, operationsOf(rule), question);
  }
  return false;
}

template <typename Takes>
const Rule* firstOf(const std::vector<Rule>& rules, const Question& question, Takes takes) {
  const auto found = std::ranges::find_if(rules, [&](const Rule& rule) {
    return rule.takesIdentity(question.identity) && takes(rule, question);
  });
  return found == rules.end() ? nullptr : &*found;
}

}  // namespace

std::string_view pathOf(Operation operation) {
  switch (operation) {
    case Operation::read:
      return path::read;
    case Operation::write:
      return path::write;
    case Operation::push:
      return path::setPipeline;
    default:
      return path::stream;
  }
}

bool Rule::takesIdentity(std::string_view identity) const {
  return !principals || matchesAny(*principals, identity);
}

bool Rule::takesPath(std::string_view path) const { return !paths || matchesAny(*paths, path); }

bool Rule::takesRole(std::optional<std::string_view> role) const {
  return !roles || !role || matchesAny(*roles, *role);
}

bool Rule::takesObject(std::optional<std::string_view> role, const Object& object) const {
  const auto isRole = [&](std::string_view value) {
    if (role) return !role->empty() && value == *role;
    return !value.empty() && takesRole(value);
  };
  return std::ranges::any_of(objects, [&](const Selector& selector) {
    if (selector.kind && *selector.kind != object.kind) return false;
    if (selector.name) {
      return selector.name->matches(object.name) ||
             (!object.alias.empty() && selector.name->matches(object.alias));
    }
    return std::ranges::any_of(object.annotations, [&](const Annotation& annotation) {
      if (annotation.name != selector.annotation) return false;
      if (selector.valueIsRole) return isRole(annotation.value);
      return !selector.value || selector.value->matches(annotation.value);
    });
  });
}

// Roles that no rule tells apart need one example.
Verdict Policy::decideInAnyRole(Question question) const {
  std::set<std::string> roles{"", Pattern("*").example()};
  for (const std::vector<Rule>* rules : {&denyRules, &allowRules}) {
    for (const Rule& rule : *rules) {
      if (!rule.roles || !rule.takesIdentity(question.identity)) continue;
      for (const Pattern& role : *rule.roles) roles.insert(role.example());
    }
  }
  if (question.object) {
    for (const Annotation& one : question.object->annotations) roles.insert(one.value);
  }
  Verdict denied;
  for (const std::string& role : roles) {
    question.role = role;
    const Verdict verdict = decide(question);
    if (verdict.allowed) return verdict;
    if (!denied.rule) denied = verdict;
  }
  return denied;
}

Verdict Policy::decide(const Question& question) const {
  const bool isOfAnyRole = question.kind == Question::Kind::operation && !question.role;
  if (isOfAnyRole) return decideInAnyRole(question);
  if (const Rule* rule = firstOf(denyRules, question, denies)) return {false, rule};
  const Rule* rule = firstOf(allowRules, question, Access::allows);
  return {rule != nullptr, rule};
}

}  // namespace Access
