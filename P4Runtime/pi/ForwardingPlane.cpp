#include "P4Runtime/pi/ForwardingPlane.h"

#include <atomic>

#include "PI/target/pi_extensions_imp.h"

namespace P4Runtime {
namespace {

std::atomic<ForwardingPlane*> thePlane{nullptr};
constexpr std::chrono::seconds patienceOfReads(2);
constexpr std::chrono::milliseconds patienceForCounts(200);

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
