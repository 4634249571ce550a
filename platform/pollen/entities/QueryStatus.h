// The states of the queries.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/orrery/Directory.h"

namespace Pollen {

// name() is the path of the output table. A query that failed has a `reason` and is not active. It
// is defined all the same when the rows of its inputs are to blame.
class QueryStatus final : public Vela::Entity {
 public:
  explicit QueryStatus(std::string path) : Entity(std::move(path)) {}
  const char* typeName() const override { return "Pollen::QueryStatus"; }

  VELA_READONLY_ATTRIBUTE(bool, defined, false)  // its text is valid for its tables
  VELA_READONLY_ATTRIBUTE(bool, active, false)   // its output table is up to date
  VELA_READONLY_ATTRIBUTE(std::string, reason)   // empty: no failure
  // Below: brought up to date with QueryConfigSm::publishStatuses().
  VELA_READONLY_ATTRIBUTE(std::string, method)   // "incremental: join"; how it is kept
  VELA_READONLY_ATTRIBUTE(std::string, trouble)  // results that cannot stand as rows, and conflicts
  VELA_READONLY_ATTRIBUTE(uint64_t, rows, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, evaluations, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, evaluationMicroseconds, 0)  // of all of them
  VELA_READONLY_ATTRIBUTE(std::string, text)                    // all of it, for people
};

// Observe entityCollection() for statuses that come and go. Call with the activity lock held.
class QueryStatusDir final : public Orrery::Directory {
 public:
  explicit QueryStatusDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Pollen::QueryStatusDir"; }

  Vela::Ptr<QueryStatus> queryStatus(const std::string& path) const;  // null when absent
  Vela::Ptr<QueryStatus> queryStatusIs(const std::string& path);      // adds it when absent
  void queryStatusDel(const std::string& path) { entityDel(path); }
};

}  // namespace Pollen
