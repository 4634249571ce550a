#include "platform/lattice/types/RowConstructor.h"

#include <unordered_map>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/types/RowWalk.h"

namespace Lattice {
namespace {

// How one field gets into a row.
struct Step {
  enum class Kind : uint8_t { bytes, swapped2, swapped4, swapped8, array4, array8, nothing };
  Kind kind = Kind::bytes;
  uint32_t size = 0;  // bytes; 0 for arrays, which know it when they see the field
};

struct Steps {
  std::vector<Step> steps;
  uint32_t fixedSize = 0;
  bool arrays = false;

  void add(Step step) {
    steps.push_back(step);
    fixedSize += step.size;
    if (step.kind == Step::Kind::array4 || step.kind == Step::Kind::array8) {
      arrays = true;
      fixedSize += 4;  // the count
    }
  }
};

Step keyStep(const Column& column) {
  switch (column.type) {
    case ColumnType::u16:
      return {Step::Kind::swapped2, 2};
    case ColumnType::u32:
      return {Step::Kind::swapped4, 4};
    case ColumnType::u64:
      return {Step::Kind::swapped8, 8};
    default:
      return {Step::Kind::bytes, column.size};
  }
}

Step valueStep(const Column& column) {
  switch (column.type) {
    case ColumnType::u32Array:
      return {Step::Kind::array4, 0};
    case ColumnType::u64Array:
      return {Step::Kind::array8, 0};
    case ColumnType::none:
      return {Step::Kind::nothing, 0};
    default:
      return {Step::Kind::bytes, column.size};
  }
}

size_t elementSize(Step step) { return step.kind == Step::Kind::array4 ? 4 : 8; }

// Copies one field and returns the place of the next one.
char* copyField(char* to, const Step& step, const uint8_t* field) {
  switch (step.kind) {
    case Step::Kind::bytes:
      std::memcpy(to, field, step.size);
      return to + step.size;
    case Step::Kind::swapped2:
      storeAt(to, __builtin_bswap16(loadAt<uint16_t>(field)));
      return to + 2;
    case Step::Kind::swapped4:
      storeAt(to, __builtin_bswap32(loadAt<uint32_t>(field)));
      return to + 4;
    case Step::Kind::swapped8:
      storeAt(to, uint64_t{__builtin_bswap64(loadAt<uint64_t>(field))});
      return to + 8;
    case Step::Kind::array4:
    case Step::Kind::array8: {
      ArrayField array;
      std::memcpy(&array, field, sizeof array);
      storeAt(to, array.count);
      const size_t bytes = array.count * elementSize(step);
      if (bytes > 0) std::memcpy(to + 4, array.elements, bytes);
      return to + 4 + bytes;
    }
    case Step::Kind::nothing:
      break;
  }
  return to;
}

using Fields = std::span<const uint8_t* const>;

// The bytes of the arrays among the fields, beyond the fixed size.
size_t arrayBytes(const Steps& steps, Fields fields) {
  if (!steps.arrays) return 0;
  size_t bytes = 0;
  for (size_t i = 0; i < steps.steps.size(); ++i) {
    const Step& step = steps.steps[i];
    if (step.size != 0 || step.kind == Step::Kind::nothing) continue;
    ArrayField array;
    std::memcpy(&array, fields[i], sizeof array);
    bytes += array.count * elementSize(step);
  }
  return bytes;
}

}  // namespace

struct RowConstructor::Plan {
  struct Part {
    bool action = false;
    Steps steps;  // unless action
  };
  Steps key;  // but the priority
  bool hasPriority = false;
  Step priority;
  std::vector<Part> parts;
  std::unordered_map<uint32_t, Steps> actions;

  explicit Plan(const TableType& type) {
    for (const Column& column : type.keyColumns()) {
      hasPriority = column.role == ColumnRole::priority;
      (hasPriority ? (void)(priority = keyStep(column)) : key.add(keyStep(column)));
    }
    for (const ActionLayout& action : type.actions()) {
      Steps& steps = actions[action.actionId];
      for (const Column& field : action.fields) steps.add(valueStep(field));
    }
    for (const auto& part : type.valueParts()) parts.push_back(planOf(part));
  }

  static Part planOf(const TableType::ValuePart& part) {
    Part plan;
    plan.action = part.part == TableType::Part::action;
    if (plan.action) return plan;
    for (const Column& column : fixedColumns(part)) plan.steps.add(valueStep(column));
    return plan;
  }
};

namespace {

[[noreturn]] void wrongCount(const TableType& type, size_t given) {
  throw TypeError("a row of table type " + type.name() + " cannot be built from " +
                  std::to_string(given) + " fields");
}

// Hands out the fields in order.
class FieldCursor {
 public:
  FieldCursor(const TableType& type, Fields fields) : type_(type), fields_(fields) {}
  Fields take(const std::vector<Step>& steps) {
    if (fields_.size() - at_ < steps.size()) wrongCount(type_, fields_.size());
    const Fields taken = fields_.subspan(at_, steps.size());
    for (size_t i = 0; i < taken.size(); ++i) {
      if (!taken[i] && steps[i].kind != Step::Kind::nothing) missing();
    }
    at_ += steps.size();
    return taken;
  }
  const uint8_t* takeOne() {
    if (at_ == fields_.size()) wrongCount(type_, fields_.size());
    const uint8_t* field = fields_[at_++];
    if (!field) missing();
    return field;
  }
  void finish() const {
    if (at_ != fields_.size()) wrongCount(type_, fields_.size());
  }

 private:
  [[noreturn]] void missing() const {
    throw TypeError("a field of a row of table type " + type_.name() + " is missing");
  }
  const TableType& type_;
  Fields fields_;
  size_t at_ = 0;
};

char* copyFields(char* to, const Steps& steps, Fields fields) {
  for (size_t i = 0; i < fields.size(); ++i) to = copyField(to, steps.steps[i], fields[i]);
  return to;
}

std::string typeText(const Column& column) {
  switch (column.type) {
    case ColumnType::u8:
      return "U8";
    case ColumnType::u16:
      return "U16";
    case ColumnType::u32:
      return "U32";
    case ColumnType::u64:
      return "U64";
    case ColumnType::ipAddr:
      return "IpAddr";
    case ColumnType::ip6Addr:
      return "Ip6Addr";
    case ColumnType::ethAddr:
      return "EthAddr";
    case ColumnType::ipGenPrefix:
      return "IpGenPrefix";
    default:
      return column.bits > 0 ? "Bits<" + std::to_string(column.bits) + ">"
                             : "Bytes<" + std::to_string(column.size) + ">";
  }
}

}  // namespace

void requireTableFields(const TableType& type, const std::vector<std::string>& names,
                        const std::vector<std::string>& types) {
  const auto differ = [&](const std::string& what) {
    throw TypeError("the table fields differ from table type " + type.name() + ": " + what);
  };
  if (names.size() != types.size()) differ("names and types differ in number");
  size_t slot = 0;
  for (const Column& column : type.keyColumns()) {
    const bool priority = column.role == ColumnRole::priority;
    if (priority && slot == names.size()) break;  // it need not be listed
    if (slot == names.size()) differ("field " + column.name + " is missing");
    if (types[slot] != typeText(column)) {
      differ("field " + names[slot] + " is " + types[slot] + ", column " + column.name + " is " +
             typeText(column));
    }
    if (names[slot] != column.name && column.role != ColumnRole::mask) {
      differ("field " + names[slot] + " stands in the place of column " + column.name);
    }
    ++slot;
    const bool prefix = column.type == ColumnType::ipGenPrefix;
    if (prefix && slot < types.size() && types[slot] == "PrefixLen") ++slot;
  }
  if (slot != names.size()) differ("field " + names[slot] + " has no column");
}

RowConstructor::RowConstructor(const std::string& typeName,
                               const std::vector<std::string>& fieldNames,
                               const std::vector<std::string>& fieldTypes)
    : type_(TheTypeRegistry().type(typeName)) {
  if (!type_) throw TypeError("there is no table type " + typeName);
  requireTableFields(*type_, fieldNames, fieldTypes);
  plan_ = std::make_shared<Plan>(*type_);
}

// Two passes over the value parts: one for the size, so that there is one allocation, one to copy.
Row RowConstructor::construct(Fields fields) const {
  FieldCursor cursor(*type_, fields);
  const Fields keyFields = cursor.take(plan_->key.steps);
  const size_t partsAt = keyFields.size();
  size_t size = 0;
  const auto walk = [&](FieldCursor& at, const auto& eachAction, const auto& each) {
    for (const Plan::Part& part : plan_->parts) {
      const Steps* steps = &part.steps;
      if (part.action) {
        const auto id = loadAt<uint32_t>(at.takeOne());
        const auto found = plan_->actions.find(id);
        if (found == plan_->actions.end()) {
          throw TypeError("table type " + type_->name() + " has no action " + std::to_string(id));
        }
        steps = &found->second;
        eachAction(id);
      }
      each(*steps, at.take(steps->steps));
    }
  };
  walk(
      cursor, [&](uint32_t) { size += 4; },
      [&](const Steps& steps, Fields part) { size += steps.fixedSize + arrayBytes(steps, part); });
  const uint8_t* priority = plan_->hasPriority ? cursor.takeOne() : nullptr;
  cursor.finish();

  Row row;
  row.key.resize(type_->keySize());
  char* to = copyFields(row.key.data(), plan_->key, keyFields);
  if (priority) copyField(to, plan_->priority, priority);
  row.value.resize(size);
  to = row.value.data();
  FieldCursor again(*type_, fields.subspan(partsAt));
  walk(
      again,
      [&](uint32_t id) {
        storeAt(to, id);
        to += 4;
      },
      [&](const Steps& steps, Fields part) { to = copyFields(to, steps, part); });
  return row;
}

std::string RowConstructor::constructKey(Fields keyFields) const {
  FieldCursor cursor(*type_, keyFields);
  const Fields fields = cursor.take(plan_->key.steps);
  const uint8_t* priority = plan_->hasPriority ? cursor.takeOne() : nullptr;
  cursor.finish();
  std::string key(type_->keySize(), '\0');
  char* to = copyFields(key.data(), plan_->key, fields);
  if (priority) copyField(to, plan_->priority, priority);
  return key;
}

}  // namespace Lattice
