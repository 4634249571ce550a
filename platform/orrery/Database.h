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
#include "platform/vela/ReactorLoop.h"

namespace Orrery {

// A path is malformed, or leads through an entity that is no directory; the message names both.
class PathError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What providers of the database offer. Paths have no slash at either end; the empty path is the
// root directory. Below a directory whose names contain slashes the path just goes on. Call with
// the activity lock held.
class Database {
 public:
  virtual ~Database() = default;

  virtual Vela::Ptr<Vela::Entity> entity(std::string_view path) const = 0;  // null when absent
  // Takes the place of what is there. Directories above it are created when absent.
  virtual void entityIs(std::string_view path, Vela::Ptr<Vela::Entity> entity) = 0;
  virtual Vela::Ptr<Vela::Entity> entityDel(std::string_view path) = 0;  // what was there, or null
  // Names below a directory, ascending; empty for anything else.
  virtual std::vector<std::string> children(std::string_view path) const = 0;
  // Told, on a later turn of the reactor, the path of each entity that entityIs() or entityDel()
  // brought, replaced or removed.
  [[nodiscard]] virtual Vela::Observation observe(Vela::ObserverList::Callback changed) = 0;

  // Asked before a request from outside sets an attribute: "" or why that is refused, and what to
  // do. The text need not be a value of the attribute's type, which refuses it then.
  using SettingCheck = std::function<std::string(
      const std::string& path, const Vela::AttributeBase& attribute, const std::string& text)>;
  void settingCheckIs(SettingCheck check) { settingCheck_ = std::move(check); }
  std::string settingRefused(const std::string& path, const Vela::AttributeBase& attribute,
                             const std::string& text) const {
    return settingCheck_ ? settingCheck_(path, attribute, text) : std::string();
  }

 private:
  SettingCheck settingCheck_;
};

// What the directory above `path` makes under the path's last name, not put in yet; null when
// nothing can be made there. Throws PathError for a name that the directory refuses.
Vela::Ptr<Vela::Entity> entityMadeAt(const Database& database, std::string_view path);

// The database in this process. `loop` delivers its notices and must outlive it.
std::unique_ptr<Database> embeddedDatabase(Vela::ReactorLoop& loop);

}  // namespace Orrery
