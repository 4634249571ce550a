// Executes calculations: gathers their input and hashes it.
#pragma once

#include <vector>

#include "p4/compile/Image.h"
#include "p4/execute/ExternState.h"
#include "p4/execute/Packet.h"

namespace P4 {

// One thread.
class Calculator {
 public:
  Calculator(const Image& image, ExternState& externs);
  uint64_t calculate(uint32_t calculation, const Packet& packet);

 private:
  // Each puts the parts into input_, and returns their size in bytes.
  size_t gatherBytes(const CalculationCode& code, const uint64_t* state);
  size_t gatherBits(const CalculationCode& code, const Packet& packet);
  void gather(const CalculationPart& part, const Packet& packet, class BitWriter& to);
  uint64_t sum(const CalculationCode& code, const Packet& packet) const;
  size_t mostBytes(const Packet& packet) const;

  const Image& image_;
  ExternState& externs_;
  size_t fixedBytes_ = 0;  // the most that any calculation takes from headers
  uint32_t varbits_ = 0;   // the most varbit fields in one
  std::vector<uint8_t> input_;
};

}  // namespace P4
