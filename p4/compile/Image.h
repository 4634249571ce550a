// A compiled program: code, and what it refers to by position.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "p4/compile/FieldPlace.h"
#include "p4/compile/Instruction.h"
#include "p4/match/KeyShape.h"
#include "p4/program/Program.h"

namespace P4 {

inline constexpr uint16_t zeroSlot = 0;  // always 0
inline constexpr uint16_t noSlot = 0xffff;

struct HeaderPlace {
  uint32_t at = 0;           // byte of the state; of packet headers
  uint32_t bytes = 0;        // without the varbit field
  uint16_t valid = 0;        // slot
  uint16_t shown = 0;        // slot of the field `$valid$`; often the same
  uint16_t varbit = noSlot;  // slot: bit offset in the packet << 32 | bits
  uint32_t varbitAt = 0;     // bits before the varbit field
  uint32_t maxBytes = 0;     // 0: no limit
  uint32_t headerUnion = absent;
  bool metadata = false;
  std::vector<FieldPlace> fields;  // of metadata, in order
};

struct StackPlace {
  uint16_t next = 0;               // slot
  std::vector<uint32_t> elements;  // headers or unions
};

// A run of input bits of a calculation.
struct CalculationPart {
  enum class Kind : uint8_t { header, varbit, value, constant };
  Kind kind = Kind::header;
  uint16_t valid = noSlot;  // skipped when this slot is 0
  uint32_t header = 0;      // of `header` and `varbit`
  uint32_t bit = 0;         // of `header`: from the header's begin
  uint32_t bits = 0;
  FieldPlace place;   // of `value`
  std::string bytes;  // of `constant`: the bits are its last
};

struct CalculationCode {
  std::string name;
  Algorithm algorithm = Algorithm::crc16;
  std::vector<CalculationPart> parts;
  bool payload = false;  // at the end, at a byte boundary
  bool ofBytes = false;  // all parts are whole bytes of headers
  bool isSum = false;    // the Internet checksum of pairs of bytes: summed where they lie
};

struct KeySource {
  FieldPlace place;
  uint16_t valid = noSlot;  // the element reads 0 when this slot is 0
  uint32_t word = 0;
  uint32_t words = 1;
  uint32_t shiftLeft = 0;  // of an LPM element: to the top of its words, which are turned round
  bool highFirst = false;
  std::vector<uint64_t> mask;         // empty: none
  uint64_t firstMask = ~uint64_t{0};  // the mask of the only word, of one word
};

struct TableCode {
  std::vector<KeySource> key;
  uint32_t keyWords = 0;
  bool byHit = false;  // the next node depends on hit or miss
  uint32_t onHit = 0;
  uint32_t onMiss = 0;  // miss, and without action where not byHit
  uint32_t firstAction = 0;
  std::vector<uint32_t> onAction;  // from firstAction on
  uint32_t profile = absent;
  FieldPlace meterResult;
  bool counters = false;
  bool meters = false;
  bool meterBytes = false;
  bool ageing = false;
  bool notesHits = false;  // counters, meters or ageing
};

struct Selector {
  struct Case {
    uint64_t value = 0;  // masked
    uint64_t mask = 0;
    uint32_t target = 0;
  };
  std::vector<Case> cases;
  uint32_t otherwise = 0;
};

struct WideSelector {
  uint32_t words = 0;
  std::vector<uint64_t> values;  // `words` a case, masked
  std::vector<uint64_t> masks;
  std::vector<uint32_t> targets;
  uint32_t otherwise = 0;
};

// A place in the parser that asks a value set: how its key lies in words, an element (bits + 63) /
// 64 of them.
struct ValueSetUse {
  uint32_t set = 0;
  std::vector<uint32_t> bits;
  uint32_t words = 0;
};

struct LogCall {
  struct Value {
    uint16_t slot = 0;
    uint16_t words = 1;
    bool isSigned = false;
  };
  std::string text;
  std::vector<Value> values;
};

struct ListCode {
  uint32_t id = 0;
  std::vector<FieldPlace> fields;
  std::vector<uint16_t> valid;  // slot by field: reads 0 when 0; noSlot for metadata
};

// The fields that the switch itself reads and writes; those that the program lacks have no place.
struct SystemFields {
  FieldPlace ingressPort, packetLength, egressSpec, egressPort, instanceType, parserError,
      checksumError, ingressTimestamp, egressTimestamp, multicastGroup, egressRid, priority,
      enqTimestamp, enqDepth, deqTimeDelta, deqDepth, queueId;
};

struct ErrorCodes {
  uint32_t none = 0, packetTooShort = 0, stackOutOfBounds = 0, headerTooShort = 0,
           parserTimeout = 0, parserInvalidArgument = 0;
};

// Constant once compiled; any thread may read it.
struct Image {
  std::vector<Instruction> code;
  uint32_t parser = 0, verify = 0, ingress = 0, egress = 0, update = 0;  // where runs begin
  std::vector<uint32_t> actions;      // by position in the program
  std::vector<uint32_t> actionWords;  // of arguments

  // The state: slots that begin as 0, header bytes, and slots of any value.
  uint32_t clearedWords = 0;
  uint32_t copiedWords = 0;  // with the header bytes
  uint32_t stateWords = 0;
  uint16_t argumentSlot = 0;

  std::vector<HeaderPlace> headers;
  std::vector<StackPlace> stacks;
  std::vector<StackPlace> unionStacks;
  std::vector<std::vector<uint32_t>> unions;  // headers
  std::vector<uint32_t> deparser;             // headers
  size_t deparsedBytes = 0;                   // of all of them, without varbit fields
  size_t deparsedVarbits = 0;                 // headers among them with such a field
  bool deparsesBytes = false;                 // packet headers without such fields, and no others
  uint32_t metadataBegin = 0;                 // slots
  uint32_t metadataEnd = 0;
  std::vector<FieldPlace> places;
  std::vector<std::vector<uint64_t>> constants;
  std::vector<TableCode> tables;
  std::vector<KeyShape> shapes;
  std::vector<CalculationCode> calculations;  // the program's, then those of checksums and profiles
  std::vector<uint32_t> profileCalculations;  // by profile; absent: no selector
  std::vector<Selector> selectors;
  std::vector<WideSelector> wideSelectors;
  std::vector<ValueSetUse> valueSetUses;
  std::vector<std::vector<uint64_t>> masks;  // of value sets
  std::vector<LogCall> logs;
  std::vector<ListCode> fieldLists;
  std::vector<ListCode> learnLists;
  SystemFields system;
  ErrorCodes errors;
  uint32_t dropPort = 511;
};

// Throws ProgramError when the program is too large.
Image compileProgram(const Program& program, uint32_t dropPort);

}  // namespace P4
