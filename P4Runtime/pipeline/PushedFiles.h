// The pipeline that a controller pushed, in the state directory: the pipeline file that was built
// for it, the push as it came, its program with the names of its objects, and a mark that names all
// of these.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace P4Runtime {

// Which push, and which one the entries belong to: the same, or the earlier one whose entries it
// kept.
struct PushMark {
  uint64_t number = 0;
  uint64_t entries = 0;
};

// In a folder of its own. The mark is replaced as a whole, so that a process that is killed at any
// instant leaves the former push or the new one.
// Threads: one at a time. Errors: std::exception with the path and the reason; nothing has changed
// then.
class PushedFiles {
 public:
  explicit PushedFiles(std::string directory) : directory_(std::move(directory)) {}

  std::optional<PushMark> mark() const;  // nothing: no push is in force
  std::string pipelinePath(const PushMark& mark) const;
  std::string given(const PushMark& mark) const;  // a serialized p4.v1.ForwardingPipelineConfig

  // The files of a push; all but the first two are for forwarding agents that execute programs.
  struct Contents {
    std::string_view pipeline;
    std::string_view given;
    std::string_view program;  // compiled; empty: that of the push in force stands
    std::string_view names;    // of its objects, as pipeline/RowNames.h has them
  };
  // Writes the files of a push beside those in force.
  void write(const PushMark& mark, const Contents& contents) const;
  void markIs(const PushMark& mark) const;  // puts it in force
  void markDel() const;
  // Removes all files of other pushes than the one in force.
  void removeOthers() const;

 private:
  std::string pathOf(const PushMark& mark, const char* suffix) const;
  std::string programInForce() const;
  std::string markPath() const { return directory_ + "/current"; }

  const std::string directory_;
};

}  // namespace P4Runtime
