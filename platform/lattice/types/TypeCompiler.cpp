// Compiles the definition text of a table type.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>
#include <utility>

#include "platform/lattice/types/TableType.h"

namespace Lattice {
namespace {

constexpr uint32_t maxBytesColumn = 1024;
constexpr uint32_t maxKeySize = 2048;  // the store takes no longer ones
constexpr size_t maxColumns = 4096;

// Splits a definition into words, numbers and single punctuation characters.
class Tokens {
 public:
  explicit Tokens(std::string_view text) : text_(text) { advance(); }

  std::string_view current() const { return current_; }  // empty at the end
  unsigned line() const { return line_; }
  bool atEnd() const { return current_.empty(); }
  void advance() {
    skipBlanks();
    const size_t start = at_;
    if (at_ < text_.size() && isWord(text_[at_])) {
      takeWord();
    } else if (at_ < text_.size()) {
      ++at_;
    }
    current_ = text_.substr(start, at_ - start);
  }

 private:
  static bool isWord(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '$' ||
           c == '-';
  }
  // The index of a header stack ("hdr.mpls[0].label") is part of a name; "[]" is not.
  size_t indexLength() const {
    size_t end = at_ + 1;
    while (end < text_.size() && std::isdigit(static_cast<unsigned char>(text_[end]))) ++end;
    return end > at_ + 1 && end < text_.size() && text_[end] == ']' ? end + 1 - at_ : 0;
  }
  void takeWord() {
    while (at_ < text_.size()) {
      if (isWord(text_[at_])) {
        ++at_;
      } else if (const size_t index = text_[at_] == '[' ? indexLength() : 0) {
        at_ += index;
      } else {
        return;
      }
    }
  }
  void skipBlanks() {
    while (at_ < text_.size()) {
      if (text_[at_] == '\n') ++line_;
      if (std::isspace(static_cast<unsigned char>(text_[at_]))) {
        ++at_;
      } else if (text_.substr(at_, 2) == "//") {
        at_ = std::min(text_.find('\n', at_), text_.size());
      } else {
        return;
      }
    }
  }

  std::string_view text_;
  std::string_view current_;
  size_t at_ = 0;
  unsigned line_ = 1;
};

struct NamedType {
  std::string_view name;
  ColumnType type;
  uint32_t size;
};
constexpr NamedType plainTypes[] = {
    {"U8", ColumnType::u8, 1},           {"U16", ColumnType::u16, 2},
    {"U32", ColumnType::u32, 4},         {"U64", ColumnType::u64, 8},
    {"IpAddr", ColumnType::ipAddr, 4},   {"Ip6Addr", ColumnType::ip6Addr, 16},
    {"EthAddr", ColumnType::ethAddr, 6}, {"IpGenPrefix", ColumnType::ipGenPrefix, 24},
    {"Void", ColumnType::none, 0},
};

bool isUnsigned(ColumnType type) { return type <= ColumnType::u64; }

// Two columns of a field: the second comes right behind the first.
struct Pair {
  ColumnRole first;
  ColumnRole second;
  const char* firstName;
  const char* secondName;
};
constexpr Pair pairs[] = {
    {ColumnRole::value, ColumnRole::mask, "value", "mask"},
    {ColumnRole::low, ColumnRole::high, "low", "high"},
    {ColumnRole::prefix, ColumnRole::length, "prefix", "length"},
    {ColumnRole::optional, ColumnRole::present, "optional", "present"},
};
constexpr std::pair<std::string_view, ColumnRole> singleRoles[] = {
    {"range", ColumnRole::range},
    {"priority", ColumnRole::priority},
};

const Pair* pairBegunBy(const Column& column) {
  const auto* const found = std::ranges::find(pairs, column.role, &Pair::first);
  return found == std::end(pairs) ? nullptr : found;
}
const Pair* pairEndedBy(const Column& column) {
  const auto* const found = std::ranges::find(pairs, column.role, &Pair::second);
  return found == std::end(pairs) ? nullptr : found;
}

}  // namespace

class TypeCompiler {
 public:
  TypeCompiler(std::string name, std::string definition) : type_(new TableType) {
    type_->name_ = std::move(name);
    type_->definition_ = std::move(definition);
  }

  std::shared_ptr<const TableType> compile() {
    Tokens tokens(type_->definition_);
    tokens_ = &tokens;
    while (!tokens.atEnd()) statement();
    finishKey();
    return type_;
  }

 private:
  [[noreturn]] void wrong(const std::string& what) const {
    throw TypeError("table type " + type_->name_ + ", line " + std::to_string(tokens_->line()) +
                    ": " + what);
  }
  [[noreturn]] void expected(const std::string& what) const {
    wrong("expected " + what + ", found " +
          (tokens_->atEnd() ? "the end" : "'" + std::string(tokens_->current()) + "'"));
  }
  bool accept(std::string_view token) {
    if (tokens_->current() != token) return false;
    tokens_->advance();
    return true;
  }
  void require(std::string_view token) {
    if (!accept(token)) expected("'" + std::string(token) + "'");
  }
  std::string word(const std::string& what) {
    const std::string_view token = tokens_->current();
    if (token.empty() || !(std::isalnum(static_cast<unsigned char>(token[0])) || token[0] == '_' ||
                           token[0] == '$')) {
      expected(what);
    }
    std::string text(token);
    tokens_->advance();
    return text;
  }
  uint32_t number(const std::string& what) {
    const std::string_view token = tokens_->current();
    const int base = token.starts_with("0x") ? 16 : 10;
    const std::string_view digits = base == 16 ? token.substr(2) : token;
    uint32_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
      expected(what);
    }
    tokens_->advance();
    return value;
  }

  // "key" may also be the name of a value column: then a ':' follows.
  void statement() {
    if (++statements_ > maxColumns) wrong("too many columns; 4096 is the limit");
    const std::string first = word("a column, 'key', 'action', 'meter' or 'counter'");
    if (tokens_->current() == ":") return valueColumn(first);
    if (first == "key") return keyColumn();
    if (first == "action") return actionColumn();
    if (first == "meter") return countingPart(first, TableType::Part::meter);
    if (first == "counter") return countingPart(first, TableType::Part::counter);
    expected("':' after the column name " + first);
  }

  void keyColumn() {
    if (!type_->valueParts_.empty()) wrong("key columns come before all others");
    Column column = columnNamed(word("the name of a key column"), keyNames_);
    if (column.size == 0) wrong("column " + column.name + " has a type that cannot be in a key");
    column.role = role();
    require(";");
    checkRole(column);
    type_->keySize_ += column.size;
    if (type_->keySize_ > maxKeySize) wrong("the key is longer than 2048 bytes");
    type_->keyColumns_.push_back(std::move(column));
  }

  ColumnRole role() {
    for (const auto& [name, role] : singleRoles) {
      if (accept(name)) return role;
    }
    for (const Pair& pair : pairs) {
      if (accept(pair.firstName)) return pair.first;
      if (accept(pair.secondName)) return pair.second;
    }
    if (tokens_->current() != ";") {
      expected("value, mask, range, low, high, prefix, length, optional, present, priority or ';'");
    }
    return ColumnRole::exact;
  }

  void checkRole(const Column& column) const {
    const Column* before = type_->keyColumns_.empty() ? nullptr : &type_->keyColumns_.back();
    if (before && before->role == ColumnRole::priority)
      wrong("the priority is the key's last column");
    const Pair* begun = before ? pairBegunBy(*before) : nullptr;
    const Pair* ended = pairEndedBy(column);
    if (begun != ended) {
      wrong(begun ? missingSecond(*begun, *before)
                  : std::string(ended->secondName) + " " + column.name + " comes right after its " +
                        ended->firstName);
    }
    if (begun) checkPair(*begun, *before, column);
    if (column.role == ColumnRole::priority && !isUnsigned(column.type)) {
      wrong("the priority is of type U8, U16, U32 or U64");
    }
  }

  static std::string missingSecond(const Pair& pair, const Column& first) {
    return "column " + first.name + " is a " + pair.firstName + "; its " + pair.secondName +
           " comes next";
  }

  void checkPair(const Pair& pair, const Column& first, const Column& second) const {
    if (second.role == ColumnRole::length && !isUnsigned(second.type)) {
      wrong("the length " + second.name + " is of type U8, U16, U32 or U64");
    }
    if (second.role == ColumnRole::present && second.type != ColumnType::u8) {
      wrong("column " + second.name + ", whether a value is present, is of type U8");
    }
    const bool isAlike = second.role == ColumnRole::mask || second.role == ColumnRole::high;
    const bool same =
        first.type == second.type && first.size == second.size && first.bits == second.bits;
    if (!isAlike || same) return;
    wrong(std::string(pair.firstName) + " " + first.name + " and " + pair.secondName + " " +
          second.name + " differ in type");
  }

  void finishKey() const {
    if (type_->keyColumns_.empty()) return;
    const Column& last = type_->keyColumns_.back();
    const Pair* begun = pairBegunBy(last);
    if (!begun) return;
    wrong(std::string(begun->firstName) + " " + last.name + " has no " + begun->secondName);
  }

  void valueColumn(const std::string& name) {
    TableType::ValuePart part;
    part.column = columnNamed(name, valueNames_);
    require(";");
    type_->valueParts_.push_back(std::move(part));
  }

  void countingPart(const std::string& name, TableType::Part part) {
    require(";");
    addPart(name, part);
  }

  void addPart(const std::string& name, TableType::Part part) {
    if (!valueNames_.insert(name).second) wrong("there are two columns " + name);
    TableType::ValuePart added;
    added.part = part;
    added.column.name = name;
    type_->valueParts_.push_back(std::move(added));
  }

  void actionColumn() {
    require("{");
    addPart("action", TableType::Part::action);
    std::set<std::string> names;
    while (!accept("}")) action(names);
    if (type_->actions_.empty()) wrong("an action column names at least one action");
  }

  void action(std::set<std::string>& names) {
    ActionLayout layout;
    layout.name = word("the name of an action or '}'");
    layout.actionId = number("the id of action " + layout.name);
    if (!names.insert(layout.name).second) wrong("there are two actions " + layout.name);
    if (type_->action(layout.actionId)) {
      wrong("action " + layout.name + " has the id of " + type_->action(layout.actionId)->name);
    }
    require("{");
    std::set<std::string> fieldNames;
    while (!accept("}")) {
      if (++statements_ > maxColumns) wrong("too many columns; 4096 is the limit");
      layout.fields.push_back(columnNamed(word("a field of action " + layout.name), fieldNames));
      require(";");
    }
    type_->actions_.push_back(std::move(layout));
  }

  Column columnNamed(const std::string& name, std::set<std::string>& taken) {
    if (!taken.insert(name).second) wrong("there are two columns " + name);
    require(":");
    Column column;
    column.name = name;
    columnType(column);
    return column;
  }

  void columnType(Column& column) {
    const std::string typeName = word("the type of column " + column.name);
    if (typeName == "Bytes") return bytesType(column);
    if (typeName == "Bits") return bitsType(column);
    const auto known = std::ranges::find(plainTypes, typeName, &NamedType::name);
    if (known == std::ranges::end(plainTypes)) {
      wrong("column " + column.name + " has the unknown type " + typeName);
    }
    column.type = known->type;
    column.size = known->size;
    if (accept("[")) arrayType(column);
    if (accept("named")) namedType(column);
  }

  void namedType(Column& column) {
    if (column.type != ColumnType::u32) wrong("column " + column.name + " is named, but no U32");
    column.named = word("the type of the names");
  }

  void bytesType(Column& column) {
    require("<");
    column.size = number("a number of bytes");
    if (column.size == 0 || column.size > maxBytesColumn) {
      wrong("column " + column.name + " has a size out of 1 to 1024");
    }
    column.type = ColumnType::bytes;
    require(">");
  }

  void bitsType(Column& column) {
    require("<");
    column.bits = number("a number of bits");
    column.size = column.bits / 8 + (column.bits % 8 != 0 ? 1 : 0);
    if (column.size == 0 || column.size > maxBytesColumn) {
      wrong("column " + column.name + " has a width out of 1 to 8192 bits");
    }
    column.type = ColumnType::bytes;
    require(">");
  }

  void arrayType(Column& column) {
    require("]");
    if (column.type != ColumnType::u32 && column.type != ColumnType::u64) {
      wrong("arrays are of U32 or U64");
    }
    column.type = column.type == ColumnType::u32 ? ColumnType::u32Array : ColumnType::u64Array;
    column.size = 0;
  }

  std::shared_ptr<TableType> type_;
  Tokens* tokens_ = nullptr;
  std::set<std::string> keyNames_;
  std::set<std::string> valueNames_;
  size_t statements_ = 0;
};

std::shared_ptr<const TableType> TableType::compile(std::string name, std::string definition) {
  return TypeCompiler(std::move(name), std::move(definition)).compile();
}

}  // namespace Lattice
