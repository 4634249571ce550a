#include "cli/policy/PolicyView.h"

#include <fmt/format.h>

#include <algorithm>

namespace Cli {

namespace {

using Access::Operation;
using Access::Policy;
using Access::Question;
using Access::Rule;

const char* verbOf(Operation operation) {
  switch (operation) {
    case Operation::read:
      return "read";
    case Operation::write:
      return "write";
    case Operation::push:
      return "push a pipeline";
    case Operation::packetIn:
      return "get packets";
    case Operation::packetOut:
      return "send packets";
  }
  return "";
}

std::string selectorText(const Access::Selector& selector) {
  if (selector.name) return '"' + selector.name->text() + '"';
  std::string text = "@" + selector.annotation;
  if (selector.valueIsRole) text += "(\"{role}\")";
  if (selector.value) text += "(\"" + selector.value->text() + "\")";
  return text;
}

std::string namesTaken(const Rule& rule, const std::vector<Access::Object>& objects) {
  std::string text;
  for (const Access::Object& object : objects) {
    if (!rule.takesObject(std::nullopt, object)) continue;
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", kindText(object.kind), object.name);
  }
  return text.empty() ? "nothing" : text;
}

void addRules(const char* does, const std::vector<Rule>& rules,
              const std::vector<Access::Object>& objects, std::string* text) {
  for (const Rule& rule : rules) {
    if (rule.objects.empty()) continue;
    *text += fmt::format("{} rule \"{}\" names {}\n", does, rule.name, namesTaken(rule, objects));
    for (const Access::Selector& selector : rule.objects) {
      Rule alone = rule;
      alone.objects = {selector};
      const bool takesAny = std::ranges::any_of(objects, [&](const Access::Object& object) {
        return alone.takesObject(std::nullopt, object);
      });
      if (takesAny) continue;
      *text += fmt::format("warning: {} rule \"{}\": no object of the pipeline is {}\n", does,
                           rule.name, selectorText(selector));
    }
  }
}

std::string verdictText(const Access::Verdict& verdict) {
  if (verdict.rule == nullptr) return "no rule allows it";
  return fmt::format("{} rule \"{}\" {} it", verdict.allowed ? "allow" : "deny", verdict.rule->name,
                     verdict.allowed ? "allows" : "denies");
}

std::string wishText(const Wish& wish) {
  if (!wish.operation) return "call " + wish.path;
  std::string text = verbOf(*wish.operation);
  if (wish.object) {
    text += fmt::format(" {} {}", kindText(wish.object->kind), wish.object->name);
  }
  return text;
}

std::string whoText(const Wish& wish) {
  const std::string who =
      wish.identity.empty() ? "a caller without an identity" : '"' + wish.identity + '"';
  if (!wish.operation) return who;
  if (wish.role && !wish.role->empty()) return who + " in role \"" + *wish.role + '"';
  const bool isOfAllRoles = !wish.role && wish.operation == Operation::read;
  return who + (isOfAllRoles ? " in any role" : " in the default role");
}

}  // namespace

std::string objectsText(const Policy& policy, const std::vector<Access::Object>& objects) {
  std::string text;
  addRules("deny", policy.denyRules, objects, &text);
  addRules("allow", policy.allowRules, objects, &text);
  return text;
}

Explanation explained(const Policy& policy, const Wish& wish) {
  Explanation explanation;
  std::string reasons;
  Question question;
  question.identity = wish.identity;
  const auto ask = [&](Question::Kind kind, const std::string& what) {
    question.kind = kind;
    const Access::Verdict verdict = policy.decide(question);
    explanation.allowed &= verdict.allowed;
    reasons += fmt::format("  to {}: {}\n", what, verdictText(verdict));
  };
  const std::string path =
      wish.operation ? std::string(Access::pathOf(*wish.operation)) : wish.path;
  question.path = path;
  const bool isOfAllRoles = !wish.role && (!wish.operation || wish.operation == Operation::read);
  const std::string role = wish.role.value_or("");
  if (!isOfAllRoles) question.role = role;
  ask(Question::Kind::call, "call " + path);
  if (wish.operation) {
    if (wish.operation != Operation::read) {
      ask(Question::Kind::contest, "take part in the role's election");
    }
    question.operation = *wish.operation;
    question.object = wish.object ? &*wish.object : nullptr;
    ask(Question::Kind::operation, wishText(wish));
  }
  explanation.text = fmt::format("{} {} {}\n{}", whoText(wish),
                                 explanation.allowed ? "may" : "may not", wishText(wish), reasons);
  return explanation;
}

}  // namespace Cli
