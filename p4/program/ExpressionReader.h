// Reads typed values and expressions.
#pragma once

#include "p4/program/Names.h"

namespace P4 {

const char* typeName(Type type);

class ExpressionReader {
 public:
  explicit ExpressionReader(const Names& names) : names_(names) {}
  // `runtime_data` and `local` of 0..count-1 are allowed.
  ExpressionReader& withArguments(uint32_t count) {
    arguments_ = count;
    return *this;
  }
  ExpressionReader& withLookahead() {
    lookahead_ = true;
    return *this;
  }

  // Wrappers are taken off. Throws ProgramError when the value is not of the type.
  Expression read(const Node& node, Type wanted) const;
  Expression read(const Node& node) const;
  // A condition, a truth value; null is false.
  std::optional<Expression> readCondition(const Node& node) const;
  // A place to which a number is assigned.
  Expression readDestination(const Node& node) const;
  Expression readPlainField(const Node& node) const;  // varbit fields, too

 private:
  Expression readOperator(const Node& node) const;
  Expression readOperand(const Node& node, const std::string& type) const;
  Expression readStackField(const Node& value) const;
  Expression readUnionStackField(const Node& value) const;
  Expression readRegister(const Node& value) const;
  Expression readLookahead(const Node& value) const;
  Expression readArgument(const Node& value) const;
  Expression readAccess(const Node& node, const std::string& op) const;
  Expression readComparison(const Node& node, Op op) const;
  Expression field(const Node& node) const;

  const Names& names_;
  uint32_t arguments_ = 0;
  bool lookahead_ = false;
};

// The type of the header that a header expression gives.
uint32_t headerTypeOf(const Program& program, const Expression& header);
// The type of the union that a union expression gives.
uint32_t unionTypeOf(const Program& program, const Expression& headerUnion);

}  // namespace P4
