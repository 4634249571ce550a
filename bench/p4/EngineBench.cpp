// The P4 engine alone: packets a second through recorded programs with their entries, and the cost
// of an entry and of a look-up by match kind and size, and of writes.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>

#include "tests/p4/Playing.h"
#include "tests/p4/SmallProgram.h"
#include "tests/p4/VectorFile.h"

namespace {

using namespace P4Test;

std::string decodedHex(const cJSON* packet) { return P4Test::bytesOf(stringOf(packet, "hex")); }

// A program with its recorded entries, and the recorded packets of the busiest port that come out.
struct Load {
  explicit Load(const std::string& name) : file(KORVEL_VECTORS, KORVEL_PROGRAMS, name) {
    std::map<uint32_t, std::vector<std::string>> byPort;
    const cJSON* packet = nullptr;
    Json held(nullptr, cJSON_Delete);
    for (Json line = file.next(); line; line = file.next()) {
      const std::string kind = line->child->string;
      if (kind == "write") file.write(*line->child);
      if (kind == "expect" && packet && line->child->child)
        byPort[numberOf(packet, "port")].push_back(decodedHex(packet));
      if (kind != "packet") continue;
      held = std::move(line);
      packet = held->child;
    }
    for (auto& [number, packets] : byPort)
      if (packets.size() > frames.size()) {
        port = number;
        frames = packets;
      }
  }

  void padTo(size_t size) {
    std::vector<std::string> some;
    for (const std::string& frame : frames)
      if (frame.size() <= size) some.push_back(frame + std::string(size - frame.size(), '\0'));
    if (!some.empty()) frames = some;
  }

  VectorFile file;
  uint32_t port = 0;
  std::vector<std::string> frames;
};

void packets(benchmark::State& state, const std::string& name, size_t size) {
  Load load(name);
  if (load.frames.empty()) return state.SkipWithError("no recorded packet comes out of a port");
  if (size) load.padTo(size);
  P4::Engine& engine = load.file.engine();
  P4::Outputs outputs;
  uint64_t now = 0, sent = 0;
  size_t at = 0;
  for (auto _ : state) {
    outputs.clear();
    engine.begin();
    for (int i = 0; i < 32; ++i) {
      const std::string& frame = load.frames[at];
      if (++at == load.frames.size()) at = 0;
      engine.processNext(load.port, {reinterpret_cast<const uint8_t*>(frame.data()), frame.size()},
                         ++now, outputs);
    }
    engine.end();
    sent += outputs.size();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 32);
  state.counters["out"] =
      benchmark::Counter(static_cast<double>(sent), benchmark::Counter::kIsRate);
}

std::string big32(uint32_t number) {
  return {static_cast<char>(number >> 24), static_cast<char>(number >> 16),
          static_cast<char>(number >> 8), static_cast<char>(number)};
}

P4::Table tableOf(P4::MatchKind kind) {
  P4::Table table{.name = "bench", .kind = kind};
  table.key.push_back({.name = "address", .kind = kind, .bits = 32});
  return table;
}

P4::MatchElement elementOf(P4::MatchKind kind, uint32_t number) {
  const uint32_t spread = number * 2654435761u;
  if (kind == P4::MatchKind::lpm) return {big32(spread), "", number % 3 ? 8 + number % 25 : 24};
  if (kind == P4::MatchKind::ternary) return {big32(spread), big32(0xffffffffu << number % 20)};
  if (kind == P4::MatchKind::range) return {big32(spread & ~0xffu), big32(spread | 0xff)};
  return {big32(spread)};
}

std::vector<P4::Entry::Ptr> entriesOf(P4::MatchKind kind, uint32_t count,
                                      const P4::KeyShape& shape) {
  const P4::Table table = tableOf(kind);
  std::vector<P4::Entry::Ptr> entries;
  for (uint32_t i = 0; i < count; ++i) {
    const P4::MatchElement element = elementOf(kind, i);
    entries.push_back(P4::encodeKey(table, shape, {element}));
    entries.back()->prefixLength = element.prefixLength;
    entries.back()->rank = i % 1000;
    entries.back()->handle = i;
  }
  return entries;
}

void insertion(benchmark::State& state, P4::MatchKind kind) {
  const P4::KeyShape shape = keyShapeOf(tableOf(kind));
  const auto count = static_cast<uint32_t>(state.range(0));
  const auto entries = entriesOf(kind, count, shape);
  for (auto _ : state) {
    P4::TableIndex index(shape);
    for (const auto& entry : entries) index.maybeInsert(entry.get());
    state.PauseTiming();
    benchmark::DoNotOptimize(index);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
}

void lookUp(benchmark::State& state, P4::MatchKind kind) {
  const P4::KeyShape shape = keyShapeOf(tableOf(kind));
  const auto count = static_cast<uint32_t>(state.range(0));
  const auto entries = entriesOf(kind, count, shape);
  P4::TableIndex index(shape);
  for (const auto& entry : entries) index.maybeInsert(entry.get());
  uint32_t number = 0;
  for (auto _ : state) {
    uint64_t key[2] = {((number++ * 7919u) % count) * 2654435761u & 0xffffffffu, 0};
    if (kind == P4::MatchKind::lpm) key[0] <<= 32;
    benchmark::DoNotOptimize(index.find(key));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void commits(benchmark::State& state) {
  P4::Engine engine(fileText(KORVEL_PROGRAMS "/json/onos-basic.json"));
  for (auto _ : state) {
    engine.tables().setMulticast(1, {{1, 1}});
    engine.tables().commit();
  }
}

// Inserts, modifies and removes entries of an exact table, in commits of 1,000.
void writes(benchmark::State& state) {
  P4Test::SmallProgram program;
  program.header("h", {{"key", 32}});
  program.state("start", P4Test::list({P4Test::extract("h")}));
  const size_t set = program.action("set", R"({"name":"value","bitwidth":64})", "");
  program.ingressAction("", "t");
  program.table(
      R"({"name":"t","id":1,"match_type":"exact","type":"simple","max_size":100000,"key":[)"
      R"({"match_type":"exact","target":["h","key"],"mask":null}],"action_ids":[)" +
      std::to_string(set) +
      R"(],"actions":["set"],"base_default_next":null,"next_tables":{"set":null}})");
  P4::Engine engine(program.json());
  P4::TableStore& tables = engine.tables();
  const uint32_t table = P4::tableNamed(engine.program(), "t").value();
  const auto count = static_cast<uint32_t>(state.range(0));
  const P4::Target target = P4::ActionSpec{static_cast<uint32_t>(set), {std::string(8, '1')}};
  const auto each = [&](const auto& write) {
    for (uint32_t i = 0; i < count; ++i) {
      write({.table = table, .match = {{big32(i * 2654435761u)}}});
      if (i % 1000 == 999) tables.commit();
    }
  };
  for (auto _ : state) {
    each([&](const P4::EntryKey& key) { tables.insert(key, target); });
    each([&](const P4::EntryKey& key) { tables.modify(key, target); });
    each([&](const P4::EntryKey& key) { tables.remove(key); });
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 3 * count);
}

void registerPackets() {
  std::error_code none;
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(KORVEL_VECTORS, none))
    if (file.path().extension() == ".jsonl") names.push_back(file.path().stem());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names)
    for (const size_t size : {size_t{0}, size_t{64}, size_t{1500}})
      benchmark::RegisterBenchmark(
          ("packets/" + name + "/" + (size ? std::to_string(size) : "recorded")).c_str(),
          [name, size](benchmark::State& state) { packets(state, name, size); });
  if (!names.empty()) benchmark::RegisterBenchmark("commit", commits);
}

BENCHMARK_CAPTURE(insertion, exact, P4::MatchKind::exact)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(insertion, lpm, P4::MatchKind::lpm)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(insertion, ternary, P4::MatchKind::ternary)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(lookUp, exact, P4::MatchKind::exact)->Arg(1)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(lookUp, lpm, P4::MatchKind::lpm)->Arg(1)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(lookUp, ternary, P4::MatchKind::ternary)->Arg(1)->Arg(1000)->Arg(1000000);
BENCHMARK_CAPTURE(lookUp, range, P4::MatchKind::range)->Arg(1)->Arg(1000)->Arg(100000);

BENCHMARK(writes)->Arg(10000)->Arg(100000);

}  // namespace

int main(int argc, char** argv) {
  registerPackets();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
