// The headers of packets, and the packets that are put together and taken apart by them.
#include "PI/frontend/model/PacketHeaders.h"

#include <absl/strings/escaping.h>

#include <algorithm>
#include <array>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontends/proto/translation_tables.h"

namespace pi::fe::proto {

namespace {

constexpr int32_t kMaxBits = 1 << 16;
constexpr size_t kShownBytes = 64;  // of a name in a message
// A frame of the largest MTU that Linux knows. Without a bound one message could bring 256 MiB.
constexpr size_t kMaxPayloadBytes = 65536 + 14;

// Which of the packet's metadata has the field's id: as a rule they come in order.
const p4::v1::PacketMetadata* metadataOf(const p4::v1::PacketOut& packet, const PacketField& field,
                                         int guess) {
  if (packet.metadata(guess).metadata_id() == field.id) return &packet.metadata(guess);
  for (const auto& metadata : packet.metadata()) {
    if (metadata.metadata_id() == field.id) return &metadata;
  }
  return nullptr;
}

std::string fieldsText(const PacketHeader& header) {
  if (!header.isDeclared) return absl::StrCat("the pipeline has no ", header.name, " header");
  if (header.fields.empty()) return absl::StrCat(header.name, " has no fields");
  std::string text = absl::StrCat(header.name, " has");
  for (const PacketField& field : header.fields) {
    absl::StrAppend(&text, &field == &header.fields[0] ? " " : ", ", field.text());
  }
  return text;
}

// Says of metadata that are not one for each field which one is wrong.
[[noreturn]] void refuseMetadata(const PacketHeader& header, const p4::v1::PacketOut& packet) {
  std::vector<bool> given(header.fields.size());
  for (const auto& metadata : packet.metadata()) {
    const PacketField* field = header.field(metadata.metadata_id());
    if (field == nullptr) {
      refuse(code::invalidArgument, "packet-out: the metadata id ", metadata.metadata_id(),
             " is unknown: ", fieldsText(header));
    }
    std::vector<bool>::reference isGiven = given[field - header.fields.data()];
    if (isGiven) {
      refuse(code::invalidArgument, "packet-out: the metadata field ", field->text(),
             " is given twice; give each field of ", header.name, " once");
    }
    isGiven = true;
  }
  const auto missing = std::find(given.begin(), given.end(), false) - given.begin();
  refuse(code::invalidArgument, "packet-out: the metadata field ", header.fields[missing].text(),
         " is missing; ", packet.metadata_size(), " of the ", header.fields.size(), " fields of ",
         header.name, " are given");
}

void requireFit(const PacketField& field, const std::string& value) {
  if (fits(value, field.bits)) return;
  refuse(code::invalidArgument, "packet-out: the metadata field ", field.text(),
         value.empty() ? " has no value; zero is one byte 00" : " cannot hold the value ",
         value.empty() ? "" : hexText(value));
}

// The bytes of the value in the header; a view that lasts as long as `value` and `number`.
std::string_view wireValue(const PacketField& field, const std::string& value,
                           std::array<char, 4>* number) {
  if (field.names == nullptr) {
    requireFit(field, value);
    return value;
  }
  const auto found = field.names->number(value);
  if (!found) {
    refuse(code::invalidArgument, "packet-out: the metadata field ", field.text(),
           " has the value \"", absl::CHexEscape(value.substr(0, kShownBytes)), "\", which is no ",
           field.names->type(), " that is known");
  }
  for (size_t i = 0; i < number->size(); ++i) {
    (*number)[i] = static_cast<char>(*found >> (24 - 8 * i));
  }
  return {number->data(), number->size()};
}

// The value towards controllers.
void setSent(const PacketField& field, std::string_view value, std::string* sent) {
  if (field.names == nullptr) {
    return setAnswer(reinterpret_cast<const uint8_t*>(value.data()), value.size(), sent);
  }
  uint32_t number = 0;
  for (const char byte : value) number = number << 8 | static_cast<uint8_t>(byte);
  *sent = field.names->name(number);
}

void requirePayload(const p4::v1::PacketOut& packet) {
  const size_t bytes = packet.payload().size();
  if (bytes == 0) {
    refuse(code::invalidArgument,
           "packet-out: the payload is empty; it is the complete packet with all its headers");
  }
  if (bytes > kMaxPayloadBytes) {
    refuse(code::invalidArgument, "packet-out: the payload has ", bytes,
           " bytes; no port sends more than ", kMaxPayloadBytes);
  }
}

}  // namespace

std::string PacketField::text() const {
  const std::string form = names != nullptr ? absl::StrCat("a ", names->type())
                                            : absl::StrCat(bits, bits == 1 ? " bit" : " bits");
  return absl::StrCat(name.empty() ? "(unnamed)" : name, " (id ", id, ", ", form, ")");
}

PacketHeader::PacketHeader(const p4::config::v1::P4Info& p4Info, const P4InfoIndex* index,
                           std::string_view name, bool isPacked)
    : name(name), isPacked(isPacked) {
  for (const auto& declared : p4Info.controller_packet_metadata()) {
    if (declared.preamble().name() != name) continue;
    if (isDeclared) unsupported = absl::StrCat("the pipeline has two headers named ", this->name);
    isDeclared = true;
    if (unsupported.empty()) fieldsAre(declared, index);
  }
}

void PacketHeader::fieldsAre(const p4::config::v1::ControllerPacketMetadata& declared,
                             const P4InfoIndex* index) {
  for (const auto& field : declared.metadata()) {
    Dictionary* const names = index != nullptr && field.bitwidth() == 0
                                  ? index->names(field.type_name().name())
                                  : nullptr;
    if (names != nullptr) {
      fields.push_back({.id = field.id(),
                        .name = field.name(),
                        .bits = kNameBits,
                        .bytes = bytesOf(kNameBits),
                        .names = names});
      continue;
    }
    if (field.bitwidth() <= 0 || field.bitwidth() > kMaxBits) {
      unsupported =
          absl::StrCat("the field ", field.name(), " (id ", field.id(), ") of ", name,
                       field.bitwidth() == 0 ? " has no bit width, as those that are strings"
                                             : " has an impossible bit width");
      return;
    }
    const auto bits = static_cast<uint32_t>(field.bitwidth());
    fields.push_back({field.id(), field.name(), bits, bytesOf(bits)});
  }
  layOut();
  for (size_t i = 1; i < fields.size(); ++i) {
    if (fields[i - 1].id != fields[i].id) continue;
    unsupported = absl::StrCat("two fields of ", name, " have the id ", fields[i].id);
  }
}

// Leaves the fields in the order of their ids.
void PacketHeader::layOut() {
  const auto byId = [](const PacketField& a, const PacketField& b) { return a.id < b.id; };
  size_t bits = 0;
  for (PacketField& field : fields) {
    field.firstBit = bits;
    bits += field.bits;
  }
  std::sort(fields.begin(), fields.end(), byId);
  for (PacketField& field : fields) {
    field.offset = bytes;
    bytes += field.bytes;
  }
  if (isPacked) bytes = (bits + 7) / 8;
}

const PacketField* PacketHeader::field(uint32_t id) const {
  const auto found =
      std::lower_bound(fields.begin(), fields.end(), id,
                       [](const PacketField& field, uint32_t id) { return field.id < id; });
  return found != fields.end() && found->id == id ? &*found : nullptr;
}

// As many metadata as fields, and one for each field: so no field comes twice, and none is unknown.
std::string PacketHeaders::packetOut(const p4::v1::PacketOut& packet) const {
  if (!out_.unsupported.empty()) {
    refuse(code::unimplemented, "packet-out is not supported: ", out_.unsupported);
  }
  if (out_.isPacked) return packedOut(packet);
  const size_t count = out_.fields.size();
  if (static_cast<size_t>(packet.metadata_size()) != count) refuseMetadata(out_, packet);
  requirePayload(packet);
  std::string bytes;
  bytes.reserve(out_.bytes + packet.payload().size());
  bytes.resize(out_.bytes);
  auto* const header = reinterpret_cast<uint8_t*>(bytes.data());
  for (size_t i = 0; i < count; ++i) {
    const PacketField& field = out_.fields[i];
    const p4::v1::PacketMetadata* metadata = metadataOf(packet, field, static_cast<int>(i));
    if (metadata == nullptr) refuseMetadata(out_, packet);
    std::array<char, 4> number;
    const std::string_view value = wireValue(field, metadata->value(), &number);
    putPadded(value, header + field.offset, field.bytes);
  }
  bytes += packet.payload();
  return bytes;
}

// Controllers leave padding out, and other fields as well.
std::string PacketHeaders::packedOut(const p4::v1::PacketOut& packet) const {
  requirePayload(packet);
  std::string bytes(out_.bytes, '\0');
  auto* const header = reinterpret_cast<uint8_t*>(bytes.data());
  std::vector<bool> given(out_.fields.size());
  for (const auto& metadata : packet.metadata()) {
    const PacketField* field = out_.field(metadata.metadata_id());
    if (field == nullptr || given[field - out_.fields.data()]) refuseMetadata(out_, packet);
    given[field - out_.fields.data()] = true;
    std::array<char, 4> number;
    const std::string_view value = wireValue(*field, metadata.value(), &number);
    putBits(value, field->bits, field->firstBit, header);
  }
  return bytes += packet.payload();
}

std::string PacketHeaders::packedIn(std::string_view received, p4::v1::PacketIn* packet) const {
  const auto* const header = reinterpret_cast<const uint8_t*>(received.data());
  for (const PacketField& field : in_.fields) {
    p4::v1::PacketMetadata* metadata = packet->add_metadata();
    metadata->set_metadata_id(field.id);
    setSent(field, bitsAt(header, field.bits, field.firstBit), metadata->mutable_value());
  }
  packet->set_payload(received.data() + in_.bytes, received.size() - in_.bytes);
  return "";
}

std::string PacketHeaders::packetIn(std::string_view received, p4::v1::PacketIn* packet) const {
  if (!in_.unsupported.empty()) return in_.unsupported;
  if (received.size() < in_.bytes) {
    return absl::StrCat("a packet of ", received.size(), " bytes is shorter than the ", in_.bytes,
                        " bytes of the packet_in header");
  }
  if (in_.isPacked) return packedIn(received, packet);
  for (const PacketField& field : in_.fields) {
    const std::string_view value = received.substr(field.offset, field.bytes);
    if (!fits(value, field.bits)) {
      return absl::StrCat("the packet_in field ", field.text(), " cannot have the value ",
                          hexText(value));
    }
    p4::v1::PacketMetadata* metadata = packet->add_metadata();
    metadata->set_metadata_id(field.id);
    setSent(field, value, metadata->mutable_value());
  }
  packet->set_payload(received.data() + in_.bytes, received.size() - in_.bytes);
  return "";
}

}  // namespace pi::fe::proto
