#include "p4/compile/PrimitiveCompiler.h"

#include "p4/program/ExpressionReader.h"

namespace P4 {
namespace {

Value numberOf(uint64_t number) {
  Number value;
  mpz_set_ui(value.get_mpz_t(), number);
  return {.range = {value, value}};
}

Value wordAt(uint16_t slot, uint32_t bits) {
  return {.slot = slot, .range = Range::unsignedOf(bits)};
}

}  // namespace

void PrimitiveCompiler::compile(const std::vector<PrimitiveCall>& calls) {
  std::vector<CodeBuffer::Label> labels(calls.size() + 1);
  for (CodeBuffer::Label& label : labels) label = code_.newLabel();
  bool jumps = false;
  for (const PrimitiveCall& call : calls)
    jumps |= call.primitive == Primitive::jump || call.primitive == Primitive::jumpIfZero;
  for (size_t i = 0; i < calls.size(); ++i) {
    const uint32_t mark = code_.mark();
    if (jumps) code_.bind(labels[i]);
    compileJump(calls[i], i, labels);
    code_.releaseTo(mark);
  }
  code_.bind(labels.back());
}

void PrimitiveCompiler::compileJump(const PrimitiveCall& call, size_t position,
                                    const std::vector<CodeBuffer::Label>& labels) {
  if (call.primitive != Primitive::jump && call.primitive != Primitive::jumpIfZero)
    return compile(call);
  const Number& wanted = call.operands.back().number;
  const Number last = static_cast<unsigned long>(labels.size() - 1);
  const size_t target = wanted < 0 || wanted > last ? labels.size() - 1 : lowWord(wanted);
  if (target <= position) code_.emit(Code::step);
  if (call.primitive == Primitive::jump) return code_.emitJump(Code::jump, labels[target]);
  const Value condition = expressions_.value(call.operands[0]);
  code_.emitJump(Code::jumpIfZero, labels[target], expressions_.truthOf(condition));
}

void PrimitiveCompiler::compile(const PrimitiveCall& call) {
  const auto& operands = call.operands;
  const auto word = [&](size_t i, uint32_t bits) { return expressions_.word(operands[i], bits); };
  switch (call.primitive) {
    case Primitive::assign:
      return expressions_.assign(operands[0], operands[1]);
    case Primitive::addTo:
    case Primitive::subtractFrom:
    case Primitive::binary:
      return arithmetic(call);
    case Primitive::assignVarbit:
      return copyVarbit(call);
    case Primitive::assignStack:
    case Primitive::assignUnionStack:
      return copyStack(call);
    case Primitive::assignHeader:
    case Primitive::assignUnion:
      return copyHeaders(operands[0], operands[1]);
    case Primitive::push:
    case Primitive::pop:
      return pushOrPop(call);
    case Primitive::addHeader:
    case Primitive::removeHeader:
    case Primitive::addHeaderFast:
      return headerCall(call);
    case Primitive::markToDrop:
      return markToDrop(operands[0]);
    case Primitive::drop:
      return drop();
    case Primitive::hash:
      return hash(call);
    case Primitive::random:
      return random(call);
    case Primitive::executeMeter:
      return executeMeter(call);
    case Primitive::registerRead:
      return registerRead(call);
    case Primitive::registerWrite:
      return registerWrite(call);
    case Primitive::logMessage:
      return log(call);
    case Primitive::count:
      return code_.emit(Code::count, 0, word(0, 32), call.object);
    case Primitive::exit:
      return code_.emit(Code::exit);
    case Primitive::assertTrue:
      return code_.emit(Code::assertTrue, 0, expressions_.truthOf(expressions_.value(operands[0])));
    case Primitive::digest:
      return code_.emit(Code::requestDigest, 0, word(1, 16));
    case Primitive::clone: {
      const uint16_t session = word(0, 15);
      return code_.emit(Code::requestClone, 0, session, word(1, 16));
    }
    case Primitive::resubmit:
      return code_.emit(Code::requestResubmit, 0, word(0, 16));
    case Primitive::recirculate:
      return code_.emit(Code::requestRecirculate, 0, word(0, 16));
    case Primitive::truncate:
      return code_.emit(Code::truncate, 0, word(0, 32));
    case Primitive::noOp:
    case Primitive::jump:
    case Primitive::jumpIfZero:
      return;
  }
}

void PrimitiveCompiler::arithmetic(const PrimitiveCall& call) {
  Expression result;
  result.op = call.op;
  if (call.primitive == Primitive::addTo) result.op = Op::add;
  if (call.primitive == Primitive::subtractFrom) result.op = Op::subtract;
  const bool inPlace = call.primitive != Primitive::binary;
  result.operands.push_back(call.operands[inPlace ? 0 : 1]);
  result.operands.push_back(call.operands[inPlace ? 1 : 2]);
  made_.push_back(std::move(result));
  expressions_.assign(call.operands[0], made_.back());
}

void PrimitiveCompiler::headerCall(const PrimitiveCall& call) {
  expressions_.forEach(expressions_.headers(call.operands[0]), [&](uint32_t header) {
    if (image_.headers[header].metadata) return;
    if (call.primitive == Primitive::removeHeader) return code_.emit(Code::removeHeader, 0, header);
    code_.emit(Code::addHeader, call.primitive == Primitive::addHeaderFast ? 1 : 0, header);
  });
}

void PrimitiveCompiler::copyHeader(uint32_t to, uint32_t from) {
  if (!image_.headers[to].metadata && !image_.headers[from].metadata)
    return code_.emit(Code::copyHeader, 0, to, from);
  // Metadata is always valid.
  const CodeBuffer::Label over = code_.newLabel();
  const CodeBuffer::Label end = code_.newLabel();
  if (!image_.headers[from].metadata)
    code_.emitJump(Code::jumpIfZero, over, image_.headers[from].valid);
  if (!image_.headers[to].metadata) code_.emit(Code::addHeader, 1, to);
  const auto fields = static_cast<uint32_t>(program_.typeOf(to).fields.size());
  for (uint32_t field = 0; field < fields; ++field)
    expressions_.store(layout_.place(to, field), expressions_.load(layout_.place(from, field)));
  code_.emitJump(Code::jump, end);
  code_.bind(over);
  if (!image_.headers[to].metadata) code_.emit(Code::removeHeader, 1, to);
  code_.bind(end);
}

void PrimitiveCompiler::copyUnion(uint32_t to, uint32_t from) {
  for (size_t member = 0; member < image_.unions[to].size(); ++member)
    copyHeader(image_.unions[to][member], image_.unions[from][member]);
}

void PrimitiveCompiler::copyHeaders(const Expression& to, const Expression& from) {
  const bool ofHeaders = to.type == Type::header;
  const auto sources = ofHeaders ? expressions_.headers(from) : expressions_.unions(from);
  const auto targets = ofHeaders ? expressions_.headers(to) : expressions_.unions(to);
  expressions_.forEach(sources, [&](uint32_t source) {
    expressions_.forEach(targets, [&](uint32_t target) {
      if (ofHeaders)
        copyHeader(target, source);
      else
        copyUnion(target, source);
    });
  });
}

void PrimitiveCompiler::copyStack(const PrimitiveCall& call) {
  const bool ofUnions = call.primitive == Primitive::assignUnionStack;
  const auto& stacks = ofUnions ? image_.unionStacks : image_.stacks;
  const uint32_t to = call.operands[0].index;
  const uint32_t from = call.operands[1].index;
  code_.emit(Code::move, stacks[to].next, stacks[from].next);
  for (size_t i = 0; i < stacks[to].elements.size(); ++i) {
    if (ofUnions)
      copyUnion(stacks[to].elements[i], stacks[from].elements[i]);
    else
      copyHeader(stacks[to].elements[i], stacks[from].elements[i]);
  }
}

void PrimitiveCompiler::pushOrPop(const PrimitiveCall& call) {
  const bool ofUnions = call.operands[0].type == Type::unionStack;
  const uint16_t count = expressions_.word(call.operands[1], 32);
  code_.emit(call.primitive == Primitive::push ? Code::push : Code::pop, count,
             call.operands[0].index, ofUnions ? 1 : 0);
}

void PrimitiveCompiler::copyVarbit(const PrimitiveCall& call) {
  const uint32_t to = call.operands[0].index;
  const uint32_t from = call.operands[1].index;
  code_.emit(Code::move, image_.headers[to].varbit, image_.headers[from].varbit);
}

void PrimitiveCompiler::setField(const FieldPlace& place, uint64_t value) {
  expressions_.store(place, numberOf(value));
}

void PrimitiveCompiler::markToDrop(const Expression& expression) {
  expressions_.forEach(expressions_.headers(expression), [&](uint32_t header) {
    const std::vector<Field>& fields = program_.typeOf(header).fields;
    for (uint32_t field = 0; field < fields.size(); ++field) {
      if (fields[field].name == "egress_spec")
        setField(layout_.place(header, field), image_.dropPort);
      if (fields[field].name == "mcast_grp") setField(layout_.place(header, field), 0);
    }
  });
}

void PrimitiveCompiler::drop() {
  setField(image_.system.egressSpec, image_.dropPort);
  setField(image_.system.multicastGroup, 0);
}

void PrimitiveCompiler::hash(const PrimitiveCall& call) {
  const uint16_t base = expressions_.word(call.operands[1], 64);
  const uint16_t modulus = expressions_.word(call.operands[2], 64);
  const uint16_t result = code_.temporary();
  code_.emit(Code::hash, result, base, call.object | uint64_t{modulus} << 32);
  expressions_.assign(call.operands[0], wordAt(result, 64));
}

void PrimitiveCompiler::random(const PrimitiveCall& call) {
  const uint16_t low = expressions_.word(call.operands[1], 64);
  const uint16_t high = expressions_.word(call.operands[2], 64);
  const CodeBuffer::Label over = code_.newLabel();
  code_.emitJump(Code::jumpIfLess, over, high, low);
  const uint16_t result = code_.temporary();
  code_.emit(Code::random, result, low, high);
  expressions_.assign(call.operands[0], wordAt(result, 64));
  code_.bind(over);
}

void PrimitiveCompiler::executeMeter(const PrimitiveCall& call) {
  const uint16_t index = expressions_.word(call.operands[0], 32);
  const CodeBuffer::Label over = code_.newLabel();
  code_.emitJump(Code::jumpIfGreaterEqualI, over, index, program_.meters[call.object].size);
  const uint16_t colour = code_.temporary();
  code_.emit(Code::meter, colour, index, call.object);
  expressions_.assign(call.operands[1], wordAt(colour, 2));
  code_.bind(over);
}

void PrimitiveCompiler::registerRead(const PrimitiveCall& call) {
  const RegisterArrayInfo& cells = program_.registers[call.object];
  const uint16_t index = expressions_.word(call.operands[1], 32);
  const CodeBuffer::Label over = code_.newLabel();
  code_.emitJump(Code::jumpIfGreaterEqualI, over, index, cells.size);
  const Range range = Range::unsignedOf(cells.bits);
  const Value read{.slot = code_.temporary(range.words()), .words = range.words(), .range = range};
  code_.emit(Code::registerLoad, read.slot, index, call.object | uint64_t{read.words} << 32);
  expressions_.assign(call.operands[0], read);
  code_.bind(over);
}

void PrimitiveCompiler::registerWrite(const PrimitiveCall& call) {
  made_.emplace_back();
  Expression& cell = made_.back();
  cell.op = Op::registerCell;
  cell.index = call.object;
  cell.operands.push_back(call.operands[0]);
  expressions_.assign(cell, call.operands[1]);
}

void PrimitiveCompiler::log(const PrimitiveCall& call) {
  LogCall message{.text = call.text};
  for (const Expression& operand : call.operands) {
    const Value value = expressions_.value(operand);
    message.values.push_back({expressions_.extended(value, value.words),
                              static_cast<uint16_t>(value.words),
                              value.isSigned() || value.words > 1});
  }
  image_.logs.push_back(std::move(message));
  code_.emit(Code::log, 0, static_cast<uint32_t>(image_.logs.size() - 1));
}

}  // namespace P4
