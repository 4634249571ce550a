// Instructions that use externs.
#include <algorithm>

#include "p4/execute/Machine.h"

namespace P4 {

void Machine::count(uint64_t index, uint32_t array, const Packet& packet) {
  CellArray<Counter>& counters = externs_.counters[array];
  if (index >= counters.size())
    ++counts_.beyondArrays;
  else
    counters[index].add(packet.ingressLength);
}

uint64_t Machine::meter(uint64_t index, uint32_t array, const Packet& packet) {
  const uint64_t units = externs_.meterBytes[array] ? packet.ingressLength : 1;
  return static_cast<uint64_t>(externs_.meters[array][index].execute(sideNumber_, now_, units));
}

void Machine::loadRegister(const Instruction& instruction, uint64_t* state) {
  const RegisterArray& cells = externs_.registers[static_cast<uint32_t>(instruction.c)];
  const auto words = static_cast<uint32_t>(instruction.c >> 32);
  const uint64_t index = state[instruction.b];
  const bool there = index < cells.size();
  counts_.beyondArrays += !there;
  for (uint32_t word = 0; word < words; ++word)
    state[instruction.a + word] =
        there && word < cells.words() ? cells.word(static_cast<uint32_t>(index), word) : 0;
}

void Machine::storeRegister(const Instruction& instruction, const uint64_t* state) {
  RegisterArray& cells = externs_.registers[instruction.c];
  const uint64_t index = state[instruction.b];
  if (index >= cells.size()) {
    ++counts_.beyondArrays;
    return;
  }
  for (uint32_t word = 0; word < cells.words(); ++word)
    cells.wordIs(static_cast<uint32_t>(index), word, state[instruction.a + word]);
}

uint64_t Machine::hash(const Instruction& instruction, const Packet& packet) {
  const uint64_t* state = packet.state.get();
  const uint64_t base = state[instruction.b];
  const uint64_t modulus = std::max<uint64_t>(1, state[instruction.c >> 32]);
  return base + calculator_.calculate(static_cast<uint32_t>(instruction.c), packet) % modulus;
}

uint64_t Machine::randomBetween(uint64_t low, uint64_t high) {
  return std::uniform_int_distribution<uint64_t>(low, std::max(low, high))(random_);
}

void Machine::log(const LogCall& call, const uint64_t* state) {
  std::string message;
  size_t value = 0;
  for (size_t at = 0; at < call.text.size(); ++at) {
    const bool escaped = call.text[at] == '\\' && at + 1 < call.text.size() &&
                         (call.text[at + 1] == '{' || call.text[at + 1] == '}');
    if (escaped) {
      message += call.text[++at];
    } else if (call.text.compare(at, 2, "{}") == 0 && value < call.values.size()) {
      const LogCall::Value& one = call.values[value++];
      Number number;
      mpz_import(number.get_mpz_t(), one.words, -1, sizeof(uint64_t), 0, 0, state + one.slot);
      if (one.isSigned && state[one.slot + one.words - 1] >> 63)
        number -= powerOfTwo(64 * one.words);
      message += number.get_str();
      ++at;
    } else {
      message += call.text[at];
    }
  }
  trace_->onLog(message);
}

}  // namespace P4
