#include "p4/execute/Switch.h"

#include <algorithm>
#include <cstring>

#include "p4/execute/Deparser.h"

namespace P4 {
namespace {

enum InstanceType : uint32_t {
  normal,
  ingressClone,
  egressClone,
  coalesced,
  recirculated,
  replication,
  resubmitted
};

}  // namespace

const char* dropReasonName(DropReason reason) {
  switch (reason) {
    case DropReason::ingress:
      return "dropped in ingress";
    case DropReason::egress:
      return "dropped in egress";
    case DropReason::noReplica:
      return "multicast group without replicas";
    case DropReason::noQueue:
      return "no queue of that priority";
    case DropReason::tooManySteps:
      return "too many steps";
    case DropReason::tooManyPasses:
      return "too many passes";
    case DropReason::tooManyPackets:
      return "too many copies";
    case DropReason::tooLarge:
      return "too large";
  }
  return "dropped";
}

Switch::Switch(const Image& image, ExternState& externs, const SwitchOptions& options)
    : image_(image),
      options_(options),
      machine_(image, externs, options.seed),
      pool_(image.stateWords),
      maxPackets_(
          static_cast<uint32_t>(std::min<size_t>(70000, maxMemory / (8 * image.stateWords)))),
      depthsWanted_(static_cast<bool>(image.system.enqDepth)) {
  for (uint32_t i = 0; i < image.learnLists.size(); ++i) digests_.emplace_back(i);
}

void Switch::traceIs(Trace* trace) {
  trace_ = trace;
  machine_.traceIs(trace);
}

void Switch::process(const Side& side, uint32_t port, std::span<const uint8_t> bytes, uint64_t now,
                     Outputs& outputs) {
  side_ = &side;
  outputs_ = &outputs;
  now_ = now;
  packets_ = 0;
  ++counts_.received;
  machine_.timeIs(now);
  Packet* packet = take();
  if (bytes.size() > maxBytes) return drop(packet, DropReason::tooLarge);
  clearState(*packet);
  packet->data = bytes.data();
  packet->size = packet->runningLength = packet->ingressLength =
      static_cast<uint32_t>(bytes.size());
  packet->ingressPort = port;
  packet->receivedAt = now;
  packet->passes = 0;
  uint64_t* state = packet->state.get();
  storeField(image_.system.ingressPort, state, port);
  storeField(image_.system.packetLength, state, bytes.size());
  storeField(image_.system.ingressTimestamp, state, now);
  runIngress(packet);
  for (;;) {
    if (egressAt_ < egress_.size()) {
      runEgress(nextOfEgress());
    } else if (ingressAt_ < ingress_.size()) {
      runIngress(ingress_[ingressAt_++]);
    } else {
      break;
    }
  }
  ingress_.clear();
  egress_.clear();
  ingressAt_ = egressAt_ = 0;
  buffers_.giveAll();
}

// --- packets

Packet* Switch::take() {
  Packet* packet = pool_.take();
  packet->parsed = 0;
  packet->truncateTo = 0xffffffff;
  packet->parserError = image_.errors.none;
  packet->checksumError = packet->exit = false;
  packet->requests = Requests();
  return packet;
}

void Switch::clearState(Packet& packet) const {
  std::memset(packet.state.get(), 0, image_.clearedWords * sizeof(uint64_t));
}

void Switch::clearMetadata(Packet& packet) const {
  std::memset(packet.state.get() + image_.metadataBegin, 0,
              (image_.metadataEnd - image_.metadataBegin) * sizeof(uint64_t));
}

// All headers and metadata; no request, no truncation.
Packet* Switch::copyOf(const Packet& packet) {
  Packet* copy = take();
  std::memcpy(copy->state.get(), packet.state.get(), image_.copiedWords * sizeof(uint64_t));
  copy->data = packet.data;
  copy->size = packet.size;
  copy->parsed = packet.parsed;
  copy->runningLength = packet.runningLength;
  copy->ingressLength = packet.ingressLength;
  copy->ingressPort = packet.ingressPort;
  copy->passes = packet.passes;
  copy->receivedAt = packet.receivedAt;
  return copy;
}

void Switch::drop(Packet* packet, DropReason reason) {
  ++counts_.dropped[static_cast<size_t>(reason)];
  event(dropReasonName(reason), absent);
  pool_.give(packet);
}

void Switch::copyList(uint32_t id, const Packet& from, Packet& to) const {
  for (const ListCode& list : image_.fieldLists) {
    if (list.id != id) continue;
    uint64_t words[64];
    for (const FieldPlace& field : list.fields) {
      loadWords(field, from.state.get(), words);
      storeWords(field, to.state.get(), words);
    }
    return;
  }
}

bool Switch::mayPassAgain(const Packet& packet) {
  if (packet.passes < maxPasses && packets_ < maxPackets_) return true;
  ++counts_.dropped[static_cast<size_t>(DropReason::tooManyPasses)];
  event(dropReasonName(DropReason::tooManyPasses), packet.passes);
  return false;
}

// --- ingress

void Switch::parse(Packet& packet) {
  counts_.parserErrors += machine_.run(image_.parser, packet) == RunEnd::parserError;
  packet.exit = false;
}

void Switch::runIngress(Packet* packet) {
  const uint32_t lengthBefore = packet->runningLength;
  machine_.sideIs(*side_, side_->number);
  parse(*packet);
  machine_.run(image_.verify, *packet);
  counts_.checksumErrors += packet->checksumError;
  uint64_t* state = packet->state.get();
  storeField(image_.system.parserError, state, packet->parserError);
  storeField(image_.system.checksumError, state, packet->checksumError);
  event("ingress", packet->ingressPort);
  if (machine_.run(image_.ingress, *packet) == RunEnd::tooManySteps)
    return drop(packet, DropReason::tooManySteps);
  packet->exit = false;
  afterIngress(packet, lengthBefore);
}

void Switch::afterIngress(Packet* packet, uint32_t lengthBefore) {
  const SystemFields& system = image_.system;
  uint64_t* state = packet->state.get();
  const Requests requests = packet->requests;
  const auto egressSpec = static_cast<uint32_t>(loadField(system.egressSpec, state));
  const auto group = static_cast<uint32_t>(loadField(system.multicastGroup, state));
  if (requests.clone) cloneIngress(*packet, lengthBefore);
  if (requests.digestList) learn(*packet);
  if (requests.resubmitList) {
    resubmit(*packet, lengthBefore);
    return pool_.give(packet);
  }
  if (group) {
    const std::vector<Replica>* replicas = side_->replicas(group);
    if (!replicas || replicas->empty()) return drop(packet, DropReason::noReplica);
    storeField(system.instanceType, state, replication);
    multicast(*packet, *replicas);
    return pool_.give(packet);
  }
  if (egressSpec == image_.dropPort) return drop(packet, DropReason::ingress);
  storeField(system.instanceType, state, normal);
  packet->requests = {.recirculateList = requests.recirculateList};
  enqueue(packet, egressSpec);
}

void Switch::cloneIngress(const Packet& packet, uint32_t lengthBefore) {
  const auto session = side_->sessions.find(packet.requests.session);
  if (session == side_->sessions.end() || !mayPassAgain(packet)) return;
  Packet* clone = take();
  clearState(*clone);
  clone->data = packet.data;
  clone->size = packet.size;
  clone->runningLength = lengthBefore;
  clone->ingressLength = packet.ingressLength;
  clone->ingressPort = packet.ingressPort;
  clone->receivedAt = packet.receivedAt;
  clone->passes = packet.passes + 1;
  storeField(image_.system.ingressPort, clone->state.get(), packet.ingressPort);
  event("clone of ingress", packet.requests.session);
  parse(*clone);
  clone->requests = Requests();
  clearMetadata(*clone);
  copyList(packet.requests.cloneList, packet, *clone);
  storeField(image_.system.instanceType, clone->state.get(), ingressClone);
  ++counts_.cloned;
  toSession(clone, session->second);
}

void Switch::toSession(Packet* clone, const Session& session) {
  if (session.group)
    if (const std::vector<Replica>* replicas = side_->replicas(*session.group))
      multicast(*clone, *replicas);
  if (session.port)
    enqueue(clone, *session.port);
  else
    pool_.give(clone);
}

void Switch::learn(const Packet& packet) {
  for (uint32_t i = 0; i < image_.learnLists.size(); ++i) {
    const ListCode& list = image_.learnLists[i];
    if (list.id != packet.requests.digestList) continue;
    std::string sample;
    for (size_t field = 0; field < list.fields.size(); ++field) {
      uint64_t words[64] = {};
      const FieldPlace& place = list.fields[field];
      const bool valid = list.valid[field] == noSlot || packet.state[list.valid[field]];
      if (valid) loadWords(place, packet.state.get(), words);
      for (uint32_t byte = (place.bits + 7) / 8; byte-- > 0;)
        sample += static_cast<char>(words[byte / 8] >> 8 * (byte % 8));
    }
    event("digest", list.id);
    return digests_[i].add(std::move(sample), now_, outputs_->digests);
  }
}

void Switch::resubmit(const Packet& packet, uint32_t lengthBefore) {
  if (!mayPassAgain(packet)) return;
  Packet* again = take();
  clearState(*again);
  again->data = packet.data;
  again->size = packet.size;
  again->runningLength = lengthBefore;
  again->ingressLength = packet.ingressLength;
  again->ingressPort = packet.ingressPort;
  again->receivedAt = packet.receivedAt;
  again->passes = packet.passes + 1;
  copyList(packet.requests.resubmitList, packet, *again);
  storeField(image_.system.instanceType, again->state.get(), resubmitted);
  storeField(image_.system.packetLength, again->state.get(), lengthBefore);
  ++counts_.resubmitted;
  event("resubmit", absent);
  ingress_.push_back(again);
  ++packets_;
}

void Switch::multicast(Packet& packet, const std::vector<Replica>& replicas) {
  for (const Replica& replica : replicas) {
    Packet* copy = copyOf(packet);
    storeField(image_.system.egressRid, copy->state.get(), replica.rid);
    ++counts_.multicast;
    enqueue(copy, replica.port);
  }
}

void Switch::enqueue(Packet* packet, uint32_t port) {
  const SystemFields& system = image_.system;
  uint64_t* state = packet->state.get();
  const uint64_t queue = loadField(system.priority, state);
  if (queue >= options_.priorityQueues) return drop(packet, DropReason::noQueue);
  if (++packets_ > maxPackets_) return drop(packet, DropReason::tooManyPackets);
  packet->egressPort = port;
  packet->queue = static_cast<uint32_t>(queue);
  if (depthsWanted_) {
    storeField(system.enqTimestamp, state, now_);
    storeField(system.enqDepth, state, depthOf(*packet));
  }
  egress_.push_back(packet);
}

// --- egress

// How many packets wait in its queue; some are looked at, not all.
uint64_t Switch::depthOf(const Packet& packet) const {
  uint64_t depth = 0;
  const size_t end = std::min(egress_.size(), egressAt_ + 1024);
  for (size_t i = egressAt_; i < end; ++i)
    depth += egress_[i]->egressPort == packet.egressPort && egress_[i]->queue == packet.queue;
  return depth;
}

// The oldest packet, or one of the same port from a higher queue.
Packet* Switch::nextOfEgress() {
  if (options_.priorityQueues == 1) return egress_[egressAt_++];
  size_t chosen = egressAt_;
  for (size_t i = egressAt_ + 1; i < egress_.size(); ++i)
    if (egress_[i]->egressPort == egress_[egressAt_]->egressPort &&
        egress_[i]->queue > egress_[chosen]->queue)
      chosen = i;
  std::rotate(egress_.begin() + static_cast<ptrdiff_t>(egressAt_),
              egress_.begin() + static_cast<ptrdiff_t>(chosen),
              egress_.begin() + static_cast<ptrdiff_t>(chosen) + 1);
  return egress_[egressAt_++];
}

void Switch::setEgressMetadata(Packet& packet) {
  const SystemFields& system = image_.system;
  uint64_t* state = packet.state.get();
  storeField(system.egressTimestamp, state, now_);
  storeField(system.egressPort, state, packet.egressPort);
  storeField(system.egressSpec, state, image_.dropPort + 1);
  storeField(system.packetLength, state, packet.runningLength);
  if (!depthsWanted_) return;
  storeField(system.deqTimeDelta, state, now_ - loadField(system.enqTimestamp, state));
  storeField(system.deqDepth, state, depthOf(packet));
  storeField(system.queueId, state, packet.queue);
}

void Switch::runEgress(Packet* packet) {
  machine_.sideIs(*side_, side_->number);
  setEgressMetadata(*packet);
  event("egress", packet->egressPort);
  if (machine_.run(image_.egress, *packet) == RunEnd::tooManySteps)
    return drop(packet, DropReason::tooManySteps);
  packet->exit = false;
  if (packet->requests.clone) cloneEgress(*packet);
  const uint64_t egressSpec = loadField(image_.system.egressSpec, packet->state.get());
  if (egressSpec == image_.dropPort) return drop(packet, DropReason::egress);
  if (machine_.run(image_.update, *packet) == RunEnd::tooManySteps)
    return drop(packet, DropReason::tooManySteps);
  if (packet->requests.recirculateList)
    recirculate(*packet);
  else
    send(*packet);
  pool_.give(packet);
}

void Switch::cloneEgress(const Packet& packet) {
  const auto session = side_->sessions.find(packet.requests.session);
  if (session == side_->sessions.end() || !mayPassAgain(packet)) return;
  Packet* clone = copyOf(packet);
  ++clone->passes;
  clearMetadata(*clone);
  copyList(packet.requests.cloneList, packet, *clone);
  storeField(image_.system.instanceType, clone->state.get(), egressClone);
  ++counts_.cloned;
  event("clone of egress", packet.requests.session);
  toSession(clone, session->second);
}

void Switch::send(Packet& packet) {
  uint8_t* to = outputs_->room(mostBytesOf(image_, packet));
  const size_t size = deparse(image_, packet, to);
  outputs_->add(packet.egressPort, std::min<size_t>(size, packet.truncateTo));
  ++counts_.sent;
  event("sent to port", packet.egressPort);
}

void Switch::recirculate(const Packet& packet) {
  if (!mayPassAgain(packet)) return;
  uint8_t* bytes = buffers_.take(mostBytesOf(image_, packet));
  const size_t size = deparse(image_, packet, bytes);
  if (size > maxBytes) {
    ++counts_.dropped[static_cast<size_t>(DropReason::tooLarge)];
    return;
  }
  Packet* again = take();
  clearState(*again);
  again->data = bytes;
  again->size = again->runningLength = again->ingressLength = static_cast<uint32_t>(size);
  again->ingressPort = packet.ingressPort;
  again->receivedAt = packet.receivedAt;
  again->passes = packet.passes + 1;
  copyList(packet.requests.recirculateList, packet, *again);
  storeField(image_.system.instanceType, again->state.get(), recirculated);
  storeField(image_.system.packetLength, again->state.get(), size);
  ++counts_.recirculated;
  event("recirculate", absent);
  ingress_.push_back(again);
  ++packets_;
}

}  // namespace P4
