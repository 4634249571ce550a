// The cost of the forwarder's structures for an entry, by match kind and size: programming a change
// with its checks and its report, and looking a packet up.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "forwarder/follow/ForwardingAgent.h"
#include "platform/lattice/types/IpGenPrefix.h"

namespace {

using namespace Forwarder;

constexpr unsigned seed = 20240611;

// Takes reports and does nothing with them.
class DeafSubscriber final : public Lattice::Subscriber {
 public:
  void follow(std::chrono::milliseconds) override {}
  const std::string& trouble() const override { return trouble_; }
  bool attached() const override { return true; }
  void report(uint64_t, uint64_t sequence, uint16_t errorCode, std::string_view) override {
    benchmark::DoNotOptimize(sequence + errorCode);
  }
  void flush() override {}
  uint64_t sequence() const override { return 0; }
  int descriptor() const override { return -1; }
  void lookForIs(std::chrono::microseconds) override {}
  void appliesAtOnceIs(bool) override {}

 private:
  std::string trouble_;
};

std::string big32(uint32_t number) {
  return {char(number >> 24), char(number >> 16), char(number >> 8), char(number)};
}

struct Entry {
  std::string key;
  std::string packet;  // one that hits it
};

Entry exactEntry(uint32_t number) {
  const std::string key = big32(number * 2654435761u) + big32(number);
  return {key, key};
}

// As routes are spread: a third of them /24, the rest from /8 to /32.
Entry prefixEntry(uint32_t number) {
  Lattice::IpGenPrefix prefix{.family = Lattice::IpGenPrefix::ipv4};
  const std::string address = big32(number * 2654435761u);
  std::memcpy(prefix.address.data(), address.data(), 4);
  const std::string packet(reinterpret_cast<const char*>(&prefix), sizeof prefix);
  prefix.length = number % 3 ? 8 + number % 25 : 24;
  clearHostBits(prefix.address.data(), 16, prefix.length);
  return {std::string(reinterpret_cast<const char*>(&prefix), sizeof prefix), packet};
}

// As access lists are: a few dozen masks, a priority each.
Entry ternaryEntry(uint32_t number) {
  const uint32_t mask = 0xffffffffu << number % 24;
  const uint32_t value = number * 2654435761u;
  return {big32(value & mask) + big32(mask) + big32(number), big32(value)};
}

struct Kind {
  const char* definition;
  Entry (*entry)(uint32_t number);
};
const Kind kinds[] = {
    {"key a : U32; key b : U32; port : U32;", exactEntry},
    {"key dst : IpGenPrefix; port : U32;", prefixEntry},
    {"key a : U32 value; key a_mask : U32 mask; key priority : U32 priority; port : U32;",
     ternaryEntry},
};

// In the order a controller might send them, not in the order of memory.
std::vector<Entry> entries(const Kind& kind, size_t count) {
  std::vector<Entry> entries;
  for (uint32_t number = 0; number < count; ++number) entries.push_back(kind.entry(number));
  std::shuffle(entries.begin(), entries.end(), std::mt19937(seed));
  return entries;
}

struct Bench {
  explicit Bench(const Kind& kind)
      : table{"bench", Lattice::TableType::compile("bench", kind.definition)} {
    reports.subscriberIs(&subscriber);
    agent.tableAdded(table);
  }
  void program(const Entry& entry, bool deleted = false) {
    agent.rowChanged({.table = &table,
                      .key = entry.key,
                      .value = deleted ? std::string_view() : std::string_view("port"),
                      .deleted = deleted,
                      .entryHandle = ++sequence,
                      .sequence = sequence});
  }
  DeafSubscriber subscriber;
  ReportQueue reports;
  ForwardingAgent agent{reports};
  const Lattice::FollowedTable table;
  uint64_t sequence = 0;
};

// Range 0: the kind; range 1: how many rows.
void BM_Insert(benchmark::State& state) {
  const Kind& kind = kinds[state.range(0)];
  const auto all = entries(kind, state.range(1));
  for (auto _ : state) {
    state.PauseTiming();
    auto bench = std::make_unique<Bench>(kind);
    state.ResumeTiming();
    for (const Entry& entry : all) bench->program(entry);
    state.PauseTiming();
    bench.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(1));
}

// A row goes and comes back.
void BM_DeleteAndInsert(benchmark::State& state) {
  const Kind& kind = kinds[state.range(0)];
  const auto all = entries(kind, state.range(1));
  Bench bench(kind);
  for (const Entry& entry : all) bench.program(entry);
  size_t next = 0;
  for (auto _ : state) {
    const Entry& entry = all[next++ % all.size()];
    bench.program(entry, true);
    bench.program(entry);
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

void BM_Lookup(benchmark::State& state) {
  const Kind& kind = kinds[state.range(0)];
  const auto all = entries(kind, state.range(1));
  Bench bench(kind);
  for (const Entry& entry : all) bench.program(entry);
  const MatchTable& table = *bench.agent.table("bench")->rows();
  size_t next = 0;
  for (auto _ : state) {
    const std::string& packet = all[next++ % all.size()].packet;
    benchmark::DoNotOptimize(
        table.lookup({reinterpret_cast<const uint8_t*>(packet.data()), packet.size()}));
  }
  state.SetItemsProcessed(state.iterations());
}

void sizes(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"kind(exact,prefix,ternary)", "rows"});
  bench->ArgsProduct({{0, 1, 2}, {1000, 100000, 1000000}});
}
BENCHMARK(BM_Insert)->Apply(sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DeleteAndInsert)->Apply(sizes);
BENCHMARK(BM_Lookup)->Apply(sizes);

}  // namespace
