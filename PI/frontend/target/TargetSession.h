// How the front end addresses its target.
#pragma once

#include "PI/pi_base.h"

namespace pi::fe::proto {

struct TargetSession {
  pi_dev_id_t deviceId = 0;
  pi_session_handle_t handle = 0;
  const pi_p4info_t* p4info = nullptr;  // lives as long as the pipeline
};

}  // namespace pi::fe::proto
