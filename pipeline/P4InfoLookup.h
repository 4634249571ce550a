// The objects of a P4Info by id and by name.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace p4::config::v1 {
class Action;
class ActionProfile;
class MatchField;
class P4Info;
class Table;
}  // namespace p4::config::v1

namespace Pipeline {

class Findings;
struct Extensions;

// Borrows the P4Info, which must not change meanwhile. Any thread may read it. Names that lead
// nowhere throw PipelineError; ids that lead nowhere give null.
class P4InfoLookup {
 public:
  explicit P4InfoLookup(const p4::config::v1::P4Info& p4Info);
  // With the tables that the extensions add to the program's own.
  P4InfoLookup(const p4::config::v1::P4Info& p4Info, const Extensions& extensions);

  const p4::config::v1::P4Info& p4Info() const { return p4Info_; }
  // Null when absent.
  const p4::config::v1::Table* table(uint32_t id) const;
  const p4::config::v1::Action* action(uint32_t id) const;
  const p4::config::v1::ActionProfile* actionProfile(uint32_t id) const;
  bool isDirectResource(uint32_t id) const;
  bool hasDirectCounter(const p4::config::v1::Table& table) const;
  bool hasDirectMeter(const p4::config::v1::Table& table) const;

  // By name, alias, or the last parts of a name where these are clear. Throw PipelineError that
  // says what there is. The action and the fields are looked for within the table.
  const p4::config::v1::Table& tableNamed(std::string_view name) const;
  const p4::config::v1::Action& actionNamed(const p4::config::v1::Table& table,
                                            std::string_view name) const;

 private:
  explicit P4InfoLookup(std::shared_ptr<const p4::config::v1::P4Info> extended);

  const std::shared_ptr<const p4::config::v1::P4Info> extended_;  // null: p4Info_ is borrowed
  const p4::config::v1::P4Info& p4Info_;
  std::map<uint32_t, const p4::config::v1::Table*> tables_;
  std::map<uint32_t, const p4::config::v1::Action*> actions_;
  std::map<uint32_t, const p4::config::v1::ActionProfile*> profiles_;
};

// Errors: reasons for which the agent or its server would refuse the P4Info as a whole. Warnings:
// direct counters and meters that are not tied to their tables.
// `mayHaveNoTables`: nor actions.
void checkP4Info(const P4InfoLookup& index, Findings* findings, bool mayHaveNoTables = false);

// Position of the one name that `text` names, as tableNamed() does; `what` is for the error.
size_t indexNamed(std::string_view what, std::string_view text,
                  const std::vector<std::string>& names, const std::vector<std::string>& aliases);

}  // namespace Pipeline
