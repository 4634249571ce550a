// Value sets, parser states and the deparser.
#include <algorithm>

#include "p4/program/ExpressionReader.h"
#include "p4/program/PrimitiveReader.h"
#include "p4/program/Sections.h"

namespace P4 {
namespace {

uint32_t keyBytes(const std::vector<uint32_t>& bits) {
  uint32_t bytes = 0;
  for (const uint32_t width : bits) bytes += (width + 7) / 8;
  return bytes;
}

// Reads the states of one parser. Their names are known before any is read.
class StateReader {
 public:
  StateReader(Names& names) : names_(names) {}

  void read(const Node& parser) {
    const std::vector<Node> states = parser["parse_states"].elements();
    for (uint32_t i = 0; i < states.size(); ++i)
      stateNames_.add(states[i], states[i]["name"].name(), i);
    for (const Node& state : states) names_.program.states.push_back(readState(state));
    if (parser["init_state"].present())
      names_.program.initialState = stateNames_.find(parser["init_state"]);
  }

 private:
  ParserState readState(const Node& node) {
    ParserState state{.name = node["name"].text()};
    for (const Node& op : node["parser_ops"].elements()) state.ops.push_back(readOp(op));
    readKey(node["transition_key"], state);
    for (const Node& transition : node["transitions"].elements()) readTransition(transition, state);
    return state;
  }

  ParserOp readOp(const Node& node) {
    const std::string op = node["op"].text();
    const Node parameters = node["parameters"];
    if (op == "extract") return readExtract(parameters.at(0));
    if (op == "extract_VL") return readExtractVarbit(parameters);
    if (op == "set") return readSet(parameters);
    if (op == "verify") return readVerify(parameters);
    if (op == "shift") {
      ParserOp made{.kind = ParserOp::Kind::advance};
      made.operands.push_back(Expression::constantOf(Number(parameters.at(0).integer()) * 8));
      return made;
    }
    if (op == "advance") {
      ParserOp made{.kind = ParserOp::Kind::advance};
      made.operands.push_back(ExpressionReader(names_).read(parameters.at(0), Type::data));
      return made;
    }
    if (op == "primitive") {
      ParserOp made{.kind = ParserOp::Kind::call};
      made.call = readPrimitive(parameters.at(0), 0, names_);
      if (made.call.primitive == Primitive::jump || made.call.primitive == Primitive::jumpIfZero)
        parameters.at(0).fail("a jump is not executed in a parser");
      return made;
    }
    node["op"].fail("the parser operation " + quoted(op) + " is not executed");
  }

  // The destination of an extraction; fixed headers only unless `varbit`.
  ParserOp readTarget(const Node& node, bool varbit) {
    ParserOp made;
    const std::string type = node["type"].text();
    uint32_t header = 0;
    if (type == "regular") {
      made.kind = ParserOp::Kind::extract;
      header = made.object = names_.headers.find(node["value"]);
    } else if (type == "stack") {
      made.kind = ParserOp::Kind::extractStack;
      made.object = names_.stacks.find(node["value"]);
      header = names_.program.stacks[made.object].headers[0];
    } else if (type == "union_stack") {
      made.kind = ParserOp::Kind::extractUnionStack;
      made.object = names_.unionStacks.find(node["value"].at(0));
      const UnionStack& stack = names_.program.unionStacks[made.object];
      made.member = names_.memberOfUnion(node["value"], stack.type, node["value"].at(1).text());
      header = names_.program.unions[stack.unions[0]].headers[made.member];
    } else {
      node["type"].fail("extraction to " + quoted(type) + " is not executed");
    }
    if (names_.program.headers[header].metadata) node.fail("metadata cannot be extracted");
    const HeaderType& owner = names_.program.typeOf(header);
    if (!varbit && owner.varbitField != absent && !owner.varbitBits)
      node.fail("a header with a varbit field of no stated length wants extract_VL");
    if (varbit && owner.varbitField == absent) node.fail("the header has no varbit field");
    return made;
  }

  ParserOp readExtract(const Node& node) {
    ParserOp made = readTarget(node, false);
    const uint32_t header =
        made.kind == ParserOp::Kind::extract ? made.object
        : made.kind == ParserOp::Kind::extractStack
            ? names_.program.stacks[made.object].headers[0]
            : names_.program.unions[names_.program.unionStacks[made.object].unions[0]]
                  .headers[made.member];
    const HeaderType& type = names_.program.typeOf(header);
    if (type.varbitField == absent) return made;
    made.target = made.kind;
    made.kind = ParserOp::Kind::extractVarbit;  // with the length that the type states
    return made;
  }

  ParserOp readExtractVarbit(const Node& parameters) {
    ParserOp made = readTarget(parameters.at(0), true);
    made.target = made.kind;
    made.kind = ParserOp::Kind::extractVarbit;
    made.operands.push_back(ExpressionReader(names_).read(parameters.at(1), Type::data));
    return made;
  }

  ParserOp readSet(const Node& parameters) {
    ParserOp made{.kind = ParserOp::Kind::set};
    const ExpressionReader reader = ExpressionReader(names_).withLookahead();
    const Node from = parameters.at(1);
    made.operands.push_back(reader.readPlainField(parameters.at(0)));
    if (isVarbit(made.operands[0])) {
      Expression source = reader.readPlainField(from);
      if (!isVarbit(source)) from.fail("a varbit field is wanted here");
      made.kind = ParserOp::Kind::call;
      made.call = {.primitive = Primitive::assignVarbit,
                   .operands = {made.operands[0], std::move(source)}};
      return made;
    }
    made.operands.push_back(reader.read(from, Type::data));
    return made;
  }

  bool isVarbit(const Expression& field) const {
    return field.part != validBit && names_.program.typeOf(field.index).fields[field.part].varbit;
  }

  ParserOp readVerify(const Node& parameters) {
    ParserOp made{.kind = ParserOp::Kind::verify};
    const Node error = parameters.at(1);
    made.operands.push_back(ExpressionReader(names_).read(parameters.at(0), Type::boolean));
    made.operands.push_back(error.isNumber() ? Expression::constantOf(error.integer())
                                             : ExpressionReader(names_).read(error, Type::data));
    return made;
  }

  uint32_t widthOf(const Expression& element) const {
    const Program& program = names_.program;
    if (element.op == Op::lookahead) return element.part;
    if (element.part == validBit) return 1;
    if (element.op == Op::field) return program.bitsOf({element.index, element.part});
    if (element.op == Op::stackField)
      return program.headerTypes[program.stacks[element.index].type].fields[element.part].bits;
    const uint32_t owner = program.unionStacks[element.index].unions[0];
    return program.bitsOf({program.unions[owner].headers[element.member], element.part});
  }

  void readKey(const Node& node, ParserState& state) {
    for (const Node& element : node.elements()) {
      Expression part = ExpressionReader(names_).withLookahead().read(element, Type::data);
      if (part.op != Op::field && part.op != Op::lookahead && part.op != Op::stackField &&
          part.op != Op::unionStackField)
        element.fail("this is no element of a transition key");
      state.keyBits.push_back(widthOf(part));
      state.key.push_back(std::move(part));
    }
    if (keyBytes(state.keyBits) > 1024) node.fail("the transition key is too long");
  }

  uint32_t nextOf(const Node& node) {
    return node["next_state"].present() ? stateNames_.find(node["next_state"]) : absent;
  }

  void readTransition(const Node& node, ParserState& state) {
    const std::string type = node["type"].textOr("hexstr");
    const bool otherwise = type == "default" || (type == "hexstr" && node["value"].isText() &&
                                                 node["value"].text() == "default");
    if (otherwise) {
      state.otherwise = nextOf(node);
      return;
    }
    Transition made{.next = nextOf(node)};
    const uint32_t bytes = keyBytes(state.keyBits);
    if (type == "hexstr") {
      made.value = node["value"].bytes(bytes);
    } else if (type == "parse_vset") {
      made.kind = Transition::Kind::valueSet;
      made.valueSet = names_.valueSets.find(node["value"]);
      checkValueSet(node, state, names_.program.valueSets[made.valueSet]);
    } else {
      node["type"].fail("transitions of type " + quoted(type) + " are not executed");
    }
    if (node["mask"].present()) made.mask = node["mask"].bytes(bytes);
    if (state.key.empty()) return;  // nothing but the default is taken
    state.transitions.push_back(std::move(made));
  }

  void checkValueSet(const Node& node, const ParserState& state, const ValueSet& set) {
    uint32_t bits = 0;
    for (const uint32_t width : state.keyBits) bits += width;
    if (bits != set.bits) node.fail("the value set has another width than the transition key");
  }

  Names& names_;
  NameMap stateNames_{"parser state"};
};

std::string namesOf(const std::vector<Node>& nodes) {
  std::string all;
  for (const Node& node : nodes) all += (all.empty() ? "" : ", ") + quoted(node["name"].textOr(""));
  return all.empty() ? "none" : all;
}

}  // namespace

void readValueSets(const Node& section, Names& names) {
  for (const Node& node : section.elements()) {
    names.valueSets.add(node, node["name"].name(),
                        static_cast<uint32_t>(names.program.valueSets.size()));
    const uint32_t bits = node["compressed_bitwidth"].integer();
    if (bits == 0 || bits > maxNumberBits) node.fail("a value set of that width is not executed");
    names.program.valueSets.push_back({.name = node["name"].text(), .bits = bits});
  }
}

void readParsers(const Node& section, Names& names) {
  const std::vector<Node> parsers = section.elements();
  for (const Node& node : parsers)
    if (node["name"].text() == "parser") return StateReader(names).read(node);
  section.fail("v1model's parser is named \"parser\"; this program has " + namesOf(parsers) +
               " and is for another architecture, which is not executed");
}

void readDeparsers(const Node& section, Names& names) {
  const std::vector<Node> deparsers = section.elements();
  for (const Node& node : deparsers) {
    if (node["name"].text() != "deparser") continue;
    for (const Node& header : node["order"].elements())
      names.program.deparserOrder.push_back(names.headers.find(header));
    for (const Node& call : node["primitives"].elements())
      names.program.deparserCalls.push_back(readPrimitive(call, 0, names));
    return;
  }
  section.fail("v1model's deparser is named \"deparser\"; this program has " + namesOf(deparsers) +
               " and is for another architecture, which is not executed");
}

}  // namespace P4
