// Rows of action profiles: members, groups and the ports that these watch, by the agent's own ids.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "forwarder/plane/PlaneTable.h"
#include "forwarder/plane/RowReading.h"

namespace Forwarder {

class MemberTable final : public PlaneTable {
 public:
  // Engine and type outlive this.
  MemberTable(P4::Engine& engine, uint32_t profile, const Lattice::TableType& type,
              const ProgramNames& names);
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;

 private:
  P4::Engine& engine_;
  const uint32_t profile_;
  const Lattice::TableType& type_;
  const ActionPositions actions_;
  absl::flat_hash_set<uint32_t> members_;
};

// The groups of one profile, and the ports that their members watch.
class Groups {
 public:
  Groups(P4::Engine& engine, uint32_t profile) : engine_(engine), profile_(profile) {}

  // Throw P4::Refusal.
  void groupIs(uint32_t group, const std::vector<uint32_t>& members);  // one may stand many times
  void groupDel(uint32_t group);
  void watchIs(uint32_t group, uint32_t member, std::optional<uint32_t> port);
  void finish();

 private:
  struct Held {
    std::vector<uint32_t> members;
    bool isThere = false;                               // in the engine
    absl::flat_hash_map<uint32_t, uint32_t> watchPort;  // by member
  };
  static std::vector<P4::GroupShare> sharesOf(const std::vector<uint32_t>& members,
                                              const Held& held);

  P4::Engine& engine_;
  const uint32_t profile_;
  absl::flat_hash_map<uint32_t, Held> groups_;
  absl::flat_hash_set<uint32_t> changed_;  // whose watched ports have
};

class GroupTable final : public PlaneTable {
 public:
  explicit GroupTable(std::shared_ptr<Groups> groups) : groups_(std::move(groups)) {}
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;
  void finish() override { groups_->finish(); }

 private:
  const std::shared_ptr<Groups> groups_;
};

class WatchTable final : public PlaneTable {
 public:
  WatchTable(std::shared_ptr<Groups> groups, const Lattice::TableType& type)
      : groups_(std::move(groups)), type_(type) {}
  void write(const PlaneRow& row) override;
  void erase(std::string_view key) override;
  void finish() override { groups_->finish(); }

 private:
  const std::shared_ptr<Groups> groups_;
  const Lattice::TableType& type_;
};

}  // namespace Forwarder
