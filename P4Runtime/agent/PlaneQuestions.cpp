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
    const bool isAsked =
        tables_.ask(question, [promise, isSilent = isSilent_](const Lattice::Answer* answer) {
          *isSilent = false;
          promise->set_value(answer ? PlaneAnswer{PlaneAnswer::Kind::answered, *answer}
                                    : PlaneAnswer{});
        });
    if (!isAsked) return {};
  }
  const bool isRead = question.kind != Lattice::Question::Kind::pipeline;
  if (isRead && *isSilent_) patience = std::chrono::milliseconds(0);
  if (answered.wait_for(patience) == std::future_status::ready) return answered.get();
  *isSilent_ = true;
  return {PlaneAnswer::Kind::late};
}

}  // namespace P4Runtime
