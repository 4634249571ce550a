#include "p4/Engine.h"

#include <absl/container/flat_hash_map.h>

#include <new>

#include "p4/program/ProgramError.h"

namespace P4 {
namespace {

template <typename Object>
std::optional<uint32_t> named(const std::vector<Object>& objects, std::string_view name) {
  for (uint32_t i = 0; i < objects.size(); ++i)
    if (objects[i].name == name) return i;
  return std::nullopt;
}

}  // namespace

Engine::Engine(std::string_view json, const EngineOptions& options) try
    : program_(readProgram(json)),
      image_(compileProgram(program_, options.dropPort)),
      externs_(program_, image_),
      tables_(program_, image_),
      switch_(image_, externs_, {options.priorityQueues, options.seed}) {
} catch (const std::bad_alloc&) {
  throw ProgramError("", "the program's arrays need more memory than there is");
}

void Engine::process(uint32_t port, std::span<const uint8_t> frame, uint64_t now,
                     Outputs& outputs) {
  begin();
  processNext(port, frame, now, outputs);
  end();
}

void Engine::digestsDue(uint64_t now, std::vector<DigestList>& ready) {
  for (DigestBuffer& digests : switch_.digests()) digests.timeIs(now, ready);
}

void Engine::acknowledgeDigest(uint32_t learnList, uint64_t listId) {
  if (learnList < switch_.digests().size()) switch_.digests()[learnList].acknowledge(listId);
}

void Engine::setDigest(uint32_t learnList, const DigestConfig& config) {
  if (learnList < switch_.digests().size()) switch_.digests()[learnList].configIs(config);
}

std::optional<Counts> Engine::counter(uint32_t array, uint32_t index) const {
  if (array >= externs_.counters.size() || index >= externs_.counters[array].size())
    return std::nullopt;
  return externs_.counters[array][index].counts();
}

bool Engine::setCounter(uint32_t array, uint32_t index, const Counts& counts) {
  if (!counter(array, index)) return false;
  externs_.counters[array][index].countsIs(counts);
  return true;
}

bool Engine::setMeter(uint32_t array, uint32_t index, const std::optional<MeterRates>& rates) {
  if (array >= externs_.meters.size() || index >= externs_.meters[array].size()) return false;
  tables_.setMeter(externs_.meters[array][index], rates);
  return true;
}

std::optional<std::string> Engine::registerCell(uint32_t array, uint32_t index) const {
  if (array >= externs_.registers.size() || index >= externs_.registers[array].size())
    return std::nullopt;
  const RegisterArray& cells = externs_.registers[array];
  std::vector<uint64_t> words(cells.words());
  for (uint32_t word = 0; word < cells.words(); ++word) words[word] = cells.word(index, word);
  return bytesOfWords(words.data(), cells.bits());
}

bool Engine::setRegister(uint32_t array, uint32_t index, std::string_view bytes) {
  if (!registerCell(array, index)) return false;
  RegisterArray& cells = externs_.registers[array];
  std::vector<uint64_t> words(cells.words());
  if (!wordsOfBytes(bytes, cells.bits(), words.data())) return false;
  for (uint32_t word = 0; word < cells.words(); ++word) cells.wordIs(index, word, words[word]);
  return true;
}

void Engine::takeCountsOfEntries(uint32_t table, const Engine& former) {
  const auto from = tableNamed(former.program_, program_.tables[table].name);
  const bool isCounted = program_.tables[table].counters;
  const bool isAgeing = program_.tables[table].ageing;
  if (!from || (!isCounted && !isAgeing)) return;
  absl::flat_hash_map<uint64_t, const Entry*> entries;
  for (const Entry* entry : former.tables_.entries(*from)) entries[entry->cookie] = entry;
  for (Entry* entry : tables_.entries(table)) {
    const auto found = entries.find(entry->cookie);
    if (entry->cookie == 0 || found == entries.end()) continue;
    if (isCounted) {
      entry->counter.countsIs(found->second->counter.counts());
      entry->toldPackets = found->second->toldPackets;
    }
    const uint64_t lastHit = found->second->lastHit.load(std::memory_order_relaxed);
    if (isAgeing && lastHit != 0) entry->lastHit.store(lastHit, std::memory_order_relaxed);
  }
}

void Engine::takeCounts(const Engine& former) {
  for (uint32_t table = 0; table < program_.tables.size(); ++table)
    takeCountsOfEntries(table, former);
  for (uint32_t array = 0; array < program_.counters.size(); ++array) {
    const auto from = counterNamed(former.program_, program_.counters[array].name);
    if (!from || program_.counters[array] != former.program_.counters[*from]) continue;
    for (uint32_t cell = 0; const auto counts = former.counter(*from, cell); ++cell)
      setCounter(array, cell, *counts);
  }
  for (uint32_t array = 0; array < program_.registers.size(); ++array) {
    const auto from = registerNamed(former.program_, program_.registers[array].name);
    if (!from || program_.registers[array] != former.program_.registers[*from]) continue;
    const RegisterArray& cells = former.externs_.registers[*from];
    for (uint32_t cell = 0; cell < cells.size(); ++cell)
      for (uint32_t word = 0; word < cells.words(); ++word)
        externs_.registers[array].wordIs(cell, word, cells.word(cell, word));
  }
}

std::vector<Entry*> Engine::idleEntries(uint64_t now) {
  std::vector<Entry*> idle;
  for (uint32_t table = 0; table < program_.tables.size(); ++table) {
    if (!program_.tables[table].ageing) continue;
    for (Entry* entry : tables_.entries(table)) {
      const uint64_t last = entry->lastHit.load(std::memory_order_relaxed);
      const bool isIdle = entry->timeToLive && now >= last + entry->timeToLive;
      entry->reportedIdle = isIdle && !entry->reportedIdle;
      if (entry->reportedIdle) idle.push_back(entry);
    }
  }
  return idle;
}

std::optional<uint32_t> tableNamed(const Program& program, std::string_view name) {
  return named(program.tables, name);
}
std::optional<uint32_t> profileNamed(const Program& program, std::string_view name) {
  return named(program.profiles, name);
}
std::optional<uint32_t> counterNamed(const Program& program, std::string_view name) {
  return named(program.counters, name);
}
std::optional<uint32_t> meterNamed(const Program& program, std::string_view name) {
  return named(program.meters, name);
}
std::optional<uint32_t> registerNamed(const Program& program, std::string_view name) {
  return named(program.registers, name);
}
std::optional<uint32_t> learnListNamed(const Program& program, std::string_view name) {
  return named(program.learnLists, name);
}
std::optional<uint32_t> valueSetNamed(const Program& program, std::string_view name) {
  return named(program.valueSets, name);
}

std::optional<uint32_t> actionNamed(const Program& program, uint32_t table, std::string_view name) {
  for (const uint32_t action : program.tables[table].actions)
    if (program.actions[action].name == name) return action;
  return std::nullopt;
}

std::optional<uint32_t> profileActionNamed(const Program& program, uint32_t profile,
                                           std::string_view name) {
  for (uint32_t table = 0; table < program.tables.size(); ++table)
    if (program.tables[table].profile == profile)
      if (const std::optional<uint32_t> action = actionNamed(program, table, name)) return action;
  return std::nullopt;
}

}  // namespace P4
