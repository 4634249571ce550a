// An update of a table entry, read straight from its bytes.
#pragma once

#include <absl/container/inlined_vector.h>

#include <cstdint>
#include <string_view>

#include "PI/frontend/wire/EntryViews.h"

namespace pi::fe::proto {

// Of the fields that nearly all table entries have, and no others. Views of the bytes.
struct WireUpdate {
  p4::v1::Update::Type type = p4::v1::Update::UNSPECIFIED;
  uint32_t tableId = 0;
  int32_t priority = 0;
  uint64_t controllerMetadata = 0;
  std::string_view metadata;
  absl::InlinedVector<MatchView, 8> matches;
  bool hasAction = false;
  uint32_t actionId = 0;
  absl::InlinedVector<ParamView, 8> params;

  void clear();
};

// False when it must be parsed as a message: it is of another entity, has other fields, is put
// together in an unusual way, or is damaged. `update` then has no meaning.
bool readUpdate(std::string_view bytes, WireUpdate* update);

}  // namespace pi::fe::proto
