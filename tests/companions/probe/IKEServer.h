// An IKE server on loopback, for one UDP port: what it answers a datagram with is a script's business.

#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "companions/probe/IKESocket.h"
#include "helper/isakmp/Notification.h"
#include "helper/isakmp/Sealing.h"
#include "helper/isakmp/Transforms.h"
#include "helper/isakmp/VendorIDs.h"

namespace support {

using helper::isakmp::Bytes;
using helper::isakmp::View;

class IKEServer {
 public:
  using Script = std::function<std::vector<Bytes>(View message)>;

  // PREPARE runs on the server's thread before its socket is made.
  explicit IKEServer(
      Script script, bool marked = false, std::uint32_t address = INADDR_LOOPBACK,
      const std::function<void()> &prepare = [] {})
      : script_(std::move(script)), stop_(::eventfd(0, EFD_CLOEXEC)) {
    end_.marked = marked;
    end_.address.sin_family = AF_INET;
    end_.address.sin_addr.s_addr = htonl(address);
    std::atomic<bool> ready{false};
    thread_ = std::thread([&, prepare] {
      prepare();
      open();
      ready = true;
      ready.notify_one();
      serve();
    });
    ready.wait(false);
  }
  IKEServer(const IKEServer &) = delete;
  IKEServer &operator=(const IKEServer &) = delete;
  ~IKEServer() {
    EXPECT_EQ(::eventfd_write(stop_.get(), 1), 0);
    thread_.join();
  }

  const companions::IKEEnd &end() const { return end_; }
  int received() const { return received_; }

  static Bytes answer(View message, helper::isakmp::ExchangeType exchange,
                      const helper::isakmp::PayloadWriter &payloads) {
    helper::isakmp::Header header = helper::isakmp::decodeHeader(message).value();
    header.cookies.responder = {1, 2, 3, 4, 5, 6, 7, 8};
    header.exchange = exchange;
    return helper::isakmp::plainMessage(header, payloads);
  }
  // What is proposed in MESSAGE.
  static helper::isakmp::SecurityAssociation offerIn(View message) {
    const auto header = helper::isakmp::decodeHeader(message).value();
    const auto chain = helper::isakmp::openPlain(header, message).value();
    return helper::isakmp::decodeSecurityAssociation(*chain.find(helper::isakmp::PayloadType::securityAssociation))
        .value();
  }
  // Of a server that takes what is in OURS; empty when nothing of it is proposed.
  static std::vector<Bytes> choose(View message, const std::vector<helper::isakmp::IKEProposal> &ours,
                                   const std::vector<View> &vendorIDs = {}) {
    const auto agreed = helper::isakmp::choose(offerIn(message), ours);
    if (!agreed) return {};
    helper::isakmp::PayloadWriter payloads;
    payloads.add(helper::isakmp::PayloadType::securityAssociation, encode(agreed->answer));
    for (const View id : vendorIDs) payloads.add(helper::isakmp::PayloadType::vendorID, id);
    return {answer(message, helper::isakmp::ExchangeType::main, payloads)};
  }
  static std::vector<Bytes> refuse(View message,
                                   std::uint16_t notification = helper::isakmp::notify::kNoProposalChosen) {
    helper::isakmp::PayloadWriter payloads;
    payloads.add(helper::isakmp::PayloadType::notification,
                 encode(helper::isakmp::Notification{.type = notification, .spi = {}, .data = {}}));
    return {answer(message, helper::isakmp::ExchangeType::informational, payloads)};
  }

 private:
  void open() {
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    socklen_t size = sizeof end_.address;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr *>(&end_.address), size), 0);
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&end_.address), &size), 0);
  }
  void serve() {
    for (;;) {
      std::array<pollfd, 2> wanted{pollfd{socket_.get(), POLLIN, 0}, pollfd{stop_.get(), POLLIN, 0}};
      if (::poll(wanted.data(), wanted.size(), -1) < 0 || wanted[1].revents != 0) return;
      serveOne();
    }
  }
  void serveOne() {
    std::array<std::uint8_t, 65536> buffer{};
    sockaddr_in client{};
    socklen_t size = sizeof client;
    const ssize_t count =
        ::recvfrom(socket_.get(), buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&client), &size);
    if (count <= 0) return;
    ++received_;
    const View datagram = View(buffer).first(static_cast<std::size_t>(count));
    if (end_.marked) EXPECT_TRUE(helper::isakmp::sameBytes(datagram.first(4), Bytes(4, 0)));
    for (const Bytes &message : script_(end_.marked ? datagram.subspan(4) : datagram)) {
      Bytes reply(end_.marked ? 4 : 0, 0);
      helper::isakmp::append(reply, message);
      EXPECT_EQ(::sendto(socket_.get(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&client), size),
                static_cast<ssize_t>(reply.size()));
    }
  }

  Script script_;
  vpnctl::FileDescriptor stop_;
  vpnctl::FileDescriptor socket_;
  companions::IKEEnd end_;
  std::atomic<int> received_{0};
  std::thread thread_;
};

}  // namespace support
