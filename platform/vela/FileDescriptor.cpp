#include "platform/vela/FileDescriptor.h"

#include <fcntl.h>
#include <uv.h>

#include <system_error>
#include <utility>

#include "platform/vela/ActivityLock.h"

namespace Vela {

struct FileDescriptor::Impl {
  uv_poll_t poll;
  FileDescriptor* owner;  // null once the owner is gone

  void start(int events) {
    uv_poll_start(&poll, events, [](uv_poll_t* handle, int status, int ready) {
      static_cast<Impl*>(handle->data)->ready(status, ready);
    });
  }

  void ready(int status, int events) {
    const ActivityLock lock;
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
    // libuv watches no more what had an error. But sockets tell of devices that went down, or of
    // what they had to drop, that way, and live on.
    if (status < 0 && owner && owner->impl_ == this) start(owner->events());
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
  readable_ = nullptr;
  writable_ = nullptr;
  rewatch();
}

void FileDescriptor::onReadableIs(std::function<void()> readable) {
  readable_ = std::move(readable);
  rewatch();
}

void FileDescriptor::onWritableIs(std::function<void()> writable) {
  writable_ = std::move(writable);
  rewatch();
}

void FileDescriptor::rewatch() {
  if (impl_) {
    impl_->owner = nullptr;
    uv_poll_stop(&impl_->poll);
    uv_close(reinterpret_cast<uv_handle_t*>(&impl_->poll),
             [](uv_handle_t* handle) { delete static_cast<Impl*>(handle->data); });
    impl_ = nullptr;
  }
  if (descriptor() < 0) return;
  if (nonBlocking()) {
    fcntl(descriptor(), F_SETFL, fcntl(descriptor(), F_GETFL) | O_NONBLOCK);
  }
  if (events() == 0) return;
  impl_ = new Impl;
  impl_->owner = this;
  impl_->poll.data = impl_;
  if (const int error = uv_poll_init(loop_.handle(), &impl_->poll, descriptor())) {
    delete std::exchange(impl_, nullptr);
    throw std::system_error(
        -error, std::generic_category(),
        "cannot watch descriptor " + std::to_string(descriptor()) + " of " + name());
  }
  impl_->start(events());
}

}  // namespace Vela
