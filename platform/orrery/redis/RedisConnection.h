// A connection to Redis. Its calls wait for the server: only for a thread that may.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/orrery/redis/RedisAddress.h"

namespace Orrery {

// The connection cannot be made, or is of no more use: the server went away, does not answer in
// time, or lets nobody in. One line, which never holds a password.
class RedisAway : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The server refuses a command; the connection goes on. One line, with a way out where one is
// known.
class RedisRefusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using RedisHash = std::map<std::string, std::string>;  // value by field
using RedisCommand = std::vector<std::string>;

// Used by one thread at a time.
class RedisConnection {
 public:
  static constexpr size_t mostHashBytes = 16 * 1024 * 1024;

  // Connects, and logs in with the password of this moment. Waits for `patience` at most at each
  // step, and a second more for each MB that goes over the connection, but for the look-up of a
  // host name, which takes its own time. Throws RedisAway.
  RedisConnection(const RedisAddress& address, std::chrono::milliseconds patience);
  ~RedisConnection();
  RedisConnection(const RedisConnection&) = delete;
  RedisConnection& operator=(const RedisConnection&) = delete;

  // Each throws RedisAway and RedisRefusal. A larger hash is refused, at the cost of a new
  // connection.
  RedisHash hash(const std::string& key);  // empty: there is no such key
  long long hashSize(const std::string& key);
  std::string text(const std::string& key);  // empty: there is no such key
  void run(const RedisCommand& command);
  // All of them or none.
  void runTogether(const std::vector<RedisCommand>& commands);

 private:
  using Clock = std::chrono::steady_clock;
  struct Context;
  struct Reply;
  void connect(std::chrono::milliseconds patience);
  void logIn();
  Reply ask(const RedisCommand& command);
  void send(const RedisCommand& command);
  void flush(size_t bytes);
  Reply receive();
  size_t readMore(Clock::time_point end);
  [[noreturn]] void giveUp();
  [[noreturn]] void giveUpLate();

  const RedisAddress address_;
  const std::chrono::milliseconds patience_;
  std::unique_ptr<Context> context_;
};

}  // namespace Orrery
