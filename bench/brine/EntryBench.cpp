// The cost of one table entry in shared memory, end to end: a look at its former row, its row with
// the agent's record behind it, and the settling of its batch.
// Entries come in batches of 100 into a table that already holds 10 thousand to 1 million; row
// keys are random, so that each row touches pages of its own. Time is per entry.
#include <benchmark/benchmark.h>

#include <random>
#include <stdexcept>
#include <string>

#include "platform/brine/Store.h"
#include "platform/lattice/Database.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"
#include "tests/support/TempDir.h"

namespace {

constexpr size_t batchSize = 100;
constexpr const char* routeType = R"(
  key vrf_id : U16;
  key ipv4_dst : IpGenPrefix;
  action { set_nexthop 16777218 { nexthop_id : U32; } drop 16777219 { none : Void; } }
)";

// A switch's state directory, filled up to `entries`.
class Switch {
 public:
  explicit Switch(size_t entries) : store_(Brine::Store::open({.directory = directory_.path()})) {
    const Vela::ActivityLock lock;
    database_ = Lattice::Database::create(loop_, *store_,
                                          {.doorbellPath = directory_.file("doorbell.sock"),
                                           .journalChangesWithoutSubscriber = 1000});
    Lattice::TheTypeRegistry().typeIs(Lattice::TableType::compile("RouteType", routeType));
    routes_ = Vela::make<Lattice::ArTableInterface>("routes", "RouteType", nullptr);
    database_->bindInterface(routes_, "routes", true);
    for (size_t done = 0; done < entries; done += batchSize) batch();
  }
  ~Switch() {
    const Vela::ActivityLock lock;
    routes_ = nullptr;
    database_.reset();
    store_.reset();
  }

  void batch() {
    const Vela::ActivityLock lock;
    database_->batchBegin();
    for (Lattice::Row& row : rows_) write(row);
    const Vela::Outcome stored = database_->batchEnd();
    if (!stored.ok()) throw std::runtime_error(stored.reason());
    database_->settle();
  }
  size_t bytesUsed() const { return store_->bytesUsed(); }

 private:
  void write(Lattice::Row& row) {
    row.key.assign(26, '\0');
    for (size_t at : {1, 10, 11, 12, 13}) row.key[at] = static_cast<char>(random_());
    row.value.assign("\2\0\0\1\5\0\0\0", 8);
    benchmark::DoNotOptimize(routes_->stored(row.key));
    routes_->rowIs(row, ++handle_, record_);
    benchmark::DoNotOptimize(routes_->rowCount());
  }

  const TestSupport::TempDir directory_;
  std::unique_ptr<Brine::Store> store_;
  Vela::ReactorLoop loop_;
  std::unique_ptr<Lattice::Database> database_;
  Vela::Ptr<Lattice::ArTableInterface> routes_;
  std::mt19937_64 random_{7};
  uint64_t handle_ = 0;
  Lattice::Row rows_[batchSize];
  const std::string record_ = std::string(22, 'r');
};

void entryInFilledTable(benchmark::State& state) {
  Switch filled(static_cast<size_t>(state.range(0)));
  for (auto _ : state) filled.batch();
  state.counters["perEntry"] =
      benchmark::Counter(static_cast<double>(state.iterations() * batchSize),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["bytesPerEntry"] =
      static_cast<double>(filled.bytesUsed()) /
      static_cast<double>(state.range(0) + state.iterations() * batchSize);
}
BENCHMARK(entryInFilledTable)
    ->ArgName("entries")
    ->Arg(10'000)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
