#include "platform/brine/StoreHead.h"

#include <cerrno>
#include <set>

#include "platform/brine/Failure.h"
#include "platform/brine/Hash.h"
#include "platform/brine/Records.h"

namespace Brine {
namespace {

// LMDB's list of tables has no checksums; ours has.
void requireTables(Environment& environment, MDB_txn* txn, MDB_dbi meta) {
  std::set<std::string, std::less<>> listed, there;
  const auto list = [&](Bytes key, Bytes) {
    const std::string_view name = asText(key);
    if (name.starts_with(tableKeyPrefix)) listed.emplace(name.substr(tableKeyPrefix.size()));
    return true;
  };
  bool sound = true;
  const auto damagedOne = [&](Bytes key) { sound &= !asText(key).starts_with(tableKeyPrefix); };
  check(visitRecords(txn, meta, list, {}, damagedOne), environment.directory());
  const auto add = [&](std::string_view name) {
    if (name != metaTable) there.emplace(name);
    return true;
  };
  check(visitNames(txn, add), environment.directory());
  if (!sound || listed != there) damaged(environment.directory(), "it has lost tables");
}

// The layout version is written with the store, and asked for by all others. Returns the boot that
// the store was written in; empty when that cannot be read.
std::string checkedHead(Environment& environment) {
  const std::lock_guard guard(environment.handlesMutex);
  const Transaction txn(environment, MDB_RDONLY);
  MDB_dbi dbi = 0;
  MDB_stat stat{};
  const int error = mdb_dbi_open(txn.handle(), std::string(metaTable).c_str(), 0, &dbi);
  if (error == MDB_NOTFOUND) {
    check(mdb_stat(txn.handle(), 1, &stat), environment.directory());
    if (stat.ms_entries == 0) throw StoreError(Trouble::missing, "no store yet");
    damaged(environment.directory(), "it is no store of this program");
  }
  check(error, environment.directory());
  MDB_val key = asVal(asBytes(layoutKey));
  MDB_val version;
  if (mdb_get(txn.handle(), dbi, &key, &version) != MDB_SUCCESS ||
      version.mv_size != sizeof layoutVersion) {
    damaged(environment.directory(), "it has no layout version");
  }
  const auto number = loaded<uint32_t>(asBytes(version).data());
  if (number != layoutVersion) {
    throw StoreError(Trouble::wrongVersion, "the store in " + environment.directory() +
                                                " has layout version " + std::to_string(number) +
                                                ", this program reads " +
                                                std::to_string(layoutVersion));
  }
  requireTables(environment, txn.handle(), dbi);
  Bytes boot;
  if (findRecord(txn.handle(), dbi, asBytes(bootKey), &boot) != MDB_SUCCESS) return {};
  return std::string(asText(boot));
}

void writeHead(Environment& environment, const std::string& boot) {
  const std::lock_guard guard(environment.handlesMutex);
  environment.allocateRoom({});
  Transaction txn(environment, 0);
  MDB_dbi dbi = 0;
  check(mdb_dbi_open(txn.handle(), std::string(metaTable).c_str(), MDB_CREATE, &dbi),
        environment.directory());
  MDB_val key = asVal(asBytes(layoutKey));
  uint32_t number = layoutVersion;
  MDB_val value{sizeof number, &number};
  check(mdb_put(txn.handle(), dbi, &key, &value, 0), environment.directory());
  MDB_cursor* cursor = nullptr;
  check(mdb_cursor_open(txn.handle(), dbi, &cursor), environment.directory());
  check(putRecord(cursor, asBytes(bootKey), asBytes(boot)), environment.directory());
  txn.commit();
}

// A store on a disk outlives the machine's memory, from which LMDB's pages come to it in any order.
void requireThisBoot(Environment& environment, const std::string& written,
                     const std::string& boot) {
  if (written == boot || written.empty() || boot.empty()) return;
  throw StoreError(Trouble::otherBoot,
                   "the store in " + environment.directory() +
                       " was written before this boot of the machine, and may not be whole");
}

}  // namespace

void checkOrCreate(Environment& environment, Purpose purpose, const std::string& bootId) {
  const std::string boot = bootId.empty() ? currentBootId() : bootId;
  try {
    const std::string written = checkedHead(environment);
    if (purpose == Purpose::write) requireThisBoot(environment, written, boot);
  } catch (const StoreError& error) {
    if (error.trouble != Trouble::missing) throw;
    if (purpose == Purpose::read) failed(ENOENT, environment.directory());
    writeHead(environment, boot);
  }
}

}  // namespace Brine
