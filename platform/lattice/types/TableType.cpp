// Table types once compiled, and the process's registry of them.
#include "platform/lattice/types/TableType.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace Lattice {
namespace {

class SharedRegistry final : public TypeRegistry {
 public:
  std::shared_ptr<const TableType> type(std::string_view name) const override {
    const std::lock_guard guard(mutex_);
    const auto found = types_.find(name);
    return found == types_.end() ? nullptr : found->second;
  }
  void typeIs(std::shared_ptr<const TableType> type) override {
    const std::lock_guard guard(mutex_);
    types_[type->name()] = std::move(type);
  }
  void typeDel(std::string_view name) override {
    const std::lock_guard guard(mutex_);
    if (const auto found = types_.find(name); found != types_.end()) types_.erase(found);
  }

 private:
  mutable std::mutex mutex_;  // guards types_
  std::map<std::string, std::shared_ptr<const TableType>, std::less<>> types_;
};

}  // namespace

const ActionLayout* TableType::action(uint32_t actionId) const {
  const auto found = std::ranges::find(actions_, actionId, &ActionLayout::actionId);
  return found == actions_.end() ? nullptr : &*found;
}

TypeRegistry& TheTypeRegistry() {
  static auto* registry = new SharedRegistry;  // outlives every thread that asks for a type
  return *registry;
}

}  // namespace Lattice
