// A running server on a free loopback port, and controllers that talk to it.
#pragma once

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "p4/v1/p4runtime.grpc.pb.h"
#include "tests/PI/server/FakeDeviceMgr.h"

using grpc::StatusCode;

// Longer than any step of a test takes on a slow machine.
constexpr std::chrono::seconds kPatience{120};

// What the future brings. Says which step never came about, and ends the program, since the threads
// that it is about could not be joined.
template <typename Future>
auto awaited(Future&& future, const char* step) {
  if (future.wait_for(kPatience) != std::future_status::ready) {
    std::cerr << "waited in vain until " << step << std::endl;
    std::abort();
  }
  return future.get();
}
template <typename Value>
auto awaited(std::promise<Value>& promise, const char* step) {
  return awaited(promise.get_future(), step);
}

// One StreamChannel call. It ends by itself when the test's patience does.
class Controller {
 public:
  Controller(p4::v1::P4Runtime::Stub& stub, uint64_t deviceId, std::string role = "");
  ~Controller();

  void send(const p4::v1::StreamMessageRequest& request) { stream_->Write(request); }
  void sendArbitration(std::optional<uint64_t> electionId);
  // Waits for the next message; empty when the stream has ended.
  p4::v1::StreamMessageResponse next();
  // Sends an update, and returns the code of the notice that follows.
  int arbitrate(std::optional<uint64_t> electionId);
  int nextNotice() { return next().arbitration().status().code(); }
  // The bytes of a stratum.P4RoleConfig, for the updates that follow.
  void configIs(const std::string& bytes);
  void disconnect();
  // Waits for the server to end the stream.
  grpc::Status ended();

  p4::v1::MasterArbitrationUpdate update;  // sent by sendArbitration(), with its own id

 private:
  grpc::ClientContext context_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
  bool finished_ = false;
};

class ServerTest : public testing::Test {
 protected:
  ServerTest();
  explicit ServerTest(uint64_t deviceId);
  ~ServerTest() override;

  void start();
  void stop();
  std::unique_ptr<p4::v1::P4Runtime::Stub> connected() const;

  // A push as the agent makes it; with another token as anybody might.
  grpc::Status push(const std::string& token, const std::string& deviceConfig = "config");
  grpc::Status push();
  // The device has its pipeline and a primary with the id.
  std::unique_ptr<Controller> served(uint64_t electionId = 10);

  p4::v1::WriteRequest writeRequest(std::optional<uint64_t> electionId, int updates = 1) const;
  grpc::Status write(const p4::v1::WriteRequest& request);
  grpc::Status write(uint64_t electionId) { return write(writeRequest(electionId)); }

  const uint64_t deviceId_;  // another one in each test, as election ids are never forgotten
  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
};
