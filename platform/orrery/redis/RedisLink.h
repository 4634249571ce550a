// The thread that talks to Redis: it looks for configuration, writes status, and connects again
// whenever the server was away.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>

#include "platform/orrery/redis/RedisAddress.h"
#include "platform/orrery/redis/RedisConnection.h"
#include "platform/orrery/redis/StatusTexts.h"

namespace Orrery {

struct RedisTiming {
  std::chrono::milliseconds look{1000};      // between two looks at the configuration
  std::chrono::milliseconds patience{2000};  // with an answer
  // Before it connects again, or writes again what was refused: doubled from one failure to the
  // next, and up to a half shorter, so that a fleet does not come back all at once.
  std::chrono::milliseconds shortestPause{500};
  std::chrono::milliseconds longestPause{15000};
  std::chrono::milliseconds aliveRefresh{3000};
  std::chrono::milliseconds aliveExpiry{10000};
};

// Empty texts: none. One line each, without a password.
struct RedisTrouble {
  std::string away;     // why there is no connection
  std::string reading;  // why the configuration cannot be read
  std::string writing;  // why status cannot be written
  std::string copying;  // why the copy of the configuration cannot be written
  std::string sharing;  // that another process has this prefix
  friend bool operator==(const RedisTrouble&, const RedisTrouble&) = default;
};

// Its functions may be called on any thread, and do not wait for the server.
class RedisLink {
 public:
  // Both are called on the link's thread, and must not wait.
  struct Events {
    // The fields of PREFIX/config: first, when they have changed, and after look(). Empty: none.
    std::function<void(RedisHash fields)> configuration;
    std::function<void(const RedisTrouble&)> trouble;  // first, and when it has changed
  };
  // Throws std::system_error when there is no thread to be had.
  RedisLink(RedisAddress address, RedisTiming timing, Events events);
  // Waits for an answer that is due: as long as RedisConnection does.
  ~RedisLink();
  RedisLink(const RedisLink&) = delete;
  RedisLink& operator=(const RedisLink&) = delete;

  // The status as a whole. What differs from the former one is written at the next look.
  void statusIs(std::shared_ptr<const StatusTexts> status);
  // Shows that the process is alive, with a text for watchers. Call it at least at each look.
  void aliveIs(std::string text);
  void look();  // at the configuration, soon, as if it had changed
  // Written on the link's thread, as the disk may be slow; the last one counts.
  void copyIs(std::string file, std::string text);

 private:
  using Clock = std::chrono::steady_clock;

  // Grows from one failure to the next. For the link's thread.
  class Pause {
   public:
    explicit Pause(const RedisTiming& timing) : timing_(timing), next_(timing.shortestPause) {}
    std::chrono::milliseconds take();
    void reset() { next_ = timing_.shortestPause; }

   private:
    const RedisTiming& timing_;
    std::chrono::milliseconds next_;
    std::minstd_rand random_{std::random_device()()};
  };

  void run();
  void handleAway(const std::string& reason);
  void serve(RedisConnection& connection);
  void readConfiguration(RedisConnection& connection);
  void maybeWriteStatus(RedisConnection& connection);
  void maybeWriteAlive(RedisConnection& connection);
  void checkAlone(RedisConnection& connection);
  void checkStatus(RedisConnection& connection);
  void writeStatus(RedisConnection& connection, const StatusTexts& status);
  void writeChanges(RedisConnection& connection, const StatusTexts& status);
  void maybeWriteCopy();
  void tellTrouble();
  bool isEnding();
  void waitFor(std::chrono::milliseconds time);

  const RedisAddress address_;
  const RedisTiming timing_;
  const Events events_;

  // The link's thread alone.
  RedisTrouble trouble_;
  std::optional<RedisTrouble> toldTrouble_;
  std::optional<RedisHash> fields_;     // as told last; nothing: tell them in any case
  std::optional<StatusTexts> written_;  // nothing: write all of it
  std::optional<std::string> writtenAlive_;
  Pause connectPause_{timing_};
  Pause writePause_{timing_};
  Clock::time_point nextWrite_;
  Clock::time_point nextAlive_;

  std::mutex mutex_;  // guards all below
  std::condition_variable wake_;
  bool ending_ = false;
  bool isLookWanted_ = false;
  std::shared_ptr<const StatusTexts> status_;
  std::optional<std::string> alive_;  // nothing: it has been written, or nobody said so
  std::optional<std::pair<std::string, std::string>> copy_;  // file, text

  std::thread thread_;  // last, so that all above is there for it
};

}  // namespace Orrery
