// The lock itself: a plain mutex with a depth kept by the thread that holds it.
#include "platform/vela/ActivityLock.h"

#include <mutex>
#include <utility>
#include <vector>

namespace Vela {
namespace {

struct Hook {
  uint64_t id;
  std::function<void()> run;
};

std::mutex& lockMutex() {
  static auto* mutex = new std::mutex;  // never destroyed: threads may outlive static destructors
  return *mutex;
}

std::vector<Hook>& hooks() {
  static auto* list = new std::vector<Hook>;
  return *list;
}

thread_local unsigned lockDepth = 0;
uint64_t lastHookId = 0;  // guarded by the lock

void runHooks() {
  // A hook may take the lock again; at depth 1 that would run the hooks once more.
  ++lockDepth;
  for (size_t i = 0; i < hooks().size(); ++i) hooks()[i].run();
  --lockDepth;
}

}  // namespace

ActivityLock::ActivityLock() {
  if (lockDepth == 0) lockMutex().lock();
  ++lockDepth;
}

ActivityLock::~ActivityLock() {
  if (lockDepth == 1) {
    runHooks();
    lockDepth = 0;
    lockMutex().unlock();
    return;
  }
  --lockDepth;
}

bool ActivityLock::held() { return lockDepth > 0; }
unsigned ActivityLock::depth() { return lockDepth; }

ActivityLockReleased::ActivityLockReleased() : depth_(lockDepth) {
  if (depth_ == 0) return;
  runHooks();
  lockDepth = 0;
  lockMutex().unlock();
}

ActivityLockReleased::~ActivityLockReleased() {
  if (depth_ == 0) return;
  lockMutex().lock();
  lockDepth = depth_;
}

ScopeEndHook::ScopeEndHook(std::function<void()> hook) : id_(++lastHookId) {
  hooks().push_back({id_, std::move(hook)});
}

ScopeEndHook::~ScopeEndHook() {
  std::erase_if(hooks(), [this](const Hook& hook) { return hook.id == id_; });
}

}  // namespace Vela
