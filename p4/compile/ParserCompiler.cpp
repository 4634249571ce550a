#include "p4/compile/ParserCompiler.h"

#include <cstring>

namespace P4 {
namespace {

uint32_t bytesOfBits(uint32_t bits) { return (bits + 7) / 8; }

// A padded key's bytes as words, an element (bits + 63) / 64 of them, low word first.
std::vector<uint64_t> wordsOfKey(const std::string& bytes, const std::vector<uint32_t>& bits) {
  std::vector<uint64_t> words;
  size_t at = 0;
  for (const uint32_t width : bits) {
    const Number element = numberOfBytes(std::string_view(bytes).substr(at, bytesOfBits(width)));
    for (uint32_t word = 0; word < (width + 63) / 64; ++word)
      words.push_back(wordOf(element, word));
    at += bytesOfBits(width);
  }
  return words;
}

std::string maskOf(const Transition& transition, size_t bytes) {
  return transition.mask.empty() ? std::string(bytes, '\xff') : transition.mask;
}

}  // namespace

CodeBuffer::Label ParserCompiler::labelOf(uint32_t state) {
  return state == absent ? end_ : states_[state];
}

void ParserCompiler::compile() {
  end_ = code_.newLabel();
  states_.resize(program_.states.size());
  for (CodeBuffer::Label& label : states_) label = code_.newLabel();
  image_.parser = code_.here();
  code_.emitJump(Code::jump, labelOf(program_.initialState));
  for (uint32_t i = 0; i < states_.size(); ++i) compileState(i);
  code_.bind(end_);
  code_.emit(Code::end);
}

void ParserCompiler::finish() {
  const auto place = [this](uint32_t& label) { label = code_.placeOf(label); };
  for (Selector& selector : image_.selectors) {
    place(selector.otherwise);
    for (Selector::Case& one : selector.cases) place(one.target);
  }
  for (WideSelector& selector : image_.wideSelectors) {
    place(selector.otherwise);
    for (uint32_t& target : selector.targets) place(target);
  }
}

void ParserCompiler::compileState(uint32_t position) {
  const ParserState& state = program_.states[position];
  const uint32_t mark = code_.mark();
  code_.bind(states_[position]);
  code_.emit(Code::state, 0, position);
  for (const ParserOp& op : state.ops) {
    compileOp(op);
    code_.releaseTo(mark);
  }
  transition(state);
  code_.releaseTo(mark);
}

void ParserCompiler::compileOp(const ParserOp& op) {
  switch (op.kind) {
    case ParserOp::Kind::extract:
      return code_.emit(Code::extract, 0, op.object);
    case ParserOp::Kind::extractStack:
      return code_.emit(Code::extractStack, 0, op.object);
    case ParserOp::Kind::extractUnionStack:
      return code_.emit(Code::extractUnionStack, 0, op.object, op.member);
    case ParserOp::Kind::extractVarbit:
      return extractVarbit(op);
    case ParserOp::Kind::set:
      return expressions_.assign(op.operands[0], op.operands[1]);
    case ParserOp::Kind::verify:
      return verify(op);
    case ParserOp::Kind::advance:
      return code_.emit(Code::advance, 0, expressions_.word(op.operands[0], 32));
    case ParserOp::Kind::call:
      return primitives_.compile(op.call);
  }
}

void ParserCompiler::extractVarbit(const ParserOp& op) {
  uint16_t bits = 0;
  if (!op.operands.empty()) {
    bits = expressions_.word(op.operands[0], 32);
  } else {
    uint32_t header = op.object;
    if (op.target == ParserOp::Kind::extractStack) header = image_.stacks[op.object].elements[0];
    if (op.target == ParserOp::Kind::extractUnionStack)
      header = image_.unions[image_.unionStacks[op.object].elements[0]][op.member];
    expressions_.headerAheadIs(&program_.typeOf(header));
    bits = expressions_.word(*program_.typeOf(header).varbitBits, 32);
    expressions_.headerAheadIs(nullptr);
  }
  code_.emit(Code::extractVarbit, bits, op.object,
             static_cast<uint64_t>(op.target) | uint64_t{op.member} << 8);
}

void ParserCompiler::verify(const ParserOp& op) {
  const CodeBuffer::Label fine = code_.newLabel();
  expressions_.branch(op.operands[0], true, fine);
  code_.emit(Code::raise, 0, expressions_.word(op.operands[1], 32));
  code_.bind(fine);
}

void ParserCompiler::transition(const ParserState& state) {
  if (state.transitions.empty()) return code_.emitJump(Code::jump, labelOf(state.otherwise));
  uint32_t bytes = 0;
  for (const uint32_t bits : state.keyBits) bytes += bytesOfBits(bits);
  bool sets = false;
  for (const Transition& one : state.transitions) sets |= one.kind == Transition::Kind::valueSet;
  if (sets || bytes > 8) return selectWide(state);
  selectNarrow(state);
}

// The whole key in one word.
void ParserCompiler::selectNarrow(const ParserState& state) {
  uint16_t key = 0;
  for (size_t i = 0; i < state.key.size(); ++i) {
    const uint16_t element = expressions_.word(state.key[i], state.keyBits[i]);
    if (i == 0) {
      key = element;
      continue;
    }
    const uint16_t shifted = code_.temporary();
    code_.emit(Code::shiftLeftI, shifted, key, 8 * bytesOfBits(state.keyBits[i]));
    key = code_.temporary();
    code_.emit(Code::bitOr, key, shifted, element);
  }
  Selector selector{.otherwise = labelOf(state.otherwise)};
  for (const Transition& one : state.transitions) {
    const uint64_t mask = lowWord(numberOfBytes(maskOf(one, one.value.size())));
    selector.cases.push_back({lowWord(numberOfBytes(one.value)) & mask, mask, labelOf(one.next)});
  }
  image_.selectors.push_back(std::move(selector));
  code_.emit(Code::selectState, key, static_cast<uint32_t>(image_.selectors.size() - 1));
}

// Each element in words of its own; value sets stand between runs of values, in file order.
void ParserCompiler::selectWide(const ParserState& state) {
  uint32_t words = 0;
  for (const uint32_t bits : state.keyBits) words += (bits + 63) / 64;
  const uint16_t key = code_.temporary(words);
  uint32_t at = key;
  uint32_t bytes = 0;
  for (size_t i = 0; i < state.key.size(); ++i) {
    const uint32_t bits = state.keyBits[i];
    const FieldPlace place{.kind = bits <= 64 ? FieldPlace::Kind::slot : FieldPlace::Kind::slots,
                           .bits = static_cast<uint16_t>(bits),
                           .at = at};
    expressions_.store(place, state.key[i]);
    at += (bits + 63) / 64;
    bytes += bytesOfBits(bits);
  }
  WideSelector run{.words = words};
  const auto endRun = [&](CodeBuffer::Label otherwise) {
    run.otherwise = otherwise;
    image_.wideSelectors.push_back(std::move(run));
    run = {.words = words};
    code_.emit(Code::selectWide, key, static_cast<uint32_t>(image_.wideSelectors.size() - 1));
  };
  for (const Transition& one : state.transitions) {
    std::vector<uint64_t> mask = wordsOfKey(maskOf(one, bytes), state.keyBits);
    if (one.kind == Transition::Kind::valueSet) {
      const CodeBuffer::Label on = code_.newLabel();
      if (!run.targets.empty()) endRun(on);
      code_.bind(on);
      image_.masks.push_back(std::move(mask));
      image_.valueSetUses.push_back({one.valueSet, state.keyBits, words});
      code_.emitJump(Code::inValueSet, labelOf(one.next), key, image_.masks.size() - 1);
      continue;
    }
    const std::vector<uint64_t> value = wordsOfKey(one.value, state.keyBits);
    for (uint32_t i = 0; i < words; ++i) {
      run.values.push_back(value[i] & mask[i]);
      run.masks.push_back(mask[i]);
    }
    run.targets.push_back(labelOf(one.next));
  }
  endRun(labelOf(state.otherwise));
}

}  // namespace P4
