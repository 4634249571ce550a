#include "PI/server/tls/CoreCredentials.h"

#include <grpc/grpc.h>

#include <utility>

namespace pi::server {
namespace {

void process(void* state, grpc_auth_context* context, const grpc_metadata*, size_t,
             grpc_process_auth_metadata_done_cb done, void* call) {
  const std::string objection = (*static_cast<const CallCheck*>(state))(*context);
  const auto status = objection.empty() ? GRPC_STATUS_OK : GRPC_STATUS_UNAUTHENTICATED;
  done(call, nullptr, 0, nullptr, 0, status, objection.empty() ? nullptr : objection.c_str());
}

void destroy(void* state) { delete static_cast<CallCheck*>(state); }

class CoreCredentials final : public grpc::ServerCredentials {
 public:
  CoreCredentials(grpc_server_credentials* credentials, CallCheck check)
      : credentials_(credentials) {
    grpc_server_credentials_set_auth_metadata_processor(
        credentials, {&process, &destroy, new CallCheck(std::move(check))});
  }
  ~CoreCredentials() override { grpc_server_credentials_release(credentials_); }
  CoreCredentials(const CoreCredentials&) = delete;
  CoreCredentials& operator=(const CoreCredentials&) = delete;

  void SetAuthMetadataProcessor(const std::shared_ptr<grpc::AuthMetadataProcessor>&) override {}

 private:
  int AddPortToServer(const std::string& address, grpc_server* server) override {
    return grpc_server_add_http2_port(server, address.c_str(), credentials_);
  }

  grpc_server_credentials* const credentials_;
};

}  // namespace

std::shared_ptr<grpc::ServerCredentials> coreCredentials(grpc_server_credentials* credentials,
                                                         CallCheck check) {
  return std::make_shared<CoreCredentials>(credentials, std::move(check));
}

}  // namespace pi::server
