// What the server lets controllers do beyond the letter of P4Runtime, because some of them have
// always done so. Nothing of it unless the operator wants it.
#pragma once

namespace pi::server {

struct Lenience {
  bool deviceZero = false;         // device id 0 stands for the only device
  bool noPipelineIsError = false;  // GetForwardingPipelineConfig without one: FAILED_PRECONDITION
};

// Of the process. Thread-safe.
Lenience lenience();
void lenienceIs(const Lenience& lenience);

}  // namespace pi::server
