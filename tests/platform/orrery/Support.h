// An entity to keep in a database, and a database with its loop.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"

namespace Orrery {

class Port final : public Vela::Entity {
 public:
  explicit Port(std::string name) : Entity(std::move(name)) {
    operationIs({"greet", {"name"}, [](const std::vector<std::string>& arguments) {
                   if (arguments[0] == "nobody") throw Vela::BadValue("greet wants a name");
                   return "hello " + arguments[0];
                 }});
  }
  const char* typeName() const override { return "Test::Port"; }

  VELA_ATTRIBUTE(bool, enabled, false)
  VELA_ATTRIBUTE(uint16_t, mtuBytes, 1500)
  VELA_ATTRIBUTE(uint64_t, cookie, 0)
  VELA_ATTRIBUTE(double, loss, 0)
  VELA_ATTRIBUTE(std::string, alias)
  VELA_READONLY_ATTRIBUTE(uint32_t, drops, 3)
  VELA_COLLECTION(uint32_t, std::string, neighbour)
};

// Makes ports on demand, under names that begin with "p".
class Ports final : public Directory {
 public:
  explicit Ports(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Test::Ports"; }
  Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const override {
    if (!name.starts_with('p')) throw Vela::BadValue("a port's name begins with p");
    return Vela::make<Port>(name);
  }
};

struct DatabaseFixture {
  // Runs everything posted so far.
  void turn() {
    loop.post([this] { loop.stop(); });
    loop.run();
  }
  Vela::Ptr<Port> portIs(const std::string& path) {
    const Vela::ActivityLock lock;
    const auto port = Vela::make<Port>(path);
    database->entityIs(path, port);
    return port;
  }

  Vela::ReactorLoop loop;
  std::unique_ptr<Database> database = embeddedDatabase(loop);
};

}  // namespace Orrery
