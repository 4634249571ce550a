#include "P4Runtime/monitoring/RowSearch.h"

#include <algorithm>
#include <cctype>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/vela/ActivityReadLock.h"
#include "platform/vela/Json.h"

namespace P4Runtime {
namespace {

using Clock = std::chrono::steady_clock;

// A search takes a quarter of a processor and of the lock.
constexpr int restsPerWork = 3;

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& byte : result)
    byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
  return result;
}

std::string lineOf(const std::vector<Lattice::ColumnText>& columns) {
  std::string line;
  for (const Lattice::ColumnText& column : columns) {
    line += (line.empty() ? "" : " ") + column.name + "=" + column.text;
  }
  return line;
}

class RowSearch {
 public:
  RowSearch(const Observed& agent, std::string_view table, std::string_view wanted,
            const SearchLimits& limits)
      : agent_(agent),
        table_(table),
        wanted_(lower(wanted)),
        limits_(limits),
        answer_(cJSON_CreateObject()) {}

  std::string run() {
    const auto begun = Clock::now();
    while (!end_) {
      const auto worked = runTurn();
      if (!end_ && Clock::now() - begun >= limits_.time) end_ = "time";
      if (!end_) std::this_thread::sleep_for(restsPerWork * worked);
    }
    if (rows_ != nullptr) {
      Vela::addNumber(answer_.get(), "looked", static_cast<double>(looked_));
      Vela::addString(answer_.get(), "end", end_);
    }
    return Vela::jsonLine(*answer_);
  }

 private:
  // Returns for how long it held the lock.
  Clock::duration runTurn() {
    const Vela::ActivityReadLock lock;
    const auto begun = Clock::now();
    lookOn();
    return Clock::now() - begun;
  }

  void lookOn() {
    const auto& tables = agent_.tableInfo->latticeTableInterfaceCollection().values();
    const auto known = std::ranges::find_if(tables, [&](const auto& one) {
      return one.second->ready() && one.second->tableName() == table_;
    });
    const auto type = agent_.tableInfo->typeOfTable(table_);
    end_ = "all";
    if (known == tables.end() || !type) return;
    if (rows_ == nullptr) rows_ = Vela::addArray(answer_.get(), "rows");
    const size_t turnEnd = looked_ + limits_.rowsOfTurn;
    known->second->forEachCommitted(
        [&](const Lattice::StoredRow& row) {
          look(*type, row);
          end_ = found_ >= limits_.matches ? "matches" : looked_ >= limits_.rows ? "rows" : nullptr;
          const bool goesOn = !end_ && looked_ < turnEnd;
          if (goesOn) end_ = "all";  // unless another row comes
          return goesOn;
        },
        &position_);
  }

  void look(const Lattice::TableType& type, const Lattice::StoredRow& row) try {
    ++looked_;
    const std::string key = lineOf(Lattice::keyTexts(type, row.key));
    const std::string value = lineOf(Lattice::valueTexts(type, row.value));
    if (!wanted_.empty() && lower(key + " " + value).find(wanted_) == std::string::npos) return;
    ++found_;
    cJSON* shown = Vela::addObjectTo(rows_);
    Vela::addString(shown, "key", key);
    Vela::addString(shown, "value", value);
  } catch (const Lattice::TypeError&) {  // of another pipeline, which has just come
  }

  const Observed& agent_;
  const std::string table_;
  const std::string wanted_;
  const SearchLimits limits_;
  const Vela::Json answer_;
  cJSON* rows_ = nullptr;
  Brine::Store::Position position_;
  const char* end_ = nullptr;  // why the search is over; null: it is not
  size_t looked_ = 0;
  size_t found_ = 0;
};

// Several browsers cost no more than one does.
std::timed_mutex& searching() {
  static std::timed_mutex mutex;
  return mutex;
}

}  // namespace

std::string rowsJson(const Observed& agent, std::string_view table, std::string_view wanted,
                     const SearchLimits& limits) {
  const std::unique_lock alone(searching(), limits.time);
  if (!alone.owns_lock()) return R"({"end":"busy"})";
  return RowSearch(agent, table, wanted, limits).run();
}

}  // namespace P4Runtime
