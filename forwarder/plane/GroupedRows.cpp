#include "forwarder/plane/GroupedRows.h"

#include <gmpxx.h>

#include "p4/program/Number.h"
#include "p4/tables/Refusal.h"
#include "platform/lattice/types/RowWalk.h"

namespace Forwarder {
namespace {

// A clone session is the multicast group of its id and this.
constexpr uint32_t firstSessionGroup = 32768;
constexpr size_t numberBytes = 4;  // of each column in the key of a replica

uint32_t numberAt(std::string_view key, size_t place) {
  uint32_t number = 0;
  for (const char byte : key.substr(place * numberBytes, numberBytes)) {
    number = number << 8 | static_cast<uint8_t>(byte);
  }
  return number;
}

void requireLayout(std::string_view key) {
  if (key.size() == 3 * numberBytes) return;
  throw P4::Refusal(P4::RefusalKind::invalid, "the row does not have the layout of a replica");
}

}  // namespace

void Replicas::add(std::string_view key) {
  requireLayout(key);
  const uint32_t instance = numberAt(key, 2);
  if (instance > UINT16_MAX) {
    throw P4::Refusal(P4::RefusalKind::invalid,
                      "instances of replicas are below 65536, not " + std::to_string(instance));
  }
  replicas_[numberAt(key, 0)].emplace(instance, numberAt(key, 1));
  changed_.insert(numberAt(key, 0));
}

void Replicas::remove(std::string_view key) {
  requireLayout(key);
  replicas_[numberAt(key, 0)].erase({numberAt(key, 2), numberAt(key, 1)});
  changed_.insert(numberAt(key, 0));
}

void Replicas::finish() {
  for (const uint32_t id : changed_) {
    put(id, replicas_[id]);
    if (replicas_[id].empty()) replicas_.erase(id);
  }
  changed_.clear();
}

void Replicas::put(uint32_t id, const std::set<Replica>& replicas) {
  std::vector<P4::Replica> list;
  for (const auto& [instance, port] : replicas) {
    list.push_back({port, static_cast<uint16_t>(instance)});
  }
  P4::TableStore& tables = engine_.tables();
  if (of_ == Of::multicastGroups) return tables.setMulticast(id, std::move(list));
  const uint32_t group = firstSessionGroup + id;
  std::optional<P4::Session> session;
  if (!list.empty()) session = P4::Session{.port = {}, .group = group};
  tables.setMulticast(group, std::move(list));
  tables.setSession(id, session);
}

void SessionTable::write(const PlaneRow& row) {
  RowValue value;
  readValue(type_, row.value, &value);
  static constexpr const char* names[] = {"class_of_service", "packet_length_bytes"};
  for (size_t i = 0; i < value.arguments.size() && i < std::size(names); ++i) {
    if (value.arguments[i].find_first_not_of('\0') == std::string::npos) continue;
    throw P4::Refusal(P4::RefusalKind::constant,
                      std::string("clone sessions with a ") + names[i] + " are not executed");
  }
}

std::string ValueSetTable::memberOf(std::string_view key) const {
  P4::Number packed;
  size_t field = 0;
  Lattice::walkKey(type_, key, [&](const Lattice::Column&, std::string_view bytes) {
    if (field >= bits_.size()) return;
    packed <<= bits_[field++];
    packed += P4::numberOfBytes(std::string(bytes));
  });
  std::string member(mpz_sizeinbase(packed.get_mpz_t(), 256), '\0');
  size_t count = 0;
  mpz_export(member.data(), &count, 1, 1, 1, 0, packed.get_mpz_t());
  member.resize(count);
  return member;
}

void ValueSetTable::write(const PlaneRow& row) {
  isChanged_ |= members_.insert(memberOf(row.key)).second;
}

void ValueSetTable::erase(std::string_view key) { isChanged_ |= members_.erase(memberOf(key)) > 0; }

void ValueSetTable::finish() {
  if (!std::exchange(isChanged_, false)) return;
  engine_.tables().setValueSet(set_, {members_.begin(), members_.end()});
}

}  // namespace Forwarder
