#include "p4/match/KeyShape.h"

namespace P4 {

KeyShape keyShapeOf(const Table& table) {
  KeyShape shape{.kind = table.kind};
  const bool prefixLast = table.kind == MatchKind::lpm;
  KeyShape::Element* prefix = nullptr;
  shape.elements.reserve(table.key.size());
  for (const KeyElement& element : table.key) {
    shape.elements.push_back({element.kind, element.bits, shape.words, (element.bits + 63) / 64});
    if (prefixLast && element.kind == MatchKind::lpm)
      prefix = &shape.elements.back();
    else
      shape.words += shape.elements.back().words;
  }
  if (!prefix) return shape;
  shape.exactWords = prefix->word = shape.words;
  shape.prefixBits = prefix->bits;
  shape.words += prefix->words;
  return shape;
}

}  // namespace P4
