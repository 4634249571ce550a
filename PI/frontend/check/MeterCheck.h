// Settings of meters, direct ones and cells, held against the P4Info.
#pragma once

#include <string>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// Throws a Refusal. `owner`: "table ingress.ipv4: direct meter", "meter ingress.rates".
void checkMeterConfig(const std::string& owner, p4::config::v1::MeterSpec::Type type,
                      const p4::v1::MeterConfig& config);

// Throws a Refusal in any case: counts by colour are not kept. `owner`: "table ingress.ipv4".
[[noreturn]] void refuseColors(const std::string& owner, const p4::v1::MeterCounterData& colors,
                               const char* field);

}  // namespace pi::fe::proto
