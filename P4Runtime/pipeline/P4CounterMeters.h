// The settings of direct meters and the values of direct counters, as rows carry them.
#pragma once

#include <cstdint>

#include "platform/vela/Ptr.h"

namespace P4Runtime {

enum MeterUnit : uint32_t { MeterUnitDefault = 0, MeterUnitPackets = 1, MeterUnitBytes = 2 };
enum MeterType : uint32_t {
  MeterTypeDefault = 0,
  MeterTypeColorAware = 1,
  MeterTypeColorUnaware = 2,
};

// Rates are units a second, bursts units.
struct P4MeterConfig : Vela::RefCounted {
  uint64_t cir = 0;
  uint64_t cburst = 0;
  uint64_t pir = 0;
  uint64_t pburst = 0;
  MeterUnit meterUnit = MeterUnitDefault;
  MeterType meterType = MeterTypeDefault;

  // Appends pointers to cir, cburst, pir and pburst; valid as long as this lives.
  void stuffFields(uint32_t& nparams, const uint8_t** params) const;
};

struct P4CounterData : Vela::RefCounted {
  uint64_t bytes = 0;
  uint64_t packets = 0;

  void stuffFields(uint32_t& nparams, const uint8_t** params) const;  // bytes, packets
};

Vela::Ptr<P4MeterConfig> p4MeterConfigFactory(uint64_t cir, uint64_t cburst, uint64_t pir,
                                              uint64_t pburst, MeterUnit meterUnit,
                                              MeterType meterType);
Vela::Ptr<P4CounterData> p4CounterDataFactory(uint64_t bytes, uint64_t packets);

}  // namespace P4Runtime
