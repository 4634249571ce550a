// The loop over instructions. The work of the larger ones stands in MachineParser.cpp,
// MachineTables.cpp and MachineExterns.cpp.
#include "p4/execute/Machine.h"

#include "p4/execute/HeaderMoves.h"
#include "p4/execute/Wide.h"

namespace P4 {
namespace {

uint64_t shifted(uint64_t value, uint64_t places, bool left) {
  if (places >= 64) return 0;
  return left ? value << places : value >> places;
}

uint64_t shiftedWithSign(uint64_t value, uint64_t places) {
  return static_cast<uint64_t>(static_cast<int64_t>(value) >> (places < 63 ? places : 63));
}

uint64_t signExtended(uint64_t value, uint64_t bits) {
  return static_cast<uint64_t>(static_cast<int64_t>(value << (64 - bits)) >> (64 - bits));
}

void copyArguments(const ActionData& from, uint64_t* to) {
  std::memcpy(to, from.arguments, ActionData::leastWords * sizeof(uint64_t));
  if (from.words > ActionData::leastWords)
    std::memcpy(to, from.arguments, from.words * sizeof(uint64_t));
}

bool lessSigned(uint64_t one, uint64_t other) {
  return static_cast<int64_t>(one) < static_cast<int64_t>(other);
}

}  // namespace

Machine::Machine(const Image& image, ExternState& externs, uint64_t seed)
    : image_(image), externs_(externs), calculator_(image, externs), random_(seed) {}

#pragma GCC diagnostic push
#pragma GCC diagnostic error \
    "-Wswitch-enum"  // each instruction has its case, in spite of the default

RunEnd Machine::run(uint32_t begin, Packet& packet) {
  const Instruction* const code = image_.code.data();
  uint64_t* const s = packet.state.get();
  const Instruction* at = code + begin;
  const Instruction* back = nullptr;  // where an action returns to
  uint32_t steps = maxSteps;
  for (;;) {
    const Instruction& i = *at;
    switch (i.code) {
      case Code::load:
        s[i.a] = i.c;
        break;
      case Code::move:
        s[i.a] = s[i.b];
        break;
      case Code::add:
        s[i.a] = s[i.b] + s[i.c];
        break;
      case Code::addI:
        s[i.a] = s[i.b] + i.c;
        break;
      case Code::subtract:
        s[i.a] = s[i.b] - s[i.c];
        break;
      case Code::subtractI:
        s[i.a] = s[i.b] - i.c;
        break;
      case Code::multiply:
        s[i.a] = s[i.b] * s[i.c];
        break;
      case Code::multiplyI:
        s[i.a] = s[i.b] * i.c;
        break;
      case Code::bitAnd:
        s[i.a] = s[i.b] & s[i.c];
        break;
      case Code::bitAndI:
        s[i.a] = s[i.b] & i.c;
        break;
      case Code::bitOr:
        s[i.a] = s[i.b] | s[i.c];
        break;
      case Code::bitOrI:
        s[i.a] = s[i.b] | i.c;
        break;
      case Code::bitXor:
        s[i.a] = s[i.b] ^ s[i.c];
        break;
      case Code::bitXorI:
        s[i.a] = s[i.b] ^ i.c;
        break;
      case Code::shiftLeft:
        s[i.a] = shifted(s[i.b], s[i.c], true);
        break;
      case Code::shiftLeftI:
        s[i.a] = shifted(s[i.b], i.c, true);
        break;
      case Code::shiftRight:
        s[i.a] = shifted(s[i.b], s[i.c], false);
        break;
      case Code::shiftRightI:
        s[i.a] = shifted(s[i.b], i.c, false);
        break;
      case Code::shiftRightSigned:
        s[i.a] = shiftedWithSign(s[i.b], s[i.c]);
        break;
      case Code::shiftRightSignedI:
        s[i.a] = shiftedWithSign(s[i.b], i.c);
        break;
      case Code::equal:
        s[i.a] = s[i.b] == s[i.c];
        break;
      case Code::equalI:
        s[i.a] = s[i.b] == i.c;
        break;
      case Code::notEqual:
        s[i.a] = s[i.b] != s[i.c];
        break;
      case Code::notEqualI:
        s[i.a] = s[i.b] != i.c;
        break;
      case Code::less:
        s[i.a] = s[i.b] < s[i.c];
        break;
      case Code::lessI:
        s[i.a] = s[i.b] < i.c;
        break;
      case Code::lessEqual:
        s[i.a] = s[i.b] <= s[i.c];
        break;
      case Code::lessEqualI:
        s[i.a] = s[i.b] <= i.c;
        break;
      case Code::greaterI:
        s[i.a] = s[i.b] > i.c;
        break;
      case Code::greaterEqualI:
        s[i.a] = s[i.b] >= i.c;
        break;
      case Code::lessSigned:
        s[i.a] = lessSigned(s[i.b], s[i.c]);
        break;
      case Code::lessSignedI:
        s[i.a] = lessSigned(s[i.b], i.c);
        break;
      case Code::lessEqualSigned:
        s[i.a] = !lessSigned(s[i.c], s[i.b]);
        break;
      case Code::lessEqualSignedI:
        s[i.a] = !lessSigned(i.c, s[i.b]);
        break;
      case Code::greaterSignedI:
        s[i.a] = lessSigned(i.c, s[i.b]);
        break;
      case Code::greaterEqualSignedI:
        s[i.a] = !lessSigned(s[i.b], i.c);
        break;
      case Code::divide:
        s[i.a] = s[i.c] ? s[i.b] / s[i.c] : 0;
        break;
      case Code::modulo:
        s[i.a] = s[i.c] ? s[i.b] % s[i.c] : 0;
        break;
      case Code::bitNot:
        s[i.a] = ~s[i.b];
        break;
      case Code::signExtend:
        s[i.a] = signExtended(s[i.b], i.c);
        break;
      case Code::select:
        s[i.a] = s[i.b] ? s[i.c & 0xffffffff] : s[i.c >> 32];
        break;
      case Code::loadField:
        s[i.a] = loadPacked(bytesOf(s) + i.b, i.c & 0xff, i.c >> 8);
        break;
      case Code::storeField:
        storePacked(bytesOf(s) + i.b, i.c & 0xff, i.c >> 8, s[i.a]);
        break;

      case Code::wideLoad:
      case Code::wideStore:
      case Code::wideConstant:
      case Code::wideExtend:
      case Code::wideAdd:
      case Code::wideSubtract:
      case Code::wideMultiply:
      case Code::wideAnd:
      case Code::wideOr:
      case Code::wideXor:
      case Code::wideNot:
      case Code::wideDivide:
      case Code::wideModulo:
      case Code::wideShiftLeft:
      case Code::wideShiftRight:
      case Code::wideShiftLeftI:
      case Code::wideShiftRightI:
      case Code::wideEqual:
      case Code::wideLess:
      case Code::wideSelect:
      case Code::wideSignExtend:
        executeWide(i, image_, s);
        break;

      case Code::jump:
        at = code + i.b;
        continue;
      case Code::jumpIfZero:
        if (!s[i.a]) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfNotZero:
        if (s[i.a]) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfEqual:
        if (s[i.a] == s[i.c]) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfEqualI:
        if (s[i.a] == i.c) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfNotEqual:
        if (s[i.a] != s[i.c]) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfNotEqualI:
        if (s[i.a] != i.c) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfLess:
        if (s[i.a] < s[i.c]) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfLessI:
        if (s[i.a] < i.c) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfGreaterEqual:
        if (s[i.a] >= s[i.c]) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfGreaterEqualI:
        if (s[i.a] >= i.c) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfGreaterI:
        if (s[i.a] > i.c) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::jumpIfLessEqualI:
        if (s[i.a] <= i.c) {
          at = code + i.b;
          continue;
        }
        break;
      case Code::step:
        if (--steps == 0) return RunEnd::tooManySteps;
        break;
      case Code::table: {
        if (--steps == 0) return RunEnd::tooManySteps;
        uint32_t next = 0;
        const ActionData* action = lookUp(i.b, packet, next);
        if (!action) {
          at = code + next;
          continue;
        }
        copyArguments(*action, s + image_.argumentSlot);
        back = code + next;
        at = code + image_.actions[action->action];
        continue;
      }
      case Code::call:
        back = code + i.b;
        at = code + image_.actions[i.c];
        continue;
      case Code::leave:
        if (packet.exit) return RunEnd::done;
        at = back;
        continue;
      case Code::end:
        return RunEnd::done;

      case Code::addHeader:
        addHeader(image_, i.b, i.a, packet);
        break;
      case Code::removeHeader:
        removeHeader(image_, i.b, i.a, packet);
        break;
      case Code::copyHeader:
        copyHeader(image_, i.b, static_cast<uint32_t>(i.c), s);
        break;
      case Code::headersEqual:
        s[i.a] = headersEqual(image_, i.b, static_cast<uint32_t>(i.c), packet);
        break;
      case Code::push:
        pushStack(image_, i.b, i.c, s[i.a], s);
        break;
      case Code::pop:
        popStack(image_, i.b, i.c, s[i.a], s);
        break;

      case Code::state:
        if (trace_) trace_->onParserState(i.b);
        if (--steps == 0) return fail(image_.errors.parserTimeout, packet), RunEnd::parserError;
        break;
      case Code::extract:
        if (!extract(image_.headers[i.b], i.b, packet)) return RunEnd::parserError;
        break;
      case Code::extractStack:
      case Code::extractUnionStack:
        if (!extractStack(i, packet)) return RunEnd::parserError;
        break;
      case Code::extractVarbit:
        if (!extractVarbit(i, packet)) return RunEnd::parserError;
        break;
      case Code::advance:
        if (!advance(s[i.b], packet)) return RunEnd::parserError;
        break;
      case Code::lookahead:
        if (!lookAhead(i, packet)) return RunEnd::parserError;
        break;
      case Code::raise:
        return fail(static_cast<uint32_t>(s[i.b]), packet), RunEnd::parserError;
      case Code::selectState:
        at = code + select(image_.selectors[i.b], s[i.a]);
        continue;
      case Code::selectWide:
        at = code + selectWide(image_.wideSelectors[i.b], s + i.a);
        continue;
      case Code::inValueSet:
        if (inValueSet(i.c, s + i.a)) {
          at = code + i.b;
          continue;
        }
        break;

      case Code::count:
        count(s[i.b], static_cast<uint32_t>(i.c), packet);
        break;
      case Code::meter:
        s[i.a] = meter(s[i.b], static_cast<uint32_t>(i.c), packet);
        break;
      case Code::registerLoad:
        loadRegister(i, s);
        break;
      case Code::registerStore:
        storeRegister(i, s);
        break;
      case Code::calculate:
        s[i.a] = calculator_.calculate(i.b, packet);
        break;
      case Code::hash:
        s[i.a] = hash(i, packet);
        break;
      case Code::random:
        s[i.a] = randomBetween(s[i.b], s[i.c]);
        break;
      case Code::checksumError:
        packet.checksumError = true;
        break;
      case Code::requestDigest:
        packet.requests.digestList = static_cast<uint16_t>(s[i.b]);
        break;
      case Code::requestClone:
        packet.requests.clone = true;
        packet.requests.session = static_cast<uint16_t>(s[i.b]);
        packet.requests.cloneList = static_cast<uint16_t>(s[i.c]);
        break;
      case Code::requestResubmit:
        packet.requests.resubmitList = static_cast<uint16_t>(s[i.b]);
        break;
      case Code::requestRecirculate:
        packet.requests.recirculateList = static_cast<uint16_t>(s[i.b]);
        break;
      case Code::truncate:
        packet.truncateTo = std::min(packet.truncateTo, static_cast<uint32_t>(s[i.b]));
        break;
      case Code::exit:
        packet.exit = true;
        break;
      case Code::log:
        if (trace_) log(image_.logs[i.b], s);
        break;
      case Code::assertTrue:
        if (!s[i.b]) ++counts_.failedAssertions;
        break;
      default:
        __builtin_unreachable();  // so the jump table needs no bounds
    }
    ++at;  // jumps pass over it by `continue`
  }
}

#pragma GCC diagnostic pop

}  // namespace P4
