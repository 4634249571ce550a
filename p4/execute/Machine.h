// Runs compiled code on a packet.
#pragma once

#include <random>

#include "p4/compile/Image.h"
#include "p4/execute/Calculator.h"
#include "p4/execute/ExternState.h"
#include "p4/execute/Packet.h"
#include "p4/execute/Trace.h"
#include "p4/tables/Side.h"

namespace P4 {

enum class RunEnd : uint8_t {
  done,
  parserError,   // packet.parserError tells which
  tooManySteps,  // the program went round too often
};

// What happened beside the packets' way.
struct MachineCounts {
  uint64_t failedAssertions = 0;
  uint64_t beyondArrays = 0;  // counters and registers at an index that is not there
};

// One thread. The image outlives it.
class Machine {
 public:
  Machine(const Image& image, ExternState& externs, uint64_t seed);

  // The tables that runs read from now on.
  void sideIs(const Side& side, int number) {
    side_ = &side;
    sideNumber_ = number;
  }
  void traceIs(Trace* trace) { trace_ = trace; }  // null: none
  void timeIs(uint64_t microseconds) { now_ = microseconds; }

  RunEnd run(uint32_t begin, Packet& packet);
  Calculator& calculator() { return calculator_; }
  const MachineCounts& counts() const { return counts_; }

 private:
  static constexpr uint32_t maxSteps = 10000;

  const ActionData* lookUp(uint32_t table, Packet& packet, uint32_t& next);
  void hit(const TableCode& table, const Entry& entry, Packet& packet);
  const ActionData* actionOf(const TableCode& table, const Outcome& outcome, const Packet& packet);
  const ActionData* chosen(const TableCode& table, const Group& group, const Packet& packet);

  // Each returns false for a parser error.
  bool extract(const HeaderPlace& place, uint32_t header, Packet& packet);
  bool extractStack(const Instruction& instruction, Packet& packet);
  bool extractVarbit(const Instruction& instruction, Packet& packet);
  bool extractVarbitTo(uint32_t header, uint64_t bits, Packet& packet);
  bool advance(uint64_t bits, Packet& packet);
  bool lookAhead(const Instruction& instruction, Packet& packet);
  bool fail(uint32_t error, Packet& packet);

  uint32_t select(const Selector& selector, uint64_t key) const;
  uint32_t selectWide(const WideSelector& selector, const uint64_t* key) const;
  bool inValueSet(uint64_t use, const uint64_t* key) const;

  void count(uint64_t index, uint32_t array, const Packet& packet);
  uint64_t meter(uint64_t index, uint32_t array, const Packet& packet);
  void loadRegister(const Instruction& instruction, uint64_t* state);
  void storeRegister(const Instruction& instruction, const uint64_t* state);
  uint64_t hash(const Instruction& instruction, const Packet& packet);
  uint64_t randomBetween(uint64_t low, uint64_t high);
  void log(const LogCall& call, const uint64_t* state);

  const Image& image_;
  ExternState& externs_;
  Calculator calculator_;
  const Side* side_ = nullptr;
  int sideNumber_ = 0;
  Trace* trace_ = nullptr;
  uint64_t now_ = 0;
  std::mt19937_64 random_;
  MachineCounts counts_;
};

}  // namespace P4
