// Tables of updates with the refusal of each.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/TableEntryCheck.h"
#include "PI/frontend/check/UpdateCheck.h"
#include "tests/PI/frontend/support/TestPipeline.h"
#include "tests/PI/support/RefusedWith.h"

namespace pi::fe::proto {

struct UpdateCase {
  const char* what;
  p4::v1::Update update;
  const char* says = nullptr;  // a part of the refusal; null: the update is accepted
  int code = code::invalidArgument;
};

// An INSERT, or another update, of the entity with `change` made to it.
template <typename Entity, typename Change>
p4::v1::Update changed(Entity entity, Change change,
                       p4::v1::Update::Type type = p4::v1::Update::INSERT) {
  change(entity);
  return test::update(type, entity);
}

// The entry of an accepted update in all its parts, or the refusal.
inline std::string outcomeOf(const std::function<CheckedUpdate()>& check) {
  try {
    const CheckedUpdate checked = check();
    const Entry& entry = *checked.slot.entry;
    std::string text = absl::StrCat(checked.type, " ", checked.table->name, " ", checked.slot.hash,
                                    " ", entry.actionId, " ", static_cast<int>(entry.kind), " ",
                                    entry.priority, " ", entry.controllerMetadata, " ");
    text.append(reinterpret_cast<const char*>(entry.keyData()), checked.table->keyBytes);
    text.append(reinterpret_cast<const char*>(entry.actionData()), entry.actionSize());
    return text.append(entry.metadata());
  } catch (const Refusal& refusal) {
    return absl::StrCat(refusal.code(), " ", refusal.message());
  }
}

// An update fares alike whether its check reads the message or its bytes. Whether the bytes do.
inline bool expectAlike(const P4InfoIndex& index, const p4::v1::Update& update) {
  const std::string bytes = update.SerializeAsString();
  WireUpdate wire;
  const TablePlan* table = readUpdate(bytes, &wire) ? tableOfPlain(index, wire) : nullptr;
  if (table == nullptr) return false;
  EXPECT_EQ(outcomeOf([&] { return checkedUpdate(*table, wire); }),
            outcomeOf([&] { return checkedUpdate(index, update); }))
      << update.DebugString();
  return true;
}

// `change` is made to the pipeline's P4Info.
inline void expectCases(
    const std::vector<UpdateCase>& cases,
    const std::function<void(p4::config::v1::P4Info&)>& change = [](auto&) {}) {
  p4::config::v1::P4Info p4Info = test::pipelineConfig().p4info();
  change(p4Info);
  const P4InfoIndex index(p4Info);
  for (const UpdateCase& c : cases) {
    SCOPED_TRACE(c.what);
    expectAlike(index, c.update);
    try {
      checkedUpdate(index, c.update);
      EXPECT_EQ(c.says, nullptr) << "not refused";
    } catch (const Refusal& refusal) {
      EXPECT_THAT(refusal, TestSupport::RefusedWith(c.code, c.says ? c.says : "accepted"));
    }
  }
}

}  // namespace pi::fe::proto
