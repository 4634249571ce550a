// Whole programs: an entry of each table with each action goes the way of a write and comes back as
// it was written, also after the agent was killed.
#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/e2e/GeneratedEntry.h"
#include "tests/e2e/Switch.h"

using google::protobuf::util::MessageDifferencer;
using p4::config::v1::MatchField;
using p4::config::v1::P4Info;
using p4::config::v1::Table;
using p4::v1::TableEntry;
using TestSupport::deleteOf;
using TestSupport::insertOf;
using TestSupport::modifyOf;

namespace {

std::string textOf(const google::protobuf::Message& message) { return message.ShortDebugString(); }

class Story {
 public:
  explicit Story(const std::string& pipelineFile)
      : tested_({.pipelineFile = pipelineFile}), made_(tested_.pipeline(), 20260101) {}

  void run() {
    ASSERT_TRUE(tested_.start());
    for (const Table& table : tested_.pipeline().p4info().tables()) {
      SCOPED_TRACE(table.preamble().name());
      tryDefaults(table);
      if (made_.obstacle(table).empty()) tryActions(table);
    }
    ASSERT_TRUE(tested_.restartAgent());
    for (const TableEntry& entry : standing_) expectRead(entry);
    for (const auto& [written, initial] : defaults_) {
      expectRead(written);
      TableEntry reset = written;
      reset.clear_action();
      EXPECT_EQ(codesOf({modifyOf(reset)}), "");
      expectRead(initial);
    }
    std::vector<p4::v1::Update> deletions;
    for (const TableEntry& entry : standing_) deletions.push_back(deleteOf(entry));
    EXPECT_EQ(codesOf(deletions), "");
    EXPECT_THAT(tested_.controller().readTable(0).entries, testing::IsEmpty());
    EXPECT_EQ(codesOf(memberDeletions_), "");
    EXPECT_THAT(namesLeft(), testing::IsEmpty());
  }

 private:
  // The last action stays.
  void tryDefaults(const Table& table) {
    const std::vector<uint32_t> actions = made_.defaultActionsOf(table);
    if (actions.empty()) return;
    const TestSupport::ReadOutcome initial =
        tested_.controller().read(queryFor(made_.defaultEntry(table, actions[0])));
    ASSERT_EQ(initial.entries.size(), 1u) << initial.status.error_message();
    TableEntry written;
    for (const uint32_t action : actions) {
      written = made_.defaultEntry(table, action);
      ASSERT_EQ(codesOf({modifyOf(written)}), "");
      expectRead(written);
    }
    defaults_.emplace_back(written, initial.entries[0]);
  }

  // The last action's entry stays.
  void tryActions(const Table& table) {
    const std::vector<uint32_t> actions = made_.actionsOf(table);
    for (const uint32_t action : actions) {
      SCOPED_TRACE(tested_.pipeline().action(action).preamble().name());
      if (const auto member = made_.memberFor(table, action)) {
        ASSERT_EQ(codesOf({insertOf(*member)}), "");
        memberDeletions_.push_back(deleteOf(*member));
      }
      TableEntry entry = made_.entry(table, action);
      ASSERT_EQ(codesOf({insertOf(entry)}), "");
      expectRead(entry);
      *entry.mutable_action() = made_.tableAction(table, action);
      ASSERT_EQ(codesOf({modifyOf(entry)}), "");
      expectRead(entry);
      if (action == actions.back()) {
        standing_.push_back(entry);
      } else {
        EXPECT_EQ(codesOf({deleteOf(entry)}), "");
      }
    }
  }

  // The tables that still hold strings of translated types.
  std::vector<std::string> namesLeft() {
    std::vector<std::string> tables;
    std::istringstream list(tested_.agent.korvel({"table", "list"}).output);
    for (std::string line; std::getline(list, line);) {
      std::istringstream words(line);
      std::string name;
      size_t rows = 0;
      words >> name >> rows;
      if (name.starts_with("translation.") && rows != 0) tables.push_back(line);
    }
    return tables;
  }

  // "" when all succeed, else the message of the first that did not.
  std::string codesOf(const std::vector<p4::v1::Update>& updates) {
    const TestSupport::WriteOutcome outcome = tested_.write(updates);
    if (outcome.ok()) return "";
    for (const p4::v1::Error& error : outcome.errors) {
      if (error.canonical_code() != 0) return error.message();
    }
    return outcome.status.error_message();
  }

  static TableEntry queryFor(const TableEntry& entry) {
    TableEntry query;
    query.set_table_id(entry.table_id());
    query.set_is_default_action(entry.is_default_action());
    *query.mutable_match() = entry.match();
    query.set_priority(entry.priority());
    return query;
  }

  void expectRead(const TableEntry& entry) {
    const TestSupport::ReadOutcome read = tested_.controller().read(queryFor(entry));
    ASSERT_TRUE(read.status.ok()) << read.status.error_message();
    ASSERT_EQ(read.entries.size(), 1u);
    EXPECT_TRUE(MessageDifferencer::Equals(read.entries[0], entry))
        << textOf(read.entries[0]) << "\n"
        << textOf(entry);
  }

  Switch tested_;
  GeneratedEntries made_;
  std::vector<TableEntry> standing_;
  std::vector<p4::v1::Update> memberDeletions_;
  std::vector<std::pair<TableEntry, TableEntry>> defaults_;  // as written, and the program's
};

void tryProgram(const std::string& p4InfoPath) {
  const TestSupport::TempDir directory;
  const std::string file = directory.file("built.pb.bin");
  const auto built =
      TestSupport::run({TestSupport::binaryPath("korvel"), "pipeline", "build", "--p4info",
                        p4InfoPath, "--device-id", "1", "--output", file});
  ASSERT_EQ(built.exit.code, 0) << built.error;
  Story(file).run();
}

// A table for each match kind and width, with an action that has a parameter of the width; 0 bits
// are strings.
P4Info everyKindAndWidth() {
  constexpr std::array kinds = {MatchField::EXACT, MatchField::LPM, MatchField::TERNARY,
                                MatchField::RANGE, MatchField::OPTIONAL};
  P4Info p4Info;
  uint32_t id = 0;
  auto& types = *p4Info.mutable_type_info()->mutable_new_types();
  types["name_t"].mutable_translated_type()->mutable_sdn_string();
  const auto widthIs = [](int bits, auto* value) {
    value->set_bitwidth(bits);
    if (bits == 0) value->mutable_type_name()->set_name("name_t");
  };
  for (const int bits : {0,  1,  7,  8,  9,   16,  17,  20,  24,  25,   32,   33,
                         47, 48, 64, 65, 128, 129, 255, 256, 333, 1024, 2047, 4000}) {
    ++id;
    auto* action = p4Info.add_actions();
    action->mutable_preamble()->set_id(0x01000000 + id);
    action->mutable_preamble()->set_name("set_" + std::to_string(bits));
    auto* param = action->add_params();
    param->set_id(1);
    param->set_name("to");
    widthIs(bits, param);
    for (const auto kind : kinds) {
      Table* table = p4Info.add_tables();
      table->mutable_preamble()->set_id(0x02000000 + id * 8 + kind);
      table->mutable_preamble()->set_name(MatchField::MatchType_Name(kind) + std::to_string(bits));
      auto* field = table->add_match_fields();
      field->set_id(1);
      field->set_name("f");
      widthIs(bits, field);
      field->set_match_type(kind);
      table->add_action_refs()->set_id(action->preamble().id());
      table->set_size(8);
    }
  }
  return p4Info;
}

TEST(Programs, OfEveryMatchKindAndWidthAreProgrammed) {
  const TestSupport::TempDir directory;
  std::string text;
  google::protobuf::TextFormat::PrintToString(everyKindAndWidth(), &text);
  const std::string path = directory.file("p4info.txtpb");
  std::ofstream(path) << text;
  tryProgram(path);
}

// Programs as public projects ship them, where they lie beside the tree.
TEST(Programs, OfPublicProjectsAreProgrammed) {
  const std::filesystem::path directory = std::filesystem::path(KORVEL_PROGRAMS) / "p4info";
  if (!std::filesystem::is_directory(directory)) GTEST_SKIP() << "no programs in " << directory;
  std::vector<std::filesystem::path> paths;
  for (const auto& file : std::filesystem::directory_iterator(directory)) {
    paths.push_back(file.path());
  }
  std::ranges::sort(paths);
  for (const auto& path : paths) {
    SCOPED_TRACE(path.filename());
    tryProgram(path);
  }
}

}  // namespace
