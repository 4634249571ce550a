// Whatever text comes as a program, and whatever bytes come as packets: a clear error, or an engine
// that goes on. Real programs stand beside the tree; without them, nothing is tested.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "p4/Engine.h"
#include "p4/program/ProgramError.h"
#include "p4/tables/Refusal.h"
#include "tests/p4/VectorFile.h"

namespace P4Test {
namespace {

std::vector<std::string> realPrograms() {
  std::vector<std::string> paths;
  std::error_code none;
  for (const auto& file : std::filesystem::directory_iterator(KORVEL_PROGRAMS "/json", none))
    paths.push_back(file.path());
  std::sort(paths.begin(), paths.end());
  return paths;
}

// KORVEL_SEED, or 1.
uint64_t seed() {
  const char* given = std::getenv("KORVEL_SEED");
  const uint64_t chosen = given ? std::strtoull(given, nullptr, 10) : 1;
  std::printf("KORVEL_SEED=%llu\n", static_cast<unsigned long long>(chosen));
  return chosen;
}

class Mischief {
 public:
  explicit Mischief(uint64_t seed) : random_(seed) {}

  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

  std::string bytes(size_t count) {
    std::string made;
    while (made.size() < count) made += static_cast<char>(random_());
    return made;
  }

  // One value of the tree becomes another, goes, or comes twice.
  std::string changed(const std::string& json) {
    const Json tree(cJSON_Parse(json.c_str()), cJSON_Delete);
    cJSON* at = tree.get();
    while (at->child && (at == tree.get() || below(12))) {
      at = at->child;
      for (uint32_t steps = below(40); steps && at->next; --steps) at = at->next;
    }
    cJSON* other = replacement(*at);
    free(std::exchange(at->valuestring, nullptr));
    cJSON_Delete(std::exchange(at->child, nullptr));
    at->type = other->type;
    std::swap(at->valuestring, other->valuestring);
    std::swap(at->child, other->child);
    at->valuedouble = other->valuedouble;
    at->valueint = other->valueint;
    cJSON_Delete(other);
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(tree.get()),
                                                            cJSON_free);
    return text.get();
  }

 private:
  cJSON* replacement(const cJSON& old) {
    static const double numbers[] = {0, 1, -1, 2, 3, 7, 65, 511, 65536, 4294967295.0, 1e18, 0.5};
    static const char* const texts[] = {
        "",       "0x0",     "-0x1",    "0xffffffffffffffffffffffff",
        "parser", "ingress", "exact",   "ternary",
        "range",  "lpm",     "scalars", "$valid$",
        "default"};
    switch (below(8)) {
      case 0:
        return cJSON_CreateNull();
      case 1:
      case 2:
        return cJSON_CreateNumber(numbers[below(std::size(numbers))]);
      case 3:
        return cJSON_CreateString(texts[below(std::size(texts))]);
      case 4:
        return cJSON_CreateArray();
      case 5:
        return cJSON_CreateObject();
      case 6:
        return cJSON_CreateBool(below(2));
      default:
        return old.next ? cJSON_Duplicate(old.next, 1) : cJSON_CreateNull();
    }
  }

  std::mt19937_64 random_;
};

// Entries of any kind in all tables, as far as they are taken.
void fillTables(P4::Engine& engine, Mischief& mischief) {
  for (uint32_t table = 0; table < engine.program().tables.size(); ++table) {
    const P4::Table& info = engine.program().tables[table];
    for (int i = 0; i < 8 && !info.actions.empty(); ++i) {
      P4::EntryKey key{.table = table, .priority = mischief.below(100)};
      for (const P4::KeyElement& element : info.key) {
        const size_t bytes = (element.bits + 7) / 8;
        std::string value(bytes, '\0');
        if (mischief.below(2)) value.back() = static_cast<char>(mischief.below(2));
        key.match.push_back({value, std::string(bytes, '\0'), mischief.below(element.bits + 1)});
        if (element.kind == P4::MatchKind::range) key.match.back().mask.back() = '\1';
      }
      P4::ActionSpec action{
          .action = info.actions[mischief.below(static_cast<uint32_t>(info.actions.size()))]};
      for (size_t n = engine.program().actions[action.action].parameters.size(); n--;)
        action.arguments.push_back(std::string(1, static_cast<char>(mischief.below(2))));
      try {
        if (info.type == P4::TableKind::simple)
          engine.tables().insert(key, action);
        else
          engine.tables().insert(key, P4::OneShotSet{{action, 1 + mischief.below(3), {}}});
      } catch (const P4::Refusal&) {
      }
    }
  }
  engine.tables().setMulticast(1, {{1, 1}, {2, 2}});
  engine.tables().setSession(5, P4::Session{.port = 3, .group = 1});
  engine.tables().commit();
}

void sendAnything(P4::Engine& engine, Mischief& mischief, int packets) {
  P4::Outputs outputs;
  for (int i = 0; i < packets; ++i) {
    std::string packet = mischief.bytes(mischief.below(200));
    if (packet.size() > 14 && mischief.below(2)) packet.replace(12, 3, "\x08\x00\x45", 3);
    outputs.clear();
    engine.process(mischief.below(512),
                   {reinterpret_cast<const uint8_t*>(packet.data()), packet.size()},
                   static_cast<uint64_t>(i), outputs);
  }
}

// Builds an engine from the text and uses it; true when the text was a program.
bool tryText(const std::string& text, Mischief& mischief, int packets) {
  try {
    P4::Engine engine(text);
    fillTables(engine, mischief);
    sendAnything(engine, mischief, packets);
    return true;
  } catch (const P4::ProgramError& error) {
    EXPECT_GT(std::string(error.what()).size(), 10u);
    return false;
  }
}

TEST(MalformedTest, AnyBytesPassThroughRealPrograms) {
  Mischief mischief(seed());
  for (const std::string& path : realPrograms()) {
    SCOPED_TRACE(path);
    EXPECT_TRUE(tryText(fileText(path), mischief, 3000));
  }
}

TEST(MalformedTest, ChangedProgramsAreRefusedOrRun) {
  Mischief mischief(seed());
  size_t refused = 0, ran = 0;
  for (const std::string& path : realPrograms()) {
    const std::string text = fileText(path);
    for (int i = 0; i < (text.size() > 100000 ? 30 : 150); ++i) {
      const std::string changed = mischief.changed(text);
      SCOPED_TRACE(path + " change " + std::to_string(i));
      (tryText(changed, mischief, 20) ? ran : refused)++;
    }
  }
  std::printf("%zu changed programs were refused, %zu ran\n", refused, ran);
}

TEST(MalformedTest, TextThatIsNoProgramIsRefused) {
  Mischief mischief(seed());
  for (const char* text : {"", "{", "[]", "null", "{}", "\"x\"", "{\"headers\":7}", "{} {}"})
    EXPECT_FALSE(tryText(text, mischief, 0)) << text;
  for (const std::string& path : realPrograms()) {
    const std::string text = fileText(path);
    for (int i = 0; i < 20; ++i)
      EXPECT_FALSE(tryText(text.substr(0, mischief.below(static_cast<uint32_t>(text.size() - 2))),
                           mischief, 0));
    std::string scribbled = text;
    for (int i = 0; i < 20; ++i) {
      scribbled[mischief.below(static_cast<uint32_t>(text.size()))] =
          static_cast<char>(32 + mischief.below(95));
      tryText(scribbled, mischief, 5);
    }
  }
}

}  // namespace
}  // namespace P4Test
