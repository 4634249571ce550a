#include "forwarder/plane/DigestQueue.h"

#include <utility>

namespace Forwarder {
namespace {

// A sample has each field in whole bytes of its own.
class BitPacker {
 public:
  void add(std::string_view bytes, uint32_t bits) {
    for (uint32_t bit = 0; bit < bits; ++bit) {
      const uint32_t from = static_cast<uint32_t>(bytes.size()) * 8 - bits + bit;
      if (used_ % 8 == 0) packed_.push_back('\0');
      const int value = static_cast<uint8_t>(bytes[from / 8]) >> (7 - from % 8) & 1;
      packed_.back() = static_cast<char>(packed_.back() | value << (7 - used_ % 8));
      ++used_;
    }
  }
  std::string take() { return std::move(packed_); }

 private:
  std::string packed_;
  size_t used_ = 0;  // bits
};

std::string packedSample(const P4::Program& program, const P4::FieldList& list,
                         std::string_view sample) {
  BitPacker packer;
  for (const P4::FieldRef& field : list.fields) {
    const uint32_t bits = program.bitsOf(field);
    packer.add(sample.substr(0, (bits + 7) / 8), bits);
    sample.remove_prefix((bits + 7) / 8);
  }
  return packer.take();
}

}  // namespace

void DigestQueue::add(const P4::Engine& engine, const std::vector<P4::DigestList>& lists) {
  const std::lock_guard lock(mutex_);
  if (&engine != engine_) return;
  for (const P4::DigestList& list : lists) {
    const uint32_t id = list.learnList < wanted_.size() ? wanted_[list.learnList] : 0;
    if (id == 0) continue;
    const P4::FieldList& fields = engine.program().learnLists[list.learnList];
    for (const std::string& sample : list.samples) {
      if (waiting_.size() == most) {
        ++dropped_;
        continue;
      }
      waiting_.push_back({id, packedSample(engine.program(), fields, sample)});
    }
  }
  if (!waiting_.empty()) signal_.ring();
}

void DigestQueue::wantedAre(const P4::Engine* engine, std::vector<uint32_t> ids) {
  const std::lock_guard lock(mutex_);
  engine_ = engine;
  wanted_ = std::move(ids);
}

std::vector<DigestQueue::Digest> DigestQueue::take() {
  signal_.silence();
  const std::lock_guard lock(mutex_);
  return std::exchange(waiting_, {});
}

}  // namespace Forwarder
