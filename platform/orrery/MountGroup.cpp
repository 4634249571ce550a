#include "platform/orrery/MountGroup.h"

#include <utility>

#include "platform/orrery/EntityTypes.h"
#include "platform/scrivel/Trace.h"

static Scrivel::TraceHandle trace("OrreryMountGroup");

namespace Orrery {
namespace {

bool hasMode(const std::string& mode, char letter) {
  return mode.find(letter) != std::string::npos;
}

bool isOfType(const Vela::Entity& entity, const std::string& typeName) {
  if (typeName == "Orrery::Directory") return dynamic_cast<const Directory*>(&entity) != nullptr;
  return typeName == entity.typeName();
}

}  // namespace

MountGroup::MountGroup(Database& database, Vela::ReactorLoop& loop)
    : database_(database), loop_(loop), alive_(std::make_shared<MountGroup*>(this)) {}

MountGroup::~MountGroup() { *alive_ = nullptr; }

void MountGroup::mountIs(std::string path, std::string typeName, std::string mode,
                         std::string localName) {
  if (localName.empty()) localName = path;
  mounts_.push_back({std::move(path), std::move(typeName), std::move(mode), std::move(localName)});
}

void MountGroup::completeIs(Complete complete) {
  loop_.post([alive = alive_, complete = std::move(complete)] {
    if (*alive) (*alive)->doMount(complete);
  });
}

void MountGroup::doMount(const Complete& complete) {
  const auto manager = Vela::make<EntityManager>();
  Vela::Outcome outcome;
  for (const Mount& mount : mounts_) {
    outcome = tryMount(mount, *manager);
    SCRIVEL_TRACE(0, "mount ", mount.path, " type ", mount.typeName, " mode ", mount.mode, " ",
                  outcome.reason());
    if (!outcome.ok()) break;
  }
  complete(outcome, manager);
}

Vela::Outcome MountGroup::tryMount(const Mount& mount, EntityManager& manager) {
  const auto failure = [&](const std::string& why) {
    return Vela::Outcome::failure("cannot mount " + mount.path + ": " + why);
  };
  const bool writable = hasMode(mount.mode, 'w');
  if (mount.mode.find_first_not_of("rwci") != std::string::npos ||
      (!writable && !hasMode(mount.mode, 'r'))) {
    return failure("mode '" + mount.mode + "' is not made of r or w, c and i");
  }
  Vela::Ptr<Vela::Entity> entity = database_.entity(mount.path);
  if (!entity && !hasMode(mount.mode, 'c')) return failure("there is no such path");
  if (!entity) {
    entity = TheEntityTypes().make(mount.typeName, mount.path);
    if (!entity) return failure("type " + mount.typeName + " is not known");
    try {
      database_.entityIs(mount.path, entity);
    } catch (const PathError& e) {
      return failure(e.what());
    }
  }
  if (!isOfType(*entity, mount.typeName)) {
    return failure(std::string("it is a ") + entity->typeName() + ", not a " + mount.typeName);
  }
  manager.mounts_[mount.localName] = {entity, writable};
  return {};
}

}  // namespace Orrery
