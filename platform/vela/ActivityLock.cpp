// The lock itself: a plain mutex with a depth kept by the thread that holds it.
#include "platform/vela/ActivityLock.h"

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Vela {
namespace {

struct Hook {
  uint64_t id;
  std::function<void()> run;
  bool removed = false;  // the function goes later: it may be the one that is running
};

std::mutex& lockMutex() {
  static auto* mutex = new std::mutex;  // never destroyed: threads may outlive static destructors
  return *mutex;
}

std::vector<std::shared_ptr<Hook>>& hooks() {
  static auto* list = new std::vector<std::shared_ptr<Hook>>;
  return *list;
}

thread_local unsigned lockDepth = 0;
thread_local std::vector<std::function<void()>> releaseWork;
uint64_t lastHookId = 0;  // guarded by the lock

void runHooks() {
  // A hook may take the lock again; at depth 1 that would run the hooks once more.
  ++lockDepth;
  bool removed = false;
  for (size_t i = 0; i < hooks().size(); ++i) {
    const std::shared_ptr<Hook> hook = hooks()[i];  // survives hooks that come and go meanwhile
    if (!hook->removed) hook->run();
    removed = removed || hook->removed;
  }
  if (removed) std::erase_if(hooks(), [](const auto& hook) { return hook->removed; });
  --lockDepth;
}

void giveUp() {
  runHooks();
  lockDepth = 0;
  lockMutex().unlock();
  if (releaseWork.empty()) return;
  for (const auto& work : std::exchange(releaseWork, {})) work();
}

}  // namespace

ActivityLock::ActivityLock() {
  if (lockDepth == 0) lockMutex().lock();
  ++lockDepth;
}

ActivityLock::~ActivityLock() {
  if (lockDepth == 1) {
    giveUp();
  } else {
    --lockDepth;
  }
}

void ActivityLock::afterRelease(std::function<void()> work) {
  if (lockDepth == 0) {
    work();
  } else {
    releaseWork.push_back(std::move(work));
  }
}

bool ActivityLock::held() { return lockDepth > 0; }
unsigned ActivityLock::depth() { return lockDepth; }

ActivityLockReleased::ActivityLockReleased() : depth_(lockDepth) {
  if (depth_ > 0) giveUp();
}

ActivityLockReleased::~ActivityLockReleased() {
  if (depth_ == 0) return;
  lockMutex().lock();
  lockDepth = depth_;
}

ScopeEndHook::ScopeEndHook(std::function<void()> hook) : id_(++lastHookId) {
  hooks().push_back(std::make_shared<Hook>(Hook{id_, std::move(hook), false}));
}

ScopeEndHook::~ScopeEndHook() {
  for (const auto& hook : hooks()) {
    if (hook->id == id_) hook->removed = true;
  }
}

}  // namespace Vela
