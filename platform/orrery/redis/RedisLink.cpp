#include "platform/orrery/redis/RedisLink.h"

#include <signal.h>

#include <algorithm>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/scrivel/Trace.h"
#include "platform/vela/Failure.h"
#include "platform/vela/WholeFile.h"

static Scrivel::TraceHandle trace("OrreryRedis");

namespace Orrery {
namespace {

constexpr const char* configKey = "config";
constexpr const char* statusKey = "status";
constexpr const char* aliveKey = "alive";

RedisCommand setFields(const std::string& key, const StatusTexts& texts) {
  RedisCommand command{"HSET", key};
  for (const auto& [path, text] : texts) command.insert(command.end(), {path, text});
  return command;
}

}  // namespace

std::chrono::milliseconds RedisLink::Pause::take() {
  const auto pause = next_;
  next_ = std::min(next_ * 2, timing_.longestPause);
  std::uniform_int_distribution<int64_t> spread(0, pause.count() / 2);
  return pause - std::chrono::milliseconds(spread(random_));
}

RedisLink::RedisLink(RedisAddress address, RedisTiming timing, Events events)
    : address_(std::move(address)),
      timing_(timing),
      events_(std::move(events)),
      thread_(Vela::startThread("the state database outside", [this] { run(); })) {}

RedisLink::~RedisLink() {
  {
    const std::lock_guard guard(mutex_);
    ending_ = true;
  }
  wake_.notify_all();
  thread_.join();
}

void RedisLink::statusIs(std::shared_ptr<const StatusTexts> status) {
  const std::lock_guard guard(mutex_);
  status_ = std::move(status);
}

void RedisLink::aliveIs(std::string text) {
  const std::lock_guard guard(mutex_);
  alive_ = std::move(text);
}

void RedisLink::look() {
  {
    const std::lock_guard guard(mutex_);
    isLookWanted_ = true;
  }
  wake_.notify_all();
}

void RedisLink::copyIs(std::string file, std::string text) {
  {
    const std::lock_guard guard(mutex_);
    copy_.emplace(std::move(file), std::move(text));
  }
  wake_.notify_all();
}

bool RedisLink::isEnding() {
  const std::lock_guard guard(mutex_);
  return ending_;
}

// A copy is written meanwhile: it must not wait for a server that is away.
void RedisLink::waitFor(std::chrono::milliseconds time) {
  const auto end = Clock::now() + time;
  std::unique_lock guard(mutex_);
  const auto isWoken = [this] { return ending_ || isLookWanted_ || copy_; };
  while (wake_.wait_until(guard, end, isWoken) && !ending_ && !isLookWanted_) {
    guard.unlock();
    maybeWriteCopy();
    guard.lock();
  }
  if (std::exchange(isLookWanted_, false)) fields_.reset();
}

void RedisLink::run() {
  sigset_t pipe;  // a peer that went away is an error of the write
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  while (!isEnding()) {
    try {
      RedisConnection connection(address_, timing_.patience);
      SCRIVEL_TRACE(1, "connected to ", address_.text());
      written_.reset();
      writtenAlive_.reset();
      nextWrite_ = {};
      trouble_.away.clear();
      serve(connection);
    } catch (const RedisAway& e) {
      handleAway(e.what());
    } catch (const std::bad_alloc&) {
      handleAway("there is no memory for a reply of it");
    }
  }
  maybeWriteCopy();
}

void RedisLink::handleAway(const std::string& reason) {
  SCRIVEL_TRACE(1, address_.text(), " is away: ", reason);
  trouble_ = {.away = reason, .copying = trouble_.copying};
  tellTrouble();
  waitFor(connectPause_.take());
}

void RedisLink::serve(RedisConnection& connection) {
  while (!isEnding()) {
    readConfiguration(connection);
    connectPause_.reset();
    maybeWriteStatus(connection);
    tellTrouble();
    waitFor(timing_.look);
  }
}

void RedisLink::readConfiguration(RedisConnection& connection) try {
  RedisHash fields = connection.hash(address_.key(configKey));
  trouble_.reading.clear();
  if (fields_ == fields) return;
  SCRIVEL_TRACE(1, "configuration read, paths: ", fields.size());
  fields_ = fields;
  events_.configuration(std::move(fields));
} catch (const RedisRefusal& e) {
  trouble_.reading = e.what();
}

void RedisLink::maybeWriteStatus(RedisConnection& connection) {
  if (Clock::now() < nextWrite_) return;  // refused a moment ago
  std::shared_ptr<const StatusTexts> status;
  {
    const std::lock_guard guard(mutex_);
    status = status_;
  }
  if (!status) return;
  try {
    maybeWriteAlive(connection);
    if (written_) {
      writeChanges(connection, *status);
    } else {
      writeStatus(connection, *status);
    }
    trouble_.writing.clear();
    writePause_.reset();
  } catch (const RedisRefusal& e) {
    trouble_.writing = e.what();
    written_.reset();
    writtenAlive_.reset();
    nextWrite_ = Clock::now() + writePause_.take();
  }
}

// Not while nobody says that the process is alive.
void RedisLink::maybeWriteAlive(RedisConnection& connection) {
  std::optional<std::string> alive;
  {
    const std::lock_guard guard(mutex_);
    alive = std::exchange(alive_, std::nullopt);
  }
  if (!alive || (alive == writtenAlive_ && Clock::now() < nextAlive_)) return;
  if (writtenAlive_) checkAlone(connection);
  connection.run(
      {"SET", address_.key(aliveKey), *alive, "PX", std::to_string(timing_.aliveExpiry.count())});
  writtenAlive_ = std::move(alive);
  nextAlive_ = Clock::now() + timing_.aliveRefresh;
  if (written_) checkStatus(connection);
}

// Two switches of one prefix would overwrite each other's status by turns.
void RedisLink::checkAlone(RedisConnection& connection) {
  const std::string key = address_.key(aliveKey);
  const std::string there = connection.text(key);
  const bool isShared = !there.empty() && there != writtenAlive_;
  trouble_.sharing =
      isShared ? "another process writes " + key + ", too: give each switch a prefix of its own"
               : "";
}

// The server may have lost it meanwhile, such as by FLUSHALL.
void RedisLink::checkStatus(RedisConnection& connection) {
  const auto size = connection.hashSize(address_.key(statusKey));
  if (static_cast<size_t>(size) != written_->size()) written_.reset();
}

// Fields of a former process go.
void RedisLink::writeStatus(RedisConnection& connection, const StatusTexts& status) {
  const std::string key = address_.key(statusKey);
  std::vector<RedisCommand> commands{{"DEL", key}};
  if (!status.empty()) commands.push_back(setFields(key, status));
  connection.runTogether(commands);
  written_ = status;
}

void RedisLink::writeChanges(RedisConnection& connection, const StatusTexts& status) {
  if (*written_ == status) return;
  const std::string key = address_.key(statusKey);
  StatusTexts changed;
  RedisCommand gone{"HDEL", key};
  for (const auto& [path, text] : status) {
    const auto former = written_->find(path);
    if (former == written_->end() || former->second != text) changed.emplace(path, text);
  }
  for (const auto& [path, text] : *written_) {
    if (!status.contains(path)) gone.push_back(path);
  }
  std::vector<RedisCommand> commands;
  if (!changed.empty()) commands.push_back(setFields(key, changed));
  if (gone.size() > 2) commands.push_back(std::move(gone));
  connection.runTogether(commands);
  written_ = status;
}

void RedisLink::maybeWriteCopy() {
  std::optional<std::pair<std::string, std::string>> copy;
  {
    const std::lock_guard guard(mutex_);
    copy = std::exchange(copy_, std::nullopt);
  }
  if (!copy) return;
  try {
    Vela::writeWholeFile(copy->first, copy->second);
    trouble_.copying.clear();
  } catch (const std::system_error& e) {
    SCRIVEL_TRACE(0, "the configuration's copy: ", e.what());
    trouble_.copying = e.what();
  }
}

void RedisLink::tellTrouble() {
  if (trouble_ == toldTrouble_) return;
  toldTrouble_ = trouble_;
  events_.trouble(trouble_);
}

}  // namespace Orrery
