// This switch's part of a Redis: its configuration comes from there, and its status goes there.
//
// Keys, all below the address's prefix:
//   PREFIX/config  a hash that operators write: by path, the attributes of an entity as a JSON
//                  object, as in the configuration file
//   PREFIX/status  a hash: by path, the attributes of a status entity as a JSON object
//   PREFIX/alive   a JSON object, which expires when the process shows no life
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/orrery/LayeredConfig.h"
#include "platform/orrery/redis/RedisConfig.h"
#include "platform/orrery/redis/RedisLink.h"
#include "platform/orrery/redis/RedisStatus.h"
#include "platform/vela/LineBudget.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/vela/Timer.h"

namespace Orrery {

struct RedisOptions {
  RedisAddress address;
  RedisTiming timing;
  std::string copyFile;  // where the last configuration is kept for a later start
  std::chrono::milliseconds startPatience{5000};  // of a start that may be without Redis
  std::vector<std::string> unpublished;           // status at and below these paths stays here
  std::function<void(const std::string&)> say;    // a line for the operator, without a line end
  std::function<std::string()> summary;           // for PREFIX/alive: a JSON object
};

// A layer of the configuration, above those that `layers` has. Call with the activity lock held;
// `loop` and `layers` must outlive it. Its status is the entity "orrery/status/redis".
class RedisOrrery {
 public:
  RedisOrrery(Vela::ReactorLoop& loop, LayeredConfig& layers, RedisOptions options);
  ~RedisOrrery();
  RedisOrrery(const RedisOrrery&) = delete;
  RedisOrrery& operator=(const RedisOrrery&) = delete;

  // Before the reactor runs: waits for the configuration, with the lock given up, and applies it.
  // While Redis has none, or is away, the copy's; without a copy nothing, where `mayBeWithout`;
  // else it waits on, until `isStopped` is true.
  void load(bool mayBeWithout, const std::function<bool()>& isStopped);
  // Publishes, and keeps the copy, from now on. The copy's directory must be there.
  void start();
  // Looks for other settings soon, and tries those again that have been refused.
  void reload();

 private:
  // The link's notices on their way to the reactor.
  struct Inbox {
    std::mutex mutex;  // guards all below
    std::condition_variable arrival;
    std::optional<RedisHash> fields;
    std::optional<RedisTrouble> trouble;
  };

  RedisLink::Events events();
  bool waitForNotice();
  void handleNotices();
  void handleTrouble(const RedisTrouble& trouble);
  void handleFields(const RedisHash& fields);
  void apply(RedisConfig config, const std::string& origin);
  void tellRefused(const std::map<std::string, std::string>& refused);
  std::optional<RedisConfig> keptConfig() const;
  bool maybeApplyCopy();
  void keepCopy();
  void publish();
  void showTrouble();
  void say(const std::string& text) const;
  void sayWithinBudget(const std::string& text);

  Vela::ReactorLoop& loop_;
  LayeredConfig& layers_;
  const RedisOptions options_;
  const std::string place_;  // of the configuration, for messages
  const LayeredConfig::Layer layer_;
  const Vela::Ptr<RedisStatus> status_;
  const std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  const std::shared_ptr<RedisOrrery*> alive_;  // null once this is gone; posts hold it
  RedisConfig config_;                         // in force
  // Of the copy, until a configuration is in force: faulty fields of the first one keep its values.
  std::optional<RedisConfig> kept_;
  RedisTrouble trouble_;
  std::string emptiness_;   // why there is no configuration in a Redis that can be read
  bool isRunning_ = false;  // the agent has begun its work: changes are told
  Vela::LineBudget budget_;
  std::shared_ptr<const StatusTexts> published_;
  std::unique_ptr<Vela::Timer> timer_;
  std::unique_ptr<RedisLink> link_;
};

}  // namespace Orrery
