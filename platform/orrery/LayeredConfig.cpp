#include "platform/orrery/LayeredConfig.h"

#include <fmt/format.h>

#include <utility>

#include "platform/orrery/Config.h"

namespace Orrery {

LayeredConfig::Layer LayeredConfig::layerAdd(std::string name) {
  layers_.push_back({std::move(name), {}});
  return layers_.size() - 1;
}

ConfigSettings LayeredConfig::merged() const {
  ConfigSettings all;
  for (const NamedSettings& layer : layers_) {
    for (const auto& [path, attributes] : layer.settings) {
      auto& merged = all[path];
      for (const auto& [name, text] : attributes) merged[name] = text;
    }
  }
  return all;
}

std::vector<ConfigLine> LayeredConfig::layerIs(Layer layer, ConfigSettings settings) {
  layers_[layer].settings = std::move(settings);
  changing_ = layer;
  const ConfigSettings next = merged();
  const ConfigSettings former = inForce_;
  for (const auto& [path, attributes] : former) {
    if (next.contains(path)) {
      resetGone(path, next.at(path));
    } else {
      removePath(path);
    }
  }
  for (const auto& [path, attributes] : next) applyPath(path, attributes);
  return std::exchange(lines_, {});
}

// Whole before others see it, if it has to be made.
void LayeredConfig::applyPath(const std::string& path, const Attributes& wanted) {
  const auto there = database_.entity(path);
  const auto entity = there ? there : makeEntityAt(database_, path);
  if (!entity) return say(path, "", fmt::format("\"{}\" has gone meanwhile", path), true);
  const bool isNew = !inForce_.contains(path);
  Attributes& known = inForce_[path];
  for (const auto& [name, text] : wanted) {
    const auto before = known.find(name);
    if (before == known.end() || before->second != text) apply(path, *entity, name, text);
  }
  if (!there && isNew) database_.entityIs(path, entity);
}

bool LayeredConfig::apply(const std::string& path, Vela::Entity& entity, const std::string& name,
                          const std::string& text) {
  Vela::AttributeBase& attribute = *entity.attribute(name);
  const std::string before = attribute.text();
  if (before != text) {
    const Vela::Outcome allowed = database_.checkSetting(path, attribute, text);
    if (!allowed.ok()) {
      say(path, name, fmt::format("{} {} stays {}: {}", path, name, before, allowed.reason()),
          true);
      return false;
    }
    attribute.textIs(text);
    say(path, name, fmt::format("{} {} is {} now, was {}", path, name, text, before));
  }
  inForce_[path][name] = text;
  return true;
}

// Once it has its default, a setting is no longer theirs, also where they had set the default.
void LayeredConfig::resetGone(const std::string& path, const Attributes& wanted) {
  const auto there = database_.entity(path);
  const auto fresh = freshEntityAt(database_, path);
  const Attributes known = inForce_[path];
  for (const auto& [name, text] : known) {
    if (wanted.contains(name)) continue;
    const bool isRefused =
        there && fresh && !apply(path, *there, name, fresh->attribute(name)->text());
    if (!isRefused) inForce_[path].erase(name);
  }
}

void LayeredConfig::removePath(const std::string& path) {
  if (database_.entity(path) && makeEntityAt(database_, path)) {
    database_.entityDel(path);
    say(path, "", path + " is removed");
    inForce_.erase(path);
    return;
  }
  resetGone(path, {});
  if (inForce_[path].empty()) inForce_.erase(path);
}

// The name of the layer that a setting comes from; of the one that changes, where it has left all.
const std::string& LayeredConfig::layerOf(const std::string& path,
                                          const std::string& attribute) const {
  for (auto layer = layers_.rbegin(); layer != layers_.rend(); ++layer) {
    const auto found = layer->settings.find(path);
    if (found == layer->settings.end()) continue;
    if (attribute.empty() || found->second.contains(attribute)) return layer->name;
  }
  return layers_[changing_].name;
}

void LayeredConfig::say(const std::string& path, const std::string& attribute,
                        const std::string& text, bool isRefused) {
  lines_.push_back({attribute.empty() ? path : path + " " + attribute,
                    layerOf(path, attribute) + ": " + text, isRefused});
}

}  // namespace Orrery
