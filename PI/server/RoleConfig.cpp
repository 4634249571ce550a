// The configs of roles, read from their bytes.
#include "PI/server/RoleConfig.h"

#include <google/protobuf/empty.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/unknown_field_set.h>

#include <algorithm>
#include <iterator>

#include "PI/core/PlainText.h"

namespace pi::server {

using google::protobuf::Empty;
using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;
using grpc::Status;
using grpc::StatusCode;

namespace {

constexpr const char* kType = "stratum.P4RoleConfig";
constexpr size_t kMostShown = 128;
constexpr size_t kMostConfigBytes = 64 << 10;  // it is kept, with the fields of later forms

// The fields of stratum.P4RoleConfig.
enum Field { exclusiveIds = 1, sharedIds, packetInFilter, receivesPacketIns, canPushPipeline };
// Those of its packet_in_filter.
enum FilterField { metadataId = 1, value };

// The fields of a message whose type this program does not have; nothing for damaged bytes.
std::optional<Empty> fieldsOf(const std::string& bytes) {
  Empty message;
  if (!message.ParseFromString(bytes)) return std::nullopt;
  return message;
}

const UnknownFieldSet& fields(const Empty& message) {
  return message.GetReflection()->GetUnknownFields(message);
}

std::string shortest(const std::string& value) {
  const size_t digits = value.find_first_not_of('\0');
  return digits == std::string::npos ? std::string(1, '\0') : value.substr(digits);
}

bool isNumber(const UnknownField& field) { return field.type() == UnknownField::TYPE_VARINT; }
bool isBytes(const UnknownField& field) {
  return field.type() == UnknownField::TYPE_LENGTH_DELIMITED;
}

// False for damaged bytes. An empty filter is none.
bool filterIs(const std::string& bytes, RoleConfig* config) {
  const auto message = fieldsOf(bytes);
  if (!message) return false;
  RoleConfig::PacketFilter filter;
  for (int i = 0; i < fields(*message).field_count(); ++i) {
    const UnknownField& field = fields(*message).field(i);
    if (field.number() == FilterField::metadataId && isNumber(field)) {
      filter.metadataId = static_cast<uint32_t>(field.varint());
    } else if (field.number() == FilterField::value && isBytes(field)) {
      filter.value = shortest(field.length_delimited());
    }
  }
  if (filter.metadataId != 0) config->packetFilter = filter;
  return true;
}

Status invalid(const std::string& why) { return Status(StatusCode::INVALID_ARGUMENT, why); }

// Packed, or one by one.
Status idsAre(const UnknownField& field, const char* name, std::vector<uint32_t>* ids) {
  if (isNumber(field)) ids->push_back(static_cast<uint32_t>(field.varint()));
  if (isBytes(field)) {
    const std::string& packed = field.length_delimited();
    google::protobuf::io::CodedInputStream bytes(reinterpret_cast<const uint8_t*>(packed.data()),
                                                 static_cast<int>(packed.size()));
    uint32_t id = 0;
    while (ids->size() <= kMostRoleIds && bytes.ReadVarint32(&id)) ids->push_back(id);
    const bool isWhole = bytes.CurrentPosition() == static_cast<int>(packed.size());
    if (!isWhole && ids->size() <= kMostRoleIds) {
      return invalid(std::string(name) + " of the role's config is damaged");
    }
  }
  if (ids->size() <= kMostRoleIds) return Status::OK;
  return invalid(std::string(name) + " of the role's config has more than " +
                 std::to_string(kMostRoleIds) + " ids");
}

void sortIds(std::vector<uint32_t>* ids) {
  std::ranges::sort(*ids);
  ids->erase(std::unique(ids->begin(), ids->end()), ids->end());
}

Status requireDisjoint(const RoleConfig& config) {
  std::vector<uint32_t> both;
  std::ranges::set_intersection(config.exclusiveIds, config.sharedIds, std::back_inserter(both));
  if (both.empty()) return Status::OK;
  return invalid("the role's config has the id " + std::to_string(both.front()) +
                 " in exclusive_p4_ids and in shared_p4_ids; name it once");
}

Status fieldIs(const UnknownField& field, RoleConfig* config) {
  switch (field.number()) {
    case Field::exclusiveIds:
      return idsAre(field, "exclusive_p4_ids", &config->exclusiveIds);
    case Field::sharedIds:
      return idsAre(field, "shared_p4_ids", &config->sharedIds);
    case Field::packetInFilter:
      if (isBytes(field) && filterIs(field.length_delimited(), config)) return Status::OK;
      return invalid("the packet_in_filter of the role's config is damaged");
    case Field::receivesPacketIns:
      if (isNumber(field)) config->receivesPacketIns = field.varint() != 0;
      return Status::OK;
    case Field::canPushPipeline:
      if (isNumber(field)) config->canPushPipeline = field.varint() != 0;
      return Status::OK;
    default:
      return Status::OK;  // of a later form
  }
}

}  // namespace

bool RoleConfig::takes(const p4::v1::PacketIn& packet) const {
  if (!receivesPacketIns) return false;
  if (!packetFilter) return true;
  return std::ranges::any_of(packet.metadata(), [this](const auto& metadata) {
    return metadata.metadata_id() == packetFilter->metadataId &&
           shortest(metadata.value()) == packetFilter->value;
  });
}

Status roleConfigOf(const google::protobuf::Any& given, std::shared_ptr<const RoleConfig>* config) {
  const std::string& type = given.type_url();
  if (type.substr(type.rfind('/') + 1) != kType) {
    return invalid("the role has a config of type '" + core::plainText(type, kMostShown) +
                   "', which is not supported; leave it unset, or use " + kType);
  }
  if (given.ByteSizeLong() > kMostConfigBytes) {
    return invalid("the role's config has " + std::to_string(given.ByteSizeLong()) +
                   " bytes; send at most " + std::to_string(kMostConfigBytes));
  }
  const auto message = fieldsOf(given.value());
  if (!message) return invalid(std::string("the role's config is no ") + kType);
  auto made = std::make_shared<RoleConfig>();
  made->given = given;
  for (int i = 0; i < fields(*message).field_count(); ++i) {
    Status taken = fieldIs(fields(*message).field(i), made.get());
    if (!taken.ok()) return taken;
  }
  sortIds(&made->exclusiveIds);
  sortIds(&made->sharedIds);
  Status disjoint = requireDisjoint(*made);
  if (disjoint.ok()) *config = std::move(made);
  return disjoint;
}

}  // namespace pi::server
