// Writes and reads of an IPv4 routing table: 100 updates a Write, at several table sizes; packets.
// The target costs nothing: this measures validation, encoding, the store, and the response.
#include <benchmark/benchmark.h>
#include <google/protobuf/text_format.h>
#include <malloc.h>

#include <memory>
#include <utility>

#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"

namespace {

using p4::v1::Update;
using pi::fe::proto::DeviceMgr;

constexpr uint32_t kBatch = 100;
constexpr char kP4Info[] = R"(
  tables {
    preamble { id: 1 name: "ingress.ipv4" }
    match_fields { id: 1 name: "vrf" bitwidth: 12 match_type: EXACT }
    match_fields { id: 2 name: "dst" bitwidth: 32 match_type: LPM }
    action_refs { id: 2 }
  }
  actions {
    preamble { id: 2 name: "forward" }
    params { id: 1 name: "port" bitwidth: 16 } params { id: 2 name: "dmac" bitwidth: 48 }
  }
  controller_packet_metadata {
    preamble { id: 3 name: "packet_out" }
    metadata { id: 1 name: "egress_port" bitwidth: 32 }
    metadata { id: 2 name: "submit_to_ingress" bitwidth: 1 }
  }
  controller_packet_metadata {
    preamble { id: 4 name: "packet_in" }
    metadata { id: 1 name: "ingress_port" bitwidth: 32 }
    metadata { id: 2 name: "reason" bitwidth: 8 }
  })";

void entryIs(p4::v1::TableEntry* entry, uint32_t n) {
  entry->set_table_id(1);
  auto* vrf = entry->add_match();
  vrf->set_field_id(1);
  vrf->mutable_exact()->set_value(std::string("\x01\x23", 2));
  auto* dst = entry->add_match();
  dst->set_field_id(2);
  const char bytes[] = {static_cast<char>(n >> 24 | 1), static_cast<char>(n >> 16),
                        static_cast<char>(n >> 8), static_cast<char>(n)};
  dst->mutable_lpm()->set_value(std::string(bytes, 4));
  dst->mutable_lpm()->set_prefix_len(32);
  auto* action = entry->mutable_action()->mutable_action();
  action->set_action_id(2);
  auto* port = action->add_params();
  port->set_param_id(1);
  port->set_value("\x07");
  auto* dmac = action->add_params();
  dmac->set_param_id(2);
  dmac->set_value(std::string("\x02\x00\x00\x00\x00\x01", 6));
}

p4::v1::WriteRequest batch(Update::Type type, uint32_t first) {
  p4::v1::WriteRequest request;
  for (uint32_t n = first; n < first + kBatch; ++n) {
    Update* update = request.add_updates();
    update->set_type(type);
    entryIs(update->mutable_entity()->mutable_table_entry(), n);
  }
  return request;
}

std::unique_ptr<DeviceMgr> deviceWith(uint32_t entries) {
  DeviceMgr::init(1);
  auto device = std::make_unique<DeviceMgr>(1);
  p4::v1::ForwardingPipelineConfig config;
  google::protobuf::TextFormat::ParseFromString(kP4Info, config.mutable_p4info());
  device->pipeline_config_set(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT,
                              config);
  pi_restore_done(1);
  for (uint32_t n = 0; n < entries; n += kBatch) device->write(batch(Update::INSERT, n));
  return device;
}

void measure(benchmark::State& state, DeviceMgr& device, const p4::v1::WriteRequest& request) {
  if (device.write(request).code() != 0) state.SkipWithError("a Write failed");
}

void perUpdate(benchmark::State& state, uint32_t updates) {
  state.counters["s/update"] = benchmark::Counter(
      updates, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void insertAndDelete(benchmark::State& state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  const std::unique_ptr<DeviceMgr> device = deviceWith(entries);
  const p4::v1::WriteRequest insert = batch(Update::INSERT, entries);
  const p4::v1::WriteRequest remove = batch(Update::DELETE, entries);
  for (auto _ : state) {
    measure(state, *device, insert);
    measure(state, *device, remove);
  }
  perUpdate(state, 2 * kBatch);
}
BENCHMARK(insertAndDelete)->Arg(0)->Arg(1000)->Arg(1000000);

void modifySpread(benchmark::State& state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  const std::unique_ptr<DeviceMgr> device = deviceWith(entries);
  std::vector<p4::v1::WriteRequest> requests;
  for (uint32_t i = 0; i < 500; ++i) {
    requests.push_back(batch(Update::MODIFY, i * 7919 * kBatch % entries));
  }
  size_t next = 0;
  for (auto _ : state) measure(state, *device, requests[next++ % requests.size()]);
  perUpdate(state, kBatch);
}
BENCHMARK(modifySpread)->Arg(1000)->Arg(1000000);

void refused(benchmark::State& state) {
  const std::unique_ptr<DeviceMgr> device = deviceWith(kBatch);
  const p4::v1::WriteRequest request = batch(Update::INSERT, 0);
  for (auto _ : state) benchmark::DoNotOptimize(device->write(request));
  perUpdate(state, kBatch);
}
BENCHMARK(refused);

void readOne(benchmark::State& state) {
  const std::unique_ptr<DeviceMgr> device = deviceWith(static_cast<uint32_t>(state.range(0)));
  p4::v1::ReadRequest request;
  entryIs(request.add_entities()->mutable_table_entry(), 77);
  for (auto _ : state) {
    p4::v1::ReadResponse response;
    device->read(request, &response);
    benchmark::DoNotOptimize(response);
  }
}
BENCHMARK(readOne)->Arg(1000)->Arg(1000000);

void readAll(benchmark::State& state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  const std::unique_ptr<DeviceMgr> device = deviceWith(entries);
  p4::v1::ReadRequest request;
  request.add_entities()->mutable_table_entry()->set_table_id(1);
  for (auto _ : state) {
    size_t found = 0;
    device->read(request, [&](const p4::v1::ReadResponse& response) {
      found += response.entities_size();
      return true;
    });
    if (found != entries) state.SkipWithError("entries are missing");
  }
  state.counters["s/entry"] = benchmark::Counter(
      entries, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(readAll)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

p4::v1::StreamMessageRequest packetOutOf(int64_t bytes, const std::string& port) {
  p4::v1::StreamMessageRequest request;
  request.mutable_packet()->set_payload(std::string(static_cast<size_t>(bytes), 'x'));
  for (const auto& [id, value] : {std::pair(1, port), std::pair(2, std::string("\1"))}) {
    auto* metadata = request.mutable_packet()->add_metadata();
    metadata->set_metadata_id(id);
    metadata->set_value(value);
  }
  return request;
}

void packetOut(benchmark::State& state) {
  const std::unique_ptr<DeviceMgr> device = deviceWith(0);
  const auto request = packetOutOf(state.range(0), "\7");
  for (auto _ : state) {
    if (device->stream_message_request_handle(request).code() != 0) state.SkipWithError("refused");
  }
}
BENCHMARK(packetOut)->Arg(60)->Arg(1500)->Arg(9000);

void packetOutRefused(benchmark::State& state) {
  const std::unique_ptr<DeviceMgr> device = deviceWith(0);
  const auto request = packetOutOf(60, "\1\1\1\1\1");
  for (auto _ : state) benchmark::DoNotOptimize(device->stream_message_request_handle(request));
}
BENCHMARK(packetOutRefused);

void packetIn(benchmark::State& state) {
  const std::unique_ptr<DeviceMgr> device = deviceWith(0);
  device->stream_message_response_register_cb(
      [](pi_dev_id_t, p4::v1::StreamMessageResponse* response, void*) {
        benchmark::DoNotOptimize(*response);
      },
      nullptr);
  const std::string packet(static_cast<size_t>(state.range(0)) + 5, '\1');
  for (auto _ : state) pi_packetin_receive(1, packet.data(), packet.size());
}
BENCHMARK(packetIn)->Arg(60)->Arg(1500)->Arg(9000);

void memory(benchmark::State& state) {
  constexpr uint32_t kEntries = 1000000;
  for (auto _ : state) {
    const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    const std::unique_ptr<DeviceMgr> device = deviceWith(kEntries);
    const size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
    state.counters["bytes/entry"] = static_cast<double>(after - before) / kEntries;
  }
}
BENCHMARK(memory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
