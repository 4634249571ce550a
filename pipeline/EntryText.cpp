// Decoding of constant entries.
#include "pipeline/EntryText.h"

#include <charconv>
#include <cstring>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/ValueText.h"

namespace Pipeline {
namespace {

// Takes fields off the front of packed bytes.
class FieldReader {
 public:
  FieldReader(std::string what, std::string bytes)
      : what_(std::move(what)), bytes_(std::move(bytes)) {}

  std::string take(uint32_t bits) {
    const size_t size = (bits + 7) / 8;
    if (next_ + size > bytes_.size()) throw wrongLength();
    next_ += size;
    return bytes_.substr(next_ - size, size);
  }

  std::string takeValue(uint32_t bits, const std::string& name) {
    std::string value = take(bits);
    if (fits(value, bits)) return value;
    throw PipelineError(what_ + ": the value 0x" + hexText(value) + " of " + quoted(name) +
                        " does not fit its " + std::to_string(bits) + " bits");
  }

  void finish() const {
    if (next_ != bytes_.size()) throw wrongLength();
  }

 private:
  PipelineError wrongLength() const {
    return PipelineError(what_ + " has " + std::to_string(bytes_.size()) +
                         " bytes, which is not its length");
  }

  std::string what_;
  std::string bytes_;
  size_t next_ = 0;
};

std::string prefixText(const Slot& slot, const std::string& name, FieldReader* key) {
  const std::string value = key->takeValue(slot.bits, name);
  const std::string lengthBytes = key->take(32);
  uint32_t length = 0;
  std::memcpy(&length, lengthBytes.data(), sizeof length);
  if (length > slot.bits) {
    throw PipelineError("key: the prefix length " + std::to_string(length) + " of " + quoted(name) +
                        " is beyond its " + std::to_string(slot.bits) + " bits");
  }
  if (!isSubset(value, prefixMask(length, slot.bits)))
    throw PipelineError("key: " + quoted(name) + " has bits set below its prefix");
  return valueText(value, slot.type) + '/' + std::to_string(length);
}

std::string ternaryText(const Slot& slot, const std::string& name, FieldReader* key) {
  const std::string value = key->takeValue(slot.bits, name);
  const std::string mask = key->takeValue(slot.bits, name);
  if (!isSubset(value, mask))
    throw PipelineError("key: the value of " + quoted(name) + " has bits outside its mask");
  if (isZero(mask)) return "*";
  if (mask == fullMask(slot.bits)) return valueText(value, slot.type);
  const bool number = slot.type[0] == 'U';
  return valueText(value, slot.type) + "&&&" +
         (number ? "0x" + hexText(mask) : valueText(mask, slot.type));
}

std::string rangeText(const Slot& slot, const std::string& name, FieldReader* key) {
  const std::string low = key->takeValue(slot.bits, name);
  const std::string high = key->takeValue(slot.bits, name);
  if (low > high)
    throw PipelineError("key: the range of " + quoted(name) + " ends before it begins");
  if (isZero(low) && high == fullMask(slot.bits)) return "*";
  if (low == high) return valueText(low, slot.type);
  return valueText(low, slot.type) + ".." + valueText(high, slot.type);
}

std::string optionalText(const Slot& slot, const std::string& name, FieldReader* key) {
  const std::string value = key->takeValue(slot.bits, name);
  const std::string present = key->take(8);
  if (present == std::string(1, '\1')) return valueText(value, slot.type);
  if (!isZero(present + value)) {
    throw PipelineError("key: " + quoted(name) + " is left out, and has a value or a wrong mark");
  }
  return "*";
}

std::string slotText(const Slot& slot, const std::string& name, FieldReader* key) {
  switch (slot.role) {
    case SlotRole::prefix:
      return prefixText(slot, name, key);
    case SlotRole::value:
      return ternaryText(slot, name, key);
    case SlotRole::low:
      return rangeText(slot, name, key);
    case SlotRole::optional:
      return optionalText(slot, name, key);
    default:
      return valueText(key->takeValue(slot.bits, name), slot.type);
  }
}

// The string in place of its number's text, where it is known.
std::string named(const NamesByNumber& names, const std::string& type, const std::string& text) {
  const auto ofType = names.find(type);
  uint32_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (ofType == names.end() || parsed.ec != std::errc()) return text;
  const auto found = ofType->second.find(number);
  return found == ofType->second.end() ? text : found->second;
}

void readKey(const DeviceEntry& entry, const p4::config::v1::Table& table,
             const TableLayout& layout, const NamesByNumber& names, EntryText* text) {
  FieldReader key("key", bytesOfHex(entry.key));
  for (const Slot& slot : layout.slots) {
    if (!isFirst(slot.role)) continue;  // taken with the slot before
    const std::string& name = table.match_fields(static_cast<int>(slot.field)).name();
    text->match.emplace_back(name, named(names, slot.named, slotText(slot, name, &key)));
  }
  key.finish();
}

const ActionShape& shapeOf(uint32_t actionId, const TableLayout& layout) {
  for (const ActionShape& shape : layout.actions) {
    if (shape.id == actionId) return shape;
  }
  throw PipelineError("the action " + std::to_string(actionId) + " is not one of the table's");
}

}  // namespace

EntryText entryText(const DeviceEntry& entry, const p4::config::v1::Table& table,
                    const TableLayout& layout, const P4InfoLookup& index,
                    const NamesByNumber& names) {
  if (!entry.trouble.empty()) throw PipelineError(entry.trouble);
  if (layout.indirect)
    throw PipelineError("the table takes no actions, but action profile members");
  EntryText text;
  readKey(entry, table, layout, names, &text);
  const ActionShape& shape = shapeOf(entry.actionId, layout);
  const p4::config::v1::Action& action = *index.action(entry.actionId);
  text.action = action.preamble().name();
  FieldReader data("action_params", bytesOfHex(entry.actionParams));
  for (size_t i = 0; i < shape.fields.size(); ++i) {
    const ActionField& field = shape.fields[i];
    const std::string& name = action.params(static_cast<int>(i)).name();
    const std::string value = valueText(data.takeValue(field.bits, name), field.type);
    text.params.emplace_back(name, named(names, field.named, value));
  }
  data.finish();
  if (layout.priority && entry.priority == 0) throw PipelineError("it needs a priority above 0");
  if (!layout.priority && entry.priority != 0) throw PipelineError("its priority must be 0");
  if (entry.priority > INT32_MAX) throw PipelineError("its priority is above 2147483647");
  return text;
}

}  // namespace Pipeline
