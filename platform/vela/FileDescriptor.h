// A file descriptor watched by the reactor loop.
#pragma once

#include <functional>
#include <string>

#include "platform/vela/Entity.h"
#include "platform/vela/ReactorLoop.h"

namespace Vela {

// Does not own the descriptor: its owner closes it, after descriptorIs(-1) or destruction. Takes up
// another one, a duplicate, while it watches. Call with the activity lock held, on any thread.
class FileDescriptor final : public Entity {
 public:
  FileDescriptor(ReactorLoop& loop, std::string name);
  ~FileDescriptor() override;
  const char* typeName() const override { return "Vela::FileDescriptor"; }

  VELA_READONLY_ATTRIBUTE(int, descriptor, -1)
  VELA_READONLY_ATTRIBUTE(bool, nonBlocking, false)

 public:
  // `readable` runs on the loop, under the activity lock, as long as the descriptor is readable,
  // hung up, or has an error to be read. An empty function stops watching. Throws
  // std::system_error, as descriptorIs() does, when no descriptor is left, and for one that cannot
  // be watched (a regular file); on another thread than the loop's the latter ends the process.
  void onReadableIs(std::function<void()> readable);
  void onWritableIs(std::function<void()> writable);

 private:
  struct Impl;
  void rewatch();
  void letGo();
  int events() const;  // to watch for, in libuv's terms
  ReactorLoop& loop_;
  Impl* impl_ = nullptr;  // freed by libuv's close callback
  std::function<void()> readable_;
  std::function<void()> writable_;
  Observation descriptorChange_;
  Observation blockingChange_;
};

}  // namespace Vela
