#include "platform/orrery/redis/RedisOrrery.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/vela/ActivityLock.h"

namespace Orrery {
namespace {

using std::chrono::milliseconds;

constexpr const char* statusPath = "orrery/status/redis";
constexpr const char* otherSettings = "...";  // among those that are refused
constexpr milliseconds stopPeriod{100};       // between two looks for a request to stop
// Of lines about a server that comes and goes.
constexpr size_t mostLines = 20;
constexpr std::chrono::minutes linesPeriod{10};

std::string now() {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  return fmt::format("{:%FT%TZ}", seconds);
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) {
    if (!text.empty()) all += (all.empty() ? "" : "; ") + text;
  }
  return all;
}

}  // namespace

RedisOrrery::RedisOrrery(Vela::ReactorLoop& loop, LayeredConfig& layers, RedisOptions options)
    : loop_(loop),
      layers_(layers),
      options_(std::move(options)),
      place_(options_.address.text() + " " + options_.address.key("config")),
      layer_(layers.layerAdd(place_)),
      status_(Vela::make<RedisStatus>(statusPath)),
      alive_(std::make_shared<RedisOrrery*>(this)),
      budget_(mostLines, linesPeriod) {
  status_->serverIs(options_.address.text());
  status_->prefixIs(options_.address.prefix);
  layers_.database().entityIs(statusPath, status_);
  link_ = std::make_unique<RedisLink>(options_.address, options_.timing, events());
}

RedisOrrery::~RedisOrrery() {
  link_.reset();
  *alive_ = nullptr;
}

RedisLink::Events RedisOrrery::events() {
  const auto post = [this, alive = alive_] {
    inbox_->arrival.notify_all();
    loop_.post([alive] {
      if (*alive) (*alive)->handleNotices();
    });
  };
  const auto takeFields = [inbox = inbox_, post](RedisHash fields) {
    {
      const std::lock_guard guard(inbox->mutex);
      inbox->fields = std::move(fields);
    }
    post();
  };
  const auto takeTrouble = [inbox = inbox_, post](const RedisTrouble& trouble) {
    {
      const std::lock_guard guard(inbox->mutex);
      inbox->trouble = trouble;
    }
    post();
  };
  return {takeFields, takeTrouble};
}

bool RedisOrrery::waitForNotice() {
  const Vela::ActivityLockReleased released;
  std::unique_lock guard(inbox_->mutex);
  return inbox_->arrival.wait_for(guard, stopPeriod,
                                  [this] { return inbox_->fields || inbox_->trouble; });
}

void RedisOrrery::load(bool mayBeWithout, const std::function<bool()>& isStopped) {
  kept_ = keptConfig();
  const auto end = std::chrono::steady_clock::now() + options_.startPatience;
  bool isWaitingTold = false;
  while (!isStopped()) {
    waitForNotice();
    handleNotices();
    if (status_->configuration() == "redis") return;
    const bool isOver = std::chrono::steady_clock::now() >= end;
    const bool isTroubled = !trouble_.away.empty() || !trouble_.reading.empty();
    if (!isOver && !isTroubled && emptiness_.empty()) continue;
    if (maybeApplyCopy()) return;
    if (mayBeWithout && (isOver || !emptiness_.empty())) {
      return say("the agent starts with its configuration file alone");
    }
    if (mayBeWithout || std::exchange(isWaitingTold, true)) continue;
    say(fmt::format("the agent waits for its configuration, the hash {}",
                    options_.address.key("config")));
  }
}

void RedisOrrery::start() {
  isRunning_ = true;
  if (status_->configuration() == "redis") keepCopy();
  timer_ = std::make_unique<Vela::Timer>(loop_, [this] { publish(); });
  timer_->start(milliseconds(0), options_.timing.look);
}

void RedisOrrery::reload() { link_->look(); }

void RedisOrrery::handleNotices() {
  std::optional<RedisHash> fields;
  std::optional<RedisTrouble> trouble;
  {
    const std::lock_guard guard(inbox_->mutex);
    fields = std::exchange(inbox_->fields, std::nullopt);
    trouble = std::exchange(inbox_->trouble, std::nullopt);
  }
  if (trouble) handleTrouble(*trouble);
  if (fields) handleFields(*fields);
}

// Of troubles that stand already nothing is said.
void RedisOrrery::handleTrouble(const RedisTrouble& trouble) {
  const RedisTrouble former = std::exchange(trouble_, trouble);
  status_->connectedIs(trouble.away.empty());
  showTrouble();
  const auto tell = [this](const std::string& before, const std::string& present,
                           const std::string& consequence, const std::string& end) {
    if (before == present) return;
    sayWithinBudget(present.empty() ? end : present + (isRunning_ ? consequence : ""));
  };
  tell(former.away, trouble.away, "; the last configuration stands, and status is written later",
       "connected again");
  if (!trouble.away.empty()) return;
  tell(former.reading, trouble.reading, "; the last configuration stands",
       "the configuration can be read again");
  tell(former.writing, trouble.writing, "; status is written later", "status can be written again");
  tell(former.copying, trouble.copying,
       "; a start without the state database would not know the configuration",
       "the configuration's copy can be written again");
  tell(former.sharing, trouble.sharing, "", "this switch has its prefix for itself again");
}

// A hash that is gone is a loss, such as that of a server that kept nothing on disk, and no wish of
// an operator to have everything at its default.
void RedisOrrery::handleFields(const RedisHash& fields) {
  const std::string before = emptiness_;
  emptiness_ = fields.empty() ? fmt::format("there is no {}", options_.address.key("config")) : "";
  showTrouble();
  if (before != emptiness_ && !emptiness_.empty()) {
    sayWithinBudget(emptiness_ + (config_.document
                                      ? "; the last configuration stands until it is there"
                                      : "; write it with HSET"));
  }
  if (fields.empty()) return;
  const RedisConfig& former = kept_ ? *kept_ : config_;
  apply(readConfigFields(layers_.database(), fields, place_, former), "redis");
  if (isRunning_) keepCopy();
}

void RedisOrrery::keepCopy() { link_->copyIs(options_.copyFile, configCopyText(config_, place_)); }

// Nothing: there is no copy of this place's configuration.
std::optional<RedisConfig> RedisOrrery::keptConfig() const {
  std::ifstream file(options_.copyFile, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  const auto fields = fieldsOfConfigCopy(text, place_);
  if (!fields) return std::nullopt;
  return readConfigFields(layers_.database(), *fields, options_.copyFile, {});
}

bool RedisOrrery::maybeApplyCopy() {
  if (!kept_) return false;
  apply(std::move(*kept_), "copy");
  say(fmt::format("the agent starts with the last configuration from there, kept in {}",
                  options_.copyFile));
  return true;
}

void RedisOrrery::apply(RedisConfig config, const std::string& origin) {
  config_ = std::move(config);
  kept_.reset();
  std::map<std::string, std::string> refused = config_.faults;
  size_t more = config_.moreFaults;
  for (const ConfigLine& line : layers_.layerIs(layer_, config_.settings)) {
    if (!line.isRefused) {
      if (isRunning_) options_.say(line.text);
    } else if (refused.contains(line.setting) || refused.size() < RedisConfig::mostFaults) {
      refused.emplace(line.setting, line.text);
    } else {
      ++more;
    }
  }
  if (more > 0) {
    refused.emplace(otherSettings, fmt::format("{}: other settings refused: {}", place_, more));
  }
  tellRefused(refused);
  status_->configurationIs(origin);
  status_->configurationTimeIs(now());
}

void RedisOrrery::tellRefused(const std::map<std::string, std::string>& refused) {
  const auto former = status_->refusedCollection().values();
  for (const auto& [setting, text] : former) {
    if (!refused.contains(setting)) status_->refusedDel(setting);
  }
  for (const auto& [setting, text] : refused) {
    if (status_->refused(setting) == text) continue;
    status_->refusedIs(setting, text);
    options_.say(text);
  }
}

void RedisOrrery::publish() {
  auto texts =
      std::make_shared<const StatusTexts>(statusTexts(layers_.database(), options_.unpublished));
  if (!published_ || *published_ != *texts) {
    published_ = std::move(texts);
    link_->statusIs(published_);
  }
  link_->aliveIs(options_.summary());
}

void RedisOrrery::showTrouble() {
  status_->troubleIs(joined({trouble_.away, trouble_.reading, emptiness_, trouble_.writing,
                             trouble_.copying, trouble_.sharing}));
}

void RedisOrrery::say(const std::string& text) const {
  options_.say(fmt::format("{} {}: {}", options_.address.text(), options_.address.prefix, text));
}

void RedisOrrery::sayWithinBudget(const std::string& text) {
  switch (budget_.take(Vela::LineBudget::Clock::now())) {
    case Vela::LineBudget::Verdict::write:
      return say(text);
    case Vela::LineBudget::Verdict::last:
      return say(text + "; no more lines about it for 10 minutes");
    case Vela::LineBudget::Verdict::silent:
      return;
  }
}

}  // namespace Orrery
