// The lock itself: a TurnLock with a depth kept by the thread that holds it.
#include "platform/vela/ActivityLock.h"

#include <memory>
#include <utility>
#include <vector>

#include "platform/vela/ActivityReadLock.h"
#include "platform/vela/TurnLock.h"

namespace Vela {
namespace {

struct Hook {
  uint64_t id;
  std::function<void()> run;
  bool removed = false;  // the function goes later: it may be the one that is running
};

TurnLock& theLock() {
  static auto* lock = new TurnLock;  // never destroyed: threads may outlive static destructors
  return *lock;
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
  theLock().unlock();
  if (releaseWork.empty()) return;
  for (const auto& work : std::exchange(releaseWork, {})) work();
}

void enter(TurnLock::Turn turn) {
  if (lockDepth == 0) theLock().lock(turn);
  ++lockDepth;
}

void leave() {
  if (lockDepth == 1) {
    giveUp();
  } else {
    --lockDepth;
  }
}

}  // namespace

ActivityLock::ActivityLock() { enter(TurnLock::Turn::own); }
ActivityLock::~ActivityLock() { leave(); }
ActivityReadLock::ActivityReadLock() { enter(TurnLock::Turn::afterOthers); }
ActivityReadLock::~ActivityReadLock() { leave(); }

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
  theLock().lock();
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
