// The smallest forwarding agent: it "programs" each row by printing it, refuses rows beyond a
// capacity, and reports on every row. docs/forwarding-agents.md explains it; a hardware
// vendor's agent begins here and puts its SDK where the printing is.
//
//   minimal-forwarder STATE-DIRECTORY [CAPACITY]
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "platform/lattice/Subscriber.h"

namespace {

volatile std::sig_atomic_t stopping = 0;

constexpr uint16_t tableFull = 13;  // see P4Runtime/companion/ErrorCode.h
constexpr uint16_t invalidArgument = 14;

std::string textOf(const std::vector<Lattice::ColumnText>& columns) {
  std::string text;
  for (const auto& column : columns) text += " " + column.name + "=" + column.text;
  return text;
}

class MinimalForwarder final : public Lattice::SubscriberHandler {
 public:
  MinimalForwarder(const std::string& stateDirectory, size_t capacity)
      : capacity_(capacity),
        subscriber_(Lattice::Subscriber::create(stateDirectory, "minimal-forwarder", *this)) {}

  // follow() does it all: it attaches, waits, calls the functions below and sends our reports.
  void run() {
    std::string told;
    while (!stopping) {
      subscriber_->follow(std::chrono::milliseconds(500));
      if (subscriber_->trouble() != told) {
        told = subscriber_->trouble();
        std::fprintf(stderr, "%s\n", told.empty() ? "following the agent" : told.c_str());
      }
    }
  }

  void tableAdded(const Lattice::FollowedTable& table) override { hardware_[table.name]; }
  void tableRemoved(const Lattice::FollowedTable& table) override { hardware_.erase(table.name); }

  // A snapshot begins. Rows that we have programmed and that are not in it must go.
  void snapshotBegin() override {
    stale_.clear();
    for (const auto& [name, rows] : hardware_) {
      for (const auto& key : rows) stale_.emplace(name, key);
    }
  }
  void snapshotEnd() override {
    for (const auto& [name, key] : stale_) {
      if (const auto table = hardware_.find(name); table != hardware_.end())
        table->second.erase(key);
    }
    stale_.clear();
  }

  void rowChanged(const Lattice::RowChange& change) override {
    const std::string key(change.key);
    stale_.erase({change.table->name, key});
    std::string reason;
    const uint16_t code = change.unchanged ? 0 : program(change, key, &reason);
    subscriber_->report(change.entryHandle, change.sequence, code, reason);
  }

 private:
  // Program your hardware here. A change that fails leaves the former row in place; the agent then
  // writes the former row again.
  uint16_t program(const Lattice::RowChange& change, const std::string& key, std::string* reason) {
    std::set<std::string>& rows = hardware_[change.table->name];
    try {
      const std::string shown = textOf(keyTexts(*change.table->type, change.key));
      if (change.deleted) {
        rows.erase(key);
        std::printf("- %s:%s\n", change.table->name.c_str(), shown.c_str());
        return 0;
      }
      if (!rows.contains(key) && rows.size() >= capacity_) {
        *reason = "table " + change.table->name + " holds " + std::to_string(capacity_) + " rows";
        return tableFull;
      }
      std::printf("+ %s:%s ->%s\n", change.table->name.c_str(), shown.c_str(),
                  textOf(valueTexts(*change.table->type, change.value)).c_str());
      rows.insert(key);
      return 0;
    } catch (const Lattice::TypeError& error) {
      *reason = error.what();
      return invalidArgument;
    }
  }

  const size_t capacity_;
  std::map<std::string, std::set<std::string>> hardware_;  // keys of the rows programmed
  std::set<std::pair<std::string, std::string>> stale_;    // not yet seen in the snapshot
  const std::unique_ptr<Lattice::Subscriber> subscriber_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: minimal-forwarder STATE-DIRECTORY [CAPACITY]\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::signal(SIGINT, [](int) { stopping = 1; });
  std::signal(SIGTERM, [](int) { stopping = 1; });
  MinimalForwarder(argv[1], argc == 3 ? std::strtoul(argv[2], nullptr, 10) : SIZE_MAX).run();
}
