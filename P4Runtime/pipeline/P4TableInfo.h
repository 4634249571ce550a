// The agent's model of the installed pipeline: for every table how its match key and actions are
// encoded, how many rows it may hold, and the artifacts through which its rows are written.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "P4Runtime/pipeline/FieldBitwidths.h"
#include "platform/lattice/Database.h"
#include "platform/lattice/types/IpGenPrefix.h"
#include "platform/lattice/types/RowConstructor.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

enum class P4TableInfoState { tableInfoNotReady, tableInfoReady, tableInfoError };
std::string enumToText(P4TableInfoState state);
bool enumFromText(std::string_view text, P4TableInfoState* state);
// Throws Vela::Exception "Unrecognized tableInfoState" for another text.
P4TableInfoState tableInfoStateFromText(std::string_view text);

// Prefix fields that one row may have, key and action data together.
inline constexpr uint32_t MaxPrefixes = 8;

// Threads: call with the activity lock held.
// Errors: nothing throws; absent resources read as a default. A pipeline that its check should have
// refused is an assertion.
// Lifetime: shared; the model inside changes with the pipeline, so keep no references across turns.
class P4TableInfo : public Vela::Entity {
 public:
  // Name of the entity, and the path of its parent in the agent's tree.
  P4TableInfo(std::string name, std::string parentPath);
  const char* typeName() const override { return "P4Runtime::P4TableInfo"; }
  const std::string& parentPath() const { return parentPath_; }

  VELA_COLLECTION(ResourceId, FieldBitwidths, fieldBitwidths)
  VELA_COLLECTION(ResourceId, ActionIdCol, actionIdColForTable)
  VELA_COLLECTION(ResourceId, bool, priorityNeeded)
  VELA_COLLECTION(ResourceId, bool, hasDirectMeter)
  VELA_COLLECTION(ResourceId, bool, hasDirectCounter)
  VELA_COLLECTION(ResourceId, bool, directMeterIds)
  VELA_COLLECTION(ResourceId, bool, directCounterIds)
  VELA_COLLECTION(ResourceId, uint32_t, maxTableSize)
  VELA_COLLECTION(ResourceId, P4TableInfoConstEntries, constEntries)
  VELA_COLLECTION(ResourceId, Vela::Ptr<Lattice::RowConstructor>, rowConstructor)
  VELA_COLLECTION(ResourceId, Vela::Ptr<Lattice::ArTableInterface>, latticeTableInterface)
  VELA_READONLY_ATTRIBUTE(P4TableInfoState, tableInfoState, P4TableInfoState::tableInfoNotReady)
  VELA_READONLY_ATTRIBUTE(uint32_t, cleanupRequestId, 0)
  VELA_READONLY_ATTRIBUTE(uint32_t, cleanupResponseId, 0)
  // A table's direct meter, by its id in the P4Info; 0 without one.
  VELA_COLLECTION(ResourceId, uint32_t, directMeterOf)
  // Names of tables and actions, for messages.
  VELA_COLLECTION(ResourceId, std::string, resourceName)
  // Why writes of a table, or with an action, are refused; absent when they are not.
  VELA_COLLECTION(ResourceId, std::string, unprogrammable)

 public:
  void cleanupRequestIdInc(uint32_t n) { cleanupRequestIdIs(cleanupRequestId() + n); }
  void cleanupResponseIdInc(uint32_t n) { cleanupResponseIdIs(cleanupResponseId() + n); }
  // Turning PI bytes into the field pointers of a row constructor. The prefixes and buffers behind
  // the pointers are one set for the process, so rows are built one at a time under the lock.
  // Call before the fields of each row; the prefix pointers of the former row become invalid.
  void onNewRowStarted();
  // Appends a pointer a field for the first `numFields` slots of `tableId`, whose PI encoding is in
  // `data` (changed in place where fields go to host order). A prefix is one pointer for its two
  // slots; a slot of width 0 takes one byte.
  void extractFields(ResourceId tableId, uint32_t numFields, uint8_t* data, uint32_t& count,
                     const uint8_t** fields) const;
  // Appends a pointer to zeroes for each slot of the table.
  void stuffFields(ResourceId tableId, uint32_t& count, const uint8_t** fields) const;

  // The request behind the model, as it is pushed to the server; empty before the first.
  // Whether controllers set direct counters, perhaps to the same counts once more.
  bool setsCounters() const { return setsCounters_; }
  void setsCountersIs(bool is) { setsCounters_ = is; }
  const std::string& pipelineRequest() const { return pipelineRequest_; }
  void pipelineRequestIs(std::string bytes) { pipelineRequest_ = std::move(bytes); }

  // Everything but the state and the clean-up counters.
  void modelDel();
  // The object's name; without one, its kind and id.
  std::string nameOf(ResourceId rid) const;
  std::string kindAndName(ResourceId rid) const;  // "table ingress.acl", for messages
  // The type of the table of that name; null when the pipeline has none.
  std::shared_ptr<const Lattice::TableType> typeOfTable(const std::string& tableName) const;
  // "name entries/size" a line, for operators.
  std::string tableFillText() const;

 private:
  std::string parentPath_;
  std::string pipelineRequest_;
  bool setsCounters_ = false;
};

}  // namespace P4Runtime
