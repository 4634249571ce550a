// See ProfileMeasure.h.
#include "bench/p4runtime/ProfileMeasure.h"

#include <fmt/format.h>

#include <algorithm>

#include "bench/p4runtime/Writing.h"

namespace Bench {
namespace {

using namespace TestSupport;

class ProfileMeasurement {
 public:
  explicit ProfileMeasurement(const Plan& plan)
      : plan_(plan),
        tested_(plan.pipelineFile,
                {.routes = mostUpdates(),
                 .references = std::max(static_cast<int64_t>(plan.references), mostUpdates()),
                 .members = 2 * mostUpdates() * static_cast<int64_t>(groupSize)}),
        empty_(tested_.memory()) {}

  ProfileResults results() {
    for (const size_t batch : plan_.batches) measureBatch(batch);
    if (plan_.references > 0) measureReferences();
    progress("");
    return std::move(results_);
  }

 private:
  int64_t mostUpdates() const {
    size_t most = groupCount * groupSize;
    for (const size_t batch : plan_.batches) most = std::max(most, plan_.requests(batch) * batch);
    return static_cast<int64_t>(most);
  }

  // What is measured at one size of batches is gone at the next: a profile takes sets or members,
  // not both at once.
  void measureBatch(size_t batch) {
    measure("direct", batch, [&](uint64_t i) { return insertOf(tested_.route(i, 1)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.route(i, 1)); });
    measure("one-shot", batch, [&](uint64_t i) { return insertOf(tested_.oneShot(i, setSize)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.oneShot(i, 0)); });
    measure("member", batch, [&](uint64_t i) { return insertOf(tested_.member(i)); });
    measure("group", batch, [&](uint64_t i) { return insertOf(groupOfSome(batch, i, 0)); });
    measure("regroup", batch, [&](uint64_t i) { return modifyOf(groupOfSome(batch, i, 1)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.group(i, 0, 0)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.member(i)); });
  }

  // Group `i` of members that follow each other; `regroup` moves on by one of them.
  p4::v1::ActionProfileGroup groupOfSome(size_t batch, uint64_t i, uint64_t shift) const {
    const uint64_t members = plan_.requests(batch) * batch;
    return tested_.group(i, i * groupSize % (members - groupSize) + shift, groupSize);
  }

  // Operations without a name clear up.
  void measure(const std::string& operation, size_t batch, const MadeUpdate& update) {
    progress(fmt::format("profiles: {} in batches of {}", operation, batch));
    Line line{.batch = batch, .operation = operation};
    const auto requests = requestsOf(tested_.controller(), plan_.requests(batch), batch, update);
    for (const auto& request : requests) line.agent.add(written(tested_.controller(), request));
    if (!operation.empty()) results_.lines.push_back(std::move(line));
  }

  void measureReferences() {
    constexpr size_t batch = 1000;
    const auto write = [&](uint64_t count, const MadeUpdate& update) {
      Samples samples;
      for (uint64_t from = 0; from < count; from += batch) {
        const auto requests =
            requestsOf(tested_.controller(), 1, std::min<uint64_t>(batch, count - from),
                       [&](uint64_t i) { return update(from + i); });
        samples.add(written(tested_.controller(), requests[0]));
      }
      return samples.total().count() / 1e6;
    };
    progress(fmt::format("profiles: {} entries that name groups", plan_.references));
    write(groupCount * groupSize, [&](uint64_t i) { return insertOf(tested_.member(i)); });
    write(groupCount,
          [&](uint64_t i) { return insertOf(tested_.group(i, i * groupSize, groupSize)); });
    const double seconds = write(
        plan_.references, [&](uint64_t i) { return insertOf(tested_.toGroup(i, i % groupCount)); });
    results_.figures = {.table = plan_.references,
                        .fillRate = static_cast<double>(plan_.references) / seconds,
                        .memory = grownSince(empty_, tested_.memory())};
    progress("profiles: restart");
    results_.figures.restartSeconds = tested_.restartSeconds();
  }

  const Plan& plan_;
  MeasuredSwitch tested_;
  const Memory empty_;
  ProfileResults results_;
};

}  // namespace

ProfileResults measuredProfiles(const Plan& plan) { return ProfileMeasurement(plan).results(); }

}  // namespace Bench
