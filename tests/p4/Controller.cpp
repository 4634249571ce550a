#include "tests/p4/Controller.h"

#include <algorithm>
#include <stdexcept>

// Older controllers name ports by number.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace P4Test {
namespace {

template <typename List>
const auto& withId(const List& list, uint32_t id) {
  for (const auto& one : list)
    if (one.preamble().id() == id) return one;
  throw std::out_of_range("the P4Info has no id " + std::to_string(id));
}

uint32_t known(const std::optional<uint32_t>& position, const std::string& name) {
  if (!position) throw std::out_of_range("the program has no " + name);
  return *position;
}

P4::MatchElement elementOf(const p4::v1::FieldMatch& match) {
  if (match.has_lpm())
    return {match.lpm().value(), "", static_cast<uint32_t>(match.lpm().prefix_len())};
  if (match.has_ternary()) return {match.ternary().value(), match.ternary().mask()};
  if (match.has_range()) return {match.range().low(), match.range().high()};
  if (match.has_optional()) return {match.optional().value()};
  return {match.exact().value()};
}

const p4::v1::FieldMatch* matchOf(const p4::v1::TableEntry& entry, uint32_t field) {
  for (const auto& match : entry.match())
    if (match.field_id() == field) return &match;
  return nullptr;
}

std::string plainMatch(const p4::v1::FieldMatch& match) {
  const auto quoted = [](const std::string& bytes) { return ", \"" + trimmedHex(bytes) + "\""; };
  const std::string id = "[" + std::to_string(match.field_id());
  if (match.has_lpm())
    return id + quoted(match.lpm().value()) + ", " + std::to_string(match.lpm().prefix_len()) + "]";
  if (match.has_ternary())
    return id + quoted(match.ternary().value()) + quoted(match.ternary().mask()) + "]";
  if (match.has_range())
    return id + quoted(match.range().low()) + quoted(match.range().high()) + "]";
  return id + quoted(match.has_optional() ? match.optional().value() : match.exact().value()) + "]";
}

std::string counterKey(const p4::v1::TableEntry& entry) {
  std::vector<const p4::v1::FieldMatch*> sorted;
  for (const auto& match : entry.match()) sorted.push_back(&match);
  std::sort(sorted.begin(), sorted.end(),
            [](const auto* one, const auto* other) { return one->field_id() < other->field_id(); });
  std::string key =
      "[" + std::to_string(entry.table_id()) + ", " + std::to_string(entry.priority());
  for (const auto* match : sorted) key += ", " + plainMatch(*match);
  return key + "]";
}

std::vector<P4::Replica> replicasOf(
    const google::protobuf::RepeatedPtrField<p4::v1::Replica>& replicas) {
  std::vector<P4::Replica> made;
  std::vector<uint32_t> nodes;  // in the order in which they come
  for (const auto& replica : replicas)
    if (std::find(nodes.begin(), nodes.end(), replica.instance()) == nodes.end())
      nodes.push_back(replica.instance());
  for (const uint32_t node : nodes) {
    std::vector<uint32_t> ports;
    for (const auto& replica : replicas) {
      if (replica.instance() != node) continue;
      uint32_t port = replica.egress_port();
      if (!replica.port().empty()) {
        port = 0;
        for (const char byte : replica.port()) port = port << 8 | static_cast<uint8_t>(byte);
      }
      ports.push_back(port);
    }
    std::sort(ports.begin(), ports.end());
    for (const uint32_t port : ports) made.push_back({port, static_cast<uint16_t>(node)});
  }
  return made;
}

const p4::config::v1::ControllerPacketMetadata* headerNamed(const p4::config::v1::P4Info& p4info,
                                                            const std::string& name) {
  for (const auto& header : p4info.controller_packet_metadata())
    if (header.preamble().name() == name) return &header;
  return nullptr;
}

}  // namespace

std::string hexOf(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    hex += "0123456789abcdef"[static_cast<uint8_t>(byte) >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  return hex;
}

std::string bytesOf(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

std::string trimmedHex(const std::string& bytes) {
  const size_t first = bytes.find_first_not_of('\0');
  return first == std::string::npos ? "00" : hexOf(bytes.substr(first));
}

const p4::config::v1::Table& Controller::tableInfo(uint32_t id) const {
  return withId(p4info_.tables(), id);
}

uint32_t Controller::tableOf(uint32_t id) const {
  const std::string& name = tableInfo(id).preamble().name();
  return known(tableNamed(engine_.program(), name), "table " + name);
}

uint32_t Controller::profileOf(uint32_t id) const {
  const std::string& name = withId(p4info_.action_profiles(), id).preamble().name();
  return known(profileNamed(engine_.program(), name), "action profile " + name);
}

P4::EntryKey Controller::keyOf(const p4::v1::TableEntry& entry) const {
  const p4::config::v1::Table& info = tableInfo(entry.table_id());
  P4::EntryKey key{.table = tableOf(entry.table_id()),
                   .priority = static_cast<uint32_t>(entry.priority())};
  for (const auto& field : info.match_fields()) {
    const p4::v1::FieldMatch* match = matchOf(entry, field.id());
    key.match.push_back(match ? elementOf(*match) : P4::MatchElement());
    if (match && match->has_optional()) {
      std::string mask((static_cast<size_t>(field.bitwidth()) + 7) / 8, '\xff');
      if (field.bitwidth() % 8) mask[0] = static_cast<char>((1 << field.bitwidth() % 8) - 1);
      key.match.back().mask = mask;
    }
  }
  return key;
}

P4::ActionSpec Controller::actionOf(const p4::v1::Action& action, uint32_t table) const {
  const auto& info = withId(p4info_.actions(), action.action_id());
  P4::ActionSpec spec{.action = known(actionNamed(engine_.program(), table, info.preamble().name()),
                                      info.preamble().name())};
  for (const auto& parameter : info.params())
    for (const auto& given : action.params())
      if (given.param_id() == parameter.id()) spec.arguments.push_back(given.value());
  return spec;
}

P4::ActionSpec Controller::memberActionOf(const p4::v1::Action& action, uint32_t profile) const {
  for (uint32_t table = 0; table < engine_.program().tables.size(); ++table)
    if (engine_.program().tables[table].profile == profile) return actionOf(action, table);
  throw std::out_of_range("no table uses the action profile");
}

P4::Target Controller::targetOf(const p4::v1::TableAction& action, uint32_t table) const {
  if (action.has_action()) return actionOf(action.action(), table);
  if (action.type_case() == p4::v1::TableAction::kActionProfileMemberId)
    return P4::MemberId{action.action_profile_member_id()};
  if (action.type_case() == p4::v1::TableAction::kActionProfileGroupId)
    return P4::GroupId{action.action_profile_group_id()};
  P4::OneShotSet set;
  for (const auto& one : action.action_profile_action_set().action_profile_actions())
    set.push_back(
        {.action = actionOf(one.action(), table), .weight = static_cast<uint32_t>(one.weight())});
  return set;
}

void Controller::write(const p4::v1::Update& update) {
  const p4::v1::Entity& entity = update.entity();
  if (entity.has_table_entry()) return writeEntry(update);
  if (entity.has_action_profile_member()) return writeMember(update);
  if (entity.has_action_profile_group()) return writeGroup(update);
  if (entity.has_packet_replication_engine_entry()) return writeReplication(update);
  if (!entity.has_digest_entry()) throw std::out_of_range("an entity that is not written here");
  const auto& digest = entity.digest_entry();
  const std::string& name = withId(p4info_.digests(), digest.digest_id()).preamble().name();
  engine_.setDigest(
      known(learnListNamed(engine_.program(), name), name),
      {.maxSamples = static_cast<size_t>(std::max(1, digest.config().max_list_size())),
       .suppress = digest.config().ack_timeout_ns() > 0});
}

void Controller::writeEntry(const p4::v1::Update& update) {
  const p4::v1::TableEntry& entry = update.entity().table_entry();
  const uint32_t table = tableOf(entry.table_id());
  if (entry.is_default_action()) {
    std::optional<P4::ActionSpec> action;
    if (entry.has_action()) action = actionOf(entry.action().action(), table);
    return engine_.tables().setDefault(table, action);
  }
  if (update.type() == p4::v1::Update::INSERT) {
    engine_.tables().insert(keyOf(entry), targetOf(entry.action(), table));
    written_.push_back(entry);
  } else if (update.type() == p4::v1::Update::MODIFY) {
    engine_.tables().modify(keyOf(entry), targetOf(entry.action(), table));
  } else {
    engine_.tables().remove(keyOf(entry));
  }
}

void Controller::writeMember(const p4::v1::Update& update) {
  const auto& member = update.entity().action_profile_member();
  const uint32_t profile = profileOf(member.action_profile_id());
  P4::ProfileStore& store = engine_.tables().profile(profile);
  if (update.type() == p4::v1::Update::DELETE) return store.removeMember(member.member_id());
  const P4::ActionSpec action = memberActionOf(member.action(), profile);
  if (update.type() == p4::v1::Update::INSERT)
    return store.insertMember(member.member_id(), action);
  store.modifyMember(member.member_id(), action);
}

void Controller::writeGroup(const p4::v1::Update& update) {
  const auto& group = update.entity().action_profile_group();
  P4::ProfileStore& store = engine_.tables().profile(profileOf(group.action_profile_id()));
  if (update.type() == p4::v1::Update::DELETE) return store.removeGroup(group.group_id());
  std::vector<P4::GroupShare> shares;
  for (const auto& member : group.members())
    shares.push_back({member.member_id(), static_cast<uint32_t>(member.weight())});
  if (update.type() == p4::v1::Update::INSERT) return store.insertGroup(group.group_id(), shares);
  store.modifyGroup(group.group_id(), shares);
}

void Controller::writeReplication(const p4::v1::Update& update) {
  const auto& entry = update.entity().packet_replication_engine_entry();
  const bool isDelete = update.type() == p4::v1::Update::DELETE;
  if (entry.has_multicast_group_entry()) {
    const auto& group = entry.multicast_group_entry();
    return engine_.tables().setMulticast(
        group.multicast_group_id(),
        isDelete ? std::vector<P4::Replica>() : replicasOf(group.replicas()));
  }
  const auto& session = entry.clone_session_entry();
  const uint32_t group = 32768 + session.session_id();
  engine_.tables().setMulticast(
      group, isDelete ? std::vector<P4::Replica>() : replicasOf(session.replicas()));
  std::optional<P4::Session> value;
  if (!isDelete) value = P4::Session{.group = group};
  engine_.tables().setSession(session.session_id(), value);
}

std::map<std::string, P4::Counts> Controller::counters() {
  std::map<std::string, P4::Counts> found;
  const auto note = [&found](const std::string& key, const P4::Counts& counts) {
    if (counts.packets || counts.bytes) found[key] = counts;
  };
  for (const auto& direct : p4info_.direct_counters())
    for (const p4::v1::TableEntry& entry : written_)
      if (entry.table_id() == direct.direct_table_id())
        if (const P4::Entry* held = engine_.tables().find(keyOf(entry)))
          note(counterKey(entry), held->counter.counts());
  for (const auto& counter : p4info_.counters()) {
    const std::string& name = counter.preamble().name();
    const uint32_t array = known(counterNamed(engine_.program(), name), name);
    for (uint32_t index = 0; const auto counts = engine_.counter(array, index); ++index)
      note("[" + std::to_string(counter.preamble().id()) + ", " + std::to_string(index) + "]",
           *counts);
  }
  return found;
}

Controller::PacketIn Controller::packetIn(const std::string& frame) const {
  PacketIn packet{.payload = frame};
  const auto* header = headerNamed(p4info_, "packet_in");
  if (!header) return packet;
  size_t at = 0;
  for (const auto& field : header->metadata()) {
    P4::Number value;
    for (int bit = 0; bit < field.bitwidth(); ++bit, ++at)
      value = value * 2 + (at / 8 < frame.size() ? frame[at / 8] >> (7 - at % 8) & 1 : 0);
    std::string hex = value.get_str(16);
    if (hex.size() % 2) hex = "0" + hex;
    packet.metadata[std::to_string(field.id())] = hex;
  }
  packet.payload = frame.substr(std::min(frame.size(), (at + 7) / 8));
  return packet;
}

std::string Controller::packetOut(const p4::v1::PacketOut& packet) const {
  const auto* header = headerNamed(p4info_, "packet_out");
  if (!header) return packet.payload();
  std::string bits;
  for (const auto& field : header->metadata()) {
    std::string value(static_cast<size_t>(field.bitwidth()), '0');
    for (const auto& given : packet.metadata()) {
      if (given.metadata_id() != field.id()) continue;
      std::string all;
      for (const char byte : given.value())
        for (int bit = 7; bit >= 0; --bit) all += byte >> bit & 1 ? '1' : '0';
      for (size_t i = 0; i < value.size() && i < all.size(); ++i)
        value[value.size() - 1 - i] = all[all.size() - 1 - i];
    }
    bits += value;
  }
  bits.resize((bits.size() + 7) / 8 * 8, '0');
  std::string frame;
  for (size_t i = 0; i < bits.size(); i += 8)
    frame += static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2));
  return frame + packet.payload();
}

std::vector<std::string> Controller::fieldsOf(const P4::DigestList& list,
                                              const std::string& sample) const {
  std::vector<std::string> fields;
  size_t at = 0;
  for (const P4::FieldRef& ref : engine_.program().learnLists[list.learnList].fields) {
    const size_t bytes = (engine_.program().bitsOf(ref) + 7) / 8;
    fields.push_back(trimmedHex(sample.substr(at, bytes)));
    at += bytes;
  }
  return fields;
}

uint32_t Controller::digestId(uint32_t learnList) const {
  for (const auto& digest : p4info_.digests())
    if (digest.preamble().name() == engine_.program().learnLists[learnList].name)
      return digest.preamble().id();
  return 0;
}

}  // namespace P4Test
