// The other end of one L2TP control connection, played by a script on a thread of its own over blocking calls.

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "foundation/FileDescriptor.h"
#include "helper/l2tp/L2TPMessages.h"

namespace helper::testing {

class L2TPServer {
 public:
  static constexpr std::uint16_t kTunnel = 815;
  static constexpr std::uint16_t kSession = 42;

  L2TPServer() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), finished_(::eventfd(0, EFD_CLOEXEC)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr *>(&address_), size), 0);
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address_), &size), 0);
    const timeval patience{20, 0};  // a script that waits for ever fails instead
    EXPECT_EQ(setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
  }
  L2TPServer(const L2TPServer &) = delete;
  L2TPServer &operator=(const L2TPServer &) = delete;
  ~L2TPServer() { join(); }
  // Waits for the end of the script.
  void join() {
    if (thread_.joinable()) thread_.join();
  }

  const sockaddr_in &address() const { return address_; }
  // From now on what comes here is refused. The port stays taken, so that no other test gets it and answers: a socket
  // that is connected elsewhere hears nobody.
  void stopListening() {
    sockaddr_in elsewhere = address_;
    elsewhere.sin_port = htons(9);
    EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<sockaddr *>(&elsewhere), sizeof elsewhere), 0);
  }
  void play(std::function<void(L2TPServer &)> script) {
    thread_ = std::thread([this, script = std::move(script)] {
      script(*this);
      EXPECT_EQ(eventfd_write(finished_.get(), 1), 0);
    });
  }
  // Can be read from when the script is at its end: for a client's loop that must run as long as the script does.
  int finished() const { return finished_.get(); }
  // True when something has arrived that no script has taken.
  bool heardAnything() const {
    std::uint8_t byte = 0;
    return ::recv(socket_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0;
  }

  // Throws away what a client on a busy machine has said twice.
  void forget() const {
    while (heardAnything()) {
      std::uint8_t byte = 0;
      EXPECT_GE(::recv(socket_.get(), &byte, 1, MSG_DONTWAIT), 0);
    }
  }

  // For scripts: the next message, whatever acknowledgements and repetitions come between.
  std::optional<l2tp::Message> receive() {
    while (const auto body = receivePacket()) {
      if (body->empty() || header_.ns != nr_) continue;
      ++nr_;
      auto message = l2tp::decodeBody(*body);
      EXPECT_TRUE(message);
      return message ? std::optional(*message) : std::nullopt;
    }
    return std::nullopt;
  }
  template <class M>
  M expect() {
    const auto message = receive();
    EXPECT_TRUE(message && std::holds_alternative<M>(*message))
        << "message of index " << (message ? static_cast<int>(message->index()) : -1);
    return message && std::holds_alternative<M>(*message) ? std::get<M>(*message) : M{};
  }
  // True when the last message comes again.
  bool awaitRepetition() {
    while (const auto body = receivePacket())
      if (!body->empty() && header_.ns == static_cast<std::uint16_t>(nr_ - 1)) return true;
    return false;
  }
  // Of what was received last.
  const l2tp::Header &header() const { return header_; }

  void send(const l2tp::Message &message, std::uint16_t session = 0) { sendBody(l2tp::encodeBody(message), session); }
  void sendBody(const std::vector<std::uint8_t> &body, std::uint16_t session = 0) {
    auto datagram = l2tp::encode(l2tp::Header{clientTunnel_, session, ns_, nr_}, body);
    sendDatagram(datagram);
    if (body.empty()) return;
    ++ns_;
    lastMessage_ = std::move(datagram);
  }
  // As if the last message had not arrived yet.
  void sendBefore(const l2tp::Message &message, std::uint16_t session = 0) {
    --nr_;
    send(message, session);
    ++nr_;
  }
  void acknowledge() { sendBody({}); }
  // The last message again, as if its acknowledgement had been lost.
  void repeat() { sendDatagram(lastMessage_); }
  // True when the client acknowledges everything that was sent so far.
  bool awaitAcknowledgement() {
    while (header_.nr != ns_)
      if (!receivePacket()) return false;
    header_.nr = static_cast<std::uint16_t>(ns_ + 1);  // each counts once
    return true;
  }
  void sendDatagram(const std::vector<std::uint8_t> &bytes) {
    EXPECT_EQ(::sendto(socket_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&client_),
                       sizeof client_),
              static_cast<ssize_t>(bytes.size()));
  }

  l2tp::SCCRQ expectStart() {
    const auto request = expect<l2tp::SCCRQ>();
    clientTunnel_ = request.tunnelID;
    return request;
  }
  void answerStart() {
    expectStart();
    l2tp::SCCRP reply;
    reply.tunnelID = kTunnel;
    send(reply);
    expect<l2tp::SCCCN>();
    EXPECT_EQ(header_.tunnelID, kTunnel);
    clientSession_ = expect<l2tp::ICRQ>().sessionID;
  }
  void answerCall() {
    answerStart();
    send(l2tp::ICRP{kSession}, clientSession_);
    expect<l2tp::ICCN>();
    EXPECT_EQ(header_.sessionID, kSession);
    acknowledge();
  }
  // The usual end, acknowledged.
  void hearGoodbye() {
    EXPECT_EQ(expect<l2tp::StopCCN>().tunnelID, clientTunnel_);
    acknowledge();
  }
  // The next client begins from the beginning.
  void awaitNextClient() { ns_ = nr_ = 0; }
  std::uint16_t clientPort() const { return ntohs(client_.sin_port); }
  std::uint16_t clientTunnel() const { return clientTunnel_; }
  std::uint16_t clientSession() const { return clientSession_; }

 private:
  // The body of the next datagram; its header is kept.
  std::optional<std::vector<std::uint8_t>> receivePacket() {
    std::array<std::uint8_t, 2048> bytes{};
    socklen_t size = sizeof client_;
    const ssize_t count =
        ::recvfrom(socket_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&client_), &size);
    EXPECT_GT(count, 0) << "the client said nothing";
    if (count <= 0) return std::nullopt;
    const auto packet = l2tp::decodePacket(std::span(bytes).first(static_cast<std::size_t>(count)));
    EXPECT_TRUE(packet);
    if (!packet) return std::nullopt;
    header_ = packet->header;
    return std::vector<std::uint8_t>(packet->body.begin(), packet->body.end());
  }

  vpnctl::FileDescriptor socket_;
  vpnctl::FileDescriptor finished_;
  sockaddr_in address_{};
  sockaddr_in client_{};
  l2tp::Header header_;
  std::uint16_t clientTunnel_ = 0;
  std::uint16_t clientSession_ = 0;
  std::uint16_t ns_ = 0;
  std::uint16_t nr_ = 0;
  std::vector<std::uint8_t> lastMessage_;
  std::thread thread_;
};

}  // namespace helper::testing
