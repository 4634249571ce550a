#include "P4Runtime/pi/ForwardingPlane.h"

#include <atomic>
#include <cstring>
#include <string_view>

#include "P4Runtime/companion/ErrorCode.h"
#include "PI/target/pi_extensions_imp.h"

namespace P4Runtime {
namespace {

std::atomic<ForwardingPlane*> thePlane{nullptr};
constexpr std::chrono::seconds patienceOfReads(2);
constexpr std::chrono::milliseconds patienceForCounts(200);

// Canonical codes of gRPC.
constexpr int unimplemented = 12;
constexpr int internalError = 13;
constexpr int unavailable = 14;

int said(int code, std::string_view why, pi_bytes_receiver_t say, void* cookie) {
  say(cookie, why.data(), why.size());
  return code;
}

}  // namespace

ForwardingPlane* TheForwardingPlane() { return thePlane.load(); }
void TheForwardingPlaneIs(ForwardingPlane* plane) { thePlane.store(plane); }

}  // namespace P4Runtime

extern "C" void _pi_counts_wanted(pi_dev_id_t) {
  auto* const plane = P4Runtime::TheForwardingPlane();
  if (!plane) return;
  (void)plane->ask({.kind = Lattice::Question::Kind::counts}, P4Runtime::patienceForCounts);
}

extern "C" int _pi_register_cells(pi_dev_id_t, pi_p4_id_t register_id, uint64_t first,
                                  uint32_t count, pi_bytes_receiver_t receiver, void* cookie) {
  auto* const plane = P4Runtime::TheForwardingPlane();
  if (!plane) return 0;
  const P4Runtime::PlaneAnswer asked = plane->ask({.kind = Lattice::Question::Kind::registerCells,
                                                   .registerId = register_id,
                                                   .firstCell = first,
                                                   .cellCount = count},
                                                  P4Runtime::patienceOfReads);
  const bool isTold =
      asked.kind == P4Runtime::PlaneAnswer::Kind::answered && asked.answer.errorCode == 0;
  if (!isTold) return 0;
  receiver(cookie, asked.answer.bytes.data(), asked.answer.bytes.size());
  return 1;
}

extern "C" int _pi_last_hits(pi_dev_id_t, pi_p4_id_t table_id, const pi_entry_handle_t* handles,
                             size_t count, uint64_t* nanoseconds, pi_bytes_receiver_t say,
                             void* cookie) {
  using namespace P4Runtime;
  auto* const plane = TheForwardingPlane();
  PlaneAnswer asked;
  if (plane) {
    asked = plane->ask({.kind = Lattice::Question::Kind::lastHits,
                        .tableId = table_id,
                        .entryHandles = {handles, handles + count}},
                       patienceOfReads);
  }
  if (asked.kind == PlaneAnswer::Kind::nobody) {
    return said(unimplemented,
                "no forwarding agent tells when packets met entries; attach one that executes the "
                "program, such as korvel-forwarder --forward",
                say, cookie);
  }
  if (asked.kind == PlaneAnswer::Kind::late) {
    return said(unavailable, "no forwarding agent has told in time when packets met entries", say,
                cookie);
  }
  const Lattice::Answer& answer = asked.answer;
  if (answer.errorCode != 0) {
    return said(canonicalCode(answer.errorCode), answer.bytes, say, cookie);
  }
  if (answer.bytes.size() != count * sizeof *nanoseconds) {
    return said(internalError, "a forwarding agent told other times than those asked for", say,
                cookie);
  }
  std::memcpy(nanoseconds, answer.bytes.data(), answer.bytes.size());  // little-endian, as we are
  return 0;
}
