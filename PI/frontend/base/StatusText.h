// The google.rpc.Status of a call: a plain one, or one p4.v1.Error for each update or query.
#pragma once

#include <new>
#include <string>
#include <vector>

#include "PI/frontend/base/Refusal.h"
#include "google/rpc/status.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

google::rpc::Status okStatus();
google::rpc::Status plainStatus(int code, const std::string& message);

// OK when all errors have code 0, else UNKNOWN with every one of them, in order; the message of a
// single failure is that of the status, too. All texts leave as plainText(). The details
// travel in a header that takes 8 KiB unless the client allows for more (100 bytes an update are
// advised): the messages of later errors are left out when they would not fit, never their codes.
google::rpc::Status itemisedStatus(std::vector<p4::v1::Error>* errors, const char* what);

// The status of a controller's call, which `body` returns: a refusal leaves the front end as a
// status, never as an exception.
template <typename Body>
google::rpc::Status statusOf(Body body) {
  try {
    return body();
  } catch (const Refusal& refusal) {
    return plainStatus(refusal.code(), refusal.message());
  } catch (const std::bad_alloc&) {
    return plainStatus(code::resourceExhausted, "out of memory");
  }
}

}  // namespace pi::fe::proto
