// The embedded database: directories hold their children.
#include "platform/orrery/Database.h"

#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("Orrery");

namespace Orrery {
namespace {

using Vela::Entity;
using Vela::Ptr;

constexpr size_t maxPathBytes = 1024;

Directory* asDirectory(const Ptr<Entity>& entity) { return dynamic_cast<Directory*>(entity.get()); }

// The path above the last slash, and the name behind it.
std::pair<std::string_view, std::string_view> split(std::string_view path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {{}, path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

void checkPath(std::string_view path) {
  const bool malformed = path.empty() || path.size() > maxPathBytes || path.front() == '/' ||
                         path.back() == '/' || path.find("//") != std::string_view::npos;
  if (!malformed) return;
  throw PathError("'" + std::string(path.substr(0, 80)) +
                  "' is no path; write names with single slashes between them");
}

class EmbeddedDatabase final : public Database {
 public:
  explicit EmbeddedDatabase(Vela::ReactorLoop& loop) : loop_(loop) {}

  Ptr<Entity> entity(std::string_view path) const override {
    if (path.size() > maxPathBytes) return nullptr;
    return path.empty() ? Ptr<Entity>(root_) : found(*root_, path);
  }

  void entityIs(std::string_view path, Ptr<Entity> entity) override {
    checkPath(path);
    const auto [above, name] = split(path);
    directory(above)->entityIs(std::string(name), std::move(entity));
    tell(path);
  }

  Ptr<Entity> entityDel(std::string_view path) override {
    const Ptr<Entity> removed = entity(path);
    if (!removed || removed == root_) return nullptr;
    // Names may contain slashes: the directory is whichever holds the entity.
    for (size_t slash = path.rfind('/');; slash = path.rfind('/', slash - 1)) {
      const bool top = slash == std::string_view::npos;
      const Ptr<Entity> above = entity(top ? std::string_view() : path.substr(0, slash));
      const std::string name(top ? path : path.substr(slash + 1));
      Directory* holder = asDirectory(above);
      if (holder && holder->entity(name) == removed) {
        holder->entityDel(name);
        tell(path);
        return removed;
      }
      if (top || slash == 0) return nullptr;
    }
  }

  std::vector<std::string> children(std::string_view path) const override {
    const Ptr<Entity> holder = entity(path);
    const Directory* directory = asDirectory(holder);
    return directory ? directory->entityNames() : std::vector<std::string>();
  }

  Vela::Observation observe(Vela::ObserverList::Callback changed) override {
    return observers_->observe(std::move(changed));
  }

 private:
  // The shortest name first; a name may be any number of the path's parts.
  static Ptr<Entity> found(const Directory& directory, std::string_view path) {
    for (size_t slash = path.find('/');; slash = path.find('/', slash + 1)) {
      const Ptr<Entity> child = directory.entity(std::string(path.substr(0, slash)));
      if (slash == std::string_view::npos) return child;
      const Directory* below = asDirectory(child);
      if (!below) continue;
      if (const Ptr<Entity> there = found(*below, path.substr(slash + 1))) return there;
    }
  }

  Ptr<Directory> directory(std::string_view path) {
    if (path.empty()) return root_;
    if (const Ptr<Entity> there = entity(path)) {
      if (Directory* directory = asDirectory(there)) return directory;
      throw PathError(std::string(path) + " is a " + there->typeName() +
                      ", not a directory; nothing can be put below it");
    }
    const auto [above, name] = split(path);
    const Ptr<Directory> made = Vela::make<Directory>(std::string(path));
    directory(above)->entityIs(std::string(name), made);
    return made;
  }

  void tell(std::string_view path) {
    SCRIVEL_TRACE(1, "entity came or went: ", path);
    loop_.post([observers = observers_, path = std::string(path)] { observers->notify(path); });
  }

  Vela::ReactorLoop& loop_;
  Ptr<Directory> root_ = Vela::make<Directory>("");
  // Shared with the notices on their way.
  std::shared_ptr<Vela::ObserverList> observers_ = std::make_shared<Vela::ObserverList>();
};

}  // namespace

Ptr<Entity> makeEntityAt(const Database& database, std::string_view path) {
  if (path.empty() || path.size() > maxPathBytes) return nullptr;
  const auto [above, name] = split(path);
  const Ptr<Entity> holder = database.entity(above);
  const Directory* directory = asDirectory(holder);
  if (!directory || name.empty()) return nullptr;
  try {
    return directory->makeEntity(std::string(name));
  } catch (const Vela::BadValue& e) {
    throw PathError("nothing can be made at '" + std::string(path) + "': " + e.what());
  }
}

std::unique_ptr<Database> embeddedDatabase(Vela::ReactorLoop& loop) {
  return std::make_unique<EmbeddedDatabase>(loop);
}

}  // namespace Orrery
