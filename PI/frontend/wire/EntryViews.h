// The parts of a P4Runtime table entry as views of a message, parsed or not.
#pragma once

#include <cstdint>
#include <string_view>

#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

// A match element. Values as the controller gave them; the bytes outlive the view.
struct MatchView {
  enum class Form : uint8_t { none, exact, ternary, lpm, range, optional, other };

  uint32_t fieldId = 0;
  Form form = Form::none;
  std::string_view value;    // of a range: its low end
  std::string_view second;   // a mask, or the high end of a range
  int32_t prefixLength = 0;  // of an LPM match
};

struct ParamView {
  uint32_t id = 0;
  std::string_view value;
};

MatchView viewOf(const p4::v1::FieldMatch& match);
inline ParamView viewOf(const p4::v1::Action::Param& param) {
  return {param.param_id(), param.value()};
}

}  // namespace pi::fe::proto
