#include "P4Runtime/pi/PipelinePushes.h"

#include <atomic>

#include "PI/target/pi_extensions_imp.h"

namespace P4Runtime {
namespace {

std::atomic<PipelinePushes*> thePushes{nullptr};
constexpr int unimplemented = 12;

}  // namespace

PipelinePushes* ThePipelinePushes() { return thePushes.load(); }
void ThePipelinePushesIs(PipelinePushes* pushes) { thePushes.store(pushes); }

}  // namespace P4Runtime

extern "C" {

int _pi_pipeline_push(pi_dev_id_t, int action, const char* config, size_t config_size,
                      pi_bytes_receiver_t say, void* cookie) {
  auto* const pushes = P4Runtime::ThePipelinePushes();
  P4Runtime::PushAnswer answer{P4Runtime::unimplemented, "the switch takes no pipelines"};
  if (pushes) {
    answer = pushes->push(
        action, config ? std::optional(std::string_view(config, config_size)) : std::nullopt);
  }
  if (!answer.message.empty()) say(cookie, answer.message.data(), answer.message.size());
  return answer.code;
}

void _pi_pipeline_given(pi_dev_id_t, pi_bytes_receiver_t receiver, void* cookie) {
  auto* const pushes = P4Runtime::ThePipelinePushes();
  const std::string given = pushes ? pushes->given() : std::string();
  if (!given.empty()) receiver(cookie, given.data(), given.size());
}

}  // extern "C"
