#include "P4Runtime/pipeline/P4ControllerPktMetadata.h"

#include <fmt/format.h>

namespace P4Runtime {

uint64_t P4ControllerPktMetadataEntry::metadataEntryFieldsBytes() const {
  uint64_t bytes = 0;
  for (const auto& [id, field] : metadataField()) bytes += field.sizeInBytes();
  return bytes;
}

P4ControllerPktMetadataEntry::Ptr P4ControllerPktMetadata::metadataEntryIs(const std::string& name,
                                                                           uint32_t id) {
  if (!metadataEntry_.has(name)) {
    metadataEntry_.valueIs(name, Vela::make<P4ControllerPktMetadataEntry>(name, id));
  }
  return metadataEntry_.value(name);
}

P4ControllerPktMetadata::Ptr p4ControllerPktMetadataFactory() {
  return Vela::make<P4ControllerPktMetadata>("p4ControllerPktMetadata");
}

}  // namespace P4Runtime

namespace {

using P4Runtime::P4ControllerPktMetadataField;

constexpr std::string_view beforeId = "Value('P4Runtime::P4ControllerPktMetadataField', ** {'id': ";
constexpr std::string_view beforeName = ", 'name': ";
constexpr std::string_view beforeBitwidth = ", 'bitwidth': ";
constexpr std::string_view end = "})";

}  // namespace

std::string Vela::TextForm<P4ControllerPktMetadataField>::toText(
    const P4ControllerPktMetadataField& field) {
  return fmt::format("{}{}{}{}{}{}{}", beforeId, field.id, beforeName, field.name, beforeBitwidth,
                     field.bitwidth, end);
}

// Only digits come before the first comma and after the last one: a name may hold anything.
std::optional<P4ControllerPktMetadataField> Vela::TextForm<P4ControllerPktMetadataField>::fromText(
    std::string_view text) {
  if (!text.starts_with(beforeId) || !text.ends_with(end)) return std::nullopt;
  text.remove_prefix(beforeId.size());
  if (text.size() < end.size()) return std::nullopt;
  text.remove_suffix(end.size());
  const size_t name = text.find(beforeName);
  const size_t bitwidth = text.rfind(beforeBitwidth);
  if (name == text.npos || bitwidth == text.npos || bitwidth < name + beforeName.size()) {
    return std::nullopt;
  }
  const size_t nameStart = name + beforeName.size();
  const auto id = TextForm<uint32_t>::fromText(text.substr(0, name));
  const auto width = TextForm<uint32_t>::fromText(text.substr(bitwidth + beforeBitwidth.size()));
  if (!id || !width) return std::nullopt;
  return P4ControllerPktMetadataField{
      *id, std::string(text.substr(nameStart, bitwidth - nameStart)), *width};
}
