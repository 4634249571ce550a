#include "p4/execute/Wide.h"

#include <gmp.h>

#include <algorithm>
#include <cstring>

namespace P4 {
namespace {

static_assert(sizeof(mp_limb_t) == sizeof(uint64_t), "a limb is a word");

constexpr uint32_t maxWords = maxNumberBits / 64 + 4;

mp_limb_t* limbs(uint64_t* words) { return reinterpret_cast<mp_limb_t*>(words); }
const mp_limb_t* limbs(const uint64_t* words) { return reinterpret_cast<const mp_limb_t*>(words); }

bool negative(const uint64_t* words, uint32_t count) { return words[count - 1] >> 63; }

void extend(uint64_t* to, const uint64_t* from, uint32_t have, uint32_t want, bool sign) {
  const uint64_t fill = sign && negative(from, have) ? ~uint64_t{0} : 0;
  std::memmove(to, from, std::min(have, want) * sizeof(uint64_t));
  for (uint32_t i = have; i < want; ++i) to[i] = fill;
}

void shiftLeft(uint64_t* to, const uint64_t* from, uint32_t count, uint64_t places) {
  const uint64_t words = places / 64;
  if (words >= count) {
    std::memset(to, 0, count * sizeof(uint64_t));
    return;
  }
  const auto rest = static_cast<unsigned>(places % 64);
  const auto kept = static_cast<mp_size_t>(count - words);
  if (rest)
    mpn_lshift(limbs(to + words), limbs(from), kept, rest);
  else
    std::memmove(to + words, from, static_cast<size_t>(kept) * sizeof(uint64_t));
  std::memset(to, 0, words * sizeof(uint64_t));
}

void shiftRight(uint64_t* to, const uint64_t* from, uint32_t count, uint64_t places) {
  const uint64_t fill = negative(from, count) ? ~uint64_t{0} : 0;
  const uint64_t words = std::min<uint64_t>(places / 64, count);
  const auto rest = static_cast<unsigned>(places % 64);
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t low = i + words < count ? from[i + words] : fill;
    const uint64_t high = i + words + 1 < count ? from[i + words + 1] : fill;
    to[i] = rest ? low >> rest | high << (64 - rest) : low;
  }
}

bool less(const uint64_t* one, const uint64_t* other, uint32_t count) {
  if (negative(one, count) != negative(other, count)) return negative(one, count);
  return mpn_cmp(limbs(one), limbs(other), count) < 0;
}

// Zero for a divisor of zero and for negative operands.
void divide(uint64_t* to, const uint64_t* one, const uint64_t* other, uint32_t count,
            bool quotient) {
  uint32_t divisorWords = count;
  while (divisorWords && other[divisorWords - 1] == 0) --divisorWords;
  uint64_t quotientWords[maxWords] = {};
  uint64_t rest[maxWords] = {};
  if (divisorWords && !negative(one, count) && !negative(other, count))
    mpn_tdiv_qr(limbs(quotientWords), limbs(rest), 0, limbs(one), count, limbs(other),
                divisorWords);
  std::memcpy(to, quotient ? quotientWords : rest, count * sizeof(uint64_t));
}

void multiply(uint64_t* to, const uint64_t* one, const uint64_t* other, uint32_t count) {
  uint64_t product[2 * maxWords];
  mpn_mul_n(limbs(product), limbs(one), limbs(other), count);
  std::memcpy(to, product, count * sizeof(uint64_t));  // two's complement: low words are right
}

void signExtend(uint64_t* to, const uint64_t* from, uint32_t count, uint32_t bits) {
  std::memmove(to, from, count * sizeof(uint64_t));
  const uint32_t word = (bits - 1) / 64;
  if (word >= count) return;
  const uint32_t rest = 64 - ((bits - 1) % 64 + 1);
  to[word] = static_cast<uint64_t>(static_cast<int64_t>(to[word] << rest) >> rest);
  for (uint32_t i = word + 1; i < count; ++i) to[i] = negative(to, word + 1) ? ~uint64_t{0} : 0;
}

}  // namespace

void executeWide(const Instruction& instruction, const Image& image, uint64_t* state) {
  uint64_t* to = state + instruction.a;
  const auto count = static_cast<uint32_t>(instruction.c & 0xffff);
  const auto more = static_cast<uint32_t>(instruction.c >> 16);
  // Those of wideLoad and its like are no slots, and are not followed.
  const uint64_t* one = state + (instruction.b & 0xffff);
  const uint64_t* other = state + (instruction.b >> 16);
  switch (instruction.code) {
    case Code::wideLoad:
      return loadWords(image.places[instruction.b], state, to);
    case Code::wideStore:
      return storeWords(image.places[instruction.b], state, to);
    case Code::wideConstant:
      std::memcpy(to, image.constants[instruction.b].data(), count * sizeof(uint64_t));
      return;
    case Code::wideExtend:
      return extend(to, one, instruction.b >> 16, count, more & 1);
    case Code::wideAdd:
      mpn_add_n(limbs(to), limbs(one), limbs(other), count);
      return;
    case Code::wideSubtract:
      mpn_sub_n(limbs(to), limbs(one), limbs(other), count);
      return;
    case Code::wideMultiply:
      return multiply(to, one, other, count);
    case Code::wideAnd:
      mpn_and_n(limbs(to), limbs(one), limbs(other), count);
      return;
    case Code::wideOr:
      mpn_ior_n(limbs(to), limbs(one), limbs(other), count);
      return;
    case Code::wideXor:
      mpn_xor_n(limbs(to), limbs(one), limbs(other), count);
      return;
    case Code::wideNot:
      mpn_com(limbs(to), limbs(one), count);
      return;
    case Code::wideDivide:
      return divide(to, one, other, count, true);
    case Code::wideModulo:
      return divide(to, one, other, count, false);
    case Code::wideShiftLeft:
      return shiftLeft(to, one, count, *other);
    case Code::wideShiftRight:
      return shiftRight(to, one, count, *other);
    case Code::wideShiftLeftI:
      return shiftLeft(to, one, count, more);
    case Code::wideShiftRightI:
      return shiftRight(to, one, count, more);
    case Code::wideEqual:
      *to = mpn_cmp(limbs(one), limbs(other), count) == 0;
      return;
    case Code::wideLess:
      *to = less(one, other, count);
      return;
    case Code::wideSelect:
      std::memcpy(to, state[more] ? one : other, count * sizeof(uint64_t));
      return;
    case Code::wideSignExtend:
      return signExtend(to, one, count, more);
    default:
      return;
  }
}

}  // namespace P4
