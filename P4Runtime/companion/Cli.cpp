#include "P4Runtime/companion/Cli.h"

namespace P4Runtime {
namespace {

constexpr size_t longestId = 64;
constexpr const char* idCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";

}  // namespace

Vela::Ptr<Vela::Entity> CliConfigDir::makeEntity(const std::string& name) const {
  if (name.size() > longestId || name.find_first_not_of(idCharacters) != std::string::npos) {
    throw Vela::BadValue("a request's id is 1 to 64 letters, digits, dots, dashes and underscores");
  }
  return Vela::make<CliRequest>(name);
}

}  // namespace P4Runtime
