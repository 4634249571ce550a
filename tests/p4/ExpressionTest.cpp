// Compiled expressions against an evaluator that works on numbers of any size and knows no words.
#include <gtest/gtest.h>

#include "p4/Engine.h"
#include "tests/p4/Controller.h"
#include "tests/p4/RandomProgram.h"

namespace P4Test {
namespace {

TEST(ExpressionTest, AnyWidthGivesWhatTheSlowEvaluatorGives) {
  for (uint64_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomProgram program(seed);
    P4::Engine engine(program.json());
    P4::Outputs outputs;
    for (int packets = 0; packets < 8; ++packets) {
      const std::string packet = program.randomPacket();
      outputs.clear();
      engine.process(1, {reinterpret_cast<const uint8_t*>(packet.data()), packet.size()}, 0,
                     outputs);
      ASSERT_EQ(outputs.size(), 1u);
      const auto bytes = outputs.frame(0).bytes;
      ASSERT_EQ(hexOf(std::string(bytes.begin(), bytes.end())), hexOf(program.expected(packet)))
          << hexOf(packet) << "\n"
          << program.describe();
    }
  }
}

}  // namespace
}  // namespace P4Test
