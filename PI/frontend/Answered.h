// Where a controller's call ends: no refusal leaves the front end as an exception.
#pragma once

#include <new>

#include "PI/frontend/Refusal.h"
#include "PI/frontend/StatusText.h"

namespace pi::fe::proto {

template <typename Body>
google::rpc::Status answered(Body body) {
  try {
    return body();
  } catch (const Refusal& refusal) {
    return plainStatus(refusal.code(), refusal.message());
  } catch (const std::bad_alloc&) {
    return plainStatus(code::resourceExhausted, "out of memory");
  }
}

}  // namespace pi::fe::proto
