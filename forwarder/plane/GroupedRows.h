// Objects that stand in several rows: multicast groups, clone sessions, value sets. Their rows are
// gathered, and an object that has changed is put together before the commit.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "forwarder/plane/PlaneTable.h"
#include "forwarder/plane/RowReading.h"

namespace Forwarder {

// The replicas of groups or sessions. A group without a replica goes nowhere, with and without a
// row.
class Replicas {
 public:
  enum class Of : uint8_t { multicastGroups, cloneSessions };
  Replicas(P4::Engine& engine, Of of) : engine_(engine), of_(of) {}

  // Throw P4::Refusal. A key is group or session, port and instance.
  void add(std::string_view key);
  void remove(std::string_view key);
  void finish();

 private:
  using Replica = std::pair<uint32_t, uint32_t>;  // instance and port
  void put(uint32_t id, const std::set<Replica>& replicas);

  P4::Engine& engine_;
  const Of of_;
  absl::flat_hash_map<uint32_t, std::set<Replica>> replicas_;
  absl::flat_hash_set<uint32_t> changed_;
};

class ReplicaTable final : public PlaneTable {
 public:
  ReplicaTable(P4::Engine& engine, Replicas::Of of) : replicas_(engine, of) {}
  void write(const PlaneRow& row) override { replicas_.add(row.key); }
  void erase(std::string_view key) override { replicas_.remove(key); }
  void finish() override { replicas_.finish(); }

 private:
  Replicas replicas_;
};

// The rows that say more of a clone session than its replicas do.
class SessionTable final : public PlaneTable {
 public:
  explicit SessionTable(const Lattice::TableType& type) : type_(type) {}
  void write(const PlaneRow& row) override;  // refuses classes of service, and truncation
  void erase(std::string_view) override {}

 private:
  const Lattice::TableType& type_;
};

// The members of one value set.
class ValueSetTable final : public PlaneTable {
 public:
  // `bits` are the widths of its fields.
  ValueSetTable(P4::Engine& engine, uint32_t set, const Lattice::TableType& type,
                std::vector<uint32_t> bits)
      : engine_(engine), set_(set), type_(type), bits_(std::move(bits)) {}
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;
  void finish() override;

 private:
  std::string memberOf(std::string_view key) const;

  P4::Engine& engine_;
  const uint32_t set_;
  const Lattice::TableType& type_;
  const std::vector<uint32_t> bits_;
  std::set<std::string> members_;  // packed, right-aligned
  bool isChanged_ = false;
};

}  // namespace Forwarder
