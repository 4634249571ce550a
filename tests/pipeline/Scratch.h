// A P4Info from its text form, files in a folder of the test's own, and findings as text.
#pragma once

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/Finding.h"
#include "tests/support/TempDir.h"

inline p4::config::v1::P4Info p4InfoOf(const std::string& text) {
  p4::config::v1::P4Info p4Info;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &p4Info)) << text;
  return p4Info;
}

inline std::string textOf(const Pipeline::Findings& findings) {
  std::string text;
  for (const Pipeline::Finding& finding : findings.list())
    text += Pipeline::findingText(finding) + '\n';
  return text;
}

class ScratchTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder_.file(name); }
  std::string written(const std::string& name, const std::string& contents) const {
    std::ofstream(path(name), std::ios::binary) << contents;
    return path(name);
  }
  static std::string contents(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
  }
  // The line that `job` refuses with; "" when it does not.
  template <typename Job>
  static std::string refusal(Job job) {
    try {
      job();
    } catch (const Pipeline::PipelineError& e) {
      return e.what();
    }
    return "";
  }

 private:
  const TestSupport::TempDir folder_;
};
