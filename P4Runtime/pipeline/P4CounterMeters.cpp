#include "P4Runtime/pipeline/P4CounterMeters.h"

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4CounterMeters");

const uint8_t* field(const uint64_t& value) { return reinterpret_cast<const uint8_t*>(&value); }

}  // namespace

void P4MeterConfig::stuffFields(uint32_t& nparams, const uint8_t** params) const {
  SCRIVEL_TRACE(7, "P4MeterConfig", " cir:", cir, " pir:", pir, " cburst:", cburst,
                " pburst:", pburst);
  for (const uint64_t* value : {&cir, &cburst, &pir, &pburst}) params[nparams++] = field(*value);
}

void P4CounterData::stuffFields(uint32_t& nparams, const uint8_t** params) const {
  SCRIVEL_TRACE(7, "P4CounterData", " bytes:", bytes, " packets:", packets);
  params[nparams++] = field(bytes);
  params[nparams++] = field(packets);
}

Vela::Ptr<P4MeterConfig> p4MeterConfigFactory(uint64_t cir, uint64_t cburst, uint64_t pir,
                                              uint64_t pburst, MeterUnit meterUnit,
                                              MeterType meterType) {
  auto config = Vela::make<P4MeterConfig>();
  config->cir = cir;
  config->cburst = cburst;
  config->pir = pir;
  config->pburst = pburst;
  config->meterUnit = meterUnit;
  config->meterType = meterType;
  return config;
}

Vela::Ptr<P4CounterData> p4CounterDataFactory(uint64_t bytes, uint64_t packets) {
  auto data = Vela::make<P4CounterData>();
  data->bytes = bytes;
  data->packets = packets;
  return data;
}

}  // namespace P4Runtime
