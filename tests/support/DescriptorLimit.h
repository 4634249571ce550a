// A process of few file descriptors, for a while.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

namespace TestSupport {

// Lowers the limit of this process, and restores it at the end.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit lower{limit, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &lower);
  }
  ~DescriptorLimit() {
    release();
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

  void exhaust() {  // no descriptor is left
    for (int one; (one = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) taken_.push_back(one);
  }
  void releaseOne() {
    close(taken_.back());
    taken_.pop_back();
  }
  void release() {
    for (const int one : taken_) close(one);
    taken_.clear();
  }

 private:
  rlimit before_{};
  std::vector<int> taken_;
};

}  // namespace TestSupport
