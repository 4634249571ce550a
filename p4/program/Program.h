// A compiled program as read: every name is resolved, every part is known to be executable.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "p4/program/Expression.h"

namespace P4 {

inline constexpr uint32_t maxKeyWords = 255;    // 64-bit words of a match key, each field its own
inline constexpr uint32_t absent = 0xffffffff;  // instead of a position

struct Field {
  std::string name;
  uint32_t bits = 0;       // 0 for varbit
  uint32_t bitOffset = 0;  // from the header's begin, the varbit field counted as empty
  bool isSigned = false;
  bool saturating = false;
  bool varbit = false;
};

struct HeaderType {
  std::string name;
  std::vector<Field> fields;
  uint32_t bits = 0;              // without the varbit field
  uint32_t varbitField = absent;  // at most one
  uint32_t maxBytes = 0;          // 0: no limit
  std::optional<Expression> varbitBits;
};

struct Header {
  std::string name;
  uint32_t type = 0;
  bool metadata = false;
  uint32_t headerUnion = absent;  // the union of which it is a member
};

struct HeaderStack {
  std::string name;
  uint32_t type = 0;
  std::vector<uint32_t> headers;
};

struct HeaderUnion {
  std::string name;
  uint32_t type = 0;
  std::vector<uint32_t> headers;
};

struct UnionStack {
  std::string name;
  uint32_t type = 0;
  std::vector<uint32_t> unions;
};

struct FieldRef {
  uint32_t header = 0;
  uint32_t field = 0;  // or validBit
};

enum class Algorithm : uint8_t {
  crc16,
  crc32,
  crcCcitt,
  crc8,
  crc64,
  csum16,
  xor16,
  xor32,
  identity,
  roundRobin,
  roundRobinConsistent,
  toeplitz,
  xxh64,
  hashEx,
};

struct CalculationInput {
  enum class Kind : uint8_t { field, constant, header, payload };
  Kind kind = Kind::field;
  FieldRef field;     // `header` counts for a header, too
  std::string bytes;  // of a constant
  uint32_t bits = 0;  // of a constant
};

struct Calculation {
  std::string name;
  Algorithm algorithm = Algorithm::crc16;
  std::vector<CalculationInput> inputs;
};

struct CounterArrayInfo {
  std::string name;
  bool direct = false;
  uint32_t size = 0;
  bool operator==(const CounterArrayInfo&) const = default;
};

struct MeterArrayInfo {
  std::string name;
  bool direct = false;
  bool bytes = false;  // counts bytes, not packets
  uint32_t size = 0;
  FieldRef result;  // of direct meters
};

struct RegisterArrayInfo {
  std::string name;
  uint32_t size = 0;
  uint32_t bits = 0;
  bool operator==(const RegisterArrayInfo&) const = default;
};

enum class Primitive : uint8_t {
  assign,
  assignVarbit,
  assignHeader,
  assignStack,
  assignUnion,
  assignUnionStack,
  push,
  pop,
  exit,
  assertTrue,
  logMessage,
  jump,
  jumpIfZero,
  addHeader,
  removeHeader,
  addHeaderFast,
  markToDrop,
  drop,
  addTo,
  subtractFrom,
  binary,
  noOp,
  hash,
  random,
  count,
  executeMeter,
  registerRead,
  registerWrite,
  digest,
  clone,
  resubmit,
  recirculate,
  truncate,
};

struct PrimitiveCall {
  Primitive primitive = Primitive::noOp;
  Op op = Op::add;  // of `binary`
  std::vector<Expression> operands;
  uint32_t object = 0;  // position of the array, calculation or the like that it works on
  std::string text;
};

struct Parameter {
  std::string name;
  uint32_t bits = 0;
};

struct Action {
  std::string name;
  uint32_t id = 0;
  std::vector<Parameter> parameters;
  std::vector<PrimitiveCall> calls;
};

struct ParserOp {
  enum class Kind : uint8_t {
    extract,
    extractStack,
    extractUnionStack,
    extractVarbit,
    set,
    verify,
    advance,
    call
  };
  Kind kind = Kind::extract;
  Kind target = Kind::extract;  // of extractVarbit: where to
  uint32_t object = 0;          // header, stack or union stack
  uint32_t member = 0;          // of a union
  std::vector<Expression> operands;
  PrimitiveCall call;
};

struct Transition {
  enum class Kind : uint8_t { value, valueSet };
  Kind kind = Kind::value;
  std::string value;  // as long as the key
  std::string mask;   // empty: all ones
  uint32_t valueSet = 0;
  uint32_t next = absent;  // state; absent: the parser ends
};

struct ParserState {
  std::string name;
  std::vector<ParserOp> ops;
  std::vector<Expression> key;
  std::vector<uint32_t> keyBits;
  std::vector<Transition> transitions;
  uint32_t otherwise = absent;
};

struct ValueSet {
  std::string name;
  uint32_t bits = 0;  // of a member, packed
};

enum class MatchKind : uint8_t { exact, lpm, ternary, range, valid };

struct KeyElement {
  std::string name;
  MatchKind kind = MatchKind::exact;
  FieldRef field;  // of `valid`: the header
  uint32_t bits = 0;
  std::string mask;  // empty: none
};

// A control node: a table, a conditional or a call; or the end of the pipeline.
struct NodeRef {
  enum class Kind : uint8_t { end, table, conditional, call };
  Kind kind = Kind::end;
  uint32_t index = 0;
};

// One element of a match key, values of the element's bytes.
struct MatchElement {
  std::string value;  // of `valid`: one byte
  std::string mask;   // of ternary; the high end of a range
  uint32_t prefixLength = 0;
};

struct ActionCall {
  uint32_t action = absent;
  std::vector<Number> arguments;
};

struct ConstantEntry {
  std::vector<MatchElement> match;
  uint32_t priority = 0;  // lower wins
  ActionCall action;
};

enum class TableKind : uint8_t { simple, indirect, indirectWithGroups };

struct Table {
  std::string name;
  uint32_t id = 0;
  bool egress = false;
  MatchKind kind = MatchKind::exact;
  TableKind type = TableKind::simple;
  uint32_t maxSize = 0;
  bool counters = false;
  bool ageing = false;
  uint32_t meters = absent;  // position of the direct meter array
  uint32_t profile = absent;
  std::vector<KeyElement> key;
  std::vector<uint32_t> actions;
  std::map<uint32_t, NodeRef> nextByAction;  // by position of the action
  std::optional<NodeRef> nextOnHit;
  std::optional<NodeRef> nextOnMiss;
  NodeRef nextByDefault;
  std::optional<ActionCall> defaultAction;
  bool defaultActionConstant = false;
  bool defaultArgumentsConstant = false;
  bool immutable = false;  // the program's own entries are all
  std::vector<ConstantEntry> entries;
};

struct ActionProfile {
  std::string name;
  bool withSelector = false;
  Calculation selector;
};

struct Conditional {
  std::string name;
  std::optional<Expression> condition;  // nothing: false
  NodeRef onTrue;
  NodeRef onFalse;
};

struct CallNode {
  uint32_t action = 0;
  NodeRef next;
};

struct Checksum {
  std::string name;
  FieldRef target;
  Calculation calculation;
  bool verify = true;
  bool update = true;
  std::optional<Expression> condition;
};

struct FieldList {
  uint32_t id = 0;
  std::string name;
  std::vector<FieldRef> fields;
};

struct Program {
  std::string name;
  std::vector<HeaderType> headerTypes;
  std::vector<Header> headers;
  std::vector<HeaderStack> stacks;
  std::vector<HeaderUnion> unions;
  std::vector<UnionStack> unionStacks;
  std::map<std::string, FieldRef, std::less<>> aliases;
  std::vector<ValueSet> valueSets;
  std::map<std::string, uint32_t, std::less<>> errors;
  std::vector<ParserState> states;
  uint32_t initialState = absent;
  std::vector<uint32_t> deparserOrder;
  std::vector<PrimitiveCall> deparserCalls;
  std::vector<Calculation> calculations;
  std::vector<CounterArrayInfo> counters;
  std::vector<MeterArrayInfo> meters;
  std::vector<RegisterArrayInfo> registers;
  std::vector<Action> actions;
  std::vector<Table> tables;
  std::vector<ActionProfile> profiles;
  std::vector<Conditional> conditionals;
  std::vector<CallNode> calls;
  NodeRef ingress;
  NodeRef egress;
  std::vector<Checksum> checksums;
  std::vector<FieldList> learnLists;
  std::vector<FieldList> fieldLists;

  const HeaderType& typeOf(uint32_t header) const { return headerTypes[headers[header].type]; }
  uint32_t bitsOf(const FieldRef& ref) const {
    return ref.field == validBit ? 1 : typeOf(ref.header).fields[ref.field].bits;
  }
  // By the dotted name that the switch uses: aliases first. Nothing when the program has none.
  std::optional<FieldRef> fieldNamed(std::string_view dotted) const;
};

// Throws ProgramError: the text is no JSON, not a compiled program for v1model, or uses a feature
// that is not executed.
Program readProgram(std::string_view json);

}  // namespace P4
