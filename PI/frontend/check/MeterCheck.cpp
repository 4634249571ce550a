// Settings of meters, held against the P4Info.
#include "PI/frontend/check/MeterCheck.h"

#include "PI/frontend/base/Refusal.h"

namespace pi::fe::proto {

using p4::config::v1::MeterSpec;
using p4::v1::CounterData;
using p4::v1::MeterConfig;

namespace {

bool isZero(const CounterData& data) { return data.byte_count() == 0 && data.packet_count() == 0; }

void checkRates(const std::string& owner, const MeterConfig& config) {
  const struct {
    const char* name;
    int64_t value;
  } fields[] = {{"cir", config.cir()},
                {"cburst", config.cburst()},
                {"pir", config.pir()},
                {"pburst", config.pburst()},
                {"eburst", config.eburst()}};
  for (const auto& field : fields) {
    if (field.value < 0) {
      refuse(code::invalidArgument, owner, ": ", field.name, " is ", field.value,
             "; it must not be negative");
    }
  }
  if (config.pir() < config.cir()) {
    refuse(code::invalidArgument, owner, ": pir is ", config.pir(), ", below the cir of ",
           config.cir());
  }
}

void checkAgainstType(const std::string& owner, MeterSpec::Type type, const MeterConfig& config) {
  const bool oneRate = config.cir() == config.pir() && config.cburst() == config.pburst();
  if (type != MeterSpec::TWO_RATE_THREE_COLOR && !oneRate) {
    refuse(code::invalidArgument, owner,
           ": a meter of a single rate needs pir equal to cir and pburst to cburst");
  }
  if (type != MeterSpec::SINGLE_RATE_THREE_COLOR && config.eburst() != 0) {
    refuse(code::invalidArgument, owner, ": eburst is ", config.eburst(), "; a meter of the type ",
           MeterSpec::Type_Name(type), " takes 0 only");
  }
}

}  // namespace

void checkMeterConfig(const std::string& owner, MeterSpec::Type type, const MeterConfig& config) {
  checkRates(owner, config);
  checkAgainstType(owner, type, config);
}

void refuseColors(const std::string& owner, const p4::v1::MeterCounterData& colors,
                  const char* field) {
  if (!isZero(colors.green()) || !isZero(colors.yellow()) || !isZero(colors.red())) {
    refuse(code::invalidArgument, owner, ": ", field, " must be zero");
  }
  refuse(code::unimplemented, owner, ": writing ", field, " is not supported");
}

}  // namespace pi::fe::proto
