// The P4Runtime front end of one device: validates controllers' messages against the P4Info, runs
// it through the PI target interface, and keeps the mapping between P4Runtime entities and PI
// handles. All methods are thread-safe. Writes of a device run one after another; no other call
// waits for a Write that is waiting for the forwarding plane.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <span>

#include "PI/frontends/proto/entity_rights.h"
#include "PI/frontends/proto/write_updates.h"
#include "PI/pi_base.h"
#include "google/rpc/status.pb.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

class DeviceMgrImp;

class DeviceMgr {
 public:
  using Status = ::google::rpc::Status;
  // False from a sink stops the read (the client has gone).
  using ReadSink = std::function<bool(const p4::v1::ReadResponse&)>;
  // May move from the response. Called with the target's lock held: it must neither wait nor
  // call the DeviceMgr.
  using StreamMessageResponseCb = std::function<void(
      pi_dev_id_t device_id, p4::v1::StreamMessageResponse* response, void* cookie)>;

  static void init(size_t max_devices);
  static void destroy();
  // Process-wide; checked at the start of every write() and read() (FAILED_PRECONDITION).
  static void set_operation_permission_level(pi_operation_permission_level_t level);
  static pi_operation_permission_level_t get_operation_permission_level();
  // Process-wide: a level of 0 lasts only until a new pipeline runs. Controllers' writes and reads
  // wait for that, a few seconds at most, then get UNAVAILABLE.
  static void set_pipeline_changing(bool is_changing);
  // Process-wide: a group member of weight 0 counts as one of weight 1, as some controllers mean
  // it, and is read back with 0. Not so unless set.
  static void set_zero_weights_allowed(bool allowed);
  // Process-wide: counters are read with packets and bytes, whatever their unit, as some switches
  // do it. Not so unless set: the count that the unit leaves out is 0.
  static void set_both_counts_read(bool both);
  // Process-wide: numbers in answers have all bytes of their widths, for controllers that compare
  // bytes with their own. Not so unless set.
  static void set_answers_padded(bool padded);

  explicit DeviceMgr(pi_dev_id_t device_id);
  ~DeviceMgr();
  DeviceMgr(const DeviceMgr&) = delete;
  DeviceMgr& operator=(const DeviceMgr&) = delete;

  // The agent's own push: installs the pipeline and assigns the PI device. Controllers' writes and
  // reads wait from here on until pi_restore_done(), a few seconds at most, then UNAVAILABLE.
  Status pipeline_config_set(p4::v1::SetForwardingPipelineConfigRequest::Action action,
                             const p4::v1::ForwardingPipelineConfig& config);
  // A controller's push to a device, which need not exist yet: it does once the target has
  // installed the pipeline by pipeline_config_set(). Returns when the pipeline runs, or was refused
  // with nothing changed. The action has been checked by the caller.
  static Status pipeline_config_push(pi_dev_id_t device_id,
                                     p4::v1::SetForwardingPipelineConfigRequest::Action action,
                                     const p4::v1::ForwardingPipelineConfig* config);
  // The target may know the running pipeline by other words of a controller now, such as another
  // cookie; pipeline_config_get() returns those from here on.
  void pipeline_config_given_changed();
  Status pipeline_config_get(p4::v1::GetForwardingPipelineConfigRequest::ResponseType type,
                             p4::v1::ForwardingPipelineConfig* config);
  bool has_pipeline() const;

  // Device, role and election id have been checked by the caller. The status carries one
  // p4.v1.Error an update when any failed (code UNKNOWN). One Write runs at a time. `admit` is
  // asked when this one's turn has come: a status other than OK is returned as it is, with nothing
  // done. An update that the caller may not make fails with PERMISSION_DENIED; null: it may make
  // all.
  using Admit = std::function<Status()>;
  Status write(const p4::v1::WriteRequest& request, const Admit& admit = nullptr,
               const EntityCaller* caller = nullptr);
  // The same for a Write whose updates stand beside the message.
  Status write(const p4::v1::WriteRequest& header, const WriteUpdates& updates, const Admit& admit,
               const EntityCaller* caller);
  // A query for all objects of a kind is answered from those that the caller may read; one that
  // names another object fails with PERMISSION_DENIED.
  Status read(const p4::v1::ReadRequest& request, p4::v1::ReadResponse* response) const;
  // The same in pieces of less than 1 MiB each, built and handed over outside every lock.
  Status read(const p4::v1::ReadRequest& request, const ReadSink& sink,
              const EntityCaller* caller = nullptr) const;
  // Whether the caller may read the object of the P4Info, and so hears of it. False without a
  // pipeline.
  bool may_read(const EntityCaller& caller, uint32_t object_id) const;
  // PERMISSION_DENIED, with the object's name, for the first of the P4Info's objects that the
  // caller may not write. Ids that are not in the P4Info pass, and so do all without a pipeline.
  Status require_writable(const EntityCaller& caller, std::span<const uint32_t> object_ids) const;

  // Packet out and digest acknowledgements. Packets wait for no Write. A PacketOut that is not as
  // the pipeline's packet_out header has it is INVALID_ARGUMENT (UNIMPLEMENTED: the header itself
  // cannot be served); a refusal of the target is RESOURCE_EXHAUSTED (send it again) or
  // FAILED_PRECONDITION.
  Status stream_message_request_handle(const p4::v1::StreamMessageRequest& request);
  void stream_message_response_register_cb(StreamMessageResponseCb cb, void* cookie);

 private:
  std::unique_ptr<DeviceMgrImp> imp_;
};

}  // namespace pi::fe::proto
