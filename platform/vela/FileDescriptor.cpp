#include "platform/vela/FileDescriptor.h"

#include <fcntl.h>
#include <uv.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/vela/ActivityLock.h"
#include "platform/vela/Descriptors.h"
#include "platform/vela/Failure.h"

namespace Vela {

// Lives until libuv has closed it, which the owner does not wait for. libuv ends the process when
// a watched descriptor is closed behind its back, so it watches a duplicate.
struct FileDescriptor::Impl {
  const int descriptor;
  UniqueFd duplicate;
  FileDescriptor* owner;  // guarded by the activity lock; null once the owner is gone
  uv_poll_t poll{};       // from here to close(): of the loop's thread alone
  bool watched = false;

  void watch(uv_loop_t* loop, int events) {
    if (!watched) {
      if (events == 0) return;
      if (const int error = uv_poll_init(loop, &poll, duplicate.get())) {
        throw std::system_error(-error, std::generic_category(),
                                "cannot watch descriptor " + std::to_string(descriptor));
      }
      watched = true;
      poll.data = this;
    }
    if (events == 0) {
      uv_poll_stop(&poll);
    } else {
      uv_poll_start(&poll, events, [](uv_poll_t* handle, int status, int ready) {
        static_cast<Impl*>(handle->data)->ready(status, ready);
      });
    }
  }
  void close() {
    if (!watched) {
      delete this;
      return;
    }
    uv_poll_stop(&poll);
    uv_close(reinterpret_cast<uv_handle_t*>(&poll),
             [](uv_handle_t* handle) { delete static_cast<Impl*>(handle->data); });
    duplicate = UniqueFd();
  }

  void ready(int status, int events) {
    const ActivityLock lock;
    guarded([&] { handleReady(status, events); });
  }
  void handleReady(int status, int events) {
    if (status < 0) events = UV_READABLE | UV_WRITABLE;  // both would end with the error
    if (!owner) return;
    // A callback may drop the last reference; an object that nobody shares is not ours to hold.
    const Ptr<FileDescriptor> alive(owner->references() > 0 ? owner : nullptr);
    if ((events & (UV_READABLE | UV_DISCONNECT)) && owner->readable_) {
      const auto readable = owner->readable_;
      readable();
    }
    if (owner && (events & UV_WRITABLE) && owner->writable_) {
      const auto writable = owner->writable_;
      writable();
    }
    // libuv stops watching after an error. But sockets tell of devices that went down and of
    // dropped packets that way, and live on.
    if (status < 0 && owner && owner->impl_ == this) watch(poll.loop, owner->events());
  }
};

int FileDescriptor::events() const {
  return (readable_ ? UV_READABLE | UV_DISCONNECT : 0) | (writable_ ? UV_WRITABLE : 0);
}

FileDescriptor::FileDescriptor(ReactorLoop& loop, std::string name)
    : Entity(std::move(name)), loop_(loop) {
  descriptorChange_ = descriptorAttribute().observe([this] { rewatch(); });
  blockingChange_ = nonBlockingAttribute().observe([this] { rewatch(); });
}

FileDescriptor::~FileDescriptor() {
  if (impl_) letGo();
}

void FileDescriptor::onReadableIs(std::function<void()> readable) {
  readable_ = std::move(readable);
  rewatch();
}

void FileDescriptor::onWritableIs(std::function<void()> writable) {
  writable_ = std::move(writable);
  rewatch();
}

void FileDescriptor::letGo() {
  impl_->owner = nullptr;
  loop_.touch([impl = std::exchange(impl_, nullptr)] { impl->close(); });
}

void FileDescriptor::rewatch() {
  if (impl_ && impl_->descriptor != descriptor()) letGo();
  if (descriptor() < 0) return;
  if (nonBlocking()) {
    fcntl(descriptor(), F_SETFL, fcntl(descriptor(), F_GETFL) | O_NONBLOCK);
  }
  if (!impl_) {
    if (events() == 0) return;
    UniqueFd duplicate(fcntl(descriptor(), F_DUPFD_CLOEXEC, 0));
    if (!duplicate)
      throw std::system_error(errno, std::generic_category(), "cannot watch " + name());
    impl_ = new Impl{.descriptor = descriptor(), .duplicate = std::move(duplicate), .owner = this};
  }
  try {
    loop_.touch(
        [loop = &loop_, impl = impl_, events = events()] { impl->watch(loop->handle(), events); });
  } catch (const std::system_error& e) {
    letGo();
    throw std::system_error(e.code(), "cannot watch " + name());
  }
}

}  // namespace Vela
