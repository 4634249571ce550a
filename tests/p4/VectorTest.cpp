// Replays recorded packets: every frame, packet-in, digest and counter as recorded, byte for byte.
// The vectors stand beside the tree; without them, nothing is tested.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "p4/TraceText.h"
#include "tests/p4/VectorFile.h"

namespace P4Test {
namespace {

std::string decoded(const std::string& base64) {
  const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  uint32_t held = 0;
  int bits = 0;
  for (const char digit : base64) {
    const size_t value = digits.find(digit);
    if (value == std::string::npos) break;
    held = held << 6 | static_cast<uint32_t>(value);
    if ((bits += 6) < 8) continue;
    bits -= 8;
    bytes += static_cast<char>(held >> bits);
  }
  return bytes;
}

// Bytes that nobody can foretell are blanked.
std::string masked(std::string hex, const cJSON* wanted) {
  for (const cJSON* hole =
           cJSON_GetObjectItem(wanted, "any") ? cJSON_GetObjectItem(wanted, "any")->child : nullptr;
       hole; hole = hole->next) {
    const size_t at = 2 * static_cast<size_t>(cJSON_GetArrayItem(hole, 0)->valuedouble);
    const size_t count = 2 * static_cast<size_t>(cJSON_GetArrayItem(hole, 1)->valuedouble);
    for (size_t i = at; i < at + count && i < hex.size(); ++i) hex[i] = '0';
  }
  return hex;
}

struct Result {
  size_t inputs = 0, wrong = 0;
};

class Replay {
 public:
  explicit Replay(const std::string& name)
      : file_(KORVEL_VECTORS, KORVEL_PROGRAMS, name), trace_(file_.engine().program()) {
    file_.engine().traceIs(&trace_);
  }

  Result run() {
    for (Json json = file_.next(); json; json = file_.next()) step(*json);
    endInput();
    return result_;
  }

 private:
  void step(const cJSON& json) {
    const cJSON* first = json.child;
    const std::string kind = first->string;
    if (kind == "write") {
      endInput();
      file_.write(*first);
    } else if (kind == "packet") {
      endInput();
      input_ = stringOf(first, "hex");
      send(numberOf(first, "port"), bytesOf(input_));
    } else if (kind == "packet_out") {
      endInput();
      p4::v1::PacketOut packet;
      packet.ParseFromString(decoded(first->valuestring));
      input_ = first->valuestring;
      send(file_.cpuPort(), file_.controller().packetOut(packet));
    } else if (kind == "expect") {
      expect(*first);
    } else if (kind == "expect_in") {
      expectIn(*first);
    } else if (kind == "expect_digest") {
      expectDigest(*first);
    } else if (kind == "counters") {
      endInput();
      expectCounters(*first);
    }
  }

  // The kernel of the recording machine took VLAN tags out of frames, and lost those too short for
  // that.
  static bool lostOnWire(std::span<const uint8_t> frame) {
    if (frame.size() < 14) return true;
    const int type = frame[12] << 8 | frame[13];
    return (type == 0x8100 || type == 0x88a8) && frame.size() < 20;
  }

  void send(uint32_t port, const std::string& frame) {
    outputs_.clear();
    trace_.clear();
    now_ += 1000;
    file_.engine().process(port, {reinterpret_cast<const uint8_t*>(frame.data()), frame.size()},
                           now_, outputs_);
    file_.engine().digestsDue(now_ + 10000000, outputs_.digests);
    for (size_t i = 0; i < outputs_.size(); ++i) {
      const P4::Outputs::Frame out = outputs_.frame(i);
      const std::string bytes(out.bytes.begin(), out.bytes.end());
      if (out.port == file_.cpuPort()) {
        ins_.push_back(file_.controller().packetIn(bytes));
      } else if (file_.hasPort(out.port) && !lostOnWire(out.bytes)) {
        frames_.push_back({out.port, hexOf(bytes)});
      }
    }
    for (const P4::DigestList& list : outputs_.digests)
      for (const std::string& sample : list.samples)
        digests_.push_back({file_.controller().digestId(list.learnList),
                            file_.controller().fieldsOf(list, sample)});
    ++result_.inputs;
  }

  void expect(const cJSON& wanted) {
    for (const cJSON* one = wanted.child; one; one = one->next) {
      const auto found = std::find_if(frames_.begin(), frames_.end(), [&](const auto& frame) {
        return frame.first == numberOf(one, "port") &&
               masked(frame.second, one) == masked(stringOf(one, "hex"), one);
      });
      if (found != frames_.end())
        frames_.erase(found);
      else
        fail("missing: port " + std::to_string(numberOf(one, "port")) + " " + stringOf(one, "hex"));
    }
  }

  void expectIn(const cJSON& wanted) {
    for (const cJSON* one = wanted.child; one; one = one->next) {
      std::map<std::string, std::string> metadata;
      for (const cJSON* field = cJSON_GetObjectItem(one, "metadata")->child; field;
           field = field->next)
        metadata[field->string] = field->valuestring;
      const auto found =
          std::find_if(ins_.begin(), ins_.end(), [&](const Controller::PacketIn& in) {
            return in.metadata == metadata &&
                   masked(hexOf(in.payload), one) == masked(stringOf(one, "payload"), one);
          });
      if (found != ins_.end())
        ins_.erase(found);
      else
        fail("missing packet-in: " + stringOf(one, "payload"));
    }
  }

  static void flatten(const cJSON& data, std::vector<std::string>& fields) {
    if (cJSON_IsString(&data)) return fields.push_back(data.valuestring);
    for (const cJSON* one = data.child; one; one = one->next) flatten(*one, fields);
  }

  void expectDigest(const cJSON& wanted) {
    for (const cJSON* one = wanted.child; one; one = one->next) {
      std::pair<uint32_t, std::vector<std::string>> digest{numberOf(one, "digest"), {}};
      flatten(*cJSON_GetObjectItem(one, "data"), digest.second);
      const auto found = std::find(digests_.begin(), digests_.end(), digest);
      if (found != digests_.end())
        digests_.erase(found);
      else
        fail("missing digest");
    }
  }

  void expectCounters(const cJSON& wanted) {
    std::map<std::string, P4::Counts> counts;
    for (const cJSON* one = wanted.child; one; one = one->next)
      counts[one->string] = {static_cast<uint64_t>(cJSON_GetArrayItem(one, 0)->valuedouble),
                             static_cast<uint64_t>(cJSON_GetArrayItem(one, 1)->valuedouble)};
    EXPECT_EQ(file_.controller().counters(), counts);
  }

  // What has come out and was not expected is wrong, too.
  void endInput() {
    for (const auto& [port, hex] : frames_)
      fail("unexpected: port " + std::to_string(port) + " " + hex);
    for (const Controller::PacketIn& in : ins_) fail("unexpected packet-in: " + hexOf(in.payload));
    if (!digests_.empty()) fail("unexpected digest");
    frames_.clear();
    ins_.clear();
    digests_.clear();
    result_.wrong += failed_;
    failed_ = false;
  }

  void fail(const std::string& what) {
    failed_ = true;
    if (result_.wrong < 3)
      ADD_FAILURE() << "input " << result_.inputs << " " << input_ << "\n"
                    << what << "\n"
                    << trace_.text();
  }

  VectorFile file_;
  P4::TraceText trace_;
  uint64_t now_ = 0;
  P4::Outputs outputs_;
  std::string input_;
  std::vector<std::pair<uint32_t, std::string>> frames_;
  std::vector<Controller::PacketIn> ins_;
  std::vector<std::pair<uint32_t, std::vector<std::string>>> digests_;
  bool failed_ = false;
  Result result_;
};

std::vector<std::string> vectorNames() {
  std::vector<std::string> names;
  std::error_code none;
  for (const auto& file : std::filesystem::directory_iterator(KORVEL_VECTORS, none))
    if (file.path().extension() == ".jsonl") names.push_back(file.path().stem());
  std::sort(names.begin(), names.end());
  return names;
}

class VectorTest : public testing::TestWithParam<std::string> {};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(VectorTest);

TEST_P(VectorTest, AllAsRecorded) {
  Replay replay(GetParam());
  const Result result = replay.run();
  EXPECT_EQ(result.wrong, 0u) << "of " << result.inputs << " inputs";
  RecordProperty("inputs", static_cast<int>(result.inputs));
  std::printf("%s: %zu of %zu inputs as recorded\n", GetParam().c_str(),
              result.inputs - result.wrong, result.inputs);
}

INSTANTIATE_TEST_SUITE_P(Recorded, VectorTest, testing::ValuesIn(vectorNames()),
                         [](const auto& info) {
                           std::string name = info.param;
                           std::replace_if(
                               name.begin(), name.end(),
                               [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); },
                               '_');
                           return name;
                         });

}  // namespace
}  // namespace P4Test
