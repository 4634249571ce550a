#include "P4Runtime/agent/PlaneQuestions.h"

#include <future>
#include <memory>

#include "platform/vela/ActivityLock.h"

namespace P4Runtime {

PlaneAnswer PlaneQuestions::ask(const Lattice::Question& question,
                                std::chrono::milliseconds patience) {
  auto promise = std::make_shared<std::promise<PlaneAnswer>>();
  std::future<PlaneAnswer> answered = promise->get_future();
  {
    const Vela::ActivityLock lock;
    const bool isAsked = tables_.ask(question, [promise](const Lattice::Answer* answer) {
      promise->set_value(answer ? PlaneAnswer{PlaneAnswer::Kind::answered, *answer}
                                : PlaneAnswer{});
    });
    if (!isAsked) return {};
  }
  if (answered.wait_for(patience) == std::future_status::ready) return answered.get();
  return {PlaneAnswer::Kind::late};
}

}  // namespace P4Runtime
