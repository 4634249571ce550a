// An HTTP/2 client that lets the server send it no byte of an answer: it opens no window, and goes
// on saying that it lives.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

class WindowlessClient {
 public:
  explicit WindowlessClient(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string noWindow("\0\4\0\0\0\0", 6);
    send("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(kSettings, 0, 0, noWindow));
    reader_ = std::thread([this] {
      while (read()) {
      }
    });
  }
  ~WindowlessClient() {
    shutdown(socket_, SHUT_RDWR);
    reader_.join();
    close(socket_);
  }
  WindowlessClient(const WindowlessClient&) = delete;
  WindowlessClient& operator=(const WindowlessClient&) = delete;

  // Makes a call with an empty request.
  void call(const std::string& method) {
    const std::string headers = field(":method", "POST") + field(":scheme", "http") +
                                field(":path", "/p4.v1.P4Runtime/" + method) +
                                field(":authority", "x") + field("te", "trailers") +
                                field("content-type", "application/grpc");
    send(frame(kHeaders, 4, nextCall_, headers) + frame(kData, 1, nextCall_, std::string(5, '\0')));
    nextCall_ += 2;
  }
  // Waits until so many calls have ended, by an error or by a reset.
  void awaitEnds(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ends_ >= count || hungUp_; });
    EXPECT_FALSE(hungUp_);
  }
  int ends() {
    const std::lock_guard lock(mutex_);
    return ends_;
  }

 private:
  enum Type : uint8_t { kData = 0, kHeaders = 1, kReset = 3, kSettings = 4, kPing = 6 };

  static std::string frame(Type type, uint8_t flags, uint32_t call, const std::string& payload) {
    const uint32_t length = htonl(static_cast<uint32_t>(payload.size()) << 8);
    const uint32_t stream = htonl(call);
    std::string bytes(reinterpret_cast<const char*>(&length), 3);
    bytes += {static_cast<char>(type), static_cast<char>(flags)};
    return bytes.append(reinterpret_cast<const char*>(&stream), 4) + payload;
  }
  static std::string field(const std::string& name, const std::string& value) {
    return std::string(1, '\0') + static_cast<char>(name.size()) + name +
           static_cast<char>(value.size()) + value;
  }
  // A frame; false: the server has hung up.
  bool read() {
    const std::string head = received(9);
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(head[at]); };
    const bool hasCome = head.size() == 9;
    const std::string payload =
        hasCome ? received(size_t{byte(0)} << 16 | size_t{byte(1)} << 8 | byte(2)) : "";
    if (hasCome && byte(3) == kPing && !(byte(4) & 1)) send(frame(kPing, 1, 0, payload));
    const std::lock_guard lock(mutex_);
    if (hasCome && (byte(3) == kReset || (byte(3) == kHeaders && (byte(4) & 1)))) ++ends_;
    hungUp_ = !hasCome;
    changed_.notify_all();
    return hasCome;
  }
  void send(const std::string& bytes) const {
    EXPECT_EQ(::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  std::string received(size_t size) const {
    std::string bytes(size, '\0');
    const ssize_t got = recv(socket_, bytes.data(), size, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return bytes;
  }

  const int socket_;
  uint32_t nextCall_ = 1;
  std::mutex mutex_;
  std::condition_variable changed_;
  int ends_ = 0;
  bool hungUp_ = false;
  std::thread reader_;
};
