// See ReaderMeasure.h.
#include "bench/p4runtime/ReaderMeasure.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "bench/p4runtime/Targets.h"
#include "bench/p4runtime/Writing.h"

namespace Bench {
namespace {

using namespace TestSupport;

constexpr uint64_t mostEntries = 100000;
constexpr std::chrono::duration<double> span{10};  // of Writes, at the usual effort
constexpr size_t readersAChannel = 25;

// Read a table over and over until they are stopped. Responses are counted, not parsed: the
// readers' own work would slow the agent down on the same machine.
class Readers {
 public:
  Readers(const std::string& address, const p4::v1::TableEntry& query, size_t count) {
    p4::v1::ReadRequest request;
    request.set_device_id(1);
    *request.add_entities()->mutable_table_entry() = query;
    const grpc::Slice slice(request.SerializeAsString());
    request_ = grpc::ByteBuffer(&slice, 1);
    for (size_t i = 0; i < count; ++i) {
      if (i % readersAChannel == 0) addChannel(address);
      threads_.emplace_back([this, channel = channels_.back()] { run(*channel); });
    }
  }
  ~Readers() {
    stopping_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  size_t reads() const { return reads_; }
  size_t failures() const { return failures_; }

 private:
  void addChannel(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    channels_.push_back(
        grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments));
  }
  void run(grpc::Channel& channel) {
    using grpc::internal::RpcMethod;
    const RpcMethod method("/p4.v1.P4Runtime/Read", RpcMethod::SERVER_STREAMING);
    while (!stopping_) {
      grpc::ClientContext context;
      const std::unique_ptr<grpc::ClientReader<grpc::ByteBuffer>> reader(
          grpc::internal::ClientReaderFactory<grpc::ByteBuffer>::Create(&channel, method, &context,
                                                                        request_));
      grpc::ByteBuffer response;
      while (reader->Read(&response)) {
        if (stopping_) context.TryCancel();
      }
      const grpc::Status status = reader->Finish();
      if (stopping_) return;
      ++(status.ok() ? reads_ : failures_);
    }
  }

  grpc::ByteBuffer request_;
  std::vector<std::shared_ptr<grpc::Channel>> channels_;
  std::atomic<bool> stopping_{false};
  std::atomic<size_t> reads_{0};
  std::atomic<size_t> failures_{0};
  std::vector<std::thread> threads_;
};

class Measurement {
 public:
  explicit Measurement(const Plan& plan)
      : table_(std::min(plan.tables.back(), mostEntries)),
        span_(span * std::clamp(plan.effort, 0.4, 1.0)),
        tested_(plan.pipelineFile, {.routes = static_cast<int64_t>(table_)}) {
    results_.table = table_;
    results_.readers = plan.readers;
  }

  ReaderResults results() {
    progress(fmt::format("readers: filling {} entries", table_));
    for (uint64_t from = 0; from < table_; from += batch) {
      write(from, std::min(batch, table_ - from), 1);
    }
    progress("readers: Writes alone");
    results_.alone = writes();
    const size_t before = tested_.memory().privateBytes;
    const auto grown = [&] { return std::max(tested_.memory().privateBytes, before) - before; };
    {
      const Readers readers(tested_.address(), tested_.allRoutes(), results_.readers);
      progress(fmt::format("readers: Writes beside {} of them", results_.readers));
      while (readers.reads() + readers.failures() == 0) std::this_thread::yield();
      const size_t first = readers.reads();
      const auto start = Clock::now();
      results_.beside = writes([&] { results_.mostBytes = std::max(results_.mostBytes, grown()); });
      results_.readsPerSecond = static_cast<double>(readers.reads() - first) /
                                (Duration(Clock::now() - start).count() / 1e6);
      if (readers.failures() > 0) throw std::runtime_error("a Read failed");
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    results_.leftBytes = grown();
    progress("");
    return std::move(results_);
  }

 private:
  static constexpr uint64_t batch = 1000;

  Clock::duration write(uint64_t first, uint64_t count, uint32_t nexthop) {
    const auto requests = requestsOf(tested_.controller(), 1, count, [&](uint64_t i) {
      const auto route = tested_.route(first + i, nexthop);
      return nexthop == 1 ? insertOf(route) : modifyOf(route);
    });
    return written(tested_.controller(), requests[0]);
  }
  Samples writes(const std::function<void()>& afterEach = [] {}) {
    Samples samples;
    for (const auto start = Clock::now(); Clock::now() - start < span_;) {
      ++written_;
      samples.add(write(written_ * 7919 % table_, 1, 2 + written_ % 1000));
      afterEach();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return samples;
  }

  const uint64_t table_;
  const std::chrono::duration<double> span_;
  MeasuredSwitch tested_;
  uint32_t written_ = 0;
  ReaderResults results_;
};

}  // namespace

ReaderResults measuredReaders(const Plan& plan) { return Measurement(plan).results(); }

}  // namespace Bench
