#include "tests/helper/ike/ViciServer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace helper::testing {

using vici::Packet;
using vici::PacketType;
using vici::Section;

ViciServer::ViciServer(std::string path)
    : path_(std::move(path)),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      wake_(::eventfd(0, EFD_CLOEXEC)),
      heard_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);
  ::unlink(path_.c_str());
  EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener_.get(), 8), 0);
  thread_ = std::thread([this] { serve(); });
}

ViciServer::~ViciServer() {
  EXPECT_EQ(::eventfd_write(wake_.get(), 1), 0);
  thread_.join();
  ::unlink(path_.c_str());
}

void ViciServer::answer(const std::string &command, Answer answer) {
  const std::lock_guard lock(mutex_);
  answers_[command] = std::move(answer);
}

void ViciServer::answer(const std::string &command, Section section) {
  answer(
      command,
      [section = std::move(section)](const Section &) {
        return std::vector<Packet>{{PacketType::response, "", section}};
      });
}

void ViciServer::stayOpen(const std::string &command) {
  answer(
      command, [](const Section &) { return std::vector<Packet>(); });
}

void ViciServer::say(const std::string &event, const Section &section) {
  const std::lock_guard lock(mutex_);
  for (const auto &client : clients_)
    if (std::find(client->events.begin(), client->events.end(), event) != client->events.end())
      send(*client, {PacketType::event, event, section});
}

void ViciServer::sendBytes(const std::vector<std::uint8_t> &bytes) {
  const std::lock_guard lock(mutex_);
  for (const auto &client : clients_) ::send(client->socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void ViciServer::finish(const std::string &command, Section section) {
  const std::lock_guard lock(mutex_);
  const auto waiting =
      std::find_if(clients_.begin(), clients_.end(), [&](const auto &client) { return client->open == command; });
  ASSERT_NE(waiting, clients_.end()) << command;
  (*waiting)->open.clear();
  send(**waiting, {PacketType::response, "", std::move(section)});
}

void ViciServer::hangUp() {
  const std::lock_guard lock(mutex_);
  for (const auto &client : clients_) ::shutdown(client->socket.get(), SHUT_RDWR);
}

std::vector<std::string> ViciServer::asked() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto &[name, message] : asked_) names.push_back(name);
  return names;
}

void ViciServer::waitFor(const std::string &command) const {
  std::unique_lock lock(mutex_);
  EXPECT_TRUE(wasAsked_.wait_for(lock, std::chrono::seconds(20), [&] {
    return std::any_of(asked_.begin(), asked_.end(), [&](const auto &request) { return request.first == command; });
  })) << command;
}

Section ViciServer::request(const std::string &command) const {
  const std::lock_guard lock(mutex_);
  const auto found =
      std::find_if(asked_.rbegin(), asked_.rend(), [&](const auto &request) { return request.first == command; });
  return found == asked_.rend() ? Section() : found->second;
}

void ViciServer::serve() {
  while (true) {
    std::vector<pollfd> ready{{wake_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
    {
      const std::lock_guard lock(mutex_);
      for (const auto &client : clients_) ready.push_back({client->socket.get(), POLLIN, 0});
    }
    if (::poll(ready.data(), ready.size(), -1) < 0) return;
    const std::lock_guard lock(mutex_);
    if (ready[0].revents != 0) return;
    for (std::size_t index = ready.size(); index-- > 2;)
      if (ready[index].revents != 0) read(*clients_[index - 2]);
    std::erase_if(clients_, [](const auto &client) { return !client->socket; });
    if (ready[1].revents != 0) {
      clients_.push_back(std::make_unique<Client>());
      clients_.back()->socket.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
  }
}

void ViciServer::read(Client &client) {
  std::array<std::uint8_t, 4096> bytes{};
  const ssize_t count = ::recv(client.socket.get(), bytes.data(), bytes.size(), 0);
  if (count <= 0) return client.socket.reset();
  client.reader.append(std::span(bytes).first(static_cast<std::size_t>(count)));
  while (true) {
    const auto packet = client.reader.next();
    ASSERT_TRUE(packet) << packet.error().message;
    if (!packet->has_value()) return;
    handle(client, **packet);
  }
}

void ViciServer::handle(Client &client, const Packet &packet) {
  EXPECT_EQ(client.open, "") << "a request before the one before is answered";
  if (packet.type == PacketType::registerEvent) {
    asked_.emplace_back("+" + packet.name, Section());
    client.events.push_back(packet.name);
    return send(client, {PacketType::confirmation, "", {}});
  }
  EXPECT_EQ(packet.type, PacketType::request);
  asked_.emplace_back(packet.name, packet.message);
  wasAsked_.notify_all();
  ::eventfd_write(heard_.get(), 1);
  const auto known = answers_.find(packet.name);
  if (known == answers_.end()) return send(client, {PacketType::unknownCommand, "", {}});
  const auto answer = known->second(packet.message);
  if (answer.empty()) client.open = packet.name;
  for (const Packet &part : answer) send(client, part);
}

void ViciServer::send(const Client &client, const Packet &packet) {
  const auto bytes = vici::encode(packet);
  ASSERT_TRUE(bytes);
  ::send(client.socket.get(), bytes->bytes().data(), bytes->size(), MSG_NOSIGNAL);
}

}  // namespace helper::testing
