// Random expressions, as JSON and as trees that are evaluated the slow way.
#pragma once

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "p4/program/Number.h"

namespace P4Test {

struct TestField {
  std::string name;
  uint32_t bits = 0;
  bool isSigned = false;
};

// A header `h` with these fields, an action that assigns one expression to each field of a header
// `out`, and no parser beyond that.
class RandomProgram {
 public:
  explicit RandomProgram(uint64_t seed);

  std::string json() const;
  std::string randomPacket();
  // Header `out`, then `h`, as the program must send them.
  std::string expected(const std::string& packet) const;
  std::string describe() const;

 private:
  struct Node {
    std::string op;  // "field", "constant", or an operator
    P4::Number number;
    size_t field = 0;
    std::vector<std::unique_ptr<Node>> kids;
  };
  using Tree = std::unique_ptr<Node>;

  Tree data(int depth);
  Tree truth(int depth);
  Tree constant(uint32_t bits);
  Tree made(const std::string& op, Tree left, Tree right = nullptr, Tree condition = nullptr);
  static std::string jsonOf(const Node& node, const std::vector<TestField>& fields);
  static P4::Number evaluate(const Node& node, const std::vector<P4::Number>& fields);
  static std::string textOf(const Node& node);
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

  std::mt19937_64 random_;
  std::vector<TestField> in_;
  std::vector<TestField> out_;
  std::vector<Tree> expressions_;
};

}  // namespace P4Test
