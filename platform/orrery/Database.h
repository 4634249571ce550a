// The state database: a tree of typed entities under paths such as "p4runtime/status/system".
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"
#include "platform/vela/Outcome.h"
#include "platform/vela/ReactorLoop.h"

namespace Orrery {

// A path is malformed, or leads through an entity that is no directory; the message names both.
class PathError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The interface of a state database. Paths have no slash at either end; the empty path is the
// root directory. Below a directory whose names contain slashes the path just goes on. Call with
// the activity lock held.
class Database {
 public:
  virtual ~Database() = default;

  virtual Vela::Ptr<Vela::Entity> entity(std::string_view path) const = 0;  // null when absent
  // Takes the place of a former entity. Directories above it are created when absent.
  virtual void entityIs(std::string_view path, Vela::Ptr<Vela::Entity> entity) = 0;
  virtual Vela::Ptr<Vela::Entity> entityDel(
      std::string_view path) = 0;  // returns the former, or null
  // Names below a directory, ascending; empty for anything else.
  virtual std::vector<std::string> children(std::string_view path) const = 0;
  // Told, on a later turn of the reactor, the path of each entity that entityIs() or entityDel()
  // brought, replaced or removed.
  [[nodiscard]] virtual Vela::Observation observe(Vela::ObserverList::Callback changed) = 0;

  // Runs before a request from outside sets an attribute; a failure refuses the request. The text
  // may be no value of the attribute's type, which refuses it afterwards.
  using SettingCheck = std::function<Vela::Outcome(
      const std::string& path, const Vela::AttributeBase& attribute, const std::string& text)>;
  void settingCheckIs(SettingCheck check) { settingCheck_ = std::move(check); }
  Vela::Outcome checkSetting(const std::string& path, const Vela::AttributeBase& attribute,
                             const std::string& text) const {
    return settingCheck_ ? settingCheck_(path, attribute, text) : Vela::Outcome();
  }

 private:
  SettingCheck settingCheck_;
};

// Has the directory above `path` make an entity of the path's last name, not put in yet; null when
// nothing can be made there. Throws PathError for a name that the directory refuses.
Vela::Ptr<Vela::Entity> makeEntityAt(const Database& database, std::string_view path);

// The database in this process. `loop` delivers its notices and must outlive it.
std::unique_ptr<Database> embeddedDatabase(Vela::ReactorLoop& loop);

}  // namespace Orrery
