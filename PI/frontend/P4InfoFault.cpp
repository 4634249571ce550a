#include "PI/frontend/P4InfoIndex.h"
#include "PI/frontend/Refusal.h"
#include "PI/frontends/proto/p4info_fault.h"

namespace pi::fe::proto {

std::string p4info_fault(const p4::config::v1::P4Info& p4Info) {
  try {
    const P4InfoIndex index(p4Info);
    return {};
  } catch (const Refusal& refusal) {
    return refusal.message();
  }
}

}  // namespace pi::fe::proto
