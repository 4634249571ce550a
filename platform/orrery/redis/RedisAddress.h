// Where the Redis is in which an operator keeps the configuration and the status of switches.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Orrery {

// The address makes no sense. The message never quotes a password.
class AddressError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct RedisAddress {
  std::string host;  // empty: a Unix socket
  uint16_t port = 6379;
  std::string socketPath;
  unsigned database = 0;
  std::string user;          // empty: Redis' default user
  std::string password;      // as it was given; empty: none was
  std::string passwordFile;  // empty: none
  std::string prefix;        // of all keys of this switch, without a slash at its end
  std::string copyFile;      // where the last configuration is kept; empty: the caller's choice

  // "redis://10.0.0.1:6379/0": without user, password and prefix.
  std::string text() const;
  std::string key(const std::string& name) const { return prefix + "/" + name; }
};

// The environment variable of the password that neither the address nor a file gives.
inline constexpr const char* passwordVariable = "KORVEL_ORRERY_PASSWORD";

// From one of
//   redis://[[USER]:PASSWORD@]HOST[:PORT][/DATABASE][?OPTION&...]
//   unix:[//[USER]:PASSWORD@]/PATH[?OPTION&...]
// with the options prefix=TEXT ("korvel/" and this machine's name unless given), user=NAME,
// db=NUMBER, password-file=FILE and copy=FILE. %XX stands for a byte. Throws AddressError.
RedisAddress redisAddressFromText(const std::string& text);

// The password at this moment: from the address, else from the file, else from the environment;
// empty: none. Throws AddressError for a file that cannot be read.
std::string redisPassword(const RedisAddress& address);

}  // namespace Orrery
