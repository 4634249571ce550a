#include "forwarder/plane/PlaneTables.h"

#include "forwarder/packets/PacketThread.h"
#include "forwarder/plane/GroupedRows.h"
#include "p4/tables/Refusal.h"

namespace Forwarder {
namespace {

// Takes all rows: the engine needs none of them.
class SilentTable final : public PlaneTable {
 public:
  void write(const PlaneRow&) override {}
  void erase(std::string_view) override {}
};

// Its one row says that controllers want the digest.
class DigestTable final : public PlaneTable {
 public:
  DigestTable(uint32_t& wanted, uint32_t id) : wanted_(wanted), id_(id) {}
  void write(const PlaneRow&) override { wanted_ = id_; }
  void erase(std::string_view) override { wanted_ = 0; }

 private:
  uint32_t& wanted_;
  const uint32_t id_;
};

uint32_t known(const std::optional<uint32_t>& position, const std::string& what,
               const std::string& name) {
  if (position) return *position;
  throw P4::Refusal(P4::RefusalKind::invalid,
                    "the program that the switch executes has no " + what + " " + name);
}

bool isArray(const std::string& kind) {
  return kind == "counter" || kind == "meter" || kind == "register";
}

// "counter" of "counter.default".
std::string withoutDefault(const std::string& kind) {
  static const std::string suffix = ".default";
  return kind.ends_with(suffix) ? kind.substr(0, kind.size() - suffix.size()) : kind;
}

}  // namespace

std::unique_ptr<PlaneTable> PlaneTables::make(const std::string& rows,
                                              const Lattice::TableType& type) {
  const RowsMeaning* meaning = names_.table(rows);
  if (meaning == nullptr) return nullptr;
  const std::string& kind = meaning->kind;
  const P4::Program& program = engine_.program();
  if (kind == "entries" || kind == "default" || kind == "idle_timeout") {
    return makeEntries(*meaning, type);
  }
  if (kind == "members" || kind == "groups" || kind == "watch") {
    return makeOfProfile(*meaning, type);
  }
  if (isArray(withoutDefault(kind))) return makeCells(*meaning, type);
  if (kind == "multicast_group.replica") {
    return std::make_unique<ReplicaTable>(engine_, Replicas::Of::multicastGroups);
  }
  if (kind == "clone_session.replica") {
    return std::make_unique<ReplicaTable>(engine_, Replicas::Of::cloneSessions);
  }
  if (kind == "clone_session") return std::make_unique<SessionTable>(type);
  if (kind == "value_set.member") {
    const uint32_t set =
        known(P4::valueSetNamed(program, meaning->name), "value set", meaning->name);
    return std::make_unique<ValueSetTable>(engine_, set, type, meaning->bits);
  }
  if (kind == "digest") {
    const uint32_t list =
        known(P4::learnListNamed(program, meaning->name), "digest", meaning->name);
    return std::make_unique<DigestTable>(wantedDigests_[list], meaning->id);
  }
  return std::make_unique<SilentTable>();
}

void PlaneTables::forget(const PlaneTable& table) {
  for (auto& [name, entries] : entries_) {
    if (entries == &table) entries = nullptr;
  }
}

const EntryTable* PlaneTables::entriesOf(uint32_t tableId) const {
  for (const auto& [rows, meaning] : names_.tables) {
    if (meaning.kind != "entries" || meaning.id != tableId) continue;
    const auto known = entries_.find(meaning.name);
    return known == entries_.end() ? nullptr : known->second;
  }
  return nullptr;
}

IdleBook* PlaneTables::idleBook(const std::string& table) {
  for (const auto& [rows, meaning] : names_.tables) {
    if (meaning.kind != "idle_timeout" || meaning.name != table) continue;
    IdleBook& book = idle_[table];
    book.now = PacketThread::now;
    return &book;
  }
  return nullptr;
}

std::unique_ptr<PlaneTable> PlaneTables::makeEntries(const RowsMeaning& meaning,
                                                     const Lattice::TableType& type) {
  const uint32_t position =
      known(P4::tableNamed(engine_.program(), meaning.name), "table", meaning.name);
  if (meaning.kind == "default") {
    return std::make_unique<DefaultTable>(engine_, position, type, names_);
  }
  if (meaning.kind == "idle_timeout") {
    return std::make_unique<IdleTable>(type, *idleBook(meaning.name), &entries_[meaning.name]);
  }
  auto table =
      std::make_unique<EntryTable>(engine_, position, type, names_, idleBook(meaning.name));
  entries_[meaning.name] = table.get();
  return table;
}

std::unique_ptr<PlaneTable> PlaneTables::makeOfProfile(const RowsMeaning& meaning,
                                                       const Lattice::TableType& type) {
  const uint32_t profile =
      known(P4::profileNamed(engine_.program(), meaning.name), "action profile", meaning.name);
  if (meaning.kind == "members") {
    return std::make_unique<MemberTable>(engine_, profile, type, names_);
  }
  auto& groups = groups_[meaning.name];
  if (!groups) groups = std::make_shared<Groups>(engine_, profile);
  if (meaning.kind == "groups") return std::make_unique<GroupTable>(groups);
  return std::make_unique<WatchTable>(groups, type);
}

std::unique_ptr<PlaneTable> PlaneTables::makeCells(const RowsMeaning& meaning,
                                                   const Lattice::TableType& type) {
  const P4::Program& program = engine_.program();
  const std::string kind = withoutDefault(meaning.kind);
  auto& cells = arrays_[kind + " " + meaning.name];
  if (!cells && kind == "counter") {
    const uint32_t array = known(P4::counterNamed(program, meaning.name), kind, meaning.name);
    cells = counterCells(engine_, array, meaning.id, flows_);
  } else if (!cells && kind == "meter") {
    cells = meterCells(engine_, known(P4::meterNamed(program, meaning.name), kind, meaning.name));
  } else if (!cells) {
    cells =
        registerCells(engine_, known(P4::registerNamed(program, meaning.name), kind, meaning.name));
  }
  const auto of = kind == meaning.kind ? CellTable::Of::oneCell : CellTable::Of::allCells;
  return std::make_unique<CellTable>(cells, type, of);
}

}  // namespace Forwarder
