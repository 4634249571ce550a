// Which numbers an expression can give.
#pragma once

#include <absl/container/flat_hash_map.h>

#include "p4/program/Program.h"

namespace P4 {

struct Range {
  Number low;
  Number high;

  static Range unsignedOf(uint32_t bits) { return {0, lowMask(bits)}; }
  static Range signedOf(uint32_t bits) { return {-powerOfTwo(bits - 1), lowMask(bits - 1)}; }
  bool within(const Range& other) const { return low >= other.low && high <= other.high; }
  bool fitsUnsignedWord() const { return low >= 0 && bitLength(high) <= 64; }
  bool fitsSignedWord() const { return within(signedOf(64)); }
  // Words of two's complement, or one word where an unsigned or a signed one will do.
  uint32_t words() const;
};

// Ranges of a program's expressions, each found once. Numbers that would need more than
// maxNumberBits bits count as if they had no more.
class Ranges {
 public:
  explicit Ranges(const Program& program) : program_(program) {}
  // `action` binds arguments; null where there are none.
  const Range& of(const Expression& expression, const Action* action);

 private:
  Range found(const Expression& expression, const Action* action);
  Range ofField(uint32_t type, uint32_t field) const;
  Range ofOperator(const Expression& expression, const Range& left, const Range& right);

  const Program& program_;
  absl::flat_hash_map<const Expression*, Range> known_;
};

}  // namespace P4
