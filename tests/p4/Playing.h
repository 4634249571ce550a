// Sends packets through an engine and writes down what comes out.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "p4/Engine.h"
#include "tests/p4/Controller.h"
#include "tests/p4/SmallProgram.h"

namespace P4Test {

using Strings = std::vector<std::string>;

// "3:0a0b" for each frame, in order of text.
inline Strings play(P4::Engine& engine, uint32_t port, const std::string& frame, uint64_t now = 0) {
  const std::string bytes = bytesOf(frame);
  P4::Outputs outputs;
  engine.process(port, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, now,
                 outputs);
  Strings all;
  for (size_t i = 0; i < outputs.size(); ++i) {
    const auto out = outputs.frame(i);
    all.push_back(std::to_string(out.port) + ":" +
                  hexOf(std::string(out.bytes.begin(), out.bytes.end())));
  }
  std::sort(all.begin(), all.end());
  return all;
}

inline std::string extract(const std::string& header) {
  return call("extract", {object("regular", header)});
}
inline std::string list(const Strings& parts) {
  std::string all;
  for (const std::string& part : parts) all += (all.empty() ? "" : ",") + part;
  return "[" + all + "]";
}
inline std::string calls(const Strings& parts) {
  return list(parts).substr(1, list(parts).size() - 2);
}
inline std::string goOn(const std::string& value, const std::string& state,
                        const std::string& mask = "") {
  return R"({"type":"hexstr","value":")" + value + R"(","mask":)" +
         (mask.empty() ? "null" : "\"" + mask + "\"") + R"(,"next_state":)" +
         (state.empty() ? "null" : "\"" + state + "\"") + "}";
}
inline std::string otherwise(const std::string& state = "") {
  return R"({"type":"default","value":null,"mask":null,"next_state":)" +
         (state.empty() ? std::string("null") : "\"" + state + "\"") + "}";
}
inline std::string op(const std::string& name, const std::string& left, const std::string& right) {
  return R"({"type":"expression","value":{"op":")" + name + R"(","left":)" + left + R"(,"right":)" +
         right + "}}";
}
inline std::string wrapped(const std::string& value) {
  return R"({"type":"expression","value":)" + value + "}";
}
inline std::string assign(const std::string& to, const std::string& from) {
  return call("assign", {to, from});
}
inline std::string metadata(const std::string& name) { return field("standard_metadata", name); }

}  // namespace P4Test
