// The control socket with real sockets, in the test's own folder.
#include "forwarder/control/ControlSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "tests/support/TempDir.h"

namespace Forwarder {
namespace {

namespace fs = std::filesystem;

class ControlSocketTest : public testing::Test {
 protected:
  ControlSocket echo() {
    return ControlSocket(path_, [](std::string_view line) {
      if (line == "no") return Answer{false, "no means no"};
      if (line == "much") return Answer{true, std::string(10'000'000, 'x')};
      return Answer{true, std::string(line)};
    });
  }
  // Runs `work` in another thread while this one serves.
  template <typename Work>
  auto whileServing(ControlSocket& control, const Work& work) {
    auto result = std::async(std::launch::async, work);
    while (result.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      std::vector<pollfd> descriptors;
      control.pollDescriptors(descriptors);
      poll(descriptors.data(), descriptors.size(), 1);
      control.serve();
    }
    return result.get();
  }
  Answer ask(ControlSocket& control, const std::string& line) {
    return whileServing(control, [&] { return sendCommand(path_, line); });
  }
  int connectClient() {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return descriptor;
  }

  const TestSupport::TempDir folder_;
  const std::string directory_ = folder_.path();
  const std::string path_ = controlPath(directory_, "x");
};

TEST_F(ControlSocketTest, AnswersTextRefusalsAndMuch) {
  ControlSocket control = echo();
  control.maybeListen();
  EXPECT_EQ(ask(control, "hello").text, "hello");
  const Answer refusal = ask(control, "no");
  EXPECT_FALSE(refusal.ok);
  EXPECT_EQ(refusal.text, "no means no");
  EXPECT_FALSE(ask(control, std::string(100'000, 'a')).ok);
  EXPECT_EQ(ask(control, "much").text.size(), 10'000'000u);
}

TEST_F(ControlSocketTest, AnswersThatTakeLongHoldNobodyUpAndEndWithTheirClient) {
  const auto ready = std::make_shared<bool>(false);
  std::weak_ptr<bool> waiting;
  ControlSocket control(path_, [&](std::string_view line) {
    if (line == "now") return Answer{true, "at once"};
    const auto kept = std::make_shared<bool>(true);
    waiting = kept;
    Answer answer;
    answer.later = [ready, kept]() -> std::optional<Answer> {
      if (!*ready) return std::nullopt;
      return Answer{false, "in the end"};
    };
    return answer;
  });
  control.maybeListen();
  const int impatient = connectClient();
  ASSERT_EQ(send(impatient, "later\n", 6, MSG_NOSIGNAL), 6);
  EXPECT_EQ(ask(control, "now").text, "at once");
  EXPECT_FALSE(waiting.expired());
  close(impatient);
  EXPECT_EQ(ask(control, "now").text, "at once");
  EXPECT_TRUE(waiting.expired());
  std::thread patient([&] { EXPECT_EQ(sendCommand(path_, "later").text, "in the end"); });
  while (waiting.expired()) control.serve();
  *ready = true;
  whileServing(control, [&] {
    patient.join();
    return 0;
  });
}

TEST_F(ControlSocketTest, SleepingClientsHoldNobodyUp) {
  ControlSocket control = echo();
  control.maybeListen();
  std::vector<int> sleepers;
  for (int i = 0; i < 20; ++i) {
    sleepers.push_back(connectClient());
    const std::string line = i % 2 ? "much\n" : "half a li";
    ASSERT_EQ(send(sleepers.back(), line.data(), line.size(), MSG_NOSIGNAL), ssize_t(line.size()));
    control.serve();
  }
  EXPECT_EQ(ask(control, "hello").text, "hello");
  for (const int sleeper : sleepers) close(sleeper);
  EXPECT_EQ(ask(control, "again").text, "again");
}

TEST_F(ControlSocketTest, TakesNoLivingOnesPlace) {
  ControlSocket control = echo();
  control.maybeListen();
  EXPECT_EQ(ask(control, "hello").text, "hello");
  ControlSocket rival = echo();
  EXPECT_THROW(whileServing(control, [&] { rival.maybeListen(); }), ControlError);
  EXPECT_EQ(ask(control, "hello").text, "hello");
}

// A forwarder was started right after its predecessor had been killed, met the dying process's
// socket, and gave up.
TEST_F(ControlSocketTest, TakesThePlaceOfTheDying) {
  auto dying = std::make_unique<ControlSocket>(path_, [](std::string_view) { return Answer(); });
  dying->maybeListen();
  ControlSocket control = echo();
  auto taken = std::async(std::launch::async, [&] { control.maybeListen(); });
  std::vector<pollfd> descriptors;
  dying->pollDescriptors(descriptors);
  poll(descriptors.data(), descriptors.size(), -1);  // the newcomer has connected
  dying.reset();
  taken.get();
  EXPECT_EQ(ask(control, "hello").text, "hello");
}

TEST_F(ControlSocketTest, FollowsItsDirectoryAsItComesAndGoes) {
  fs::remove_all(directory_);
  ControlSocket control = echo();
  control.maybeListen();
  EXPECT_FALSE(control.listening());
  for (int life = 0; life < 2; ++life) {
    fs::create_directory(directory_);
    control.maybeListen();
    ASSERT_TRUE(control.listening());
    EXPECT_EQ(ask(control, "hello").text, "hello");
    fs::remove_all(directory_);
  }
}

}  // namespace
}  // namespace Forwarder
