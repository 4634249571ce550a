#include "P4Runtime/packet/P4RuntimeCpuPktSm.h"

#include <fmt/format.h>

#include <cassert>
#include <ctime>
#include <utility>

#include "PI/pi.h"
#include "PI/target/pi_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"
#include "platform/wirra/packets/ShortFrame.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeCpuPktSm");

constexpr size_t mostPacketsIn = 128;  // a turn; other work of the reactor comes between turns

std::string sourceAddress(const Wirra::Packet& packet) {
  const auto bytes = packet.bytes();
  if (bytes.size() < 12) return "none";
  return fmt::format("{:02x}", fmt::join(bytes.subspan(6, 6), ":"));
}

// Of this thread, since it began. Time in which other threads had the processor does not count.
std::chrono::nanoseconds processorTime() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

CpuPktSm::CpuPktSm(Vela::ReactorLoop& loop, CpuPktInputs inputs)
    : Entity("cpuPktSm"),
      loop_(loop),
      txPktStatus_(std::move(inputs.controllerTxPktStatus)),
      batchStatus_(std::move(inputs.batchStatus)),
      pauseTimer_(loop, [this] { watchPackets(); }) {
  kernelNetInfoRootIs(std::move(inputs.kernelNetInfoRoot));
  kernelNetInfoStatusIs(std::move(inputs.kernelNetInfoStatus));
  controllerInterfaceIs(std::move(inputs.controllerInterface));
  controllerTxPktConfigIs(std::move(inputs.controllerTxPktConfig));
  p4RtSystemConfigIs(std::move(inputs.p4RtSystemConfig));
  p4RtPortMappingStatusIs(std::move(inputs.p4RtPortMappingStatus));
  allIntfStatusDirIs(std::move(inputs.allIntfStatusDir));
  allIntfStatusLocalDirIs(std::move(inputs.allIntfStatusLocalDir));
  if (batchStatus_) {
    changes_.push_back(batchStatus_->inProgressAttribute().observe(
        [this] { pace_.writingIs(batchStatus_->inProgress(), PacketInPace::Clock::now()); }));
  }
  TxWays& ways = *this;
  transmitter_ =
      std::make_unique<PacketTransmitter>(loop, *controllerTxPktConfig(), *txPktStatus_, ways);
  transmitter_->onTurnIs([this] { pktDeqCountIs(transmitter_->taken()); });
  handleInitialized();
}

CpuPktSm::~CpuPktSm() {
  if (netdevPam()) netdevPam()->onPacketsIs({});
}

Vela::Ptr<CpuPktSm> cpuPktSmFactory(Vela::ReactorLoop& loop, CpuPktInputs inputs) {
  return Vela::make<CpuPktSm>(loop, std::move(inputs));
}

void CpuPktSm::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  changes_.push_back(kernelNetInfoStatus()->entityCollection().observeKeys(
      [this](const std::string& name) { handleKernelDevice(name); }));
  changes_.push_back(controllerInterface()->observeMac([this] { doBringUp(); }));
  changes_.push_back(controllerTxPktConfig()->txPktDesc().observe([this] { handleTxPktDesc(); }));
  netdevNameIs(controllerInterface()->intfName());
  handleKernelDevice(netdevName());
  pamCollectionIs(Vela::make<PamCollection>("cpuPktInterfaces"));
  desiredIntfDirIs(Vela::make<Orrery::Directory>("desiredInterfaces"));
  deviceIntfStatusDirIs(Vela::make<Orrery::Directory>("deviceIntfStatusDir"));
  const auto ways = [this](const std::string&) { handleWays(); };
  changes_.push_back(p4RtPortMappingStatus()->intfOfPortCollection().observeKeys(ways));
  changes_.push_back(pamCollection()->pamCollection().observeKeys(ways));
  addDesiredIntfSmIs(Vela::make<AddDesiredIntfSm>(allIntfStatusDir(), desiredIntfDir()));
  doInitializePamMan();
  initializedIs(true);
  handleTxPktDesc();
}

void CpuPktSm::doInitializePamMan() {
  SCRIVEL_TRACE(1, "doInitializePamMan");
  intfStatusManagerRootIs(Vela::make<IntfStatusManager>(desiredIntfDir(), kernelNetInfoStatus(),
                                                        deviceIntfStatusDir()));
  pamManIs(Vela::make<P4RuntimeCpuPktMgr>(loop_, deviceIntfStatusDir(), pamCollection()));
}

void CpuPktSm::handleKernelDevice(const std::string& name) {
  if (name != netdevName()) {
    SCRIVEL_TRACE(5, "handleKernelDevice", "Ignoring kernel device ", name);
    return;
  }
  const auto device = kernelNetInfoStatus()->device(name);
  const auto pam = netdevPam();
  if (pam && device && static_cast<uint32_t>(pam->ifIndex()) == device->ifIndex()) return;
  if (pam) {
    SCRIVEL_TRACE(1, "handleKernelDevice", " ", name, " removed ");
    doDisablePam();
  }
  if (!device) return;
  SCRIVEL_TRACE(1, "handleKernelDevice", " found ::dev ", name, " added ");
  doBringUp();
  doEnablePam();
}

void CpuPktSm::doBringUp() {
  if (!kernelNetInfoStatus()->device(netdevName())) return;
  const Vela::Outcome up = controllerInterface()->bringUpIntf();
  if (up.ok()) return;
  SCRIVEL_TRACE(0, "doBringUp", " ", up.reason());
  Vela::tellError(
      "{}; packets for controllers come in there: bring it up by hand, or mend "
      "bridgeMacAddr of bridging/config",
      up.reason());
}

void CpuPktSm::doEnablePam() {
  SCRIVEL_TRACE(1, "doEnablePam", " ", netdevName());
  auto pam =
      openPacketAccess(loop_, netdevName(), Wirra::PacketAccessManager::Mode::receiveAndSend);
  if (!pam) return;  // handleKernelDevice() or handlePeriod() asks again
  netdevPamIs(std::move(pam));
  watchPackets();
  netdevInitializedIs(true);
  handleWays();
}

void CpuPktSm::doDisablePam() {
  SCRIVEL_TRACE(1, "doDisablePam", " ", netdevName());
  updateCounts();
  const auto& last = netdevPam()->counts();
  ofFormerPams_.missed += last.missed;
  ofFormerPams_.refused += last.refused;
  netdevPam()->onPacketsIs({});
  netdevPam()->onSpaceIs({});
  netdevInitializedIs(false);
  netdevPamIs(nullptr);
  handleWays();
}

void CpuPktSm::handlePeriod() {
  SCRIVEL_TRACE(9, "handlePeriod");
  if (!netdevPam() && kernelNetInfoStatus()->device(netdevName())) doEnablePam();
  pamMan()->retry();
  updateCounts();
}

void CpuPktSm::updateCounts() {
  counts_.missed = ofFormerPams_.missed;
  counts_.refused = ofFormerPams_.refused;
  if (!netdevPam()) return;
  const auto& now = netdevPam()->counts();
  counts_.missed += now.missed;
  counts_.refused += now.refused;
}

void CpuPktSm::handlePktEvent() {
  if (!initialized()) {
    SCRIVEL_TRACE(1, "handlePktEvent", " Uninitialized");
    return;
  }
  const auto before = processorTime();
  readPackets();
  const auto pause = pace_.turnEnded(processorTime() - before, PacketInPace::Clock::now());
  if (pause.count() > 0) pausePackets(pause);
}

void CpuPktSm::readPackets() {
  batch_.clear();
  const auto pam = netdevPam();
  const size_t numPkts = pam ? pam->packets(mostPacketsIn, &batch_) : 0;
  if (numPkts == 0) {
    SCRIVEL_TRACE(8, "handlePktEvent", "No packets to read ");
    return;
  }
  SCRIVEL_TRACE(8, "handlePktEvent", " numPkts:", numPkts);
  counts_.received += numPkts;
  for (const Ptr& pkt : batch_) {
    SCRIVEL_TRACE(9, "handlePktEvent", "Processing Pkt");
    processPkt(pkt);
  }
  batch_.clear();
}

void CpuPktSm::pausePackets(std::chrono::milliseconds pause) {
  if (!netdevPam()) return;
  SCRIVEL_TRACE(8, "pausePackets", " ms:", pause.count());
  netdevPam()->onPacketsIs({});
  pauseTimer_.start(pause);
}

void CpuPktSm::watchPackets() {
  if (netdevPam()) netdevPam()->onPacketsIs([this] { handlePktEvent(); });
}

void CpuPktSm::processPkt(const Ptr& pkt) {
  SCRIVEL_TRACE(8, "processPkt", " Packet SA ", sourceAddress(*pkt));
  const pi_dev_id_t deviceId = p4RtSystemConfig()->deviceId();
  // Also when the library serves another device than the configured one.
  if (pi_num_devices() == 0 || !pi_is_device_assigned(deviceId)) {
    ++counts_.droppedNoDevice;
    return;
  }
  auto bytes = pkt->bytes();
  if (controllerTxPktConfig()->allToProgram() && Wirra::hasShortFrameMark(bytes)) {
    bytes = bytes.subspan(Wirra::shortFrameMark.size());
  }
  const pi_status_t status =
      pi_packetin_receive(deviceId, reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (status != PI_STATUS_SUCCESS) {
    Vela::tellError("Failed( status == PI_STATUS_SUCCESS )  packet_in_receive failed with {}",
                    static_cast<int>(status));
    assert(!"( status == PI_STATUS_SUCCESS )");
  }
}

// The queue stopped being empty. Also runs on the server's threads.
void CpuPktSm::handleTxPktDesc() {
  SCRIVEL_TRACE(8, "handleTxPktDesc", " queued ", controllerTxPktConfig()->txPktDesc().size());
  if (!controllerTxPktConfig()->txPktDesc().empty()) transmitter_->wake();
}

void CpuPktSm::handleWays() {
  SCRIVEL_TRACE(5, "handleWays");
  transmitter_->retryWaiting();
}

TxWays::Way CpuPktSm::processTxPktDesc(const ControllerTxPktDesc& desc) {
  if (!desc.pkt) {
    SCRIVEL_TRACE(1, "processTxPktDesc", " no packet to transmit ");
    return {{}, TxDrop::noPacket};
  }
  if (desc.flags.ingressProcessingEnabled()) {
    if (netdevPam()) return {netdevName(), {}};
    SCRIVEL_TRACE(5, "processTxPktDesc", " no PAM for ", netdevName());
    return {{}, TxDrop::noPam};
  }
  const std::string& intf = p4RtPortMappingStatus()->intfOfPort(desc.egressP4PortId);
  if (intf.empty()) {
    SCRIVEL_TRACE(5, "processTxPktDesc", " no mapping for P4 Port ", desc.egressP4PortId);
    return {{}, TxDrop::noMapping};
  }
  if (!pamCollection()->pamHas(intf)) {
    SCRIVEL_TRACE(5, "processTxPktDesc", " no PAM for P4 Port ", desc.egressP4PortId);
    return {{}, TxDrop::noPam};
  }
  SCRIVEL_TRACE(8, "processTxPktDesc", " Packet for Port ", desc.egressP4PortId, " intf ", intf);
  return {intf, {}};
}

Wirra::PacketAccessManager::Ptr CpuPktSm::pamOf(const std::string& intf) const {
  return intf == netdevName() ? netdevPam() : pamCollection()->pam(intf);
}

void CpuPktSm::send(const std::string& intf, std::span<const Ptr> packets,
                    std::vector<Wirra::SendResult>* results) {
  const auto pam = pamOf(intf);
  if (!pam) {
    results->push_back(Wirra::SendResult::noDevice);
    return;
  }
  pam->send(packets, results);
  if (!results->empty() && results->back() == Wirra::SendResult::full) {
    pam->onSpaceIs([this] { handleWays(); });
  }
}

std::string CpuPktSm::trouble(const std::string& intf) const {
  const auto pam = pamOf(intf);
  return pam ? pam->trouble() : std::string();
}

}  // namespace P4Runtime
