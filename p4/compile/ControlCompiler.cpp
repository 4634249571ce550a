#include "p4/compile/ControlCompiler.h"

#include <algorithm>

#include "p4/program/ProgramError.h"

namespace P4 {
namespace {

constexpr size_t maxNextNodes = 1u << 24;  // of all tables together

std::vector<uint64_t> maskWords(const std::string& mask, uint32_t words) {
  if (mask.empty()) return {};
  std::vector<uint64_t> found(words);
  const Number number = numberOfBytes(mask);
  for (uint32_t i = 0; i < words; ++i) found[i] = wordOf(number, i);
  return found;
}

}  // namespace

CodeBuffer::Label ControlCompiler::labelOf(NodeRef node) {
  const auto [found, isNew] = labels_.try_emplace({static_cast<int>(node.kind), node.index}, 0);
  if (isNew) {
    found->second = code_.newLabel();
    waiting_.push_back(node);
  }
  return found->second;
}

uint32_t ControlCompiler::compile(NodeRef first) {
  const uint32_t begin = code_.here();
  const bool isNew = !labels_.contains({static_cast<int>(first.kind), first.index});
  const CodeBuffer::Label begins = labelOf(first);
  if (!isNew) code_.emitJump(Code::jump, begins);  // else its code follows
  while (!waiting_.empty()) {
    const NodeRef node = waiting_.back();
    waiting_.pop_back();
    compileNode(node);
  }
  return begin;
}

void ControlCompiler::compileNode(NodeRef node) {
  const uint32_t mark = code_.mark();
  code_.bind(labelOf(node));
  switch (node.kind) {
    case NodeRef::Kind::end:
      code_.emit(Code::end);
      break;
    case NodeRef::Kind::table:
      compileTable(node.index);
      break;
    case NodeRef::Kind::conditional:
      compileConditional(program_.conditionals[node.index]);
      break;
    case NodeRef::Kind::call:
      code_.emit(Code::step);
      code_.emitJump(Code::call, labelOf(program_.calls[node.index].next), 0,
                     program_.calls[node.index].action);
      break;
  }
  code_.releaseTo(mark);
}

void ControlCompiler::compileConditional(const Conditional& conditional) {
  const CodeBuffer::Label onFalse = labelOf(conditional.onFalse);
  const bool isNew =
      !labels_.contains({static_cast<int>(conditional.onTrue.kind), conditional.onTrue.index});
  const CodeBuffer::Label onTrue = labelOf(conditional.onTrue);
  // A way back may lead round for ever.
  if (code_.bound(onFalse) || code_.bound(onTrue)) code_.emit(Code::step);
  if (!conditional.condition) return code_.emitJump(Code::jump, onFalse);
  expressions_.branch(*conditional.condition, false, onFalse);
  if (!isNew) code_.emitJump(Code::jump, onTrue);  // else its code follows
}

std::vector<KeySource> ControlCompiler::keyOf(const Table& table, const KeyShape& shape) const {
  std::vector<KeySource> sources;
  for (size_t i = 0; i < table.key.size(); ++i) {
    const KeyElement& element = table.key[i];
    const HeaderPlace& header = image_.headers[element.field.header];
    KeySource source{.place = layout_.place(element.field.header, element.field.field),
                     .word = shape.elements[i].word,
                     .words = shape.elements[i].words,
                     .mask = maskWords(element.mask, shape.elements[i].words)};
    if (!source.mask.empty()) source.firstMask = source.mask.front();
    if (element.kind == MatchKind::valid)
      source.place = {.kind = FieldPlace::Kind::slot, .bits = 1, .at = header.valid};
    else if (element.field.field != validBit && !header.metadata)
      source.valid = header.valid;
    if (shape.kind == MatchKind::lpm && element.kind == MatchKind::lpm) {
      source.highFirst = true;
      source.shiftLeft = source.words * 64 - element.bits;
    }
    sources.push_back(std::move(source));
  }
  return sources;
}

void ControlCompiler::compileTable(uint32_t position) {
  const Table& table = program_.tables[position];
  TableCode& code = image_.tables[position];
  code.key = keyOf(table, image_.shapes[position]);
  code.keyWords = image_.shapes[position].words;
  code.profile = table.profile;
  code.counters = table.counters;
  code.ageing = table.ageing;
  code.meters = table.meters != absent;
  if (code.meters) {
    const MeterArrayInfo& meters = program_.meters[table.meters];
    code.meterResult = layout_.place(meters.result.header, meters.result.field);
    code.meterBytes = meters.bytes;
  }
  code.notesHits = code.counters || code.meters || code.ageing;
  code.byHit = table.nextOnHit.has_value();
  code.onHit = labelOf(table.nextOnHit.value_or(NodeRef()));
  code.onMiss = labelOf(code.byHit ? *table.nextOnMiss : table.nextByDefault);
  if (!table.actions.empty()) {
    const auto [least, most] = std::minmax_element(table.actions.begin(), table.actions.end());
    code.firstAction = *least;
    code.onAction.assign(*most - *least + 1, labelOf(NodeRef()));
    for (const auto& [action, next] : table.nextByAction)
      code.onAction[action - code.firstAction] = labelOf(next);
  }
  code_.emit(Code::table, 0, position);
  compiledTables_.resize(program_.tables.size());
  compiledTables_[position] = true;
}

void ControlCompiler::finish() {
  size_t total = 0;
  for (size_t i = 0; i < compiledTables_.size(); ++i) {
    if (!compiledTables_[i]) continue;
    TableCode& code = image_.tables[i];
    code.onHit = code_.placeOf(code.onHit);
    code.onMiss = code_.placeOf(code.onMiss);
    for (uint32_t& next : code.onAction) next = code_.placeOf(next);
    if ((total += code.onAction.size()) > maxNextNodes)
      throw ProgramError("pipelines", "the tables have too many actions");
  }
}

}  // namespace P4
