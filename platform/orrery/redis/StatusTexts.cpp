#include "platform/orrery/redis/StatusTexts.h"

#include <algorithm>
#include <utility>

#include "platform/orrery/AttributeJson.h"
#include "platform/vela/Json.h"

namespace Orrery {
namespace {

class Collector {
 public:
  explicit Collector(const std::vector<std::string>& passedOver) : passedOver_(passedOver) {}

  // `above`: the directory's path with a slash behind it, or an empty text.
  void walk(const Directory& directory, const std::string& above) {
    for (const auto& [name, entity] : directory.entityCollection().values()) {
      const std::string path = above + name;
      if (!entity || isPassedOver(path)) continue;
      if (isStatus(path)) take(path, *entity);
      const auto* inner = dynamic_cast<const Directory*>(entity.get());
      if (inner) walk(*inner, path + "/");
    }
  }
  StatusTexts texts() { return std::move(texts_); }

 private:
  static bool isStatus(const std::string& path) {
    return path.starts_with("status/") || path.find("/status/") != std::string::npos;
  }
  bool isPassedOver(const std::string& path) const {
    return std::ranges::find(passedOver_, path) != passedOver_.end();
  }
  void take(const std::string& path, const Vela::Entity& entity) {
    const Vela::Json attributes = attributesJson(entity);
    if (attributes->child) texts_[path] = Vela::jsonLine(*attributes);
  }

  const std::vector<std::string>& passedOver_;
  StatusTexts texts_;
};

}  // namespace

StatusTexts statusTexts(const Database& database, const std::vector<std::string>& passedOver) {
  Collector collector(passedOver);
  const auto root = database.entity("");
  const auto* directory = dynamic_cast<const Directory*>(root.get());
  if (directory) collector.walk(*directory, "");
  return collector.texts();
}

}  // namespace Orrery
