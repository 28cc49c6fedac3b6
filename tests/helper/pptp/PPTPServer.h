// A PPTP server for one control connection, as a script tells it to behave.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <optional>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/pptp/PPTPMessages.h"

namespace helper::testing {

inline constexpr std::uint16_t kOurCall = 4711;
inline constexpr std::uint16_t kServerCall = 815;

// The other end of one control connection, played by a script on a thread of its own over blocking calls.
class PPTPServer {
 public:
  PPTPServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address_), size), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    EXPECT_EQ(::getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address_), &size), 0);
  }
  ~PPTPServer() { join(); }
  // Waits for the end of the script.
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  const sockaddr_in &address() const { return address_; }
  // From now on a connection is refused. The port is taken again at once, so that no other test gets it and answers.
  void stopListening() {
    listener_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address_), sizeof address_), 0);
  }
  void play(std::function<void(PPTPServer &)> script) {
    thread_ = std::thread([this, script = std::move(script)] {
      connection_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      script(*this);
      connection_.reset();
    });
  }

  // For scripts.
  std::optional<pptp::Message> receive() {
    while (true) {
      auto message = reader_.next();
      EXPECT_TRUE(message);
      if (!message) return std::nullopt;
      if (message->has_value()) return **message;
      std::array<std::uint8_t, 512> bytes{};
      const ssize_t count = ::recv(connection_.get(), bytes.data(), bytes.size(), 0);
      if (count <= 0) return std::nullopt;
      reader_.append(std::span(bytes).first(static_cast<std::size_t>(count)));
    }
  }
  template <class M>
  M expect() {
    const auto message = receive();
    EXPECT_TRUE(message && std::holds_alternative<M>(*message));
    return message && std::holds_alternative<M>(*message) ? std::get<M>(*message) : M{};
  }
  void send(const pptp::Message &message) { sendBytes(pptp::encode(message)); }
  void sendBytes(const std::vector<std::uint8_t> &bytes) {
    EXPECT_EQ(::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  // Asks until the client is gone, and never reads an answer.
  void askWithoutReading() {
    std::vector<std::uint8_t> questions;
    const auto question = pptp::encode(pptp::EchoRequest{1});
    for (int i = 0; i < 1000; ++i) questions.insert(questions.end(), question.begin(), question.end());
    while (::send(connection_.get(), questions.data(), questions.size(), MSG_NOSIGNAL) > 0) {
    }
  }
  void untilClosed() {
    while (receive()) {
    }
  }
  void answerStart() {
    expect<pptp::StartRequest>();
    send(pptp::StartReply{});
  }
  void answerCall() {
    answerStart();
    EXPECT_EQ(expect<pptp::OutgoingCallRequest>().callID, kOurCall);
    send(pptp::OutgoingCallReply{kServerCall, kOurCall});
    EXPECT_EQ(expect<pptp::SetLinkInfo>().peerCallID, kServerCall);
  }

 private:
  vpnctl::FileDescriptor listener_;
  vpnctl::FileDescriptor connection_;
  sockaddr_in address_{};
  pptp::MessageReader reader_;
  std::thread thread_;
};

}  // namespace helper::testing
