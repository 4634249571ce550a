// Tables of updates with the refusal of each.
#pragma once

#include <functional>
#include <vector>

#include "PI/frontend/base/Refusal.h"
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

// `change` is made to the pipeline's P4Info.
inline void expectCases(
    const std::vector<UpdateCase>& cases,
    const std::function<void(p4::config::v1::P4Info&)>& change = [](auto&) {}) {
  p4::config::v1::P4Info p4Info = test::pipelineConfig().p4info();
  change(p4Info);
  const P4InfoIndex index(p4Info);
  for (const UpdateCase& c : cases) {
    SCOPED_TRACE(c.what);
    try {
      checkedUpdate(index, c.update);
      EXPECT_EQ(c.says, nullptr) << "not refused";
    } catch (const Refusal& refusal) {
      EXPECT_THAT(refusal, TestSupport::RefusedWith(c.code, c.says ? c.says : "accepted"));
    }
  }
}

}  // namespace pi::fe::proto
