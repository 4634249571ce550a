#include "p4/compile/Layout.h"

#include "p4/program/ProgramError.h"

namespace P4 {
namespace {

constexpr uint32_t maxStateWords = 40000;  // slots have 16 bits, and temporaries need some

// Whether some parser state or action assigns to `$valid$`.
void noteWritten(const Expression& destination, std::vector<bool>& written) {
  if (destination.op == Op::field && destination.part == validBit)
    written[destination.index] = true;
}

std::vector<bool> headersWithWrittenValidity(const Program& program) {
  std::vector<bool> written(program.headers.size());
  for (const ParserState& state : program.states)
    for (const ParserOp& op : state.ops) {
      if (op.kind == ParserOp::Kind::set) noteWritten(op.operands[0], written);
      if (op.kind == ParserOp::Kind::call && !op.call.operands.empty())
        noteWritten(op.call.operands[0], written);
    }
  for (const Action& action : program.actions)
    for (const PrimitiveCall& call : action.calls)
      if (!call.operands.empty()) noteWritten(call.operands[0], written);
  for (const PrimitiveCall& call : program.deparserCalls)
    if (!call.operands.empty()) noteWritten(call.operands[0], written);
  for (const Checksum& checksum : program.checksums)
    if (checksum.target.field == validBit) written[checksum.target.header] = true;
  for (const MeterArrayInfo& meters : program.meters)
    if (meters.direct && meters.result.field == validBit) written[meters.result.header] = true;
  return written;
}

}  // namespace

Layout::Layout(const Program& program, Image& image)
    : program_(program), image_(image), shownWritten_(headersWithWrittenValidity(program)) {
  image_.headers.resize(program.headers.size());
  places_.resize(program.headers.size());
  placeSlots();
  placeHeaderBytes();
  findSystemFields();
}

uint16_t Layout::take(uint32_t words) {
  const uint32_t at = used_;
  used_ += words;
  if (used_ > maxStateWords) throw ProgramError("headers", "the program's headers are too large");
  return static_cast<uint16_t>(at);
}

void Layout::placeSlots() {
  image_.metadataBegin = used_;
  for (uint32_t header = 0; header < program_.headers.size(); ++header) {
    if (!program_.headers[header].metadata) continue;
    for (const Field& field : program_.typeOf(header).fields) {
      const uint16_t words = static_cast<uint16_t>((field.bits + 63) / 64);
      const FieldPlace place{.kind = words == 1 ? FieldPlace::Kind::slot : FieldPlace::Kind::slots,
                             .bits = static_cast<uint16_t>(field.bits),
                             .at = take(words),
                             .isSigned = field.isSigned,
                             .saturating = field.saturating};
      places_[header].push_back(place);
      image_.headers[header].fields.push_back(place);
    }
    if (shownWritten_[header]) image_.headers[header].shown = take(1);
  }
  image_.metadataEnd = used_;
  for (uint32_t header = 0; header < program_.headers.size(); ++header) {
    HeaderPlace& place = image_.headers[header];
    place.metadata = program_.headers[header].metadata;
    place.valid = place.metadata ? zeroSlot : take(1);
    if (!place.metadata) place.shown = shownWritten_[header] ? take(1) : place.valid;
    if (program_.typeOf(header).varbitField != absent) place.varbit = take(1);
  }
  for (const HeaderStack& stack : program_.stacks)
    image_.stacks.push_back({take(1), stack.headers});
  for (const UnionStack& stack : program_.unionStacks)
    image_.unionStacks.push_back({take(1), stack.unions});
  for (const HeaderUnion& headerUnion : program_.unions)
    image_.unions.push_back(headerUnion.headers);
}

void Layout::placeHeaderBytes() {
  image_.clearedWords = used_;
  uint32_t at = used_ * 8;
  for (uint32_t header = 0; header < program_.headers.size(); ++header) {
    HeaderPlace& place = image_.headers[header];
    const HeaderType& type = program_.typeOf(header);
    place.at = at;
    place.bytes = type.bits / 8;
    place.maxBytes = type.maxBytes;
    place.headerUnion = program_.headers[header].headerUnion;
    if (type.varbitField != absent) place.varbitAt = type.fields[type.varbitField].bitOffset;
    if (place.metadata) continue;
    for (const Field& field : type.fields) {
      const auto lead = static_cast<uint8_t>(field.bitOffset % 8);
      const bool packed = lead + field.bits <= 64;
      places_[header].push_back({.kind = field.varbit ? FieldPlace::Kind::none
                                         : packed     ? FieldPlace::Kind::packed
                                                      : FieldPlace::Kind::bits,
                                 .lead = lead,
                                 .bits = static_cast<uint16_t>(field.bits),
                                 .at = at + field.bitOffset / 8,
                                 .isSigned = field.isSigned,
                                 .saturating = field.saturating});
    }
    at += place.bytes;
  }
  take((at - used_ * 8 + 7) / 8 + 1);  // eight bytes are read at each field
  image_.copiedWords = used_;
  firstFree_ = static_cast<uint16_t>(used_);
}

FieldPlace Layout::place(uint32_t header, uint32_t field) const {
  if (field != validBit) return places_[header][field];
  return {.kind = FieldPlace::Kind::slot, .bits = 1, .at = image_.headers[header].shown};
}

void Layout::findSystemFields() {
  const auto find = [this](const char* name) {
    const std::optional<FieldRef> ref = program_.fieldNamed(name);
    return ref ? place(ref->header, ref->field) : FieldPlace();
  };
  SystemFields& system = image_.system;
  system.ingressPort = find("standard_metadata.ingress_port");
  system.packetLength = find("standard_metadata.packet_length");
  system.egressSpec = find("standard_metadata.egress_spec");
  system.egressPort = find("standard_metadata.egress_port");
  system.instanceType = find("standard_metadata.instance_type");
  system.parserError = find("standard_metadata.parser_error");
  system.checksumError = find("standard_metadata.checksum_error");
  system.ingressTimestamp = find("intrinsic_metadata.ingress_global_timestamp");
  system.egressTimestamp = find("intrinsic_metadata.egress_global_timestamp");
  system.multicastGroup = find("intrinsic_metadata.mcast_grp");
  system.egressRid = find("intrinsic_metadata.egress_rid");
  system.priority = find("intrinsic_metadata.priority");
  system.enqTimestamp = find("queueing_metadata.enq_timestamp");
  system.enqDepth = find("queueing_metadata.enq_qdepth");
  system.deqTimeDelta = find("queueing_metadata.deq_timedelta");
  system.deqDepth = find("queueing_metadata.deq_qdepth");
  system.queueId = find("queueing_metadata.qid");
  const bool queueing =
      system.enqTimestamp && system.enqDepth && system.deqTimeDelta && system.deqDepth;
  if (!queueing)
    system.enqTimestamp = system.enqDepth = system.deqTimeDelta = system.deqDepth =
        system.queueId = {};
}

}  // namespace P4
