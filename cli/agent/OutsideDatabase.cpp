#include "cli/agent/OutsideDatabase.h"

#include <unistd.h>

#include <utility>

#include "cli/agent/ServiceNotices.h"
#include "platform/orrery/Database.h"
#include "platform/vela/ErrorLine.h"
#include "platform/vela/Json.h"

namespace {

constexpr const char* systemPath = "p4runtime/status/system";
constexpr const char* copyName = "/orrery-copy.json";

void addAttribute(cJSON* object, const char* key, const Orrery::Database& database,
                  const char* name) {
  const auto entity = database.entity(systemPath);
  const Vela::AttributeBase* attribute = entity ? entity->attribute(name) : nullptr;
  const std::string text = attribute ? attribute->text() : "";
  if (text == "true" || text == "false") {
    cJSON_AddBoolToObject(object, key, text == "true");
  } else {
    Vela::addString(object, key, text);
  }
}

std::string hostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

// What one look at a fleet shows of each switch.
std::string summary(const Orrery::Database& database) {
  const Vela::Json object(cJSON_CreateObject());
  Vela::addString(object.get(), "host", hostName());
  Vela::addNumber(object.get(), "pid", getpid());
  Vela::addString(object.get(), "state", serviceStatus(database));
  addAttribute(object.get(), "critical", database, "critical");
  addAttribute(object.get(), "criticalSince", database, "criticalSince");
  addAttribute(object.get(), "criticalReason", database, "criticalReason");
  return Vela::jsonLine(*object);
}

}  // namespace

std::unique_ptr<Orrery::RedisOrrery> outsideDatabase(Vela::ReactorLoop& loop,
                                                     Orrery::LayeredConfig& layers,
                                                     const std::string& address,
                                                     const std::string& stateDirectory) {
  Orrery::RedisOptions options;
  options.address = Orrery::redisAddressFromText(address);
  options.copyFile =
      options.address.copyFile.empty() ? stateDirectory + copyName : options.address.copyFile;
  // Answers to commands of this machine, and other views of interface/status/all.
  options.unpublished = {"p4runtime/status/cli", "interface/status/eth", "interface/status/local",
                         "kni"};
  options.say = [](const std::string& line) { Vela::tellError("{}", line); };
  options.summary = [&database = layers.database()] { return summary(database); };
  return std::make_unique<Orrery::RedisOrrery>(loop, layers, std::move(options));
}
