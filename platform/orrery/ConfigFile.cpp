#include "platform/orrery/ConfigFile.h"

#include <fmt/format.h>

#include <utility>

#include "platform/orrery/EntityTypes.h"

namespace Orrery {
namespace {

// Like the one at the path, with the defaults of its type, and not in the database; or null.
Vela::Ptr<Vela::Entity> freshEntity(const Database& database, const std::string& path) {
  if (auto made = makeEntityAt(database, path)) return made;
  const auto there = database.entity(path);
  return there ? TheEntityTypes().make(there->typeName(), path) : nullptr;
}

}  // namespace

ConfigFile::ConfigFile(Database& database, std::string fileName)
    : database_(database), fileName_(std::move(fileName)) {}

void ConfigFile::load() {
  loadConfig(database_, fileName_);
  inForce_ = read();
}

ConfigReading ConfigFile::reading() const {
  ConfigReading reading;
  reading.entityAt = [this](const std::string& path) { return freshEntity(database_, path); };
  reading.paths = [this] { return pathsIn(database_); };
  return reading;
}

std::vector<std::string> ConfigFile::faults() const try {
  std::vector<std::string> faults;
  ConfigReading reading = this->reading();
  reading.tell = [](const auto&, const auto*) {};
  reading.fault = [&faults](const ConfigError& fault) { faults.emplace_back(fault.what()); };
  readConfig(fileName_, reading);
  return faults;
} catch (const ConfigError& fault) {
  return {fault.what()};
}

ConfigFile::Reading ConfigFile::read() const {
  Reading all;
  ConfigReading reading = this->reading();
  reading.tell = [&all](const std::string& path, const Vela::AttributeBase* set) {
    Settings& settings = all[path];
    if (set) settings[set->name()] = set->text();
  };
  reading.fault = [](const ConfigError& fault) { throw ConfigError(fault); };
  readConfig(fileName_, reading);
  return all;
}

std::vector<std::string> ConfigFile::reload() {
  const Reading next = read();
  const Reading former = inForce_;
  for (const auto& [path, settings] : former) {
    if (next.contains(path)) {
      resetGone(path, next.at(path));
    } else {
      removePath(path);
    }
  }
  for (const auto& [path, settings] : next) applyPath(path, settings);
  return std::exchange(lines_, {});
}

// Whole before others see it, if it has to be made.
void ConfigFile::applyPath(const std::string& path, const Settings& settings) {
  const auto there = database_.entity(path);
  const auto entity = there ? there : makeEntityAt(database_, path);
  if (!entity) return say(fmt::format("\"{}\" has gone meanwhile", path));
  const bool isNew = !inForce_.contains(path);
  Settings& known = inForce_[path];
  for (const auto& [name, text] : settings) {
    const auto before = known.find(name);
    if (before == known.end() || before->second != text) apply(path, *entity, name, text);
  }
  if (!there && isNew) database_.entityIs(path, entity);
}

void ConfigFile::apply(const std::string& path, Vela::Entity& entity, const std::string& name,
                       const std::string& text) {
  Vela::AttributeBase& attribute = *entity.attribute(name);
  const std::string before = attribute.text();
  if (before != text) {
    const Vela::Outcome allowed = database_.checkSetting(path, attribute, text);
    if (!allowed.ok()) {
      say(fmt::format("{} {} stays {}: {}", path, name, before, allowed.reason()));
      return;
    }
    attribute.textIs(text);
    say(fmt::format("{} {} is {} now, was {}", path, name, text, before));
  }
  inForce_[path][name] = text;
}

void ConfigFile::resetGone(const std::string& path, const Settings& settings) {
  const auto there = database_.entity(path);
  const auto fresh = freshEntity(database_, path);
  const Settings known = inForce_[path];
  for (const auto& [name, text] : known) {
    if (settings.contains(name)) continue;
    if (there && fresh) apply(path, *there, name, fresh->attribute(name)->text());
    if (!there || there->attribute(name)->text() != text) inForce_[path].erase(name);
  }
}

void ConfigFile::removePath(const std::string& path) {
  if (database_.entity(path) && makeEntityAt(database_, path)) {
    database_.entityDel(path);
    say(path + " is removed");
    inForce_.erase(path);
    return;
  }
  resetGone(path, {});
  if (inForce_[path].empty()) inForce_.erase(path);
}

}  // namespace Orrery
