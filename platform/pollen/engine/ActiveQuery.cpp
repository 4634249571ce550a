#include "platform/pollen/engine/ActiveQuery.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <numeric>

namespace Pollen {
namespace {

bool bindAsInteger(sqlite3_stmt* statement, int number, std::string_view text) {
  const bool hex = text.starts_with("0x");
  const std::string_view digits = hex ? text.substr(2) : text;
  int64_t value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) return false;
  if (hex && digits[0] == '-') return false;
  sqlite3_bind_int64(statement, number, value);
  return true;
}

bool bindAsBytes(sqlite3_stmt* statement, int number, std::string_view text) {
  if (text.size() % 2 == 0 || !text.starts_with("x'") || !text.ends_with('\'')) return false;
  const std::string_view digits = text.substr(2, text.size() - 3);
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    uint8_t byte = 0;
    const char* last = digits.data() + i + 2;
    const auto [end, error] = std::from_chars(digits.data() + i, last, byte, 16);
    if (error != std::errc() || end != last) return false;
    bytes.push_back(static_cast<char>(byte));
  }
  sqlite3_bind_blob(statement, number, bytes.c_str(), static_cast<int>(bytes.size()),
                    SQLITE_TRANSIENT);
  return true;
}

}  // namespace

void bindParameters(sqlite3_stmt* statement, const std::map<std::string, std::string>& parameters) {
  for (int i = 1; i <= sqlite3_bind_parameter_count(statement); ++i) {
    const char* name = sqlite3_bind_parameter_name(statement, i);
    const auto found = name ? parameters.find(name + 1) : parameters.end();
    if (found == parameters.end()) continue;
    const std::string& text = found->second;
    if (bindAsInteger(statement, i, text) || bindAsBytes(statement, i, text)) continue;
    sqlite3_bind_text(statement, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
}

// Counts an evaluation and the time that it takes.
class ActiveQuery::Measured {
 public:
  explicit Measured(ActiveQuery& query) : query_(query) { query_.database_.beginEvaluation(); }
  ~Measured() {
    const auto took = std::chrono::steady_clock::now() - begin_;
    query_.microseconds_ +=
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
    ++query_.evaluations_;
  }
  Measured(const Measured&) = delete;
  Measured& operator=(const Measured&) = delete;

 private:
  ActiveQuery& query_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

ActiveQuery::ActiveQuery(const QuerySpec& spec, std::vector<std::unique_ptr<InputTable>> inputs,
                         std::unique_ptr<OutputTable> output)
    : method_(spec.method.kind),
      text_(spec.checked.text),
      parameters_(spec.parameters),
      database_(std::move(inputs)),
      output_(std::move(output)) {
  if (!incremental()) {
    statements_.push_back(prepare(std::nullopt));
    return;
  }
  for (size_t i = 0; i < database_.inputs().size(); ++i) statements_.push_back(prepare(i));
}

SqlStatement ActiveQuery::prepare(std::optional<size_t> driver) {
  SqlStatement statement = database_.prepare(text_, driver);
  bindParameters(statement.get(), parameters_);
  return statement;
}

bool ActiveQuery::reads(const std::string& table) const {
  return std::ranges::any_of(database_.inputs(),
                             [&](const auto& input) { return input->tableName() == table; });
}

bool ActiveQuery::anyChange() {
  return std::ranges::any_of(database_.inputs(),
                             [](const auto& input) { return input->anyChange(); });
}

// Without a write there is nothing to roll back: knowledge of committed rows stays true.
void ActiveQuery::build(size_t rows) {
  startedInCommit_ = true;
  doStep(rows);
  if (!output_->wroteSinceCommit()) finishCommit();
}

void ActiveQuery::doStep(size_t rows) {
  switch (phase_) {
    case Phase::begin:
      doBegin();
      [[fallthrough]];
    case Phase::loading:
      if (output_->loadPicture(rows)) return;
      phase_ = Phase::reading;
      [[fallthrough]];
    case Phase::reading:
      if (incremental()) {
        readSome(rows);
        if (reading_ < order_.size()) return;
      } else {
        for (const auto& input : database_.inputs()) input->beforeIs(true);
        evaluateAll();
        for (const auto& input : database_.inputs()) input->beforeIs(false);
      }
      phase_ = Phase::removing;
      [[fallthrough]];
    case Phase::removing:
      if (output_->endPicture(rows)) return;
      phase_ = Phase::built;
      [[fallthrough]];
    case Phase::built:
      return;
  }
}

// The inputs come into sight one after the other, and row by row: at any time the output is the
// result over the rows in sight.
void ActiveQuery::doBegin() {
  phase_ = Phase::loading;
  reading_ = 0;
  output_->beginPicture();
  if (!incremental()) return;
  const auto& inputs = database_.inputs();
  order_.resize(inputs.size());
  std::iota(order_.begin(), order_.end(), size_t{0});
  std::ranges::stable_sort(order_, {}, [&](size_t i) { return inputs[i]->rowCount(); });
  for (const auto& input : inputs) {
    input->seenIs(InputTable::Seen::none);
    input->emptyIndexes();
  }
}

void ActiveQuery::readSome(size_t rows) {
  const auto& inputs = database_.inputs();
  for (; reading_ < order_.size(); ++reading_) {
    const size_t number = order_[reading_];
    InputTable& input = *inputs[number];
    const bool last = reading_ + 1 == order_.size();
    if (!last && !input.keepsIndexes()) {
      input.seenIs(InputTable::Seen::all);
      continue;
    }
    std::vector<InputTable::OwnedRow> owned;
    input.unseenRows(rows, &owned);
    std::vector<SignedRow> coming;
    for (const auto& row : owned) coming.push_back({row.key, row.value, 1});
    for (const auto& each : inputs) each->beforeIs(true);
    // While another input is out of sight, nothing joins.
    if (last) runOver(number, coming);
    for (const auto& each : inputs) each->beforeIs(false);
    input.indexRows(coming);
    output_->apply();
    if (owned.size() == rows) {
      return input.seenIs(InputTable::Seen::belowLimit, owned.back().key + '\0');
    }
    input.seenIs(InputTable::Seen::all);
  }
}

void ActiveQuery::changesAre() {
  if (phase_ == Phase::begin) return;
  if (incremental()) return evaluateChanges();
  if (phase_ != Phase::built || !anyChange()) return;
  output_->beginPicture();
  while (output_->loadPicture(SIZE_MAX)) continue;
  evaluateAll();
  while (output_->endPicture(SIZE_MAX)) continue;
}

void ActiveQuery::evaluateAll() {
  const Measured measured(*this);
  run(statements_[0].get(), nullptr);
  for (const auto& input : database_.inputs()) input->dropUnkept();
  output_->apply();
}

// One input after the other has its changed rows joined with the others: those before it are as
// they are now, those behind it as they were.
void ActiveQuery::evaluateChanges() {
  const auto& inputs = database_.inputs();
  for (const auto& input : inputs) input->beforeIs(true);
  for (size_t i = 0; i < inputs.size(); ++i) {
    const std::vector<SignedRow> rows = inputs[i]->signedChanges();
    if (!rows.empty()) {
      runOver(i, rows);
      if (inputs[i]->keepsIndexes()) {
        indexedInCommit_.push_back(i);
        inputs[i]->indexRows(rows);
      }
    }
    inputs[i]->beforeIs(false);
  }
  output_->apply();
}

void ActiveQuery::runOver(size_t input, std::span<const SignedRow> rows) {
  const Measured measured(*this);
  InputTable& driver = *database_.inputs()[input];
  driver.driverRowsAre(rows);
  run(statements_[input].get(), &driver);
  driver.driverRowsAre({});
}

// In nested loops all cursors stand on the rows that a result comes from, the driver's too.
void ActiveQuery::run(sqlite3_stmt* statement, InputTable* driver) {
  struct Reset {
    sqlite3_stmt* statement;
    ~Reset() { sqlite3_reset(statement); }
  } const reset{statement};
  Lattice::Row row;
  while (database_.step(statement)) {
    const int sign = driver ? driver->currentSign() : 1;
    const Vela::Outcome built = buildRow(output_->type(), statement, &row);
    if (built.ok()) {
      output_->add(std::move(row), sign);
    } else {
      output_->badRow(built.reason(), sign);
    }
  }
}

void ActiveQuery::clear() {
  startedInCommit_ = true;
  phase_ = Phase::begin;
  output_->beginPicture();
  while (output_->loadPicture(SIZE_MAX)) continue;
  while (output_->endPicture(SIZE_MAX)) continue;
}

void ActiveQuery::finishCommit() {
  startedInCommit_ = false;
  indexedInCommit_.clear();
  output_->finishCommit();
}

bool ActiveQuery::rollBack() {
  output_->rollBack();
  for (const size_t number : indexedInCommit_) {
    InputTable& input = *database_.inputs()[number];
    std::vector<SignedRow> rows = input.signedChanges();
    std::ranges::reverse(rows);
    for (SignedRow& row : rows) row.sign = -row.sign;
    input.indexRows(rows);
  }
  indexedInCommit_.clear();
  const bool lost = std::exchange(startedInCommit_, false);
  if (lost || phase_ != Phase::built) phase_ = Phase::begin;
  return lost;
}

}  // namespace Pollen
