// The queries whose results shall stand in tables of their own.
#pragma once

#include <string>
#include <utility>

#include "platform/orrery/Directory.h"

namespace Pollen {

// name() is the path of the output table.
class QueryConfig final : public Vela::Entity {
 public:
  QueryConfig(std::string path, std::string outputType) : Entity(std::move(path)) {
    outputTypeIs(std::move(outputType));
  }
  const char* typeName() const override { return "Pollen::QueryConfig"; }

  VELA_ATTRIBUTE(std::string, outputType)  // a table type's name
  VELA_ATTRIBUTE(bool, oneShot, false)     // evaluated once, not kept up to date
  VELA_ATTRIBUTE(std::string, queryText)   // one SELECT, in SQLite's words
  // The name that the query text uses for a table -> the table's name.
  VELA_COLLECTION(std::string, std::string, inputTable)
  // Named parameter of the query, without its ':' -> value.
  VELA_COLLECTION(std::string, std::string, parameter)
};

// Call with the activity lock held. Queries are kept by output path.
class QueryConfigDir final : public Orrery::Directory {
 public:
  explicit QueryConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Pollen::QueryConfigDir"; }

  Vela::Ptr<QueryConfig> queryConfig(const std::string& path) const;  // null when absent
  // A new query; it takes the place of one with the same path, which is then no longer active.
  Vela::Ptr<QueryConfig> queryConfigIs(const std::string& path, const std::string& outputType);
  void queryConfigDelAll();  // the active ones, too

  bool activeQueryConfigHas(const std::string& path) const { return activeHas(path); }
  void activeQueryConfigIs(const Vela::Ptr<QueryConfig>& query);
  void activeQueryConfigDel(const std::string& path) { activeDel(path); }
  void activeQueryConfigDelAll() { activeDelAll(); }

  // Paths of the active queries; observe activeCollection().
  VELA_COLLECTION(std::string, Vela::Ptr<QueryConfig>, active)
};

}  // namespace Pollen
