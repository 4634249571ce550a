#include "p4/program/PrimitiveReader.h"

#include <array>
#include <cstring>

#include "p4/program/ExpressionReader.h"

namespace P4 {
namespace {

// How a primitive's operands look, a letter each: Destination, Number, plain Field, Varbit field,
// Header, Stack of either kind, header stack (s), stack of unions (o), Union, Counter array, Meter
// array, Register array, calculation (K), Text, list of Values.
struct Form {
  const char* name;
  Primitive primitive;
  const char* operands;
  Op op = Op::add;
};

constexpr std::array forms = {
    Form{"assign", Primitive::assign, "DN"},
    Form{"modify_field", Primitive::assign, "DN"},
    Form{"assign_VL", Primitive::assignVarbit, "VV"},
    Form{"assign_header", Primitive::assignHeader, "HH"},
    Form{"copy_header", Primitive::assignHeader, "HH"},
    Form{"assign_header_stack", Primitive::assignStack, "ss"},
    Form{"assign_union", Primitive::assignUnion, "UU"},
    Form{"assign_union_stack", Primitive::assignUnionStack, "oo"},
    Form{"push", Primitive::push, "SN"},
    Form{"pop", Primitive::pop, "SN"},
    Form{"exit", Primitive::exit, ""},
    Form{"assert", Primitive::assertTrue, "N"},
    Form{"assume", Primitive::assertTrue, "N"},
    Form{"log_msg", Primitive::logMessage, "TL"},
    Form{"_jump", Primitive::jump, "N"},
    Form{"_jump_if_zero", Primitive::jumpIfZero, "NN"},
    Form{"add_header", Primitive::addHeader, "H"},
    Form{"remove_header", Primitive::removeHeader, "H"},
    Form{"add_header_fast", Primitive::addHeaderFast, "H"},
    Form{"mark_to_drop", Primitive::markToDrop, "H"},
    Form{"drop", Primitive::drop, ""},
    Form{"add_to_field", Primitive::addTo, "FN"},
    Form{"subtract_from_field", Primitive::subtractFrom, "FN"},
    Form{"add", Primitive::binary, "DNN", Op::add},
    Form{"subtract", Primitive::binary, "DNN", Op::subtract},
    Form{"bit_xor", Primitive::binary, "DNN", Op::bitXor},
    Form{"bit_or", Primitive::binary, "DNN", Op::bitOr},
    Form{"bit_and", Primitive::binary, "DNN", Op::bitAnd},
    Form{"shift_left", Primitive::binary, "DNN", Op::shiftLeft},
    Form{"shift_right", Primitive::binary, "DNN", Op::shiftRight},
    Form{"no_op", Primitive::noOp, ""},
    Form{"modify_field_with_hash_based_offset", Primitive::hash, "DNKN"},
    Form{"modify_field_rng_uniform", Primitive::random, "DNN"},
    Form{"count", Primitive::count, "CN"},
    Form{"execute_meter", Primitive::executeMeter, "MNF"},
    Form{"register_read", Primitive::registerRead, "FRN"},
    Form{"register_write", Primitive::registerWrite, "RNN"},
    Form{"generate_digest", Primitive::digest, "NN"},
    Form{"clone_ingress_pkt_to_egress", Primitive::clone, "NN"},
    Form{"clone_egress_pkt_to_egress", Primitive::clone, "NN"},
    Form{"resubmit", Primitive::resubmit, "N"},
    Form{"recirculate", Primitive::recirculate, "N"},
    Form{"truncate", Primitive::truncate, "N"},
};

uint32_t namedObject(const Node& node, const char* type, const NameMap& names) {
  if (node["type"].text() != type) node["type"].fail(quoted(type) + " is wanted here");
  return names.find(node["value"]);
}

class OperandReader {
 public:
  OperandReader(PrimitiveCall& call, uint32_t arguments, const Names& names)
      : call_(call), reader_(names), names_(names) {
    reader_.withArguments(arguments);
  }

  void read(char form, const Node& node) {
    switch (form) {
      case 'D':
        return add(reader_.readDestination(node));
      case 'N':
        return add(reader_.read(node, Type::data));
      case 'F':
        return add(plainField(node, false));
      case 'V':
        return add(plainField(node, true));
      case 'H':
        return add(reader_.read(node, Type::header));
      case 'U':
        return add(reader_.read(node, Type::headerUnion));
      case 's':
        return add(reader_.read(node, Type::stack));
      case 'o':
        return add(reader_.read(node, Type::unionStack));
      case 'S':
        return add(eitherStack(node));
      case 'C':
        call_.object = namedObject(node, "counter_array", names_.counters);
        return;
      case 'M':
        call_.object = namedObject(node, "meter_array", names_.meters);
        return;
      case 'R':
        call_.object = namedObject(node, "register_array", names_.registers);
        return;
      case 'K':
        call_.object = namedObject(node, "calculation", names_.calculations);
        return;
      case 'T':
        call_.text = node["value"].text();
        return;
      default:
        readValues(node);
    }
  }

 private:
  void add(Expression expression) { call_.operands.push_back(std::move(expression)); }

  Expression plainField(const Node& node, bool varbit) {
    Expression field = reader_.readPlainField(node);
    const bool is =
        field.part != validBit && names_.program.typeOf(field.index).fields[field.part].varbit;
    if (is != varbit)
      node.fail(varbit ? "a varbit field is wanted here" : "a varbit field is no number");
    return field;
  }

  Expression eitherStack(const Node& node) {
    Expression stack = reader_.read(node);
    if (stack.type != Type::stack && stack.type != Type::unionStack)
      node.fail("a header stack is wanted here");
    return stack;
  }

  void readValues(const Node& node) {
    if (node["type"].text() != "parameters_vector")
      node["type"].fail("a list of values is wanted here");
    for (const Node& element : node["value"].elements()) add(reader_.read(element, Type::data));
  }

  PrimitiveCall& call_;
  ExpressionReader reader_;
  const Names& names_;
};

// What the operands' kinds alone do not tell.
void checkCall(const Node& node, const PrimitiveCall& call, const Names& names) {
  const Program& program = names.program;
  const auto& operands = call.operands;
  switch (call.primitive) {
    case Primitive::assignHeader:
      if (headerTypeOf(program, operands[0]) != headerTypeOf(program, operands[1]))
        node.fail("headers of different types cannot be assigned");
      break;
    case Primitive::assignUnion:
      if (unionTypeOf(program, operands[0]) != unionTypeOf(program, operands[1]))
        node.fail("header unions of different types cannot be assigned");
      break;
    case Primitive::assignStack:
      if (program.stacks[operands[0].index].type != program.stacks[operands[1].index].type ||
          program.stacks[operands[0].index].headers.size() !=
              program.stacks[operands[1].index].headers.size())
        node.fail("header stacks of different types cannot be assigned");
      break;
    case Primitive::assignUnionStack:
      if (program.unionStacks[operands[0].index].type !=
              program.unionStacks[operands[1].index].type ||
          program.unionStacks[operands[0].index].unions.size() !=
              program.unionStacks[operands[1].index].unions.size())
        node.fail("stacks of different types cannot be assigned");
      break;
    case Primitive::jump:
    case Primitive::jumpIfZero:
      if (operands.back().op != Op::constant)
        node.fail("a jump to a place that is no constant is not executed");
      break;
    case Primitive::executeMeter:
      if (program.meters[call.object].direct) node.fail("a direct meter is executed by its table");
      break;
    case Primitive::count:
      if (program.counters[call.object].direct)
        node.fail("a direct counter is counted by its table");
      break;
    default:
      break;
  }
}

}  // namespace

PrimitiveCall readPrimitive(const Node& node, uint32_t arguments, const Names& names) {
  const std::string op = node["op"].text();
  for (const Form& form : forms) {
    if (op != form.name) continue;
    PrimitiveCall call{.primitive = form.primitive, .op = form.op};
    const Node parameters = node["parameters"];
    if (parameters.size() != std::strlen(form.operands))
      parameters.fail(quoted(op) + " takes " + std::to_string(std::strlen(form.operands)) +
                      " parameters");
    OperandReader reader(call, arguments, names);
    size_t position = 0;
    for (const Node& parameter : parameters.elements())
      reader.read(form.operands[position++], parameter);
    checkCall(node, call, names);
    return call;
  }
  node["op"].fail("the primitive " + quoted(op) + " is not executed");
}

}  // namespace P4
