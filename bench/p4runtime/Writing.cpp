// See Writing.h.
#include "bench/p4runtime/Writing.h"

#include <unistd.h>

#include <cstdio>
#include <stdexcept>

namespace Bench {

using namespace TestSupport;

Requests requestsOf(const TestController& controller, size_t count, size_t batch,
                    const MadeUpdate& update) {
  Requests requests;
  for (size_t r = 0; r < count; ++r) {
    std::vector<p4::v1::Update> updates;
    for (size_t i = 0; i < batch; ++i) updates.push_back(update(r * batch + i));
    requests.push_back(controller.writeRequest(updates));
  }
  return requests;
}

Clock::duration written(TestController& controller, const p4::v1::WriteRequest& request) {
  const auto start = Clock::now();
  const WriteOutcome outcome = controller.write(request, requestTimeout);
  const auto took = Clock::now() - start;
  if (outcome.ok()) return took;
  std::string reason = outcome.status.error_message();
  for (const auto& error : outcome.errors) {
    if (error.canonical_code() != 0) reason = error.message();
  }
  throw std::runtime_error("a Write failed: " + reason);
}

void progress(const std::string& what) {
  if (!isatty(STDERR_FILENO)) return;
  std::fprintf(stderr, "\r\033[K%s", what.c_str());
  std::fflush(stderr);
}

}  // namespace Bench
