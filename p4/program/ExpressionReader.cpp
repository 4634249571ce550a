#include "p4/program/ExpressionReader.h"

#include <array>

namespace P4 {
namespace {

// An operator that is told by the types of its operands alone.
struct Operator {
  const char* name;
  Op op;
  Type operands;
  bool unary;
  Type result;
};

constexpr std::array operators = {
    Operator{"*", Op::multiply, Type::data, false, Type::data},
    Operator{"/", Op::divide, Type::data, false, Type::data},
    Operator{"%", Op::modulo, Type::data, false, Type::data},
    Operator{"<<", Op::shiftLeft, Type::data, false, Type::data},
    Operator{">>", Op::shiftRight, Type::data, false, Type::data},
    Operator{"&", Op::bitAnd, Type::data, false, Type::data},
    Operator{"|", Op::bitOr, Type::data, false, Type::data},
    Operator{"^", Op::bitXor, Type::data, false, Type::data},
    Operator{"~", Op::bitNot, Type::data, true, Type::data},
    Operator{"<", Op::less, Type::data, false, Type::boolean},
    Operator{"<=", Op::lessEqual, Type::data, false, Type::boolean},
    Operator{">", Op::greater, Type::data, false, Type::boolean},
    Operator{">=", Op::greaterEqual, Type::data, false, Type::boolean},
    Operator{"and", Op::logicalAnd, Type::boolean, false, Type::boolean},
    Operator{"or", Op::logicalOr, Type::boolean, false, Type::boolean},
    Operator{"not", Op::logicalNot, Type::boolean, true, Type::boolean},
    Operator{"d2b", Op::dataToBool, Type::data, true, Type::boolean},
    Operator{"b2d", Op::boolToData, Type::boolean, true, Type::data},
    Operator{"valid", Op::valid, Type::header, true, Type::boolean},
    Operator{"valid_union", Op::validUnion, Type::headerUnion, true, Type::boolean},
};

// A bare integer, or a typed constant.
uint32_t smallInteger(const Node& node) {
  if (node.isNumber()) return node.integer();
  const Number value = node["value"].number();
  if (value < 0 || bitLength(value) > 31) node.fail("the number is too large");
  return static_cast<uint32_t>(lowWord(value));
}

Expression made(Op op, Type type, std::vector<Expression> operands) {
  Expression expression;
  expression.op = op;
  expression.type = type;
  expression.operands = std::move(operands);
  return expression;
}

Expression object(Op op, Type type, uint32_t index) {
  Expression expression;
  expression.op = op;
  expression.type = type;
  expression.index = index;
  return expression;
}

}  // namespace

const char* typeName(Type type) {
  switch (type) {
    case Type::data:
      return "a number";
    case Type::boolean:
      return "a truth value";
    case Type::header:
      return "a header";
    case Type::stack:
      return "a header stack";
    case Type::headerUnion:
      return "a header union";
    case Type::unionStack:
      return "a stack of header unions";
  }
  return "a value";
}

uint32_t headerTypeOf(const Program& program, const Expression& header) {
  switch (header.op) {
    case Op::header:
      return program.headers[header.index].type;
    case Op::elementOfStack:
      return program.stacks[header.operands[0].index].type;
    case Op::accessMember: {
      const Expression& owner = header.operands[0];
      const Expression* leaf = &owner;
      while (leaf->op == Op::choose) leaf = &leaf->operands[1];
      const uint32_t position = leaf->op == Op::headerUnion
                                    ? leaf->index
                                    : program.unionStacks[leaf->operands[0].index].unions[0];
      return program.headers[program.unions[position].headers[header.member]].type;
    }
    default:
      return headerTypeOf(program, header.operands[1]);  // choose
  }
}

uint32_t unionTypeOf(const Program& program, const Expression& owner) {
  if (owner.op == Op::headerUnion) return program.unions[owner.index].type;
  if (owner.op == Op::elementOfUnionStack) return program.unionStacks[owner.operands[0].index].type;
  return unionTypeOf(program, owner.operands[1]);  // choose
}

Expression ExpressionReader::read(const Node& node, Type wanted) const {
  Expression expression = read(node);
  if (wanted == Type::data && expression.type == Type::boolean)
    return made(Op::boolToData, Type::data, {std::move(expression)});
  if (wanted == Type::boolean && !node["value"].present())  // an empty expression
    return object(Op::boolConstant, Type::boolean, 0);
  if (expression.type != wanted)
    node.fail(std::string(typeName(wanted)) + " is wanted here, not " + typeName(expression.type));
  return expression;
}

std::optional<Expression> ExpressionReader::readCondition(const Node& node) const {
  if (!node.present()) return std::nullopt;
  return read(node, Type::boolean);
}

Expression ExpressionReader::read(const Node& node) const {
  if (!node.present()) {  // a missing operand of + and -, or an empty expression
    return Expression::constantOf(0);
  }
  const std::string type = node["type"].text();
  const Node value = node["value"];
  if (type != "expression") return readOperand(node, type);
  if (!value.present()) return Expression::constantOf(0);
  return value["op"].present() ? readOperator(value) : read(value);
}

Expression ExpressionReader::field(const Node& node) const {
  const FieldRef ref = names_.numberField(node);
  return Expression::fieldOf(ref.header, ref.field);
}

Expression ExpressionReader::readPlainField(const Node& node) const {
  const Node value = node["value"];
  if (node["type"].text() == "expression") return readPlainField(value);
  if (node["type"].text() != "field") node["type"].fail("a field is wanted here");
  const FieldRef ref = names_.field(value);
  return Expression::fieldOf(ref.header, ref.field);
}

Expression ExpressionReader::readDestination(const Node& node) const {
  Expression expression = read(node);
  switch (expression.op) {
    case Op::field:
    case Op::stackField:
    case Op::registerCell:
    case Op::accessField:
      return expression;
    default:
      node.fail("nothing can be assigned to this");
  }
}

Expression ExpressionReader::readOperand(const Node& node, const std::string& type) const {
  const Node value = node["value"];
  if (type == "field") return field(value);
  if (type == "hexstr") return Expression::constantOf(value.number());
  if (type == "runtime_data" || type == "local") return readArgument(value);
  if (type == "bool") return object(Op::boolConstant, Type::boolean, value.boolean() ? 1 : 0);
  if (type == "header") return object(Op::header, Type::header, names_.headers.find(value));
  if (type == "header_stack") {
    // Stacks of unions go by this type, too, as operands of push and pop.
    if (!names_.stacks.knows(value.text()) && names_.unionStacks.knows(value.text()))
      return object(Op::unionStack, Type::unionStack, names_.unionStacks.find(value));
    return object(Op::stack, Type::stack, names_.stacks.find(value));
  }
  if (type == "header_union")
    return object(Op::headerUnion, Type::headerUnion, names_.unions.find(value));
  if (type == "header_union_stack")
    return object(Op::unionStack, Type::unionStack, names_.unionStacks.find(value));
  if (type == "stack_field") return readStackField(value);
  if (type == "union_stack_field") return readUnionStackField(value);
  if (type == "register") return readRegister(value);
  if (type == "lookahead") return readLookahead(value);
  node["type"].fail("operands of type " + quoted(type) + " are not executed here");
}

Expression ExpressionReader::readArgument(const Node& value) const {
  const uint32_t position = value.integer();
  if (position >= arguments_) value.fail("there is no argument " + std::to_string(position));
  return object(Op::argument, Type::data, position);
}

Expression ExpressionReader::readStackField(const Node& value) const {
  Expression expression = object(Op::stackField, Type::data, names_.stacks.find(value.at(0)));
  const uint32_t type = names_.program.stacks[expression.index].type;
  expression.part = names_.fieldOfType(value, type, value.at(1).text());
  if (expression.part != validBit &&
      names_.program.headerTypes[type].fields[expression.part].varbit)
    value.fail("a varbit field is no number");
  return expression;
}

Expression ExpressionReader::readUnionStackField(const Node& value) const {
  Expression expression =
      object(Op::unionStackField, Type::data, names_.unionStacks.find(value.at(0)));
  const UnionStack& stack = names_.program.unionStacks[expression.index];
  expression.member = names_.memberOfUnion(value, stack.type, value.at(1).text());
  const uint32_t header = names_.program.unions[stack.unions[0]].headers[expression.member];
  const uint32_t type = names_.program.headers[header].type;
  expression.part = names_.fieldOfType(value, type, value.at(2).text());
  if (expression.part != validBit &&
      names_.program.headerTypes[type].fields[expression.part].varbit)
    value.fail("a varbit field is no number");
  return expression;
}

Expression ExpressionReader::readRegister(const Node& value) const {
  Expression expression = object(Op::registerCell, Type::data, names_.registers.find(value.at(0)));
  expression.operands.push_back(read(value.at(1), Type::data));
  return expression;
}

Expression ExpressionReader::readLookahead(const Node& value) const {
  if (!lookahead_) value.fail("lookahead is executed in `set` and transition keys only");
  Expression expression = object(Op::lookahead, Type::data, value.at(0).integer());
  expression.part = value.at(1).integer();
  if (expression.part == 0 || expression.part > maxNumberBits / 2 || expression.index > (1u << 20))
    value.fail("a lookahead of that place and width is not executed");
  return expression;
}

Expression ExpressionReader::readOperator(const Node& node) const {
  const std::string op = node["op"].text();
  const Node left = node["left"];
  const Node right = node["right"];
  if (op == "+" || op == "-")
    return made(op == "+" ? Op::add : Op::subtract, Type::data,
                {read(left, Type::data), read(right, Type::data)});
  if (op == "==" || op == "!=") return readComparison(node, op == "==" ? Op::equal : Op::notEqual);
  if (op == "?") {
    Expression one = read(left);
    Expression other = read(right, one.type);
    if (one.type == Type::stack || one.type == Type::unionStack)
      left.fail("stacks cannot be chosen");
    const Type type = one.type;
    return made(Op::choose, type,
                {read(node["cond"], Type::boolean), std::move(one), std::move(other)});
  }
  if (op == "two_comp_mod" || op == "usat_cast" || op == "sat_cast") {
    Expression bits = read(right, Type::data);
    if (bits.op != Op::constant || bits.number < 1 || bits.number > maxNumberBits / 2)
      right.fail("the width of " + quoted(op) +
                 " is not executed unless it is a constant of 1 to " +
                 std::to_string(maxNumberBits / 2));
    Expression cast = made(op == "two_comp_mod" ? Op::twoCompMod
                           : op == "usat_cast"  ? Op::unsignedSaturate
                                                : Op::signedSaturate,
                           Type::data, {read(left, Type::data)});
    cast.part = static_cast<uint32_t>(lowWord(bits.number));
    return cast;
  }
  for (const Operator& known : operators) {
    if (op != known.name) continue;
    std::vector<Expression> operands;
    if (!known.unary) operands.push_back(read(left, known.operands));
    operands.push_back(read(right, known.operands));
    return made(known.op, known.result, std::move(operands));
  }
  return readAccess(node, op);
}

Expression ExpressionReader::readComparison(const Node& node, Op op) const {
  Expression left = read(node["left"]);
  Expression right = read(node["right"], left.type);
  if (left.type == Type::stack || left.type == Type::unionStack)
    node["left"].fail("stacks cannot be compared");
  if (left.type == Type::header &&
      headerTypeOf(names_.program, left) != headerTypeOf(names_.program, right))
    node.fail("headers of different types cannot be compared");
  if (left.type == Type::headerUnion &&
      unionTypeOf(names_.program, left) != unionTypeOf(names_.program, right))
    node.fail("header unions of different types cannot be compared");
  return made(op, Type::boolean, {std::move(left), std::move(right)});
}

Expression ExpressionReader::readAccess(const Node& node, const std::string& op) const {
  const Node left = node["left"];
  const Node right = node["right"];
  if (op == "dereference_header_stack" || op == "dereference_stack")
    return made(Op::elementOfStack, Type::header,
                {read(left, Type::stack), read(right, Type::data)});
  if (op == "dereference_union_stack")
    return made(Op::elementOfUnionStack, Type::headerUnion,
                {read(left, Type::unionStack), read(right, Type::data)});
  if (op == "access_field") {
    Expression access = made(Op::accessField, Type::data, {read(left, Type::header)});
    access.part = smallInteger(right);
    const uint32_t type = headerTypeOf(names_.program, access.operands[0]);
    const std::vector<Field>& fields = names_.program.headerTypes[type].fields;
    if (access.part == fields.size()) access.part = validBit;
    if (access.part != validBit && access.part >= fields.size())
      right.fail("the header has no such field");
    if (access.part != validBit && fields[access.part].varbit)
      right.fail("a varbit field is no number");
    return access;
  }
  if (op == "access_union_header") {
    Expression access = made(Op::accessMember, Type::header, {read(left, Type::headerUnion)});
    access.member = smallInteger(right);
    const uint32_t type = unionTypeOf(names_.program, access.operands[0]);
    if (access.member >= names_.unionMembers[type].size())
      right.fail("the union has no such member");
    return access;
  }
  if (op == "last_stack_index" || op == "size_stack") {
    Expression stack = read(right);
    if (stack.type != Type::stack && stack.type != Type::unionStack)
      right.fail("a header stack is wanted here");
    return made(op == "size_stack" ? Op::sizeOfStack : Op::lastStackIndex, Type::data,
                {std::move(stack)});
  }
  node["op"].fail("the operator " + quoted(op) + " is not executed");
}

}  // namespace P4
