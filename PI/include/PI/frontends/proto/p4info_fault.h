// The fault for which a P4Info is refused before any target sees it.
#pragma once

#include <string>

#include "p4/config/v1/p4info.pb.h"

namespace pi::fe::proto {

// Why DeviceMgr::pipeline_config_set() would refuse the P4Info on any target; names the
// object. Empty when it would not. Any thread; no target needs to be linked.
std::string p4info_fault(const p4::config::v1::P4Info& p4Info);

}  // namespace pi::fe::proto
