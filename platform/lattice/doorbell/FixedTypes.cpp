#include "platform/lattice/doorbell/FixedTypes.h"

#include <string_view>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/scrivel/Trace.h"

namespace Lattice {
namespace {

Scrivel::TraceHandle trace("LatticeDoorbell");

constexpr size_t mostNames = 256;
constexpr std::string_view namePrefix = "name/";
constexpr std::string_view othersKey = "others";
constexpr std::string_view retypedKey = "retyped";

std::string keyOf(const std::string& name) { return std::string(namePrefix) + name; }

}  // namespace

FixedTypes::FixedTypes(Brine::Store& store) : store_(store), table_(store.table(fixedTypesTable)) {
  store_.forEach(table_, [this](Brine::Bytes key, Brine::Bytes) {
    const std::string_view text = Brine::asText(key);
    if (text.starts_with(namePrefix)) names_.emplace(text.substr(namePrefix.size()));
    others_ |= text == othersKey;
    return true;
  });
}

bool FixedTypes::attachedIs(const std::string& name, bool learnsTypes) {
  if (learnsTypes) {
    return names_.erase(name) != 0 && store_.erase(table_, Brine::asBytes(keyOf(name)));
  }
  if (others_ || names_.contains(name)) return false;
  if (names_.size() < mostNames) {
    names_.insert(name);
    return write(keyOf(name));
  }
  others_ = true;
  return write(std::string(othersKey));
}

bool FixedTypes::write(const std::string& key) try {
  store_.put(table_, Brine::asBytes(key), {});
  return true;
} catch (const Brine::StoreError& e) {
  SCRIVEL_TRACE(0, "cannot note whose types are fixed: ", e.what());
  others_ = true;
  return false;
}

void FixedTypes::retyped() {
  std::string sequence;
  append(sequence, store_.nextSequence());
  store_.put(table_, Brine::asBytes(retypedKey), Brine::asBytes(sequence));
}

bool FixedTypes::isRetypedAfter(uint64_t sequence) const {
  const auto stored = store_.get(table_, Brine::asBytes(retypedKey));
  if (!stored || stored->size() != sizeof(uint64_t)) return false;
  return sequence < loadAt<uint64_t>(stored->data());
}

void FixedTypes::handleDiscarded() {
  for (const std::string& name : names_) {
    if (!store_.contains(table_, Brine::asBytes(keyOf(name)))) write(keyOf(name));
  }
}

}  // namespace Lattice
