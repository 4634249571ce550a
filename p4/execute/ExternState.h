// The memory of a program's externs: counters, meters, registers, and what hashes remember.
#pragma once

#include <vector>

#include "p4/compile/Image.h"
#include "p4/externs/CellArray.h"
#include "p4/externs/Counter.h"
#include "p4/externs/Hash.h"
#include "p4/externs/Meter.h"
#include "p4/externs/RegisterArray.h"

namespace P4 {

struct ExternState {
  // Throws std::bad_alloc.
  ExternState(const Program& program, const Image& image) : hashes(image.calculations.size()) {
    for (const CounterArrayInfo& info : program.counters) counters.emplace_back(info.size);
    for (const MeterArrayInfo& info : program.meters) {
      meters.emplace_back(info.size);
      meterBytes.push_back(info.bytes);
    }
    for (const RegisterArrayInfo& info : program.registers)
      registers.emplace_back(info.size, info.bits);
  }

  std::vector<CellArray<Counter>> counters;
  std::vector<CellArray<Meter>> meters;
  std::vector<bool> meterBytes;
  std::vector<RegisterArray> registers;
  std::vector<HashState> hashes;  // by calculation
};

}  // namespace P4
