// Addresses of a Redis: all forms, and the faults of each.
#include "platform/orrery/redis/RedisAddress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/TempDir.h"

namespace Orrery {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(RedisAddress, IsReadInAllItsForms) {
  const struct {
    const char* text;
    const char* shown;
    const char* user;
    const char* password;
    const char* prefix;
  } cases[] = {
      {"redis://10.0.0.1?prefix=s1", "redis://10.0.0.1:6379/0", "", "", "s1"},
      {"redis://db.example:7000/3?prefix=fleet/s1/", "redis://db.example:7000/3", "", "",
       "fleet/s1"},
      {"redis://:secret@[::1]:7000?prefix=a", "redis://[::1]:7000/0", "", "secret", "a"},
      {"redis://s1:p%40s%2Fs@h/2?prefix=a%20b", "redis://h:6379/2", "s1", "p@s/s", "a b"},
      {"redis://u:a:b@h?prefix=a", "redis://h:6379/0", "u", "a:b", "a"},
      {"unix:/run/redis.sock?db=4&prefix=s1", "unix:/run/redis.sock?db=4", "", "", "s1"},
      {"unix:///run/redis.sock?prefix=s1", "unix:/run/redis.sock?db=0", "", "", "s1"},
      {"unix://s1:pw@/run/redis.sock?prefix=s1", "unix:/run/redis.sock?db=0", "s1", "pw", "s1"},
      {"redis://h?user=s1&prefix=s1", "redis://h:6379/0", "s1", "", "s1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const RedisAddress address = redisAddressFromText(c.text);
    EXPECT_EQ(address.text(), c.shown);
    EXPECT_EQ(address.user, c.user);
    EXPECT_EQ(address.password, c.password);
    EXPECT_EQ(address.prefix, c.prefix);
  }
  EXPECT_THAT(redisAddressFromText("redis://h").prefix, testing::StartsWith("korvel/"));
  EXPECT_EQ(redisAddressFromText("redis://h?prefix=s1").key("config"), "s1/config");
}

TEST(RedisAddress, FaultsAreNamedWithoutThePassword) {
  const struct {
    const char* text;
    const char* trouble;
  } cases[] = {
      {"", "neither redis:// nor unix:"},
      {"http://h", "neither redis:// nor unix:"},
      {"rediss://:geheim@h", "TLS is not spoken"},
      {"redis://", "names no host"},
      {"redis://:geheim@", "names no host"},
      {"redis://geheim@h", "without a password before it"},
      {"redis://:geheim/x@h", "%2F"},
      {"redis://:geheim?x@h", "%3F for ?"},
      {"redis://:geheim?x=@h", "%3F for ?"},
      {"redis://:geheim%4@h", "two hexadecimal digits"},
      {"redis://:geheim%zz@h", "two hexadecimal digits"},
      {"redis://h:0", "no port"},
      {"redis://:geheim", "no port"},
      {"redis://u:geheim", "no port"},
      {"redis://h:65536", "no port"},
      {"redis://h:1x", "no port"},
      {"redis://[::1", "no ] behind"},
      {"redis://[::1]x", "no ] behind"},
      {"redis://h/x", "database"},
      {"redis://h?db=-1", "database"},
      {"redis://h?prefix=", "without a value"},
      {"redis://h?prefix", "without a value"},
      {"redis://h?prefix=/", "prefix that is empty"},
      {"redis://h?prefix=a%0Ab", "no plain text"},
      {"redis://h?colour=red", "none of prefix"},
      {"unix:redis.sock", "no path of a socket"},
      {"unix://redis.sock", "no path of a socket"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    try {
      redisAddressFromText(c.text);
      ADD_FAILURE() << "was taken";
    } catch (const AddressError& e) {
      EXPECT_THAT(e.what(), HasSubstr(c.trouble));
      EXPECT_THAT(e.what(), Not(HasSubstr("geheim")));
    }
  }
}

TEST(RedisAddress, ThePasswordIsThatOfAddressFileOrEnvironment) {
  const TestSupport::TempDir folder;
  const std::string file = folder.file("password");
  setenv(passwordVariable, "of the environment", 1);
  EXPECT_EQ(redisPassword(redisAddressFromText("redis://h")), "of the environment");
  const auto address = redisAddressFromText("redis://h?password-file=" + file);
  EXPECT_THROW(redisPassword(address), AddressError);
  std::ofstream(file) << "of the file\n";
  EXPECT_EQ(redisPassword(address), "of the file");
  EXPECT_EQ(redisPassword(redisAddressFromText("redis://:given@h?password-file=" + file)), "given");
  unsetenv(passwordVariable);
  EXPECT_EQ(redisPassword(redisAddressFromText("redis://h")), "");
}

}  // namespace
}  // namespace Orrery
