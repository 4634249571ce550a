#include "cli/journal/InstalledPush.h"

#include <google/protobuf/util/message_differencer.h>

#include "cli/journal/Requests.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Finding.h"
#include "pipeline/PushedConfig.h"

namespace Cli {

using google::protobuf::util::MessageDifferencer;

bool installs(std::string_view ownRequest, const p4::v1::ForwardingPipelineConfig& pushed) {
  p4::v1::SetForwardingPipelineConfigRequest own;
  if (!parse(ownRequest, &own)) return false;
  if (MessageDifferencer::Equals(own.config(), pushed)) return true;
  Pipeline::Findings findings;
  const auto built = Pipeline::pipelineOfPush(pushed, own.device_id(), &findings);
  return built && MessageDifferencer::Equals(own.config(), built->config());
}

}  // namespace Cli
