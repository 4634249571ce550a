#include "access/PolicyText.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "platform/vela/Json.h"
#include "platform/vela/PlainText.h"

namespace Access {

namespace {

constexpr size_t mostRules = 1000;
constexpr size_t mostShown = 80;

struct Word {
  const char* text;
  int value;
};

constexpr std::array<Word, operationCount> operationWords{
    {{"read", static_cast<int>(Operation::read)},
     {"write", static_cast<int>(Operation::write)},
     {"push", static_cast<int>(Operation::push)},
     {"packet_in", static_cast<int>(Operation::packetIn)},
     {"packet_out", static_cast<int>(Operation::packetOut)}}};

constexpr int anyKind = -1;
constexpr std::array<Word, 10> objectWords{
    {{"tables", static_cast<int>(ObjectKind::table)},
     {"action_profiles", static_cast<int>(ObjectKind::actionProfile)},
     {"counters", static_cast<int>(ObjectKind::counter)},
     {"meters", static_cast<int>(ObjectKind::meter)},
     {"registers", static_cast<int>(ObjectKind::registerArray)},
     {"digests", static_cast<int>(ObjectKind::digest)},
     {"value_sets", static_cast<int>(ObjectKind::valueSet)},
     {"externs", static_cast<int>(ObjectKind::externInstance)},
     {"packet_replication", static_cast<int>(ObjectKind::replication)},
     {"entities", anyKind}}};

constexpr std::array policyKeys{"name", "deny_rules", "allow_rules"};
constexpr std::array ruleKeys{"name", "source", "request"};
constexpr std::array sourceKeys{"principals"};
constexpr std::array requestKeys{
    "paths",  "roles",     "election", "operations", "tables",  "action_profiles",    "counters",
    "meters", "registers", "digests",  "value_sets", "externs", "packet_replication", "entities"};

std::string quoted(std::string_view text) { return '"' + Vela::plainLine(text, mostShown) + '"'; }

[[noreturn]] void fail(const std::string& place, const std::string& what) {
  throw PolicyError(place + ": " + what);
}

// How many letters to change, add or take out.
size_t slips(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string nearest(std::string_view text, std::span<const char* const> words) {
  const char* best = nullptr;
  size_t fewest = std::min<size_t>(text.size(), 40) / 3 + 2;
  if (text.size() <= 40) {
    for (const char* word : words) {
      const size_t count = slips(text, word);
      if (count < fewest) {
        fewest = count;
        best = word;
      }
    }
  }
  if (best != nullptr) return std::string("; did you mean \"") + best + "\"?";
  std::string all;
  for (const char* word : words) all += (all.empty() ? "; known are " : ", ") + std::string(word);
  return all;
}

template <size_t count>
std::vector<const char*> textsOf(const std::array<Word, count>& words) {
  std::vector<const char*> texts;
  for (const Word& word : words) texts.push_back(word.text);
  return texts;
}

template <size_t count>
const Word* wordOf(const std::array<Word, count>& words, std::string_view text) {
  const auto found =
      std::ranges::find_if(words, [&](const Word& word) { return text == word.text; });
  return found == words.end() ? nullptr : &*found;
}

void requireObject(const cJSON& json, const std::string& place) {
  if (!cJSON_IsObject(&json)) fail(place, "expected an object, { ... }");
}

// Each key is a known one, and stands once.
void requireKeys(const cJSON& object, const std::string& place, const char* what,
                 std::span<const char* const> known) {
  requireObject(object, place);
  std::set<std::string_view> seen;
  for (const cJSON* item : Vela::JsonElements(&object)) {
    const std::string_view key = item->string;
    if (std::ranges::find(known, key) == known.end()) {
      fail(place, quoted(key) + " is no key of " + what + nearest(key, known));
    }
    if (!seen.insert(key).second) fail(place, quoted(key) + " stands twice");
  }
}

const cJSON* member(const cJSON& object, const char* key) {
  return cJSON_GetObjectItemCaseSensitive(&object, key);
}

std::string textOf(const cJSON& json, const std::string& place) {
  if (!cJSON_IsString(&json)) fail(place, "expected a text in quotation marks");
  return json.valuestring;
}

std::string nameOf(const cJSON& object, const std::string& place) {
  const cJSON* name = member(object, "name");
  if (name == nullptr) fail(place, "\"name\" is missing");
  std::string text = textOf(*name, place + ": name");
  if (text.empty()) fail(place, "\"name\" is empty");
  return text;
}

// An empty list would read like "nobody" and mean "everybody" elsewhere.
std::vector<std::string> textsOf(const cJSON& list, const std::string& place) {
  if (!cJSON_IsArray(&list)) fail(place, "expected a list, [ ... ]");
  std::vector<std::string> texts;
  for (const cJSON* item : Vela::JsonElements(&list)) texts.push_back(textOf(*item, place));
  if (texts.empty()) fail(place, "the list is empty; leave the key out to take everything");
  return texts;
}

Pattern patternOf(std::string_view text, const std::string& place) {
  if (!Pattern::isWhole(text)) {
    fail(place, quoted(text) + ": one '*' may stand at the begin or at the end, and no other");
  }
  return Pattern(text);
}

std::optional<Patterns> patternsOf(const cJSON& object, const char* key, const std::string& place) {
  const cJSON* list = member(object, key);
  if (list == nullptr) return std::nullopt;
  const std::string here = place + key;
  Patterns patterns;
  for (const std::string& text : textsOf(*list, here)) patterns.push_back(patternOf(text, here));
  return patterns;
}

std::optional<Operations> operationsOf(const cJSON& request, const std::string& place) {
  const cJSON* list = member(request, "operations");
  if (list == nullptr) return std::nullopt;
  const std::string here = place + "operations";
  Operations operations = 0;
  for (const std::string& text : textsOf(*list, here)) {
    const Word* word = wordOf(operationWords, text);
    if (word == nullptr) {
      fail(here, quoted(text) + " is no operation" + nearest(text, textsOf(operationWords)));
    }
    operations |= bitOf(static_cast<Operation>(word->value));
  }
  return operations;
}

std::optional<bool> electionOf(const cJSON& request, bool denies, const std::string& place) {
  const cJSON* given = member(request, "election");
  if (given == nullptr) return std::nullopt;
  if (!cJSON_IsBool(given)) fail(place + "election", "expected true or false");
  if (denies && cJSON_IsFalse(given)) {
    fail(place + "election", "a deny rule with false denies nothing; say true, or leave it out");
  }
  return cJSON_IsTrue(given) != 0;
}

Selector selectorOf(std::string_view text, const Word& word, const std::string& place) {
  Selector selector;
  if (word.value != anyKind) selector.kind = static_cast<ObjectKind>(word.value);
  if (!text.starts_with('@')) {
    if (selector.kind == ObjectKind::replication && text != "*" && text != multicastGroups &&
        text != cloneSessions) {
      const std::array known{multicastGroups.data(), cloneSessions.data()};
      fail(place, quoted(text) + " is no part of packet replication" + nearest(text, known));
    }
    selector.name = patternOf(text, place);
    return selector;
  }
  const auto annotation = annotationOf(text);
  if (!annotation) fail(place, quoted(text) + " is no annotation; write @name or @name(\"value\")");
  selector.annotation = annotation->name;
  if (annotation->value == "{role}") {
    selector.valueIsRole = true;
  } else if (!annotation->value.empty()) {
    selector.value = patternOf(annotation->value, place);
  }
  return selector;
}

void requestIs(const cJSON& request, bool denies, const std::string& place, Rule* rule) {
  const std::string here = place + ": request.";
  if (member(request, "headers") != nullptr) {
    fail(place, "request.headers is not supported; who a caller is tells its certificate alone");
  }
  requireKeys(request, place + ": request", "a request", requestKeys);
  rule->paths = patternsOf(request, "paths", here);
  rule->roles = patternsOf(request, "roles", here);
  rule->operations = operationsOf(request, here);
  rule->election = electionOf(request, denies, here);
  for (const Word& word : objectWords) {
    const cJSON* list = member(request, word.text);
    if (list == nullptr) continue;
    for (const std::string& text : textsOf(*list, here + word.text)) {
      rule->objects.push_back(selectorOf(text, word, here + word.text));
    }
  }
  const bool ofEntities = !rule->operations || (*rule->operations & entityOperations) != 0;
  if (!rule->objects.empty() && !ofEntities) {
    fail(place + ": request",
         "objects are named, but neither \"read\" nor \"write\" is among the "
         "operations; leave the objects out");
  }
}

Rule ruleOf(const cJSON& json, bool denies, const std::string& listPlace, size_t number) {
  const std::string numbered = listPlace + " rule " + std::to_string(number);
  requireObject(json, numbered);
  Rule rule;
  rule.name = nameOf(json, numbered);
  const std::string place = listPlace + " rule " + quoted(rule.name);
  requireKeys(json, place, "a rule", ruleKeys);
  if (const cJSON* source = member(json, "source")) {
    requireKeys(*source, place + ": source", "a source", sourceKeys);
    rule.principals = patternsOf(*source, "principals", place + ": source.");
  }
  if (const cJSON* request = member(json, "request")) {
    requireObject(*request, place + ": request");
    requestIs(*request, denies, place, &rule);
  }
  return rule;
}

std::vector<Rule> rulesOf(const cJSON* list, bool denies, const std::string& file) {
  std::vector<Rule> rules;
  if (list == nullptr) return rules;
  const std::string place = file + (denies ? ": deny" : ": allow");
  if (!cJSON_IsArray(list)) fail(place + "_rules", "expected a list, [ ... ]");
  std::set<std::string> names;
  for (const cJSON* item : Vela::JsonElements(list)) {
    if (rules.size() == mostRules) fail(place + "_rules", "more than 1000 rules");
    rules.push_back(ruleOf(*item, denies, place, rules.size() + 1));
    const std::string& name = rules.back().name;
    if (!names.insert(name).second) {
      fail(place + " rule " + quoted(name), "two rules have this name; choose another one");
    }
  }
  return rules;
}

}  // namespace

std::shared_ptr<const Policy> policyOf(std::string_view text, const std::string& file) {
  if (text.size() > mostPolicyBytes) fail(file, "the policy has more than 1 MiB");
  // A C string would end there, and stand for another name.
  if (text.find('\0') != text.npos || text.find("\\u0000") != text.npos) {
    fail(file, "a policy may hold no zero bytes");
  }
  size_t line = 0;
  const Vela::Json json = Vela::parseJson(text, &line);
  if (!json) fail(file, "line " + std::to_string(line) + ": this is not JSON");
  if (cJSON_IsObject(json.get()) && member(*json, "audit_logging_options") != nullptr) {
    fail(file, "audit_logging_options is not supported; leave it out");
  }
  requireKeys(*json, file, "a policy", policyKeys);
  auto policy = std::make_shared<Policy>();
  policy->name = nameOf(*json, file);
  if (member(*json, "allow_rules") == nullptr) {
    fail(file, "\"allow_rules\" is missing; an empty list lets nobody in");
  }
  policy->denyRules = rulesOf(member(*json, "deny_rules"), true, file);
  policy->allowRules = rulesOf(member(*json, "allow_rules"), false, file);
  return policy;
}

std::string policyFileContent(const std::string& file) {
  const std::unique_ptr<FILE, int (*)(FILE*)> open(std::fopen(file.c_str(), "rbe"), std::fclose);
  if (!open) fail(file, std::string("cannot read the policy: ") + std::strerror(errno));
  std::string content(mostPolicyBytes + 1, '\0');
  content.resize(std::fread(content.data(), 1, content.size(), open.get()));
  if (std::ferror(open.get()) != 0) {
    fail(file, std::string("cannot read the policy: ") + std::strerror(errno));
  }
  return content;
}

std::shared_ptr<const Policy> policyOfFile(const std::string& file) {
  return policyOf(policyFileContent(file), file);
}

}  // namespace Access
