#include "PI/frontend/write/NameWrites.h"

#include <algorithm>

#include "PI/frontend/base/Permission.h"
#include "PI/frontend/store/NameCodec.h"
#include "PI/frontend/store/NameEntries.h"
#include "PI/frontend/target/TargetBatch.h"
#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

namespace {

std::string failureText(const Dictionary& type, uint32_t number, const std::string& why) {
  return absl::StrCat("the ", type.type(), " ", quotedName(type.name(number)),
                      " could not be stored", why.empty() ? "" : ": ", why);
}

}  // namespace

void NameWrites::add(const NamePins& pins) {
  for (const NamePins::Pin& pin : pins.all()) {
    if (pin.isNew && !pin.type->isStored(pin.number)) added_[{pin.type, pin.number}] = pin.type;
  }
}

NameWrites::Failures NameWrites::doStore() {
  Rows rows;
  for (const auto& [name, type] : std::exchange(added_, {})) {
    const NamedType& named = typeOf(*type);
    rows.push_back({type, name.second, nameEntry(named, name.second, type->name(name.second)),
                    named.table.get()});
  }
  Failures failures = doRun(rows, false);
  for (const Row& row : rows) {
    if (!failures.contains({row.type, row.number})) row.type->storedIs(row.number, true);
  }
  return failures;
}

const Refusal* NameWrites::failureOf(const Failures& failures, const NamePins& pins) {
  for (const NamePins::Pin& pin : pins.all()) {
    const auto found = failures.find({pin.type, pin.number});
    if (found != failures.end()) return &found->second;
  }
  return nullptr;
}

void NameWrites::doDeleteLeaving() {
  const Rows rows = leavingRows();
  if (rows.empty()) return;
  Failures failures;
  bool isRun = true;
  try {
    requireWritePermission();
    failures = doRun(rows, true);
  } catch (const Refusal&) {
    isRun = false;
  }
  for (const Row& row : rows) {
    const bool isDeleted = isRun && !failures.contains({row.type, row.number});
    row.type->storedIs(row.number, !isDeleted);
  }
}

NameWrites::Rows NameWrites::leavingRows() const {
  Rows rows;
  for (const auto& type : index_.namedTypes()) {
    for (const Dictionary::Pair& pair : type->names.leaving()) {
      rows.push_back({&type->names, pair.number, nameKey(*type, pair.number), type->table.get()});
    }
  }
  return rows;
}

const NamedType& NameWrites::typeOf(const Dictionary& names) const {
  return **std::ranges::find_if(index_.namedTypes(),
                                [&](const auto& type) { return &type->names == &names; });
}

NameWrites::Failures NameWrites::doRun(const Rows& rows, bool isDelete) const {
  TargetBatch batch(session_);
  for (uint32_t offset = 0; offset < rows.size(); ++offset) {
    const Row& row = rows[offset];
    TargetCalls calls(session_, offset);
    calls.contextIs(0, 0, {});
    if (isDelete) {
      calls.entryDelete(row.entry.get());
    } else {
      calls.entryAdd(*row.table, row.entry.get(), false);
    }
    batch.add(offset, calls.status());
  }
  Failures failures;
  for (const auto& [offset, error] : batch.end()) {
    if (offset >= rows.size()) continue;
    const Row& row = rows[offset];
    failures.try_emplace(Name{row.type, row.number}, error.canonical_code(),
                         failureText(*row.type, row.number, error.message()));
  }
  return failures;
}

}  // namespace pi::fe::proto
